// ReadonlyCache::ClearOldCache: eviction of old sectors and compaction of
// the cache file.
//
// Runs on the quota manager thread with the store's lock held for the whole
// call, so readers and fetch writes wait for it.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "cache/readonly_cache.h"

namespace cache {

void ReadonlyCache::ClearOldCache(bool overLimit) {
    ExclusiveLock guard(lock);
    if (!file.IsOpen()) return;
    const size_t expired = ExpireSectorsNoLock(overLimit);
    // Free slots are reclaimed even when nothing expired: a fetch write that
    // failed on a full disk leaves its slot free, and giving that space back
    // is what lets the next fetch succeed.
    const long long sizeBefore = GetFileSize();
    if (!file.HasFree()) return;
    CompactSlotsNoLock();
    if (const int error = file.TrimFreeTail(); error != 0) {
        Log(LL_ERROR, "[%s] ClearOldCache failed : %s", strerror(error));
    }
    const long long sizeAfter = GetFileSize();
    if (expired > 0 || sizeAfter != sizeBefore) {
        Log(LL_INFO, "[%s] ClearOldCache : OK, %lld => %lld", sizeBefore, sizeAfter);
    }
}

size_t ReadonlyCache::ExpireSectorsNoLock(bool overLimit) {
    const auto now = std::chrono::steady_clock::now();
    const _CACHECONFIG settings = config->GetConfig();
    // Limits in seconds, compared unsigned: a negative limit never expires.
    const auto readLimit =
        static_cast<unsigned long long>(overLimit ? settings.clroverused : settings.clrused);
    const auto anyLimit =
        static_cast<unsigned long long>(overLimit ? settings.clroverunused : settings.clrunused);

    // A sector that was read expires at either limit, one never read only at
    // the any-sector limit. Reserved sectors are awaited by someone.
    std::vector<SectorTable::iterator> expired;
    for (auto entry = sectors.begin(); entry != sectors.end(); ++entry) {
        const _SECTOR& sector = entry->second;
        if (sector.reserved) continue;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
            std::max(now - sector.time, std::chrono::steady_clock::duration::zero()));
        const auto age = static_cast<unsigned long long>(seconds.count());
        if ((age > readLimit && sector.hits > 0) || age > anyLimit) expired.push_back(entry);
    }
    if (expired.empty()) return 0;
    Log(LL_DETAIL, "[%s] ClearOldCache : %d sector(s) will clear(total %d sector(s))",
        static_cast<int>(expired.size()), static_cast<int>(sectors.size()));
    for (auto entry : expired) {
        if (entry->second.offset != -1) file.Free(entry->second.offset);
        sectors.Erase(entry);
    }
    return expired.size();
}

void ReadonlyCache::CompactSlotsNoLock() {
    std::vector<SlotFile::SlotUse> kept;
    kept.reserve(sectors.size());
    for (const auto& [key, sector] : sectors) kept.push_back({key, sector.offset});
    file.Compact(std::move(kept), [&](long long key, long long slot)
                                      REQUIRES(lock) { sectors.find(key)->second.offset = slot; });
}

}  // namespace cache
