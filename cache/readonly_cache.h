// ReadonlyCache: the sparse store of one remote file, which hosts read and
// may also write.
//
// The remote file is cut into 64 KiB sectors; only fetched (or written)
// sectors exist, each in a 64 KiB slot of a private cache file, in whatever
// order they arrived. The store orchestrates parts that each hold one idea:
//   SlotFile         the cache file, its free slots, appending, compaction;
//   SectorTable      the sector map (the "sector hash"), its run index and
//                    the wake-ups of waiting reads and writes;
//   ReadAheadPolicy  when to read ahead and how much (no I/O);
//   RunsOf           sector offsets grouped into the runs fetch jobs ask for.
// Nothing of the map is on disk; the cache file is deleted with the store.
//
// Threads: host threads read and write; fetch jobs deliver data on the host's
// queue threads through FetchWrite; the quota thread evicts (ClearOldCache).
// `lock` guards the sector table, the slot file's contents and free slots,
// `fileSize` and the read-ahead policy. Every change takes it exclusively. A
// read whose range is cached and that has nothing to queue runs entirely
// under the shared lock, so that readers of one file copy side by side while
// no slot can move under them; only reads that queue fetches or wait take it
// exclusively. Functions with the NoLock suffix, and QueueEmptySectors and
// CheckReadAhead, require the caller to hold it (REQUIRES annotations say
// how). Lock order: a cache object's lock, then `lock`, then the leaf locks
// (`historyLock`, the slot file's `fileLock`, the display name's); see
// LOCKING.md.
#ifndef CACHE_READONLY_CACHE_H_
#define CACHE_READONLY_CACHE_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cache/cache.h"
#include "cache/cache_directory.h"
#include "cache/display_name.h"
#include "cache/file_io.h"
#include "cache/read_ahead.h"
#include "cache/sector_table.h"
#include "cache/slot_file.h"
#include "common/thread_annotations.h"

namespace cache {

class WritableCache;
class AsyncLargeFetch;

// True when the host closed `handle` (read atomically: the host changes it
// on its own threads). A request without a handle counts as open.
inline bool HandleClosed(const std::shared_ptr<_FS_HANDLE>& handle) {
    return handle &&
           IsClosedState(std::atomic_ref<int32_t>(handle->state).load(std::memory_order_relaxed));
}

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
    AERROR Read(_READDATA* request) override EXCLUDES(lock);
    // Writes host bytes into the sectors' slots, fetching the absent sectors
    // of the range first and waiting (request->timeout, 10 s when 0) until
    // none is reserved. 0 (request->transferred set), 3005, 3007 (invalid
    // request, a sector that vanished, handle closed, time-out, failed
    // write). Takes `lock`.
    AERROR Write(_WRITEDATA* request) override EXCLUDES(lock);
    // Takes `lock`; see ReserveNoLock.
    AERROR Reserve(long long offset, long long length) override EXCLUDES(lock);
    // Takes `lock`; always 0.
    AERROR ClearReserved(long long offset, long long length) override EXCLUDES(lock);
    // Waits (without a time limit) until no fetch job of this store is alive,
    // then closes the file and forgets every sector: 0, or 3005 when it was
    // already closed. Takes `lock` after the wait.
    AERROR Close() override EXCLUDES(lock);
    // Truncates the cache file (the sector map is left as it is): 0, 3005
    // when closed, 9 when the file system refuses. Takes `lock`.
    AERROR Truncate(long long size) override EXCLUDES(lock);
    // Always true.
    bool IsReadonly() override;
    // This store converts to nothing: both return null.
    ICacheFile* RebuildToWritableCache(IFetch* fetch, ICacheConfig* config) override;
    ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) override;
    // Eviction on the quota thread: drops the sectors past their age
    // limits (the over-limit ones when `overLimit`), moves the remaining
    // ones down into free slots and cuts the free tail off the file. Takes
    // `lock` for the whole call.
    void ClearOldCache(bool overLimit) override EXCLUDES(lock);
    // Size of the cache file (not of the remote file), 0 when closed. Takes
    // only the leaf `fileLock`, so it may be called with or without `lock`.
    long long GetFileSize() override;
    // Where the cached run holding `offset`'s sector ends: that sector itself
    // when absent, the run's last sector, or -1 when the run reaches more
    // than one maximal read-ahead (ramax) past `offset`. Reserved sectors
    // count as part of a run. Takes `lock`.
    long long GetLargestEmptyOffset(long long offset) override EXCLUDES(lock);
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
    virtual AERROR FetchWriteNoLock(long long offset, const char* data, long size, long* written)
        REQUIRES(lock);
    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override
        EXCLUDES(lock);
    // The configuration provider; owned by this store (shared).
    virtual ICacheConfig* GetConfig();
    // Where a new slot is appended (SlotFile::AppendOffset). Takes no lock
    // of the store (the leaf `fileLock` only).
    virtual long long GetFileOffset(long long offset);

    // Marks the absent and the incomplete sectors of the range reserved
    // (ReserveSectorNoLock); an absent one expects the smaller of the bytes
    // left in the range and a sector. 0 when at least one was newly
    // reserved, 3014 when none, when the range is invalid (negative, or past
    // kOffsetLimit) or when it is larger than the disk room of the file
    // (it could never be cached whole; refusing keeps the work
    // proportional to what can be), 3005 when closed, 3006 (no log line)
    // when the first sector is absent and `offset` is not aligned.
    AERROR ReserveNoLock(long long offset, long long length) REQUIRES(lock);
    // Releases the reserved sectors among those that the range touches,
    // counting a full sector for the first one (ReleaseReservationNoLock).
    // Present sectors are left alone. Returns the number of sectors
    // released.
    long long ClearReservedNoLock(long long offset, long long length) REQUIRES(lock);

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

    // What a read has queued on its own behalf; decides what a sector that
    // vanishes while the read waits means.
    enum class QueueState { kNothing, kReadAhead, kSectors, kWholeFile };

    // What a read or a write waits for, as WaitForSectorsNoLock asks it.
    // Every function but `handleClosed` and `timedOut` runs under `lock`.
    struct SectorWait {
        const std::shared_ptr<_FS_HANDLE>& handle;
        long long timeout;  // ms; below 0 waits without a limit
        // The cache file was closed: the result to return.
        std::function<AERROR()> fileClosed;
        // Looks at the sectors: AE_OK when the wait is over, nullopt when
        // it goes on; any other result ends it.
        std::function<std::optional<AERROR>()> scan;
        // The host closed its handle (`lock` free): the result to return.
        std::function<AERROR()> handleClosed;
        // Optional, after a scan that goes on waiting: AE_OK to wait,
        // AE_FETCH_QUEUED to wait from now on afresh, any other result ends
        // the wait.
        std::function<AERROR()> stillMissing;
        // Optional: true when nothing more can arrive, which ends the wait
        // as a time-out does.
        std::function<bool()> nothingComing;
        // The wait timed out (`lock` free): the result to return.
        std::function<AERROR()> timedOut;
    };

    // The one wait of reads and writes: scans until `wait.scan` ends it,
    // waiting between scans for a change of the sector table (one poll
    // period at most) with `lock` free. Returns AE_OK with `guard` locked,
    // or the wait's failure with `guard` locked or unlocked (the caller
    // returns at once either way).
    AERROR WaitForSectorsNoLock(ExclusiveLock& guard, const SectorWait& wait) REQUIRES(lock);

    // GetLargestEmptyOffset with the read-ahead maximum already at hand.
    long long GetLargestEmptyOffsetNoLock(long long offset, long long ramax) const
        REQUIRES_SHARED(lock);

    // Stores `part` bytes from `source` at `within` in the sector at `key`,
    // taking a free or appended slot (through *appendAt, see
    // AppendSlotNoLock) when it has none. Bytes the sector holds already
    // are kept. 0, or the failure of FetchWriteNoLock.
    // REQUIRES: the file open; within + part <= kSectorSize.
    AERROR StorePartNoLock(long long key, long long within, const char* source, long long part,
                           std::chrono::steady_clock::time_point now, long long* appendAt)
        REQUIRES(lock);
    // The entry a delivery to the absent or reserved sector at `key` fills,
    // with a slot: an absent one is inserted reserved into a free or
    // appended slot, a reserved one without a slot appends one. Sets
    // *assigned when the slot is new to the sector. nullopt after a failure
    // (logged, and the reservation given up), with *failure set.
    std::optional<SectorTable::iterator> SlotForDeliveryNoLock(
        long long key, SectorTable::iterator found, std::chrono::steady_clock::time_point now,
        long long* appendAt, bool* assigned, AERROR* failure) REQUIRES(lock);
    // The next slot at the cache file's end: *appendAt, looked up with
    // GetFileOffset when it is -1, then advanced by one slot. -1 when no
    // slot fits below kOffsetLimit.
    long long AppendSlotNoLock(long long* appendAt) REQUIRES(lock);
    // After a failed write into the cache file: releases `entry` when it
    // was reserved (ReleaseReservationNoLock), logs and returns 3007.
    AERROR FailFetchWriteNoLock(SectorTable::iterator entry, int error) REQUIRES(lock);
    // Ends the reservation of `entry`: one that keeps data becomes present
    // again with the bytes it held; any other is erased and its slot, when
    // it has one below `fileEnd`, goes to the back of the free-slot queue.
    // Returns the iterator after the entry.
    SectorTable::iterator ReleaseReservationNoLock(SectorTable::iterator entry, long long fileEnd)
        REQUIRES(lock);

    // True when the sector holds every byte it will ever hold: it is not
    // reserved, and it is whole or ends at the remote file's current size.
    // A shorter one (the file grew, the fetcher stopped short, or the store
    // was converted from a shorter copy) counts as missing.
    bool IsCompleteNoLock(long long key, const _SECTOR& sector) const REQUIRES_SHARED(lock) {
        return !sector.reserved &&
               (sector.length >= kSectorSize || key + sector.length >= fileSize);
    }
    // Reserves the sector at `key` when it is absent (taking the oldest free
    // slot, or none, and expecting `expected` bytes) or present but not
    // complete (keeping its slot and its bytes). True when it was newly
    // reserved.
    bool ReserveSectorNoLock(long long key, long long expected,
                             std::chrono::steady_clock::time_point now) REQUIRES(lock);

    // Range form: resets the hits of the present sectors of [first, end)
    // and queues fetches for the absent ones. 3013 when jobs were posted,
    // 0 when nothing was missing or `fetch` is null, 3005 when closed.
    // REQUIRES: `first` is a sector offset.
    AERROR QueueEmptySectors(long long first, long long end, IFetch* fetch,
                             std::shared_ptr<_FS_HANDLE> handle) REQUIRES(lock);
    // List form: reserves the listed absent sectors and posts one AsyncFetch
    // per run of consecutive sectors (RunsOf).
    void QueueEmptySectors(const std::deque<long long>& sectorOffsets, IFetch* fetch,
                           std::shared_ptr<_FS_HANDLE> handle) REQUIRES(lock);
    // Serves a read from the cache under the shared lock when it has nothing
    // to queue (its window is cached or reserved), no read-ahead to start,
    // no new file size to record, and its own range is present and
    // complete: updates the history and the window's hits as the exclusive
    // path would, copies, and returns the copy's result. Returns nullopt,
    // having changed nothing but hit counts that the exclusive path resets
    // anyway, when the read needs that path. REQUIRES: the file open.
    std::optional<AERROR> ServeCachedNoLock(_READDATA* request, const _CACHECONFIG& settings)
        REQUIRES_SHARED(lock);
    // Queues what the read needs (the whole file, or a read-ahead and the
    // missing sectors of its window) and records in *state what it queued.
    // 0, or the failure of QueueEmptySectors.
    AERROR QueueForReadNoLock(_READDATA* request, const _CACHECONFIG& settings, QueueState* state)
        REQUIRES(lock);
    // Remembers the read and, when reads are sequential, reserves and posts
    // a read-ahead after the cached run: 3013 when one was posted, else 0.
    AERROR CheckReadAhead(_READDATA* request, const _CACHECONFIG& settings,
                          std::chrono::steady_clock::time_point now) REQUIRES(lock);
    // What the read-ahead check does with `request` when that does not
    // depend on the history, else nullopt; stores the end of the cached run
    // through `runEnd` for the history to decide.
    std::optional<ReadAheadPolicy::Plan> PlanBeforeHistoryNoLock(const _READDATA* request,
                                                                 const _CACHECONFIG& settings,
                                                                 long long* runEnd) const
        REQUIRES_SHARED(lock);
    // Posts the read-ahead of the current level from `runEnd`.
    // REQUIRES: no large fetch running.
    void StartReadAheadNoLock(_READDATA* request, long long runEnd, const _CACHECONFIG& settings)
        REQUIRES(lock);
    // Reserves the whole file and posts one job fetching it, unless a large
    // fetch runs or nothing is left to reserve; true when it posted.
    bool FetchWholeFileNoLock(_READDATA* request) REQUIRES(lock);
    // How far a waiting read's scans got: the first sector not ready, and
    // what the last scan saw of it (for the time-out line).
    struct ReadProgress {
        long long cur;          // scans go on from here
        long long slot = -1;    // its slot, -1 when absent
        long long length = 0;   // its valid length
        bool reserved = false;  // reserved when last seen
        bool missing = false;   // absent, or incomplete and not reserved
    };
    // Advances `progress` over the present and complete sectors below `end`;
    // true when it reached `end`.
    bool ScanReadNoLock(ReadProgress& progress, long long end) REQUIRES(lock);
    // Logs the time-out of a read with where it stopped, releases its
    // reservations (takes `lock`) and returns 8.
    AERROR ReadTimedOut(const _READDATA* request, const ReadProgress& progress) EXCLUDES(lock);
    // Waits until every sector of the request's range within the file is
    // present and complete, queueing again when somebody else's fetch left
    // a sector missing. Returns 0 with `guard` locked, or the read's
    // failure (the caller returns at once).
    AERROR WaitForReadNoLock(ExclusiveLock& guard, _READDATA* request, QueueState& state)
        REQUIRES(lock);
    // True when every sector of the request's range within the file is
    // present (not reserved) and complete, as the read waits for; `entry`
    // is the map's lower bound of the range's first sector.
    bool RangePresentNoLock(const _READDATA* request, SectorTable::iterator entry)
        REQUIRES_SHARED(lock);
    // Walks the sectors of [first, end), `entry` being the map's lower bound
    // of `first`: resets the hits of each one cached or reserved (requested
    // again), and counts each one absent or incomplete, appending it to
    // `missing` when that is non-null. Returns the count. The resets are
    // atomic, so `lock` may be held shared.
    long long ScanWindowNoLock(long long first, long long end, SectorTable::iterator entry,
                               std::vector<long long>* missing) REQUIRES_SHARED(lock);
    // One transfer of a copy: the bytes of consecutive sectors whose slots
    // lie back to back in the cache file.
    struct CopySpan {
        long long start = 0;  // where in the cache file
        long long bytes = 0;
        bool gap = false;  // it stopped at a sector not cached or lacking its tail
    };
    // The next span of a copy from the sector at `cur` (`entry` its map
    // entry), at most `wanted` bytes, counting a read of each sector in it;
    // `entry` and `cur` move past it. It stops at a sector not cached
    // (without a fetcher a reserved one holds no data yet either) and after
    // one that lacks its tail.
    CopySpan NextSpanNoLock(const _READDATA* request, long long wanted,
                            SectorTable::iterator& entry, long long& cur,
                            std::chrono::steady_clock::time_point now) REQUIRES_SHARED(lock);
    // Copies the request's range out of the cache file, counting a read of
    // each sector at `now`; `entry` is the map's lower bound of the range's
    // first sector. REQUIRES: every sector of the range present unless the
    // request has no fetcher, in which case the copy stops at the first one
    // that is not.
    AERROR CopySectorsNoLock(_READDATA* request, std::chrono::steady_clock::time_point now,
                             SectorTable::iterator entry) REQUIRES_SHARED(lock);

    // Host writes: fetches the absent sectors of [first, end) and waits
    // until none of them is reserved (the wait of WaitForSectorsNoLock).
    // 0 with `guard` locked, or the write's failure (logged).
    AERROR WaitForWriteNoLock(ExclusiveLock& guard, _WRITEDATA* request) REQUIRES(lock);
    // Writes the request's bytes into their sectors' slots, taking a free
    // or appended slot for an absent sector; the map changes only once a
    // sector's bytes are in the file. Returns the bytes written, or -1.
    long long WriteSectorsNoLock(const _WRITEDATA* request) REQUIRES(lock);

    // Eviction, in ClearOldCache's order: the sectors past their age limits
    // are erased and their slots freed (their count is returned), the kept
    // sectors move down into free slots, and the free tail is cut off.
    size_t ExpireSectorsNoLock(bool overLimit) REQUIRES(lock);
    void CompactSlotsNoLock() REQUIRES(lock);

    SharedMutex lock;
    // The configuration provider, shared with the cache manager.
    std::shared_ptr<ICacheConfig> config;
    // The remote file's name, printed in log lines; ChangeFileName replaces it.
    DisplayName displayName;
    // The cache file; its stream changes with `lock` and its `fileLock` held.
    SlotFile file;
    // Where the cache file lives; null for a file inherited from a writable
    // store, which this store never deletes.
    std::shared_ptr<const CacheDirectory> directory;
    CacheFileName cacheFile;
    SectorTable sectors GUARDED_BY(lock);
    long long fileSize GUARDED_BY(lock) = 0;
    // A leaf lock for readers that hold `lock` only shared: `readAhead`
    // changes under `lock` held exclusively, or shared together with this.
    Mutex historyLock;
    ReadAheadPolicy readAhead;
};

}  // namespace cache

#endif  // CACHE_READONLY_CACHE_H_
