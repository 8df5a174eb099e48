#include "cache/slot_file.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "cache/file_io.h"

namespace cache {

void SlotFile::Adopt(FILE* stream) {
    std::lock_guard<std::mutex> guard(fileLock);
    file = stream;
}

void SlotFile::Close() {
    {
        std::lock_guard<std::mutex> guard(fileLock);
        CloseHandle(file);
        file = nullptr;
    }
    emptySlots.clear();
}

long long SlotFile::Size() {
    std::lock_guard<std::mutex> guard(fileLock);
    return StreamSize(file);
}

long long SlotFile::AppendOffset() {
    const long long size = Size();
    // Every slot ends within the range of offsets.
    if (size > kOffsetLimit - kSectorSize) return -1;
    return SectorCeil(size);
}

long long SlotFile::DiskRoom() {
    struct statvfs disk;
    struct stat info;
    if (fstatvfs(fileno(file), &disk) != 0 || fstat(fileno(file), &info) != 0) return LLONG_MAX;
    const unsigned long long freeBytes =
        static_cast<unsigned long long>(disk.f_bavail) * disk.f_frsize;
    // The blocks the file occupies, not its length: a truncated cache file
    // is sparse, and its length says nothing of what the disk holds.
    const long long heldBytes = static_cast<long long>(info.st_blocks) * 512;
    return SaturatingAdd(static_cast<long long>(std::min<unsigned long long>(freeBytes, LLONG_MAX)),
                         heldBytes);
}

int SlotFile::Truncate(long long size) {
    // A size past the range of offsets would leave no slot a valid place.
    if (size > kOffsetLimit) return EINVAL;
    return ftruncate(fileno(file), size) != 0 ? errno : 0;
}

long long SlotFile::TakeFree() {
    if (emptySlots.empty()) return -1;
    const long long slot = emptySlots.front();
    emptySlots.pop_front();
    return slot;
}

void SlotFile::Compact(std::vector<SlotUse> kept,
                       const std::function<void(long long key, long long slot)>& moved) {
    std::sort(emptySlots.begin(), emptySlots.end());
    std::sort(kept.begin(), kept.end(),
              [](const SlotUse& a, const SlotUse& b) { return a.offset > b.offset; });
    std::vector<char> slot(static_cast<size_t>(kSectorSize));
    for (const SlotUse& record : kept) {
        if (emptySlots.empty()) break;
        const long long free = emptySlots.front();
        if (record.offset < free) break;
        // A short last slot moves as far as the file goes.
        size_t got = 0;
        size_t put = 0;
        if (!ReadAt(file, record.offset, slot.data(), slot.size(), &got) ||
            !WriteAt(file, free, slot.data(), got, &put)) {
            break;  // this sector keeps its old slot; the free one stays free
        }
        emptySlots.pop_front();
        emptySlots.push_back(record.offset);
        moved(record.key, free);
    }
}

int SlotFile::TrimFreeTail() {
    std::sort(emptySlots.begin(), emptySlots.end(), std::greater<long long>());
    long long newEnd = -1;
    long long end = Size();
    while (!emptySlots.empty() && emptySlots.front() + kSectorSize >= end) {
        if (emptySlots.front() < end) {
            newEnd = emptySlots.front();
            end = newEnd;
        }
        emptySlots.pop_front();
    }
    const int error = newEnd != -1 && ftruncate(fileno(file), newEnd) != 0 ? errno : 0;
    std::sort(emptySlots.begin(), emptySlots.end());
    return error;
}

}  // namespace cache
