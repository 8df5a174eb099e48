// SlotFile: the cache file of a sparse store, cut into 64 KiB slots, with
// the queue of free slots, appending at its end and compaction.
//
// A slot holds one sector's bytes; which sector is the sector table's
// business, not this file's. Free slots are kept oldest-freed first: a slot
// taken from the front is the one freed longest ago. Every transfer is
// positioned I/O on the stream's descriptor (ReadAt / WriteAt), so no thread
// depends on the stream position.
//
// Threads and locks: ReadonlyCache keeps it under its `lock`. Reading the
// stream's bytes needs that lock shared or exclusive; everything that
// changes the free-slot queue, the stream or the file's size needs it
// exclusive. Size alone takes only the leaf `fileLock`, so it may be called
// with or without the owner's lock: the stream is replaced only with both
// held.
#ifndef CACHE_SLOT_FILE_H_
#define CACHE_SLOT_FILE_H_

#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace cache {

class SlotFile {
  public:
    // A sector that keeps its slot, for compaction.
    struct SlotUse {
        long long key;     // sector offset
        long long offset;  // slot in the cache file
    };

    SlotFile() = default;
    SlotFile(const SlotFile&) = delete;
    SlotFile& operator=(const SlotFile&) = delete;

    // Adopts `stream` (may be null). REQUIRES: no stream open.
    void Adopt(FILE* stream);
    // Closes the stream and forgets the free slots. REQUIRES: open.
    void Close();
    bool IsOpen() const { return file != nullptr; }
    FILE* Stream() const { return file; }

    // The file's size, 0 when closed. Takes `fileLock`.
    long long Size();
    // Where a new slot is appended: the file's size rounded up to a whole
    // slot, so that no slot overlaps a short one before it (the file may end
    // mid-slot after a host write, a conversion or a truncation); -1 when a
    // slot there would end past kOffsetLimit.
    long long AppendOffset();
    // The free space of the file's file system plus the blocks the file holds
    // (LLONG_MAX when that cannot be told). REQUIRES: open.
    long long DiskRoom();
    // Sets the file's size: 0, or the errno of the failure (EINVAL past
    // kOffsetLimit). REQUIRES: open.
    int Truncate(long long size);

    // The front of the free-slot queue (removed), or -1 when it is empty.
    long long TakeFree();
    // The front of the free-slot queue, left in place, or -1.
    long long PeekFree() const { return emptySlots.empty() ? -1 : emptySlots.front(); }
    // Queues `slot` as free, behind every slot freed before.
    void Free(long long slot) { emptySlots.push_back(slot); }
    bool HasFree() const { return !emptySlots.empty(); }

    // Moves the sectors of the highest slots down into the lowest free
    // slots, for as long as that moves data downwards, and calls `moved`
    // with each sector's key and new slot. The whole slot moves, so no byte
    // of it is lost; a sector whose copy fails keeps its slot and stops the
    // compaction. REQUIRES: open.
    void Compact(std::vector<SlotUse> kept,
                 const std::function<void(long long key, long long slot)>& moved);
    // Drops the free slots that end the file, shrinking it to the lowest of
    // them, and forgets free slots past its end. 0, or the errno of a
    // failed truncation. REQUIRES: open.
    int TrimFreeTail();

  private:
    // Replaced only with both the owner's lock and this one held.
    std::mutex fileLock;
    FILE* file = nullptr;
    std::deque<long long> emptySlots;
};

}  // namespace cache

#endif  // CACHE_SLOT_FILE_H_
