// ReadonlyCache: queueing fetches for missing sectors, the whole-file fetch
// and read-ahead (the decisions are ReadAheadPolicy's; posting is here).
#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "cache/fetch_jobs.h"
#include "cache/readonly_cache.h"
#include "cache/sector_runs.h"

namespace cache {

long long ReadonlyCache::ScanWindowNoLock(long long first, long long end,
                                          SectorTable::iterator entry,
                                          std::vector<long long>* missing) {
    long long count = 0;
    for (long long cur = first; cur < end; cur += kSectorSize) {
        const bool found = entry != sectors.end() && entry->first == cur;
        if (found && (entry->second.reserved || IsCompleteNoLock(cur, entry->second))) {
            // Requested again. Readers under the shared lock reset it too.
            std::atomic_ref<long long>(entry->second.hits).store(0, std::memory_order_relaxed);
        } else {
            ++count;  // absent, or short of the file's end
            if (missing != nullptr) missing->push_back(cur);
        }
        if (found) ++entry;
    }
    return count;
}

AERROR ReadonlyCache::QueueEmptySectors(long long first, long long end, IFetch* fetch,
                                        std::shared_ptr<_FS_HANDLE> handle) {
    if (!file.IsOpen()) return AE_INVALID_HANDLE;
    // A vector allocates nothing while the range is cached (a deque would).
    std::vector<long long> missing;
    ScanWindowNoLock(first, end, sectors.lower_bound(first), fetch != nullptr ? &missing : nullptr);
    if (missing.empty()) return AE_OK;
    QueueEmptySectors(std::deque<long long>(missing.begin(), missing.end()), fetch,
                      std::move(handle));
    return AE_FETCH_QUEUED;
}

void ReadonlyCache::QueueEmptySectors(const std::deque<long long>& sectorOffsets, IFetch* fetch,
                                      std::shared_ptr<_FS_HANDLE> handle) {
    const auto now = std::chrono::steady_clock::now();
    for (const long long s : sectorOffsets) ReserveSectorNoLock(s, 0, now);
    for (const auto& [start, length] : RunsOf(sectorOffsets)) {
        Log(LL_DETAIL, "[%s] Queue empty offset %lld to %lld(%lld bytes)", start, start + length,
            length);
        QueueAsync(new AsyncFetch(this, fetch, start, length, handle), nullptr);
    }
}

bool ReadonlyCache::FetchWholeFileNoLock(_READDATA* request) {
    // The job needs a fetcher; without one nothing is reserved that nobody
    // would ever deliver.
    if (largeFetch.load(std::memory_order_acquire) != nullptr || request->fetch == nullptr) {
        return false;
    }
    if (ReserveNoLock(0, fileSize) != AE_OK) return false;
    Log(LL_INFO, "[%s] Fetch all at once specified. Trying to fetch whole file(%lld bytes).",
        fileSize);
    // The job runs under a handle of its own that the host never closes.
    auto* job = new AsyncLargeFetch(
        this, request->fetch, 0, fileSize,
        MakeLibraryHandle(request->handle ? request->handle->hostHandle : 0), true);
    largeFetch.store(job, std::memory_order_release);
    QueueAsync(job, nullptr);
    // The job brings the range; the read waits for it without limit.
    request->timeout = -1;
    return true;
}

AERROR ReadonlyCache::CheckReadAhead(_READDATA* request, const _CACHECONFIG& settings,
                                     std::chrono::steady_clock::time_point now) {
    long long runEnd = 0;
    std::optional<ReadAheadPolicy::Plan> plan = PlanBeforeHistoryNoLock(request, settings, &runEnd);
    if (!plan) {
        plan =
            readAhead.PlanFromHistory(request->offset, runEnd, config->GetQuota(), settings, now);
    }
    if (plan == ReadAheadPolicy::Plan::kStart) StartReadAheadNoLock(request, runEnd, settings);
    readAhead.Remember(*plan, {request->offset, request->length, now});
    return plan == ReadAheadPolicy::Plan::kStart ? AE_FETCH_QUEUED : AE_OK;
}

std::optional<ReadAheadPolicy::Plan> ReadonlyCache::PlanBeforeHistoryNoLock(
    const _READDATA* request, const _CACHECONFIG& settings, long long* runEnd) const {
    // While a large fetch runs, the read is only remembered.
    if (largeFetch.load(std::memory_order_acquire) != nullptr) {
        return ReadAheadPolicy::Plan::kRemember;
    }
    if (request->fetch == nullptr) return ReadAheadPolicy::Plan::kIgnore;
    *runEnd = GetLargestEmptyOffsetNoLock(request->offset, settings.ramax);
    return ReadAheadPolicy::PlanForRun(*runEnd, fileSize);
}

void ReadonlyCache::StartReadAheadNoLock(_READDATA* request, long long runEnd,
                                         const _CACHECONFIG& settings) {
    // The read-ahead starts at the run's last sector, which may be present
    // already: it is simply rewritten when the data arrives.
    const long long size = readAhead.NextSize(runEnd, fileSize, settings);
    Log(LL_INFO, "[%s] Read-ahead from %lld, %lld bytes", runEnd, size);
    ReserveNoLock(runEnd, size);
    auto* job = new AsyncLargeFetch(this, request->fetch, runEnd, size, request->handle, false);
    largeFetch.store(job, std::memory_order_release);
    QueueAsync(job, nullptr);
    readAhead.Advance();
}

}  // namespace cache
