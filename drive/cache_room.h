// Back-pressure between the fetchers and the library's eviction.
//
// The library evicts sectors once the cache directory is over its storage
// limit, but only on a timer and only sectors at least a whole second old:
// a fast server fills the directory far past the limit before eviction
// catches up. So fetchers ask for room before they deliver each piece, and
// while the directory holds more than its ceiling (the limit plus a margin)
// they wait for eviction, up to a bound.
//
// A wait that runs out means eviction cannot keep up (ages configured long,
// or the bytes are a copy being written, which is never evicted): the room
// then lets every fetcher through until the directory is back under the
// ceiling, so that a read stalls at most once by the bound, never for good.
//
// Thread-safe: every fetch thread calls it.
#ifndef DRIVE_CACHE_ROOM_H_
#define DRIVE_CACHE_ROOM_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "drive/log.h"

namespace drive {

class CacheRoom {
  public:
    // Watches the files directly in `directory`; `log` (not owned) gets a
    // line when a wait runs out.
    CacheRoom(std::string directory, long long ceiling, std::chrono::milliseconds maxWait,
              DriveLog* log);
    CacheRoom(const CacheRoom&) = delete;
    CacheRoom& operator=(const CacheRoom&) = delete;

    // Returns once the directory is under the ceiling, `cancelled` returns
    // true, or the bound has passed (see above).
    void WaitForRoom(const std::function<bool()>& cancelled);
    // Counts `bytes` just delivered into the directory, until the next
    // measurement sees them.
    void Added(long long bytes);

    // The bytes the directory's files take on disk, measured now.
    long long Measure();
    // True when the file system holding the directory has less than
    // `bytes`, and at least one 64 KiB sector, free: what a failed write
    // of that many bytes tells the writer (ENOSPC rather than EIO).
    bool LacksSpace(long long bytes) const;
    long long ceiling() const { return ceiling_; }

  private:
    // The last measurement plus what was added since; measures again when
    // that is older than a few milliseconds.
    long long Estimate();

    const std::string directory_;
    const long long ceiling_;
    const std::chrono::milliseconds maxWait_;
    DriveLog* const log_;

    // False after a wait ran out, until the directory is under the ceiling.
    std::atomic<bool> holding_{true};

    std::mutex lock_;
    std::chrono::steady_clock::time_point measuredAt_;  // GUARDED_BY(lock_)
    long long measured_ = 0;                            // GUARDED_BY(lock_)
    long long addedSince_ = 0;                          // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_CACHE_ROOM_H_
