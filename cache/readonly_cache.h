// ReadonlyCache: the sparse store of a remote file that is only read.
//
// The remote file is cut into 64 KiB sectors; only fetched sectors exist,
// each in a 64 KiB slot of a private cache file, in whatever order they
// arrived. An in-memory map (the sector hash) translates a sector to its
// slot. Nothing of the map is on disk; the cache file is deleted with the
// store.
//
// Threads: host threads read and write; fetch jobs deliver data on the host's
// queue threads through FetchWrite; the quota thread evicts. `lock` guards
// the map and the file's contents. Every change of the map, of a slot or of
// the file takes it exclusively. A read whose range is cached and that has
// nothing to queue runs entirely under the shared lock, so that readers of
// one file copy side by side while no slot can move under them; only reads
// that queue fetches or wait take it exclusively. Operations with the NoLock
// suffix require the caller to hold it exclusively unless they say
// otherwise. Lock order: a cache object's lock, then this lock, then the
// leaf locks (`historyLock`, `fileLock`, the display name's).
//
// Every transfer to or from the cache file is positioned I/O on the stream's
// descriptor (ReadAt / WriteAt), so no thread depends on the stream position.
#ifndef CACHE_READONLY_CACHE_H_
#define CACHE_READONLY_CACHE_H_

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "cache/cache.h"
#include "cache/cache_directory.h"
#include "cache/display_name.h"
#include "cache/file_io.h"
#include "cache/sector_map.h"

namespace cache {

class WritableCache;
class AsyncLargeFetch;

// One remembered read, for read-ahead.
struct _READHISTORY {
    long long offset;
    long long length;
    std::chrono::steady_clock::time_point time;
};

// The state of a host handle. The host changes it on its own threads, so it
// is read atomically. A request without a handle counts as open (0).
inline int32_t HandleState(const std::shared_ptr<_FS_HANDLE>& handle) {
    if (!handle) return 0;
    return std::atomic_ref<int32_t>(handle->state).load(std::memory_order_relaxed);
}

// `bytes` rounded down to whole sectors, and never below one sector. Fetch
// chunks and read-ahead sizes go through it, so every piece a job asks for
// starts on a sector boundary whatever the configuration says.
constexpr long long WholeSectors(long long bytes) {
    return std::max(bytes - bytes % kSectorSize, kSectorSize);
}

// The maximal runs of consecutive sectors (keys k, k + 64 KiB, ...) of a
// sector map, as a sorted vector of [first, last] pairs. It answers "where
// does the run holding this sector end" in O(log runs) and costs 16 bytes
// per run, not per sector. Keys are multiples of the sector size.
//
// Not thread-safe: the owning store keeps it under its own lock.
class SectorRuns {
  public:
    // Adds `key`, which must not be present.
    void Insert(long long key);
    // Removes `key`, which must be present.
    void Erase(long long key);
    void Clear() { runs_.clear(); }

    // The last key of the run holding `key`, or nullopt when `key` is absent.
    std::optional<long long> LastOfRun(long long key) const;

  private:
    struct Run {
        long long first;
        long long last;
    };

    std::vector<Run> runs_;  // sorted by first; never adjacent or overlapping
};

class ReadonlyCache : public ICacheFile, public IFetchCallback {
  public:
    // A store converted from a writable copy maps at most this many sectors
    // of holes (1 GiB), so that a huge sparse copy costs what it holds.
    static constexpr long long kMaxConvertedHoleSectors = 16384;

    // A fresh, empty store for remote `name` of `fileSize` bytes, with its
    // cache file in `directory`, which the store keeps until it ends. Throws
    // AE_CREATE_FILE_FAILED (3004) when the file cannot be created.
    // REQUIRES: `directory` and `config` are non-null.
    ReadonlyCache(std::shared_ptr<const CacheDirectory> directory, const std::string& name,
                  long long fileSize, std::shared_ptr<ICacheConfig> config);
    // Takes over the stream of a writable store, whose file holds the remote
    // file densely: every sector of the file's size at the hand-over becomes
    // present at its own offset, holes reading as zeros, unless the file has
    // more than kMaxConvertedHoleSectors sectors of holes; then only the
    // sectors holding data do. The file inherited this way is never deleted
    // by this store. Throws AE_CREATE_FILE_FAILED when `source` has no open
    // stream.
    ReadonlyCache(WritableCache* source, std::shared_ptr<ICacheConfig> config);
    ReadonlyCache(const ReadonlyCache&) = delete;
    ReadonlyCache& operator=(const ReadonlyCache&) = delete;

    // Serves a host read: queues fetches for what is missing, waits for the
    // range (woken by every change of the sector map, and looking again at
    // least every 10 ms, never holding `lock` while it waits), copies it out.
    // 0 (request->transferred set), 3005, 8 (missing or timed out), 28
    // (handle closed), 3008 (cache file unreadable or invalid request).
    // Takes `lock`.
    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;
    // Takes `lock`; see ReserveNoLock.
    AERROR Reserve(long long offset, long long length) override;
    // Takes `lock`; always 0.
    AERROR ClearReserved(long long offset, long long length) override;
    // Waits (without a time limit) until no fetch job of this store is alive,
    // then closes the file and forgets every sector: 0, or 3005 when it was
    // already closed. Takes `lock` after the wait.
    AERROR Close() override;
    // Truncates the cache file (the sector map is left as it is): 0, 3005
    // when closed, 9 when the file system refuses. Takes `lock`.
    AERROR Truncate(long long size) override;
    // Always true.
    bool IsReadonly() override;
    // This store converts to nothing: both return null.
    ICacheFile* RebuildToWritableCache(IFetch* fetch, ICacheConfig* config) override;
    ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) override;
    void ClearOldCache(bool overLimit) override;
    // Size of the cache file (not of the remote file), 0 when closed. Takes
    // only the leaf `fileLock`, so it may be called with or without `lock`.
    long long GetFileSize() override;
    // Where the cached run holding `offset`'s sector ends: that sector itself
    // when absent, the run's last sector, or -1 when the run reaches more
    // than one maximal read-ahead (ramax) past `offset`. Reserved sectors
    // count as part of a run. Takes `lock`.
    long long GetLargestEmptyOffset(long long offset) override;
    // Nothing to fill in a sparse store: always 0.
    AERROR FillEmptySectors(IFetch* fetch) override;
    // Changes the name printed in log lines. The cache file keeps its name.
    // Takes no lock of the store; safe while other threads log.
    void ChangeFileName(std::string newName) override;

    // Closes, then deletes the cache file this store created (not one
    // inherited from a writable store, nor whatever replaced its entry).
    virtual ~ReadonlyCache();

    // Stores `size` fetched bytes for remote `offset`, sector by sector, in
    // free slots (oldest freed first) or slots appended to the file, and
    // stores the count through `written` (may be null). Each byte goes to
    // its own place in its sector's slot, never into another slot. A slot
    // given out by this call is padded to its full length; a present sector
    // is rewritten in place and grows when the piece reaches past its end.
    // 0; 3005 closed; 3006 when the piece starts inside the first sector
    // beyond the bytes it holds (always, for an absent or reserved one);
    // 3007 on an invalid range or missing data, or a failed write, after
    // which the sector being filled is given up (slot back to the free
    // list) and every other sector stays as it was.
    // FetchWrite takes `lock`; FetchWriteNoLock REQUIRES it held.
    virtual AERROR FetchWriteNoLock(long long offset, const char* data, long size, long* written);
    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override;
    // The configuration provider; owned by this store (shared).
    virtual ICacheConfig* GetConfig();
    // Where a new slot is appended: the cache file's size rounded up to a
    // whole slot, so that no slot overlaps a short one before it (the file
    // may end mid-slot after a host write, a conversion or a truncation);
    // -1 when a slot there would end past kOffsetLimit. Takes no lock of
    // the store (the leaf `fileLock` only).
    virtual long long GetFileOffset(long long offset);

    // Marks the absent and the incomplete sectors of the range reserved
    // (ReserveSectorNoLock); an absent one expects the smaller of the bytes
    // left in the range and a sector. 0 when at least one was newly
    // reserved, 3014 when none, when the range is invalid (negative, or past
    // kOffsetLimit) or when it is larger than DiskRoomNoLock (it could never
    // be cached whole; refusing keeps the work proportional to what can be),
    // 3005 when closed, 3006 (no log line) when the first sector is absent
    // and `offset` is not aligned. REQUIRES: `lock` held.
    AERROR ReserveNoLock(long long offset, long long length);
    // Releases the reserved sectors among those that the range touches,
    // counting a full sector for the first one (ReleaseReservationNoLock).
    // Present sectors are left alone. Returns the number of sectors
    // released. REQUIRES: `lock` held.
    long long ClearReservedNoLock(long long offset, long long length);

    // The display name, held by the caller while it formats a log line.
    std::shared_ptr<const std::string> GetFileName() const { return displayName.Get(); }

    // Writes one log line about this store; `format` starts with "[%s]",
    // which receives the display name, and `args` fill the rest. Costs
    // nothing beyond a load when no logger is bound.
    template <typename... Args>
    void Log(LOGLEVEL level, const char* format, Args... args) const {
        displayName.Log(level, format, args...);
    }

    // Fetch jobs alive for this store; Close waits for zero. Jobs add
    // themselves (relaxed) and remove themselves last thing (release).
    std::atomic<long long> readAheadThreads{0};
    // The running large fetch (whole-file or read-ahead), or null. Set under
    // `lock`; cleared by the job itself without it.
    std::atomic<AsyncLargeFetch*> largeFetch{nullptr};

  private:
    // Tests inspect the sector map and inject faults through it.
    friend class ReadonlyCachePeer;

    // How often a read or write waiting for fetched sectors looks again.
    static constexpr std::chrono::milliseconds kPollPeriod{10};

    // What a read has queued on its own behalf; decides what a sector that
    // vanishes while the read waits means.
    enum class QueueState { kNothing, kReadAhead, kSectors, kWholeFile };

    // What the read-ahead check does with one read.
    enum class ReadAheadPlan {
        kIgnore,    // the history stays as it is
        kForget,    // the history is cleared (the end of the file is cached)
        kRemember,  // the read is appended to the history
        kRestart,   // the history is cleared, then the read appended
        kStart,     // a read-ahead is posted, then the read appended
    };

    // Every change to the set of keys of `sectors` goes through these, so
    // that `runs` stays in step with the map and waiters are woken.
    // REQUIRES: `lock` held.
    // Inserts `sector` under `key`, which must be absent.
    _SECTOR& InsertSectorNoLock(long long key, const _SECTOR& sector);
    // Erases the entry; returns the iterator after it.
    SectorMap::iterator EraseSectorNoLock(SectorMap::iterator entry);
    void ClearSectorsNoLock();

    // Records a change of the sector map that a waiting read or write may
    // be waiting for (a sector inserted, erased or no longer reserved, the
    // store closed) and wakes the waiters. REQUIRES: `lock` held.
    void SectorsChangedNoLock();
    // Waits until the sector map changes after `seen` (a value of
    // `mapVersion` read under `lock`), kPollPeriod at most: what nothing
    // signals (a host closing its handle, a time-out) is seen within one
    // period. REQUIRES: `guard` holds `lock`; it holds it again on return.
    void WaitForChangeNoLock(std::unique_lock<std::shared_mutex>& guard, unsigned long long seen);

    // The front of the free-slot queue (removed), or -1 when it is empty.
    // REQUIRES: `lock` held.
    long long TakeFreeSlotNoLock();

    // GetLargestEmptyOffset with the read-ahead maximum already at hand.
    // REQUIRES: `lock` held.
    long long GetLargestEmptyOffsetNoLock(long long offset, long long ramax) const;

    // Fills readAheadSizes: ramin, doubling, capped at ramax.
    void FillReadAheadSizes();

    // Stores `part` bytes from `source` at `within` in the sector at `key`,
    // taking a free or appended slot (through *appendAt, see
    // AppendSlotNoLock) when it has none. Bytes the sector holds already
    // are kept. 0, or the failure of FetchWriteNoLock.
    // REQUIRES: `lock` held; the file open; within + part <= kSectorSize.
    AERROR StorePartNoLock(long long key, long long within, const char* source, long long part,
                           std::chrono::steady_clock::time_point now, long long* appendAt);
    // The next slot at the cache file's end: *appendAt, looked up with
    // GetFileOffset when it is -1, then advanced by one slot. -1 when no
    // slot fits below kOffsetLimit. REQUIRES: `lock` held.
    long long AppendSlotNoLock(long long* appendAt);
    // After a failed write into the cache file: releases `entry` when it
    // was reserved (ReleaseReservationNoLock), logs and returns 3007.
    // REQUIRES: `lock` held.
    AERROR FailFetchWriteNoLock(SectorMap::iterator entry, int error);
    // Ends the reservation of `entry`: one that keeps data becomes present
    // again with the bytes it held; any other is erased and its slot, when
    // it has one below `fileEnd`, goes to the back of the free-slot queue.
    // Returns the iterator after the entry. REQUIRES: `lock` held.
    SectorMap::iterator ReleaseReservationNoLock(SectorMap::iterator entry, long long fileEnd);

    // True when the sector holds every byte it will ever hold: it is not
    // reserved, and it is whole or ends at the remote file's current size.
    // A shorter one (the file grew, the fetcher stopped short, or the store
    // was converted from a shorter copy) counts as missing.
    // REQUIRES: `lock` held.
    bool IsCompleteNoLock(long long key, const _SECTOR& sector) const {
        return !sector.reserved &&
               (sector.length >= kSectorSize || key + sector.length >= fileSize);
    }
    // The most the cache file could ever hold: what it holds now plus the
    // free space of its file system (LLONG_MAX when that cannot be told).
    // The storage limit plays no part: eviction deals with a file past it.
    // REQUIRES: `lock` held; the file open.
    long long DiskRoomNoLock();
    // Reserves the sector at `key` when it is absent (taking the oldest free
    // slot, or none, and expecting `expected` bytes) or present but not
    // complete (keeping its slot and its bytes). True when it was newly
    // reserved. REQUIRES: `lock` held.
    bool ReserveSectorNoLock(long long key, long long expected,
                             std::chrono::steady_clock::time_point now);

    // Range form: resets the hits of the present sectors of [first, end)
    // and queues fetches for the absent ones. 3013 when jobs were posted,
    // 0 when nothing was missing or `fetch` is null, 3005 when closed.
    // REQUIRES: `lock` held; `first` is a sector offset.
    AERROR QueueEmptySectors(long long first, long long end, IFetch* fetch,
                             std::shared_ptr<_FS_HANDLE> handle);
    // List form: reserves the listed absent sectors and posts one AsyncFetch
    // per run of consecutive sectors. REQUIRES: `lock` held.
    void QueueEmptySectors(const std::deque<long long>& sectorOffsets, IFetch* fetch,
                           std::shared_ptr<_FS_HANDLE> handle);
    // Serves a read from the cache under the shared lock when it has nothing
    // to queue (its window is cached or reserved), no read-ahead to start,
    // no new file size to record, and its own range is present and
    // complete: updates the history and the window's hits as the exclusive
    // path would, copies, and returns the copy's result. Returns nullopt,
    // having changed nothing but hit counts that the exclusive path resets
    // anyway, when the read needs that path. REQUIRES: `lock` held shared;
    // the file open.
    std::optional<AERROR> ServeCachedNoLock(_READDATA* request, const _CACHECONFIG& settings);
    // Remembers the read and, when reads are sequential, reserves and posts
    // a read-ahead after the cached run: 3013 when one was posted, else 0.
    // REQUIRES: `lock` held.
    AERROR CheckReadAhead(_READDATA* request, const _CACHECONFIG& settings,
                          std::chrono::steady_clock::time_point now);
    // What the read-ahead check does with `request` when that does not
    // depend on the history, else nullopt; stores the end of the cached run
    // through `runEnd` for the history to decide. REQUIRES: `lock` held,
    // shared or exclusive.
    std::optional<ReadAheadPlan> PlanBeforeHistoryNoLock(const _READDATA* request,
                                                         const _CACHECONFIG& settings,
                                                         long long* runEnd) const;
    // What the history decides for `request`, made at `now`, when
    // PlanBeforeHistoryNoLock gave nullopt; kStart when a read-ahead from
    // `runEnd` is due. Changes nothing. REQUIRES: `lock` held exclusively,
    // or shared together with `historyLock`.
    ReadAheadPlan PlanFromHistoryNoLock(const _READDATA* request, const _CACHECONFIG& settings,
                                        std::chrono::steady_clock::time_point now,
                                        long long runEnd) const;
    // Updates the history after `plan` (a kStart has posted its read-ahead
    // already). REQUIRES: as PlanFromHistoryNoLock.
    void RememberReadNoLock(ReadAheadPlan plan, const _READHISTORY& read);
    // Posts the read-ahead of the current level from `runEnd`.
    // REQUIRES: `lock` held; no large fetch running.
    void StartReadAheadNoLock(_READDATA* request, long long runEnd, const _CACHECONFIG& settings);
    // Reserves the whole file and posts one job fetching it, unless a large
    // fetch runs or nothing is left to reserve; true when it posted.
    // REQUIRES: `lock` held.
    bool FetchWholeFileNoLock(_READDATA* request);
    // Waits until every sector of the request's range within the file is
    // present and complete. Returns 0 with
    // `guard` locked, or the read's failure with `guard` unlocked or locked
    // (the caller returns at once either way). REQUIRES: `guard` locked.
    AERROR WaitForSectors(std::unique_lock<std::shared_mutex>& guard, _READDATA* request,
                          QueueState& state);
    // True when every sector of the request's range within the file is
    // present (not reserved) and complete, as WaitForSectors requires;
    // `entry` is the map's lower bound of the range's first sector.
    // REQUIRES: `lock` held, shared or exclusive.
    bool RangePresentNoLock(const _READDATA* request, SectorMap::iterator entry);
    // Walks the sectors of [first, end), `entry` being the map's lower bound
    // of `first`: resets the hits of each one cached or reserved (requested
    // again), and counts each one absent or incomplete, appending it to
    // `missing` when that is non-null. Returns the count. The resets are
    // atomic, so `lock` may be held shared or exclusive.
    long long ScanWindowNoLock(long long first, long long end, SectorMap::iterator entry,
                               std::vector<long long>* missing);
    // Copies the request's range out of the cache file, counting a read of
    // each sector at `now`; `entry` is the map's lower bound of the range's
    // first sector. REQUIRES: `lock` held, shared or exclusive; every sector
    // of the range present unless the request has no fetcher, in which case
    // the copy stops at the first one that is not.
    AERROR CopySectorsNoLock(_READDATA* request, std::chrono::steady_clock::time_point now,
                             SectorMap::iterator entry);

    std::shared_mutex lock;
    // Signalled by SectorsChangedNoLock; waited on with `lock` exclusive.
    std::condition_variable_any sectorsChanged;
    // Counts the changes of the sector map, so that a change made while a
    // waiter had released `lock` is not missed. Guarded by `lock`.
    unsigned long long mapVersion = 0;
    // Threads inside WaitForChangeNoLock; no signal is sent while there are
    // none. Guarded by `lock`.
    int mapWaiters = 0;
    // A leaf lock: `file` changes only with both `lock` and `fileLock` held,
    // so GetFileSize can read it under `fileLock` alone.
    std::mutex fileLock;
    // The remote file's name, printed in log lines; ChangeFileName replaces it.
    DisplayName displayName;
    FILE* file = nullptr;
    // Where the cache file lives; null for a file inherited from a writable
    // store, which this store never deletes.
    std::shared_ptr<const CacheDirectory> directory;
    CacheFileName cacheFile;
    SectorMap sectors;
    SectorRuns runs;  // the runs of consecutive keys of `sectors`
    std::deque<long long> emptySlots;
    // A leaf lock for readers that hold `lock` only shared: `readHistory`
    // and `readAheadLevel` change under `lock` held exclusively, or shared
    // together with this lock.
    std::mutex historyLock;
    std::deque<_READHISTORY> readHistory;
    long long fileSize = 0;
    int readAheadLevel = 1;
    long long readAheadSizes[50] = {};
    std::shared_ptr<ICacheConfig> config;
};

}  // namespace cache

#endif  // CACHE_READONLY_CACHE_H_
