// ReadonlyCache: the read path, the queueing of missing sectors and
// read-ahead.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cache/fetch_jobs.h"
#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "common/chrono.h"

namespace cache {

namespace {

// A small read still queues this much from its offset, so that sequential
// small reads are served by fewer, larger fetches.
constexpr long long kMinimumQueued = 1048576;
// The read history remembers at most this many reads.
constexpr size_t kHistoryLength = 10;
// A read more than this long after the previous one starts a new sequence.
constexpr long long kSequenceGapSeconds = 300;
constexpr int kMaxReadAheadLevel = 50;

// Where the window a read queues ends: a small read still asks for a whole
// mebibyte from its offset, clipped at the end of the file.
long long WindowEnd(const _READDATA* request) {
    return std::min(request->offset + std::max(request->length, kMinimumQueued), request->fileSize);
}

}  // namespace

AERROR ReadonlyCache::Read(_READDATA* request) {
    Log(LL_INFO, "[%s] Read : %p, %lld, %d", static_cast<void*>(request->buffer), request->offset,
        static_cast<int>(request->length));
    // The range must leave room for the window queued from its offset too.
    if (!IsValidTransfer(request->offset, request->length, request->buffer) ||
        !IsValidRange(request->offset, kMinimumQueued)) {
        Log(LL_ERROR, "[%s] Read failed : invalid request");
        return AE_READ_FAILED;
    }
    // One copy of the configuration serves the whole request.
    const _CACHECONFIG settings = config->GetConfig();
    {
        std::shared_lock<std::shared_mutex> cached(lock);
        if (file == nullptr) return AE_INVALID_HANDLE;
        if (request->timeout == 0) request->timeout = settings.readtimeout;
        if (const std::optional<AERROR> served = ServeCachedNoLock(request, settings)) {
            return *served;
        }
    }

    std::unique_lock<std::shared_mutex> guard(lock);
    if (file == nullptr) return AE_INVALID_HANDLE;
    fileSize = request->fileSize;

    QueueState state = QueueState::kNothing;
    if ((request->flags & RD_FETCH_ALL) != RD_NONE) {
        if (FetchWholeFileNoLock(request)) state = QueueState::kWholeFile;
    } else {
        if (CheckReadAhead(request, settings, std::chrono::steady_clock::now()) ==
            AE_FETCH_QUEUED) {
            state = QueueState::kReadAhead;
        }
        const AERROR queued = QueueEmptySectors(SectorOf(request->offset), WindowEnd(request),
                                                request->fetch, request->handle);
        if (queued == AE_FETCH_QUEUED) {
            state = QueueState::kSectors;
        } else if (queued != AE_OK) {
            Log(LL_ERROR, "[%s] Read failed : QueueEmptySectors returns error");
            return queued;
        }
    }

    // The copy needs the lock only shared; the range is checked again under
    // it, since anything may have changed while the lock was free. Without a
    // fetcher nothing will arrive: what is cached now is served.
    for (;;) {
        guard.unlock();
        {
            std::shared_lock<std::shared_mutex> copying(lock);
            const auto now = std::chrono::steady_clock::now();
            const auto start = sectors.lower_bound(SectorOf(request->offset));
            if (request->fetch == nullptr) {
                return file == nullptr ? AE_INVALID_HANDLE : CopySectorsNoLock(request, now, start);
            }
            if (file != nullptr && RangePresentNoLock(request, start)) {
                return CopySectorsNoLock(request, now, start);
            }
        }
        guard.lock();
        const AERROR waited = WaitForSectors(guard, request, state);
        if (waited != AE_OK) return waited;
    }
}

std::optional<AERROR> ReadonlyCache::ServeCachedNoLock(_READDATA* request,
                                                       const _CACHECONFIG& settings) {
    if ((request->flags & RD_FETCH_ALL) != RD_NONE || request->fileSize != fileSize) {
        return std::nullopt;
    }
    // What the queueing pass would reset is reset; anything it would queue,
    // or a sector of the range that is not ready, sends the read to the
    // exclusive path, which resets the same counts again.
    const long long first = SectorOf(request->offset);
    const auto start = sectors.lower_bound(first);
    const bool fetching = request->fetch != nullptr;
    if (ScanWindowNoLock(first, WindowEnd(request), start, nullptr) > 0 && fetching) {
        return std::nullopt;
    }
    if (fetching && !RangePresentNoLock(request, start)) return std::nullopt;
    const auto now = std::chrono::steady_clock::now();
    long long runEnd = 0;
    std::optional<ReadAheadPlan> plan = PlanBeforeHistoryNoLock(request, settings, &runEnd);
    if (plan != ReadAheadPlan::kIgnore) {
        std::lock_guard<std::mutex> history(historyLock);
        if (!plan) plan = PlanFromHistoryNoLock(request, settings, now, runEnd);
        if (plan == ReadAheadPlan::kStart) return std::nullopt;
        RememberReadNoLock(*plan, {request->offset, request->length, now});
    }
    return CopySectorsNoLock(request, now, start);
}

bool ReadonlyCache::RangePresentNoLock(const _READDATA* request, SectorMap::iterator entry) {
    const long long end = std::min(request->offset + request->length, request->fileSize);
    for (long long cur = SectorOf(request->offset); cur < end; cur += kSectorSize, ++entry) {
        if (entry == sectors.end() || entry->first != cur ||
            !IsCompleteNoLock(cur, entry->second)) {
            return false;
        }
    }
    return true;
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

AERROR ReadonlyCache::WaitForSectors(std::unique_lock<std::shared_mutex>& guard, _READDATA* request,
                                     QueueState& state) {
    // Nothing past the end of the file will ever arrive.
    const long long end = std::min(request->offset + request->length, request->fileSize);
    const long long first = SectorOf(request->offset);
    long long cur = first;
    // The sector that kept the last poll waiting, for the time-out line.
    long long waitingSlot = -1;
    long long waitingLength = 0;
    bool waitingReserved = false;
    // Started by the first poll that has to wait: the first poll runs under
    // the lock taken for queueing, and a cached range is copied without
    // releasing it in between.
    std::optional<Chrono> waited;
    for (;;) {
        if (file == nullptr) {
            Log(LL_ERROR, "[%s] Read failed : Invalid cache file handle");
            return AE_INVALID_HANDLE;
        }
        bool missing = false;
        for (auto entry = sectors.lower_bound(cur); cur < end; cur += kSectorSize, ++entry) {
            if (entry == sectors.end() || entry->first != cur) {
                missing = true;
                waitingSlot = -1;
                waitingLength = 0;
                waitingReserved = false;
                break;
            }
            waitingSlot = entry->second.offset;
            waitingLength = entry->second.length;
            waitingReserved = entry->second.reserved;
            if (!IsCompleteNoLock(cur, entry->second)) {
                missing = !waitingReserved;
                break;
            }
        }
        if (cur >= end) return AE_OK;  // `guard` stays locked for the copy

        // A closed handle explains whatever else went wrong (a fetcher
        // gives up on a closed handle, and its sectors vanish).
        if (HandleState(request->handle) > 3) {
            guard.unlock();
            Log(LL_ERROR, "[%s] Read failed : Handle closed before return");
            ClearReserved(request->offset, request->length);
            return AE_HANDLE_CLOSED;
        }
        if (missing) {
            // A reservation vanished or a sector lacks its tail. If this read
            // queued fetches, one of them failed or stopped short; otherwise
            // somebody else's did, so queue again.
            if (state == QueueState::kReadAhead || state == QueueState::kSectors) {
                Log(LL_ERROR, "[%s] Read failed : Sector %lld not found on sector hash", cur);
                return AE_READ_NOT_SERVED;
            }
            const AERROR queued = QueueEmptySectors(first, end, request->fetch, request->handle);
            if (queued == AE_FETCH_QUEUED) {
                state = QueueState::kSectors;
                waited.emplace();
            } else if (queued != AE_OK) {
                Log(LL_ERROR,
                    "[%s] Read failed : Sector %lld not found on sector hash and "
                    "QueueEmptySectors returns error",
                    cur);
                return queued;
            }
        }
        // A read that posted the whole-file job waits for it without limit;
        // once no large fetch runs, nothing is coming: the wait ends as a
        // time-out does.
        const bool jobEnded = state == QueueState::kWholeFile &&
                              largeFetch.load(std::memory_order_acquire) == nullptr;
        const unsigned long long seen = mapVersion;
        guard.unlock();
        if (!waited) waited.emplace();
        const long long elapsed = waited->elapsed();
        if (jobEnded || (request->timeout > -1 && elapsed > request->timeout)) {
            const std::string detail = "last checked sector offset was " + std::to_string(cur) +
                                       " on offset " + std::to_string(waitingSlot) + ", length " +
                                       std::to_string(waitingLength) + " and " +
                                       (waitingReserved ? "reserved" : "not reserved");
            Log(LL_ERROR, "[%s] Read timed-out : %p, %lld, %d(%s)",
                static_cast<void*>(request->buffer), request->offset,
                static_cast<int>(request->length), detail.c_str());
            ClearReserved(request->offset, request->length);
            return AE_READ_NOT_SERVED;
        }
        guard.lock();
        WaitForChangeNoLock(guard, seen);
    }
}

AERROR ReadonlyCache::CopySectorsNoLock(_READDATA* request,
                                        std::chrono::steady_clock::time_point now,
                                        SectorMap::iterator entry) {
    const long long first = SectorOf(request->offset);
    // Only bytes of the file are copied: whatever a slot holds past its end
    // is not the remote's.
    const long long fileEnd = std::clamp(request->fileSize, 0LL, kOffsetLimit);
    const long long length =
        fileEnd <= request->offset ? 0 : std::min(request->length, fileEnd - request->offset);
    long long total = 0;
    long long cur = first;
    for (;;) {
        // One transfer covers the following sectors whose slots lie back to
        // back in the cache file; each of them counts a read. It stops at a
        // sector not cached (without a fetcher a reserved one holds no data
        // yet either) and after one that lacks its tail.
        long long spanStart = 0;
        long long spanBytes = 0;
        bool gap = false;
        for (bool empty = true; total + spanBytes < length;
             ++entry, cur += kSectorSize, empty = false) {
            if (entry == sectors.end() || entry->first != cur || entry->second.reserved) {
                gap = true;
                break;
            }
            _SECTOR& sector = entry->second;
            const long long fileOffset =
                sector.offset + (cur == first ? request->offset % kSectorSize : 0);
            if (!empty && fileOffset != spanStart + spanBytes) break;
            if (empty) spanStart = fileOffset;
            spanBytes += std::clamp(sector.offset + sector.length - fileOffset, 0LL,
                                    length - total - spanBytes);
            SectorHit(sector, now);
            if (!IsCompleteNoLock(cur, sector)) {
                // Its bytes are the remote's, but the next ones are not here.
                gap = true;
                cur += kSectorSize;
                break;
            }
        }
        size_t done = 0;
        if (!ReadAt(file, spanStart, request->buffer + total, static_cast<size_t>(spanBytes),
                    &done)) {
            const int error = errno;
            Log(LL_ERROR, "[%s] ReadFile failed : %s", strerror(error));
            return AE_READ_FAILED;
        }
        total += static_cast<long long>(done);
        // Done; or a slot cut short (the cache file was truncated), after
        // which bytes would land at the wrong place in the buffer.
        if (total >= length || static_cast<long long>(done) < spanBytes) break;
        if (gap) {
            if (request->fetch == nullptr) break;  // a partial read is a success
            Log(LL_ERROR, "[%s] Read failed : Sector %lld not found on sector hash", cur);
            return AE_READ_NOT_SERVED;
        }
    }
    // A range reaching past the end of the file needs a sector that no
    // fetch will ever bring: with a fetcher that fails the read, as any
    // missing sector does, so a host clips its reads to the file size.
    if (total == length && length < request->length && request->fetch != nullptr) {
        Log(LL_ERROR, "[%s] Read failed : Sector %lld not found on sector hash",
            std::max(SectorCeil(fileEnd), SectorOf(request->offset)));
        return AE_READ_NOT_SERVED;
    }
    request->transferred = total;
    Log(LL_INFO, "[%s] Read done : %p, %lld, %d/%d", static_cast<void*>(request->buffer),
        request->offset, static_cast<int>(length), static_cast<int>(total));
    return AE_OK;
}

long long ReadonlyCache::ScanWindowNoLock(long long first, long long end, SectorMap::iterator entry,
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
    if (file == nullptr) return AE_INVALID_HANDLE;
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
    // Runs of consecutive offsets, by start. A sector extends the first run
    // (by start) that ends where it begins; `ends` finds that run quickly.
    std::map<long long, long long> runLengths;
    std::set<std::pair<long long, long long>> ends;  // (end, start)
    const auto now = std::chrono::steady_clock::now();
    for (const long long s : sectorOffsets) {
        auto extended = ends.lower_bound({s, LLONG_MIN});
        if (extended != ends.end() && extended->first == s) {
            const long long start = extended->second;
            runLengths[start] += kSectorSize;
            ends.erase(extended);
            ends.emplace(s + kSectorSize, start);
        } else if (runLengths.emplace(s, kSectorSize).second) {
            ends.emplace(s + kSectorSize, s);
        }
        ReserveSectorNoLock(s, 0, now);
    }
    for (const auto& [start, length] : runLengths) {
        Log(LL_DETAIL, "[%s] Queue empty offset %lld to %lld(%lld bytes)", start, start + length,
            length);
        QueueAsync(new AsyncFetch(this, fetch, start, length, handle), nullptr);
    }
}

AERROR ReadonlyCache::CheckReadAhead(_READDATA* request, const _CACHECONFIG& settings,
                                     std::chrono::steady_clock::time_point now) {
    long long runEnd = 0;
    std::optional<ReadAheadPlan> plan = PlanBeforeHistoryNoLock(request, settings, &runEnd);
    if (!plan) plan = PlanFromHistoryNoLock(request, settings, now, runEnd);
    if (plan == ReadAheadPlan::kStart) StartReadAheadNoLock(request, runEnd, settings);
    RememberReadNoLock(*plan, {request->offset, request->length, now});
    return plan == ReadAheadPlan::kStart ? AE_FETCH_QUEUED : AE_OK;
}

std::optional<ReadonlyCache::ReadAheadPlan> ReadonlyCache::PlanBeforeHistoryNoLock(
    const _READDATA* request, const _CACHECONFIG& settings, long long* runEnd) const {
    // While a large fetch runs, the read is only remembered.
    if (largeFetch.load(std::memory_order_acquire) != nullptr) return ReadAheadPlan::kRemember;
    if (request->fetch == nullptr) return ReadAheadPlan::kIgnore;
    *runEnd = GetLargestEmptyOffsetNoLock(request->offset, settings.ramax);
    if (*runEnd == -1) return ReadAheadPlan::kIgnore;  // cached well beyond one read-ahead
    if (*runEnd + kSectorSize >= fileSize) return ReadAheadPlan::kForget;  // cached to the end
    return std::nullopt;
}

ReadonlyCache::ReadAheadPlan ReadonlyCache::PlanFromHistoryNoLock(
    const _READDATA* request, const _CACHECONFIG& settings,
    std::chrono::steady_clock::time_point now, long long runEnd) const {
    // runEnd < offset + quota, written so that a huge quota cannot overflow.
    if (readHistory.empty() || runEnd - request->offset >= config->GetQuota()) {
        return ReadAheadPlan::kRemember;
    }
    const _READHISTORY& previous = readHistory.back();
    const auto gap = std::chrono::duration_cast<std::chrono::seconds>(now - previous.time);
    if (gap.count() > kSequenceGapSeconds || previous.offset > request->offset ||
        request->offset - previous.offset > settings.ramax) {
        return ReadAheadPlan::kRestart;  // a pause, a backward read or a jump
    }
    return static_cast<long long>(readHistory.size()) > settings.rahit ? ReadAheadPlan::kStart
                                                                       : ReadAheadPlan::kRemember;
}

void ReadonlyCache::RememberReadNoLock(ReadAheadPlan plan, const _READHISTORY& read) {
    if (plan == ReadAheadPlan::kIgnore) return;
    if (plan == ReadAheadPlan::kForget || plan == ReadAheadPlan::kRestart) readHistory.clear();
    if (plan == ReadAheadPlan::kForget) return;
    if (readHistory.empty()) readAheadLevel = 1;
    readHistory.push_back(read);
    while (readHistory.size() > kHistoryLength) readHistory.pop_front();
}

void ReadonlyCache::StartReadAheadNoLock(_READDATA* request, long long runEnd,
                                         const _CACHECONFIG& settings) {
    // The read-ahead starts at the run's last sector, which may be present
    // already: it is simply rewritten when the data arrives.
    long long size = std::min(readAheadSizes[readAheadLevel - 1], WholeSectors(settings.ramax));
    size = std::clamp(size, 0LL, fileSize - runEnd);
    Log(LL_INFO, "[%s] Read-ahead from %lld, %lld bytes", runEnd, size);
    ReserveNoLock(runEnd, size);
    auto* job = new AsyncLargeFetch(this, request->fetch, runEnd, size, request->handle, false);
    largeFetch.store(job, std::memory_order_release);
    QueueAsync(job, nullptr);
    readAheadLevel = std::min(readAheadLevel + 1, kMaxReadAheadLevel);
}

}  // namespace cache
