// SectorTable: the sector map of a sparse store with its run index and the
// wake-ups of threads waiting for sectors.
//
// Every change to the set of keys goes through Insert, Erase and Clear, so
// that the run index stays in step with the map; every change a waiting
// read or write may be waiting for (a sector inserted, erased, filled or no
// longer reserved, the store closed) calls Changed, which counts it and
// wakes the waiters.
//
// Invariant: no sector's valid length exceeds one slot (kSectorSize). The
// stores only ever set a length from a piece that lies within one sector;
// Insert checks it in debug builds and the store tests check it after
// writes and deliveries of every shape.
//
// Not thread-safe: ReadonlyCache keeps it under its `lock`. Lookups and
// walks need the lock shared or exclusive, changes need it exclusive, and
// WaitForChange is entered with it held exclusively through `guard`.
#ifndef CACHE_SECTOR_TABLE_H_
#define CACHE_SECTOR_TABLE_H_

#include <cassert>
#include <chrono>
#include <condition_variable>
#include <optional>

#include "cache/sector_map.h"
#include "cache/sector_runs.h"
#include "common/thread_annotations.h"

namespace cache {

class SectorTable {
  public:
    using iterator = SectorMap::iterator;

    // How often a waiter looks again when nothing signals it.
    static constexpr std::chrono::milliseconds kPollPeriod{10};

    iterator begin() { return map_.begin(); }
    iterator end() { return map_.end(); }
    size_t size() const { return map_.size(); }
    bool empty() const { return map_.empty(); }
    iterator find(long long key) { return map_.find(key); }
    iterator lower_bound(long long key) { return map_.lower_bound(key); }

    // Inserts `sector` under `key`, which must be absent.
    _SECTOR& Insert(long long key, const _SECTOR& sector) {
        assert(sector.length <= kSectorSize);
        runs_.Insert(key);
        Changed();
        return map_.emplace(key, sector).first->second;
    }
    // Erases the entry; returns the iterator after it.
    iterator Erase(iterator entry) {
        runs_.Erase(entry->first);
        Changed();
        return map_.erase(entry);
    }
    void Clear() {
        map_.clear();
        runs_.Clear();
        Changed();
    }

    // The last key of the run of consecutive keys holding `key`, or nullopt
    // when `key` is absent.
    std::optional<long long> LastOfRun(long long key) const { return runs_.LastOfRun(key); }

    // Records a change that waiters may be waiting for and wakes them.
    void Changed() {
        ++version_;
        if (waiters_ > 0) changed_.notify_all();
    }
    // The count of changes so far, to hand to WaitForChange.
    unsigned long long Version() const { return version_; }
    // Waits until a change after `seen` (a Version() read under the lock),
    // kPollPeriod at most: what nothing signals (a host closing its handle,
    // a time-out) is seen within one period. `guard` holds the owner's lock
    // exclusively on entry and again on return; it is free while waiting.
    void WaitForChange(ExclusiveLock& guard, unsigned long long seen) {
        ++waiters_;
        changed_.wait_for(guard, kPollPeriod, [&] { return version_ != seen; });
        --waiters_;
    }

  private:
    SectorMap map_;
    SectorRuns runs_;  // the runs of consecutive keys of `map_`
    std::condition_variable_any changed_;
    // Counts the changes, so that one made while a waiter had released the
    // lock is not missed.
    unsigned long long version_ = 0;
    // Threads inside WaitForChange; no signal is sent while there are none.
    int waiters_ = 0;
};

}  // namespace cache

#endif  // CACHE_SECTOR_TABLE_H_
