// ReadonlyCache::ClearOldCache: eviction of old sectors and compaction of
// the cache file.
//
// Runs on the quota manager thread with the store's lock held for the whole
// call, so readers and fetch writes wait for it.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "cache/file_io.h"
#include "cache/readonly_cache.h"

namespace cache {

namespace {

// A sector that stays, with the slot that holds it, for compaction.
struct _SECTOR_USING {
    long long key;     // sector offset
    long long offset;  // slot in the cache file
};

}  // namespace

void ReadonlyCache::ClearOldCache(bool overLimit) {
    std::lock_guard<std::shared_mutex> guard(lock);
    if (file == nullptr) return;
    const auto now = std::chrono::steady_clock::now();
    const _CACHECONFIG settings = config->GetConfig();
    // Limits in seconds, compared unsigned: a negative limit never expires.
    const auto readLimit =
        static_cast<unsigned long long>(overLimit ? settings.clroverused : settings.clrused);
    const auto anyLimit =
        static_cast<unsigned long long>(overLimit ? settings.clroverunused : settings.clrunused);

    // A sector that was read expires at either limit, one never read only at
    // the any-sector limit. Reserved sectors are awaited by someone.
    std::vector<SectorMap::iterator> expired;
    for (auto entry = sectors.begin(); entry != sectors.end(); ++entry) {
        const _SECTOR& sector = entry->second;
        if (sector.reserved) continue;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
            std::max(now - sector.time, std::chrono::steady_clock::duration::zero()));
        const auto age = static_cast<unsigned long long>(seconds.count());
        if ((age > readLimit && sector.hits > 0) || age > anyLimit) expired.push_back(entry);
    }
    if (!expired.empty()) {
        Log(LL_DETAIL, "[%s] ClearOldCache : %d sector(s) will clear(total %d sector(s))",
            static_cast<int>(expired.size()), static_cast<int>(sectors.size()));
        for (auto entry : expired) {
            if (entry->second.offset != -1) emptySlots.push_back(entry->second.offset);
            EraseSectorNoLock(entry);
        }
    }

    // Free slots are reclaimed even when nothing expired: a fetch write that
    // failed on a full disk leaves its slot free, and giving that space back
    // is what lets the next fetch succeed.
    const long long sizeBefore = GetFileSize();
    if (emptySlots.empty()) return;

    // Move the sectors of the highest slots down into the lowest free slots,
    // for as long as that moves data downwards.
    std::sort(emptySlots.begin(), emptySlots.end());
    std::vector<_SECTOR_USING> kept;
    kept.reserve(sectors.size());
    for (const auto& [key, sector] : sectors) kept.push_back({key, sector.offset});
    std::sort(kept.begin(), kept.end(),
              [](const _SECTOR_USING& a, const _SECTOR_USING& b) { return a.offset > b.offset; });
    std::vector<char> slot(static_cast<size_t>(kSectorSize));
    for (const _SECTOR_USING& record : kept) {
        if (emptySlots.empty()) break;
        const long long free = emptySlots.front();
        if (record.offset < free) break;
        // The whole slot moves, whatever the entry's length says, so no byte
        // of it is lost; a short last slot moves as far as the file goes.
        size_t got = 0;
        size_t put = 0;
        if (!ReadAt(file, record.offset, slot.data(), slot.size(), &got) ||
            !WriteAt(file, free, slot.data(), got, &put)) {
            // This sector keeps its old slot; the free one stays free.
            break;
        }
        emptySlots.pop_front();
        emptySlots.push_back(record.offset);
        sectors.find(record.key)->second.offset = free;
    }

    // Free slots that end the file go; the file shrinks to the lowest of
    // them. Free slots past the end hold nothing and are forgotten too.
    std::sort(emptySlots.begin(), emptySlots.end(), std::greater<long long>());
    long long newEnd = -1;
    long long end = GetFileSize();
    while (!emptySlots.empty() && emptySlots.front() + kSectorSize >= end) {
        if (emptySlots.front() < end) {
            newEnd = emptySlots.front();
            end = newEnd;
        }
        emptySlots.pop_front();
    }
    if (newEnd != -1 && ftruncate(fileno(file), newEnd) != 0) {
        const int error = errno;
        Log(LL_ERROR, "[%s] ClearOldCache failed : %s", strerror(error));
    }
    std::sort(emptySlots.begin(), emptySlots.end());
    const long long sizeAfter = GetFileSize();
    if (!expired.empty() || sizeAfter != sizeBefore) {
        Log(LL_INFO, "[%s] ClearOldCache : OK, %lld => %lld", sizeBefore, sizeAfter);
    }
}

}  // namespace cache
