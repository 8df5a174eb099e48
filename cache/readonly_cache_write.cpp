// ReadonlyCache::Write: host writes into the sparse store.
//
// A write may cover sectors only partly, so the sectors of its range that
// are not cached are fetched first (reserved and queued like a read's); the
// writer waits until none of them is reserved and then writes into their
// slots under the store's lock, so fetch writes and eviction cannot move a
// slot under it.
#include <algorithm>
#include <chrono>

#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "common/chrono.h"

namespace cache {

namespace {

// How long a write waits for its sectors when the request leaves it open.
// Deliberately fixed rather than the configured read time-out.
constexpr long long kDefaultWriteTimeoutMs = 10000;

}  // namespace

AERROR ReadonlyCache::Write(_WRITEDATA* request) {
    const void* buffer = request->buffer;
    const long long offset = request->offset;
    const long long length = request->length;
    const int shownLength = static_cast<int>(length);
    Log(LL_INFO, "[%s] Write : %p, %lld, %d", buffer, offset, shownLength);
    if (!IsValidTransfer(offset, length, buffer)) {
        Log(LL_ERROR, "[%s] Write failed : invalid request");
        return AE_WRITE_FAILED;
    }
    const long long first = SectorOf(offset);
    const long long end = offset + length;
    if (request->timeout == 0) request->timeout = kDefaultWriteTimeoutMs;

    auto failed = [&](const char* format, AERROR result) {
        Log(LL_ERROR, format, buffer, offset, shownLength);
        return result;
    };

    std::unique_lock<std::shared_mutex> guard(lock);
    if (file == nullptr) return failed("[%s] Write failed : %p, %lld, %d", AE_INVALID_HANDLE);
    if (request->fetch != nullptr) {
        std::deque<long long> absent;
        for (long long cur = first; cur < end; cur += kSectorSize) {
            if (sectors.find(cur) == sectors.end()) absent.push_back(cur);
        }
        if (!absent.empty()) QueueEmptySectors(absent, request->fetch, request->handle);

        // Wait until no sector of the range is reserved, looking again at
        // every change of the map and at least every poll period. The lock
        // is never held while waiting; the last successful scan keeps it
        // for the writing below.
        Chrono waited;
        for (;;) {
            if (file == nullptr) {
                return failed("[%s] Write failed : %p, %lld, %d", AE_INVALID_HANDLE);
            }
            bool pending = false;
            for (long long cur = first; cur < end && !pending; cur += kSectorSize) {
                auto entry = sectors.find(cur);
                if (entry == sectors.end()) {
                    // The fetch failed or the sector was evicted meanwhile.
                    return failed("[%s] Write failed : %p, %lld, %d", AE_WRITE_FAILED);
                }
                pending = entry->second.reserved;
            }
            if (!pending) break;
            const unsigned long long seen = mapVersion;
            guard.unlock();
            if (HandleState(request->handle) > 3) {
                return failed("[%s] Write handle closed : %p, %lld, %d", AE_WRITE_FAILED);
            }
            if (request->timeout > -1 && waited.elapsed() > request->timeout) {
                return failed("[%s] Write timed-out : %p, %lld, %d", AE_WRITE_FAILED);
            }
            guard.lock();
            WaitForChangeNoLock(guard, seen);
        }
    }

    // Writing, with `lock` held. A sector's entry changes only once its
    // bytes are in the file, so a failure leaves the map as it was.
    const auto now = std::chrono::steady_clock::now();
    const char* source = request->buffer;
    long long remaining = length;
    long long total = 0;
    for (long long cur = first; remaining >= 1; cur += kSectorSize) {
        auto entry = sectors.find(cur);
        const bool fresh = entry == sectors.end();
        const bool recycled = fresh && !emptySlots.empty();
        long long slot = recycled ? emptySlots.front() : fresh ? -1 : entry->second.offset;
        if (slot == -1) slot = GetFileOffset(cur);
        if (slot == -1) return failed("[%s] Write failed : %p, %lld, %d", AE_WRITE_FAILED);
        const long long held = fresh ? 0 : HeldBytes(entry->second);
        const long long within = cur == first ? offset - first : 0;
        const long long chunk = std::min(kSectorSize - within, remaining);
        // The sector's bytes run from its start: between what it holds and
        // the write they read as zeros, not as whatever a reused slot held.
        size_t done = 0;
        if ((within > held &&
             !WriteZerosAt(file, slot + held, static_cast<size_t>(within - held))) ||
            !WriteAt(file, slot + within, source, static_cast<size_t>(chunk), &done)) {
            return AE_WRITE_FAILED;
        }

        if (recycled) emptySlots.pop_front();
        _SECTOR& sector =
            fresh ? InsertSectorNoLock(cur, _SECTOR{slot, 0, 0, false, false, now}) : entry->second;
        sector.offset = slot;
        if (sector.reserved) {
            sector.reserved = false;
            sector.keepsData = false;
            SectorsChangedNoLock();
        }
        // The write's end within the sector, never past one slot. Where the
        // slot's position equals the sector's offset (a store converted from
        // a writable one, or one that filled in order) this is the slot's
        // position in the cache file minus the sector's remote offset.
        sector.length = std::max(held, within + chunk);
        sector.time = now;
        total += static_cast<long long>(done);
        source += done;
        remaining -= static_cast<long long>(done);
    }

    request->transferred = total;
    if (offset + total > fileSize) fileSize = offset + total;
    Log(LL_INFO, "[%s] Write done : %p, %lld, %d/%d", buffer, offset, shownLength,
        static_cast<int>(total));
    return AE_OK;
}

}  // namespace cache
