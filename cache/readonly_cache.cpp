// ReadonlyCache: construction, the small operations and the run lookup.
#include "cache/readonly_cache.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "cache/file_io.h"
#include "cache/writable_cache.h"

namespace cache {

ReadonlyCache::ReadonlyCache(std::shared_ptr<const CacheDirectory> directory,
                             const std::string& name, long long fileSize,
                             std::shared_ptr<ICacheConfig> config)
    : config(std::move(config)), fileSize(fileSize), readAhead(this->config->GetConfig()) {
    file.Adopt(directory->CreateFile(name, &cacheFile));
    displayName.Set(cacheFile.displayName);
    if (!file.IsOpen()) throw AE_CREATE_FILE_FAILED;
    this->directory = std::move(directory);
    Log(LL_INFO, "[%s] Read only cache created");
}

ReadonlyCache::ReadonlyCache(WritableCache* source, std::shared_ptr<ICacheConfig> config)
    : config(std::move(config)), readAhead(this->config->GetConfig()) {
    ExclusiveLock guard(lock);  // uncontended: for the analysis of the fields below
    displayName.Set(*source->GetFileName());
    file.Adopt(source->TakeStream(&fileSize));
    if (!file.IsOpen()) throw AE_CREATE_FILE_FAILED;
    // The dense file holds sector p at offset p: every slot is its own
    // sector. The sectors that hold data become present, and so do the
    // holes between them (they read as zeros) while there are at most
    // kMaxConvertedHoleSectors of them. Beyond that the holes stay absent
    // and are fetched like any uncached sector: the work and memory follow
    // what the file holds, not the size it declares.
    std::vector<SectorSpan> present = DataSectors(file.Stream(), fileSize);
    long long dataSectors = 0;
    for (const SectorSpan& span : present) dataSectors += (span.end - span.first) / kSectorSize;
    if (SectorCeil(fileSize) / kSectorSize - dataSectors <= kMaxConvertedHoleSectors) {
        present.assign({SectorSpan{0, SectorCeil(fileSize)}});
    }
    const auto now = std::chrono::steady_clock::now();
    for (const SectorSpan& span : present) {
        for (long long p = span.first; p < span.end; p += kSectorSize) {
            sectors.Insert(p,
                           _SECTOR{p, std::min(fileSize - p, kSectorSize), 0, false, false, now});
        }
    }
    Log(LL_INFO, "[%s] Read only cache from writable cache created");
}

ReadonlyCache::~ReadonlyCache() {
    Close();
    if (directory) directory->RemoveFile(cacheFile);
}

ICacheConfig* ReadonlyCache::GetConfig() {
    return config.get();
}

long long ReadonlyCache::GetFileOffset(long long) {
    return file.AppendOffset();
}

long long ReadonlyCache::GetFileSize() {
    return file.Size();
}

AERROR ReadonlyCache::Close() {
    // Jobs deliver through FetchWrite, which needs `lock`: wait before
    // taking it.
    for (long long running; (running = readAheadThreads.load(std::memory_order_acquire)) != 0;) {
        Log(LL_DETAIL, "[%s] %lld of read-ahead thread still working. Wait for thread termination.",
            running);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ExclusiveLock guard(lock);
    if (!file.IsOpen()) return AE_INVALID_HANDLE;
    file.Close();
    sectors.Clear();
    readAhead.Clear();
    return AE_OK;
}

AERROR ReadonlyCache::Truncate(long long size) {
    ExclusiveLock guard(lock);
    if (!file.IsOpen()) {
        Log(LL_ERROR, "[%s] Truncate failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    if (const int error = file.Truncate(size); error != 0) {
        Log(LL_ERROR, "[%s] Truncate failed : %s", strerror(error));
        return AE_TRUNCATE_FAILED;
    }
    return AE_OK;
}

void ReadonlyCache::ChangeFileName(std::string newName) {
    displayName.Set(std::move(newName));
}

bool ReadonlyCache::IsReadonly() {
    return true;
}

ICacheFile* ReadonlyCache::RebuildToWritableCache(IFetch*, ICacheConfig*) {
    return nullptr;
}

ICacheFile* ReadonlyCache::RebuildToReadonlyCache(IFetch*, ICacheConfig*) {
    return nullptr;
}

AERROR ReadonlyCache::FillEmptySectors(IFetch*) {
    return AE_OK;
}

long long ReadonlyCache::GetLargestEmptyOffset(long long offset) {
    const long long ramax = config->GetConfig().ramax;
    ExclusiveLock guard(lock);
    return GetLargestEmptyOffsetNoLock(offset, ramax);
}

long long ReadonlyCache::GetLargestEmptyOffsetNoLock(long long offset, long long ramax) const {
    const long long cur = SectorOf(offset);
    const std::optional<long long> last = sectors.LastOfRun(cur);
    if (!last) return cur;
    // Walking the run sector by sector would stop with -1 at the first
    // sector past offset + ramax; the run's last sector decides that.
    if (*last > cur && *last - offset > ramax) return -1;
    return *last;
}

}  // namespace cache
