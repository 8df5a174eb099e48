// ReadonlyCache: the read path (shared copy, exclusive path, wait, copy) and
// the one wait that reads and writes share.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "common/chrono.h"

namespace cache {

namespace {

// A small read still queues this much from its offset, so that sequential
// small reads are served by fewer, larger fetches.
constexpr long long kMinimumQueued = 1048576;

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
        SharedLock cached(lock);
        if (!file.IsOpen()) return AE_INVALID_HANDLE;
        if (request->timeout == 0) request->timeout = settings.readtimeout;
        if (const std::optional<AERROR> served = ServeCachedNoLock(request, settings)) {
            return *served;
        }
    }

    ExclusiveLock guard(lock);
    if (!file.IsOpen()) return AE_INVALID_HANDLE;
    fileSize = request->fileSize;
    QueueState state = QueueState::kNothing;
    if (const AERROR queued = QueueForReadNoLock(request, settings, &state); queued != AE_OK) {
        return queued;
    }
    // The copy needs the lock only shared; the range is checked again under
    // it, since anything may have changed while the lock was free. Without a
    // fetcher nothing will arrive: what is cached now is served.
    for (;;) {
        guard.unlock();
        {
            SharedLock copying(lock);
            const auto now = std::chrono::steady_clock::now();
            const auto start = sectors.lower_bound(SectorOf(request->offset));
            if (request->fetch == nullptr) {
                return !file.IsOpen() ? AE_INVALID_HANDLE : CopySectorsNoLock(request, now, start);
            }
            if (file.IsOpen() && RangePresentNoLock(request, start)) {
                return CopySectorsNoLock(request, now, start);
            }
        }
        guard.lock();
        const AERROR waited = WaitForReadNoLock(guard, request, state);
        if (waited != AE_OK) return waited;
    }
}

AERROR ReadonlyCache::QueueForReadNoLock(_READDATA* request, const _CACHECONFIG& settings,
                                         QueueState* state) {
    if ((request->flags & RD_FETCH_ALL) != RD_NONE) {
        if (FetchWholeFileNoLock(request)) *state = QueueState::kWholeFile;
        return AE_OK;
    }
    if (CheckReadAhead(request, settings, std::chrono::steady_clock::now()) == AE_FETCH_QUEUED) {
        *state = QueueState::kReadAhead;
    }
    const AERROR queued = QueueEmptySectors(SectorOf(request->offset), WindowEnd(request),
                                            request->fetch, request->handle);
    if (queued == AE_FETCH_QUEUED) {
        *state = QueueState::kSectors;
    } else if (queued != AE_OK) {
        Log(LL_ERROR, "[%s] Read failed : QueueEmptySectors returns error");
        return queued;
    }
    return AE_OK;
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
    std::optional<ReadAheadPolicy::Plan> plan = PlanBeforeHistoryNoLock(request, settings, &runEnd);
    if (plan != ReadAheadPolicy::Plan::kIgnore) {
        MutexLock history(historyLock);
        if (!plan) {
            plan = readAhead.PlanFromHistory(request->offset, runEnd, config->GetQuota(), settings,
                                             now);
        }
        if (plan == ReadAheadPolicy::Plan::kStart) return std::nullopt;
        readAhead.Remember(*plan, {request->offset, request->length, now});
    }
    return CopySectorsNoLock(request, now, start);
}

bool ReadonlyCache::RangePresentNoLock(const _READDATA* request, SectorTable::iterator entry) {
    const long long end = std::min(request->offset + request->length, request->fileSize);
    for (long long cur = SectorOf(request->offset); cur < end; cur += kSectorSize, ++entry) {
        if (entry == sectors.end() || entry->first != cur ||
            !IsCompleteNoLock(cur, entry->second)) {
            return false;
        }
    }
    return true;
}

// The analysis does not follow a guard passed in by reference, which this
// wait releases and takes again; its callers are checked against REQUIRES.
AERROR ReadonlyCache::WaitForSectorsNoLock(ExclusiveLock& guard,
                                           const SectorWait& wait) NO_THREAD_SAFETY_ANALYSIS {
    // Started by the first scan that has to wait (the first scan runs under
    // the lock its caller took, and a ready range is served without
    // releasing it in between), and again when the wait queues afresh.
    std::optional<Chrono> waited;
    for (;;) {
        if (!file.IsOpen()) return wait.fileClosed();
        if (const std::optional<AERROR> scanned = wait.scan()) return *scanned;
        // A closed handle explains whatever else went wrong (a fetcher
        // gives up on a closed handle, and its sectors vanish).
        if (HandleClosed(wait.handle)) {
            guard.unlock();
            return wait.handleClosed();
        }
        if (wait.stillMissing) {
            const AERROR missing = wait.stillMissing();
            if (missing == AE_FETCH_QUEUED) {
                waited.emplace();
            } else if (missing != AE_OK) {
                return missing;
            }
        }
        const bool ended = wait.nothingComing && wait.nothingComing();
        const unsigned long long seen = sectors.Version();
        guard.unlock();
        if (!waited) waited.emplace();
        if (ended || (wait.timeout > -1 && waited->elapsed() > wait.timeout)) {
            return wait.timedOut();
        }
        guard.lock();
        sectors.WaitForChange(guard, seen);
    }
}

bool ReadonlyCache::ScanReadNoLock(ReadProgress& progress, long long end) {
    progress.missing = false;
    for (auto entry = sectors.lower_bound(progress.cur); progress.cur < end;
         progress.cur += kSectorSize, ++entry) {
        if (entry == sectors.end() || entry->first != progress.cur) {
            progress.missing = true;
            progress.slot = -1;
            progress.length = 0;
            progress.reserved = false;
            return false;
        }
        progress.slot = entry->second.offset;
        progress.length = entry->second.length;
        progress.reserved = entry->second.reserved;
        if (!IsCompleteNoLock(progress.cur, entry->second)) {
            progress.missing = !progress.reserved;
            return false;
        }
    }
    return true;
}

AERROR ReadonlyCache::WaitForReadNoLock(ExclusiveLock& guard, _READDATA* request,
                                        QueueState& state) {
    // Nothing past the end of the file will ever arrive.
    const long long end = std::min(request->offset + request->length, request->fileSize);
    const long long first = SectorOf(request->offset);
    ReadProgress progress{first};
    // A reservation vanished or a sector lacks its tail. If this read queued
    // fetches, one of them failed or stopped short; otherwise somebody
    // else's did, so queue again.
    const auto stillMissing = [&]() REQUIRES(lock) {
        if (!progress.missing) return AE_OK;
        if (state == QueueState::kReadAhead || state == QueueState::kSectors) {
            Log(LL_ERROR, "[%s] Read failed : Sector %lld not found on sector hash", progress.cur);
            return AE_READ_NOT_SERVED;
        }
        const AERROR queued = QueueEmptySectors(first, end, request->fetch, request->handle);
        if (queued == AE_FETCH_QUEUED) {
            state = QueueState::kSectors;
        } else if (queued != AE_OK) {
            Log(LL_ERROR,
                "[%s] Read failed : Sector %lld not found on sector hash and "
                "QueueEmptySectors returns error",
                progress.cur);
        }
        return queued;
    };
    const SectorWait wait{
        request->handle,
        request->timeout,
        [&] {
            Log(LL_ERROR, "[%s] Read failed : Invalid cache file handle");
            return AE_INVALID_HANDLE;
        },
        // `guard` stays locked for the copy once the range is ready.
        [&]() REQUIRES(lock) {
            return ScanReadNoLock(progress, end) ? std::optional<AERROR>(AE_OK) : std::nullopt;
        },
        [&] {
            Log(LL_ERROR, "[%s] Read failed : Handle closed before return");
            ClearReserved(request->offset, request->length);
            return AE_HANDLE_CLOSED;
        },
        stillMissing,
        // A read that posted the whole-file job waits for it without limit;
        // once no large fetch runs, nothing is coming: the wait ends as a
        // time-out does.
        [&] {
            return state == QueueState::kWholeFile &&
                   largeFetch.load(std::memory_order_acquire) == nullptr;
        },
        [&] { return ReadTimedOut(request, progress); },
    };
    return WaitForSectorsNoLock(guard, wait);
}

AERROR ReadonlyCache::ReadTimedOut(const _READDATA* request, const ReadProgress& progress) {
    const std::string detail = "last checked sector offset was " + std::to_string(progress.cur) +
                               " on offset " + std::to_string(progress.slot) + ", length " +
                               std::to_string(progress.length) + " and " +
                               (progress.reserved ? "reserved" : "not reserved");
    Log(LL_ERROR, "[%s] Read timed-out : %p, %lld, %d(%s)", static_cast<void*>(request->buffer),
        request->offset, static_cast<int>(request->length), detail.c_str());
    ClearReserved(request->offset, request->length);
    return AE_READ_NOT_SERVED;
}

ReadonlyCache::CopySpan ReadonlyCache::NextSpanNoLock(const _READDATA* request, long long wanted,
                                                      SectorTable::iterator& entry, long long& cur,
                                                      std::chrono::steady_clock::time_point now) {
    const long long first = SectorOf(request->offset);
    CopySpan span;
    for (bool empty = true; span.bytes < wanted; ++entry, cur += kSectorSize, empty = false) {
        if (entry == sectors.end() || entry->first != cur || entry->second.reserved) {
            span.gap = true;
            break;
        }
        _SECTOR& sector = entry->second;
        const long long fileOffset =
            sector.offset + (cur == first ? request->offset % kSectorSize : 0);
        if (!empty && fileOffset != span.start + span.bytes) break;
        if (empty) span.start = fileOffset;
        span.bytes +=
            std::clamp(sector.offset + sector.length - fileOffset, 0LL, wanted - span.bytes);
        SectorHit(sector, now);
        if (!IsCompleteNoLock(cur, sector)) {
            // Its bytes are the remote's, but the next ones are not here.
            span.gap = true;
            cur += kSectorSize;
            break;
        }
    }
    return span;
}

AERROR ReadonlyCache::CopySectorsNoLock(_READDATA* request,
                                        std::chrono::steady_clock::time_point now,
                                        SectorTable::iterator entry) {
    const long long first = SectorOf(request->offset);
    // Only bytes of the file are copied: whatever a slot holds past its end
    // is not the remote's.
    const long long fileEnd = std::clamp(request->fileSize, 0LL, kOffsetLimit);
    const long long length =
        fileEnd <= request->offset ? 0 : std::min(request->length, fileEnd - request->offset);
    long long total = 0;
    long long cur = first;
    for (;;) {
        const CopySpan span = NextSpanNoLock(request, length - total, entry, cur, now);
        size_t done = 0;
        if (!ReadAt(file.Stream(), span.start, request->buffer + total,
                    static_cast<size_t>(span.bytes), &done)) {
            const int error = errno;
            Log(LL_ERROR, "[%s] ReadFile failed : %s", strerror(error));
            return AE_READ_FAILED;
        }
        total += static_cast<long long>(done);
        // Done; or a slot cut short (the cache file was truncated), after
        // which bytes would land at the wrong place in the buffer.
        if (total >= length || static_cast<long long>(done) < span.bytes) break;
        if (span.gap) {
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

}  // namespace cache
