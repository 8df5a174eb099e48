// ReadonlyCache::Write: host writes into the sparse store.
//
// A write may cover sectors only partly, so the sectors of its range that
// are not cached are fetched first (reserved and queued like a read's); the
// writer waits until none of them is reserved and then writes into their
// slots under the store's lock, so fetch writes and eviction cannot move a
// slot under it.
#include <algorithm>
#include <cassert>
#include <chrono>

#include "cache/file_io.h"
#include "cache/readonly_cache.h"

namespace cache {

namespace {

// How long a write waits for its sectors when the request leaves it open.
// Deliberately fixed rather than the configured read time-out.
constexpr long long kDefaultWriteTimeoutMs = 10000;

}  // namespace

AERROR ReadonlyCache::Write(_WRITEDATA* request) {
    if (!displayName.AcceptWrite(*request)) return AE_WRITE_FAILED;
    if (request->timeout == 0) request->timeout = kDefaultWriteTimeoutMs;

    ExclusiveLock guard(lock);
    if (const AERROR waited = WaitForWriteNoLock(guard, request); waited != AE_OK) return waited;
    const long long total = WriteSectorsNoLock(request);
    if (total < 0) return AE_WRITE_FAILED;
    request->transferred = total;
    if (request->offset + total > fileSize) fileSize = request->offset + total;
    Log(LL_INFO, "[%s] Write done : %p, %lld, %d/%d", static_cast<const void*>(request->buffer),
        request->offset, static_cast<int>(request->length), static_cast<int>(total));
    return AE_OK;
}

AERROR ReadonlyCache::WaitForWriteNoLock(ExclusiveLock& guard, _WRITEDATA* request) {
    const auto failed = [&](const char* format, AERROR result) {
        Log(LL_ERROR, format, static_cast<const void*>(request->buffer), request->offset,
            static_cast<int>(request->length));
        return result;
    };
    const auto fileClosed = [&] {
        return failed("[%s] Write failed : %p, %lld, %d", AE_INVALID_HANDLE);
    };
    if (!file.IsOpen()) return fileClosed();
    if (request->fetch == nullptr) return AE_OK;
    const long long first = SectorOf(request->offset);
    const long long end = request->offset + request->length;
    std::deque<long long> absent;
    for (long long cur = first; cur < end; cur += kSectorSize) {
        if (sectors.find(cur) == sectors.end()) absent.push_back(cur);
    }
    if (!absent.empty()) QueueEmptySectors(absent, request->fetch, request->handle);

    // Done when no sector of the range is reserved; the last scan keeps the
    // lock for the writing.
    const auto scan = [&]() REQUIRES(lock) -> std::optional<AERROR> {
        for (long long cur = first; cur < end; cur += kSectorSize) {
            auto entry = sectors.find(cur);
            // The fetch failed or the sector was evicted meanwhile.
            if (entry == sectors.end()) {
                return failed("[%s] Write failed : %p, %lld, %d", AE_WRITE_FAILED);
            }
            if (entry->second.reserved) return std::nullopt;
        }
        return AE_OK;
    };
    const SectorWait wait{
        request->handle,
        request->timeout,
        fileClosed,
        scan,
        [&] { return failed("[%s] Write handle closed : %p, %lld, %d", AE_WRITE_FAILED); },
        nullptr,
        nullptr,
        [&] { return failed("[%s] Write timed-out : %p, %lld, %d", AE_WRITE_FAILED); },
    };
    return WaitForSectorsNoLock(guard, wait);
}

long long ReadonlyCache::WriteSectorsNoLock(const _WRITEDATA* request) {
    const long long offset = request->offset;
    const long long first = SectorOf(offset);
    const auto now = std::chrono::steady_clock::now();
    const char* source = request->buffer;
    long long remaining = request->length;
    long long total = 0;
    for (long long cur = first; remaining >= 1; cur += kSectorSize) {
        auto entry = sectors.find(cur);
        const bool fresh = entry == sectors.end();
        const bool recycled = fresh && file.HasFree();
        long long slot = recycled ? file.PeekFree() : fresh ? -1 : entry->second.offset;
        if (slot == -1) slot = GetFileOffset(cur);
        if (slot == -1) {
            Log(LL_ERROR, "[%s] Write failed : %p, %lld, %d",
                static_cast<const void*>(request->buffer), offset,
                static_cast<int>(request->length));
            return -1;
        }
        const long long held = fresh ? 0 : HeldBytes(entry->second);
        const long long within = cur == first ? offset - first : 0;
        const long long chunk = std::min(kSectorSize - within, remaining);
        // The sector's bytes run from its start: between what it holds and
        // the write they read as zeros, not as whatever a reused slot held.
        size_t done = 0;
        if ((within > held &&
             !WriteZerosAt(file.Stream(), slot + held, static_cast<size_t>(within - held))) ||
            !WriteAt(file.Stream(), slot + within, source, static_cast<size_t>(chunk), &done)) {
            return -1;
        }
        if (recycled) file.TakeFree();
        _SECTOR& sector =
            fresh ? sectors.Insert(cur, _SECTOR{slot, 0, 0, false, false, now}) : entry->second;
        sector.offset = slot;
        if (sector.reserved) {
            sector.reserved = false;
            sector.keepsData = false;
            sectors.Changed();
        }
        // The write's end within the sector, never past one slot.
        sector.length = std::max(held, within + chunk);
        assert(sector.length <= kSectorSize);
        sector.time = now;
        total += static_cast<long long>(done);
        source += done;
        remaining -= static_cast<long long>(done);
    }
    return total;
}

}  // namespace cache
