#include "cache/writable_cache.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cache/fetch_jobs.h"
#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "cache/sector_runs.h"

namespace cache {

WritableCache::WritableCache(std::shared_ptr<const CacheDirectory> directory,
                             const std::string& name, long long fileSize, IFetch*,
                             std::shared_ptr<ICacheConfig> config)
    : config(std::move(config)) {
    file = directory->CreateFile(name, &cacheFile);
    displayName.Set(cacheFile.displayName);
    if (file == nullptr) {
        const int error = errno;
        Log(LL_ERROR, "[%s] Create cache file failed : %s", strerror(error));
        throw AE_CREATE_FILE_FAILED;
    }
    this->directory = std::move(directory);
    this->fileSize.store(fileSize, std::memory_order_relaxed);
    // A new store has fetched nothing yet. No other thread sees the store
    // before the constructor returns; the lock only satisfies the contract.
    {
        std::lock_guard<std::mutex> guard(lock);
        if (fileSize > 0) AddMissingNoLock(0, std::min(fileSize, kOffsetLimit));
    }
    Log(LL_INFO, "[%s] Writable cache created");
}

WritableCache::~WritableCache() {
    Close();
    directory->RemoveFile(cacheFile);
}

AERROR WritableCache::Read(_READDATA* request) {
    Log(LL_DETAIL, "[%s] Read : %p, %lld, %d", static_cast<void*>(request->buffer), request->offset,
        static_cast<int>(request->length));
    if (!IsValidTransfer(request->offset, request->length, request->buffer)) {
        Log(LL_ERROR, "[%s] Read failed : invalid request");
        return AE_READ_FAILED;
    }
    // The store itself never waits; the record still carries the effective
    // time-out back to the host, as the read-only store's does.
    if (request->timeout == 0) request->timeout = config->GetConfig().readtimeout;

    const long long end = request->offset + request->length;
    if (request->fetch != nullptr) {
        std::lock_guard<std::mutex> guard(lock);
        std::deque<long long> wanted = MissingInNoLock(SectorOf(request->offset), end);
        // A sector that a failed fetch left missing holds none of the
        // remote's bytes, and zeros or a short count would pass for them. A
        // fetch that succeeds without delivering a sector means the remote
        // ends before it; that part reads as the file holds it.
        if (!wanted.empty() && !FetchEmptySectors(wanted, request->fetch, request->handle)) {
            const std::deque<long long> left = MissingInNoLock(SectorOf(request->offset), end);
            if (!left.empty()) {
                Log(LL_ERROR, "[%s] Read failed : Sector %lld could not be fetched", left.front());
                return AE_READ_NOT_SERVED;
            }
        }
    }

    size_t done = 0;
    {
        std::shared_lock<std::shared_mutex> stream(streamLock);
        if (file == nullptr) {
            Log(LL_ERROR, "[%s] Read failed : Invalid cache file handle");
            return AE_INVALID_HANDLE;
        }
        if (!ReadAt(file, request->offset, request->buffer, static_cast<size_t>(request->length),
                    &done)) {
            const int error = errno;
            Log(LL_ERROR, "[%s] Read failed : %s", strerror(error));
            return AE_READ_NOT_SERVED;
        }
    }
    request->transferred = static_cast<long long>(done);
    Log(LL_INFO, "[%s] Read done : %p, %lld, %d/%d", static_cast<void*>(request->buffer),
        request->offset, static_cast<int>(request->length), static_cast<int>(request->transferred));
    return AE_OK;
}

AERROR WritableCache::Write(_WRITEDATA* request) {
    if (!displayName.AcceptWrite(*request)) return AE_WRITE_FAILED;
    const void* buffer = request->buffer;
    const long long offset = request->offset;
    const long long end = offset + request->length;
    const long long first = SectorOf(offset);

    // The sectors this write touches leave the missing list before the bytes
    // land, so that no fill started meanwhile by another request can copy
    // remote data over them. If the write fails they are listed again.
    std::deque<long long> unlisted;
    {
        std::lock_guard<std::mutex> guard(lock);
        FetchPartialSectorsNoLock(request);
        unlisted = MissingInNoLock(first, end);
        RemoveMissingNoLock(first, end);
    }

    size_t done = 0;
    long long cacheSize = 0;
    AERROR result = AE_OK;
    {
        std::shared_lock<std::shared_mutex> stream(streamLock);
        if (file == nullptr) {
            Log(LL_ERROR, "[%s] Write failed : Invalid cache file handle");
            return AE_INVALID_HANDLE;
        }
        if (WriteAt(file, offset, buffer, static_cast<size_t>(request->length), &done)) {
            cacheSize = StreamSize(file);
        } else {
            const int error = errno;
            Log(LL_ERROR, "[%s] Write failed : %s", strerror(error));
            result = AE_WRITE_FAILED;
        }
    }
    if (result != AE_OK) {
        std::lock_guard<std::mutex> guard(lock);
        if (file != nullptr) {
            for (long long sector : unlisted) AddMissingNoLock(sector, sector + 1);
        }
        return result;
    }

    request->transferred = static_cast<long long>(done);
    RaiseFileSize(cacheSize);
    Log(LL_INFO, "[%s] Write done : %p, %lld, %d/%d", buffer, offset,
        static_cast<int>(request->length), static_cast<int>(request->transferred));
    return AE_OK;
}

void WritableCache::FetchPartialSectorsNoLock(const _WRITEDATA* request) {
    const long long offset = request->offset;
    const long long end = offset + request->length;
    const bool wholeFile = offset == 0 && end == request->fileSize;
    if (request->fetch == nullptr || wholeFile || missing.empty()) return;
    // Only a partly covered head or tail sector needs the remote's bytes
    // around the written ones.
    const long long first = SectorOf(offset);
    const long long last = request->length > 0 ? SectorOf(end - 1) : first;
    std::deque<long long> partial;
    if (IsMissingNoLock(first) && (first < offset || end < first + kSectorSize)) {
        partial.push_back(first);
    }
    if (last != first && IsMissingNoLock(last) && end < last + kSectorSize) {
        partial.push_back(last);
    }
    if (!partial.empty()) FetchEmptySectors(partial, request->fetch, request->handle);
}

AERROR WritableCache::Reserve(long long, long long) {
    return AE_OK;
}

AERROR WritableCache::ClearReserved(long long, long long) {
    return AE_OK;
}

AERROR WritableCache::Close() {
    std::lock_guard<std::mutex> guard(lock);
    std::unique_lock<std::shared_mutex> stream(streamLock);
    if (file == nullptr) return AE_INVALID_HANDLE;
    CloseHandle(file);
    file = nullptr;
    missing.clear();
    return AE_OK;
}

AERROR WritableCache::Truncate(long long size) {
    std::lock_guard<std::mutex> guard(lock);
    if (file == nullptr) {
        Log(LL_ERROR, "[%s] Truncate failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    if (size < 0 || size > kOffsetLimit || ftruncate(fileno(file), size) != 0) {
        const int error = size < 0 || size > kOffsetLimit ? EINVAL : errno;
        Log(LL_ERROR, "[%s] Truncate failed : %s", strerror(error));
        return AE_WRITE_FAILED;
    }
    const long long known = fileSize.load(std::memory_order_relaxed);
    if (size > known) {
        // The old partial last sector is listed again with the new ones: the
        // remote may hold bytes past what this store knew as the end.
        AddMissingNoLock(SectorOf(std::max(known, 0LL)), size);
    } else if (size < kOffsetLimit) {
        // From the first boundary above `size`; none lies past the range.
        RemoveMissingNoLock(SectorOf(size) + kSectorSize, known);
    }
    return AE_OK;
}

bool WritableCache::IsReadonly() {
    return false;
}

ICacheFile* WritableCache::RebuildToWritableCache(IFetch*, ICacheConfig*) {
    return nullptr;
}

ICacheFile* WritableCache::RebuildToReadonlyCache(IFetch*, ICacheConfig*) {
    Log(LL_INFO, "[%s] Writable cache to read only cache");
    return new ReadonlyCache(this, config);
}

void WritableCache::ClearOldCache(bool) {}

long long WritableCache::GetFileSize() {
    std::shared_lock<std::shared_mutex> stream(streamLock);
    return file != nullptr ? StreamSize(file) : 0;
}

long long WritableCache::GetLargestEmptyOffset(long long) {
    return -1;
}

AERROR WritableCache::FillEmptySectors(IFetch* fetch) {
    if (fetch == nullptr) return AE_OK;
    std::lock_guard<std::mutex> guard(lock);
    // The fill is not tied to any host request, so it carries a handle of
    // its own that nobody closes.
    const std::shared_ptr<_FS_HANDLE> handle = MakeLibraryHandle(fetch->GetHostHandle());
    if (missing.empty()) return AE_OK;
    std::map<long long, long long> runs;
    for (const auto& [start, stop] : missing) runs.emplace(start, stop - start);
    FetchRunsNoLock(runs, fetch, handle);
    return AE_OK;
}

void WritableCache::ChangeFileName(std::string newName) {
    displayName.Set(std::move(newName));
}

AERROR WritableCache::FetchWrite(long long offset, const char* data, long length, long* written) {
    Log(LL_DETAIL, "[%s] FetchWrite : %p, %lld, %d", static_cast<const void*>(data), offset,
        static_cast<int>(length));
    if (data == nullptr || !IsValidTransfer(offset, length, data)) {
        Log(LL_ERROR, "[%s] Fetch write failed : invalid request");
        return AE_WRITE_FAILED;
    }
    if (file == nullptr) {
        Log(LL_ERROR, "[%s] Fetch write failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    size_t done = 0;
    if (!WriteAt(file, offset, data, static_cast<size_t>(length), &done)) {
        const int error = errno;
        Log(LL_ERROR, "[%s] Fetch write failed : %s", strerror(error));
        return AE_WRITE_FAILED;
    }
    if (written != nullptr) *written = static_cast<long>(done);
    RaiseFileSize(StreamSize(file));
    // A host may deliver a run of several sectors in one piece: every sector
    // the piece starts in is present now.
    RemoveMissingNoLock(SectorOf(offset), offset + static_cast<long long>(done));
    return AE_OK;
}

FILE* WritableCache::TakeStream(long long* size) {
    std::lock_guard<std::mutex> guard(lock);
    std::unique_lock<std::shared_mutex> stream(streamLock);
    *size = StreamSize(file);
    FILE* taken = file;
    file = nullptr;
    missing.clear();
    return taken;
}

bool WritableCache::FetchEmptySectors(std::deque<long long>& sectors, IFetch* fetch,
                                      std::shared_ptr<_FS_HANDLE> handle) {
    return FetchRunsNoLock(RunsOf(sectors), fetch, handle);
}

bool WritableCache::FetchRunsNoLock(const std::map<long long, long long>& runs, IFetch* fetch,
                                    const std::shared_ptr<_FS_HANDLE>& handle) {
    bool succeeded = true;
    for (const auto& [start, length] : runs) {
        // A failed run stays missing; the next one is fetched regardless.
        const int failed =
            SyncFetchForWritableCache(this, fetch, start, static_cast<long>(length), handle)
                .Process();
        succeeded = succeeded && failed == 0;
    }
    return succeeded;
}

void WritableCache::AddMissingNoLock(long long first, long long end) {
    long long lo = SectorOf(first);
    long long hi = SectorCeil(std::min(end, kOffsetLimit));
    if (hi <= lo) return;
    // Absorb every run that overlaps or touches [lo, hi).
    auto run = missing.upper_bound(lo);
    if (run != missing.begin() && std::prev(run)->second >= lo) --run;
    while (run != missing.end() && run->first <= hi) {
        lo = std::min(lo, run->first);
        hi = std::max(hi, run->second);
        run = missing.erase(run);
    }
    missing.emplace(lo, hi);
}

void WritableCache::RemoveMissingNoLock(long long first, long long end) {
    const long long lo = SectorCeil(std::clamp(first, 0LL, kOffsetLimit));
    const long long hi = SectorCeil(std::clamp(end, 0LL, kOffsetLimit));
    if (hi <= lo) return;
    auto run = missing.upper_bound(lo);
    if (run != missing.begin() && std::prev(run)->second > lo) --run;
    while (run != missing.end() && run->first < hi) {
        const long long start = run->first;
        const long long stop = run->second;
        run = missing.erase(run);
        if (start < lo) missing.emplace(start, lo);
        if (stop > hi) run = missing.emplace(hi, stop).first;
    }
}

bool WritableCache::IsMissingNoLock(long long sector) const {
    auto run = missing.upper_bound(sector);
    return run != missing.begin() && std::prev(run)->second > sector;
}

std::deque<long long> WritableCache::MissingInNoLock(long long first, long long end) const {
    std::deque<long long> found;
    const long long lo = SectorCeil(std::clamp(first, 0LL, kOffsetLimit));
    const long long hi = SectorCeil(std::clamp(end, 0LL, kOffsetLimit));
    if (hi <= lo) return found;
    auto run = missing.upper_bound(lo);
    if (run != missing.begin() && std::prev(run)->second > lo) --run;
    for (; run != missing.end() && run->first < hi; ++run) {
        for (long long sector = std::max(run->first, lo); sector < std::min(run->second, hi);
             sector += kSectorSize) {
            found.push_back(sector);
        }
    }
    return found;
}

void WritableCache::RaiseFileSize(long long size) {
    long long known = fileSize.load(std::memory_order_relaxed);
    while (size > known &&
           !fileSize.compare_exchange_weak(known, size, std::memory_order_relaxed)) {
    }
}

}  // namespace cache
