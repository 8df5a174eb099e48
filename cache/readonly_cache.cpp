// ReadonlyCache: construction, the sector map and its run index, fetch
// writes, reservations and the small operations.
#include "cache/readonly_cache.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

#include "cache/file_io.h"
#include "cache/writable_cache.h"

namespace cache {

namespace {

// True when `key` directly follows `before` (before + one sector), computed
// without overflow for any pair of keys.
bool Follows(long long key, long long before) {
    return key > before &&
           static_cast<unsigned long long>(key) - static_cast<unsigned long long>(before) ==
               static_cast<unsigned long long>(kSectorSize);
}

}  // namespace

// ---- SectorRuns ----

namespace {

// The first run that starts after `key`.
template <typename Iterator>
Iterator FirstRunAfter(Iterator begin, Iterator end, long long key) {
    return std::upper_bound(begin, end, key,
                            [](long long k, const auto& run) { return k < run.first; });
}

}  // namespace

void SectorRuns::Insert(long long key) {
    auto next = FirstRunAfter(runs_.begin(), runs_.end(), key);
    const bool joinsPrevious = next != runs_.begin() && Follows(key, std::prev(next)->last);
    const bool joinsNext = next != runs_.end() && Follows(next->first, key);
    if (joinsPrevious && joinsNext) {
        std::prev(next)->last = next->last;
        runs_.erase(next);
    } else if (joinsPrevious) {
        std::prev(next)->last = key;
    } else if (joinsNext) {
        next->first = key;
    } else {
        runs_.insert(next, Run{key, key});
    }
}

void SectorRuns::Erase(long long key) {
    auto next = FirstRunAfter(runs_.begin(), runs_.end(), key);
    if (next == runs_.begin() || std::prev(next)->last < key) return;  // not present
    auto run = std::prev(next);
    if (run->first == run->last) {
        runs_.erase(run);
    } else if (key == run->first) {
        run->first = key + kSectorSize;
    } else if (key == run->last) {
        run->last = key - kSectorSize;
    } else {
        const Run tail{key + kSectorSize, run->last};
        run->last = key - kSectorSize;
        runs_.insert(next, tail);
    }
}

std::optional<long long> SectorRuns::LastOfRun(long long key) const {
    auto next = FirstRunAfter(runs_.begin(), runs_.end(), key);
    if (next == runs_.begin() || std::prev(next)->last < key) return std::nullopt;
    return std::prev(next)->last;
}

// ---- Construction and the small operations ----

ReadonlyCache::ReadonlyCache(std::shared_ptr<const CacheDirectory> directory,
                             const std::string& name, long long fileSize,
                             std::shared_ptr<ICacheConfig> config)
    : fileSize(fileSize), config(std::move(config)) {
    FillReadAheadSizes();
    file = directory->CreateFile(name, &cacheFile);
    displayName.Set(cacheFile.displayName);
    if (file == nullptr) throw AE_CREATE_FILE_FAILED;
    this->directory = std::move(directory);
    Log(LL_INFO, "[%s] Read only cache created");
}

ReadonlyCache::ReadonlyCache(WritableCache* source, std::shared_ptr<ICacheConfig> config)
    : config(std::move(config)) {
    FillReadAheadSizes();
    displayName.Set(*source->GetFileName());
    file = source->TakeStream(&fileSize);
    if (file == nullptr) throw AE_CREATE_FILE_FAILED;
    // The dense file holds sector p at offset p: every slot is its own
    // sector. The sectors that hold data become present, and so do the
    // holes between them (they read as zeros) while there are at most
    // kMaxConvertedHoleSectors of them. Beyond that the holes stay absent
    // and are fetched like any uncached sector: the work and memory follow
    // what the file holds, not the size it declares.
    std::vector<SectorSpan> present = DataSectors(file, fileSize);
    long long dataSectors = 0;
    for (const SectorSpan& span : present) dataSectors += (span.end - span.first) / kSectorSize;
    if (SectorCeil(fileSize) / kSectorSize - dataSectors <= kMaxConvertedHoleSectors) {
        present.assign({SectorSpan{0, SectorCeil(fileSize)}});
    }
    const auto now = std::chrono::steady_clock::now();
    for (const SectorSpan& span : present) {
        for (long long p = span.first; p < span.end; p += kSectorSize) {
            InsertSectorNoLock(
                p, _SECTOR{p, std::min(fileSize - p, kSectorSize), 0, false, false, now});
        }
    }
    Log(LL_INFO, "[%s] Read only cache from writable cache created");
}

ReadonlyCache::~ReadonlyCache() {
    Close();
    if (directory) directory->RemoveFile(cacheFile);
}

void ReadonlyCache::FillReadAheadSizes() {
    const _CACHECONFIG settings = config->GetConfig();
    // Whole sectors, so that every read-ahead ends on a sector boundary.
    const long long ramax = WholeSectors(settings.ramax);
    long long size = WholeSectors(settings.ramin);
    for (long long& entry : readAheadSizes) {
        entry = std::min(size, ramax);
        // Saturate instead of overflowing for absurd configurations.
        size = entry > LLONG_MAX / 2 ? LLONG_MAX : entry < LLONG_MIN / 2 ? LLONG_MIN : entry * 2;
    }
}

ICacheConfig* ReadonlyCache::GetConfig() {
    return config.get();
}

long long ReadonlyCache::GetFileOffset(long long) {
    const long long size = GetFileSize();
    // Every slot ends within the range of offsets.
    if (size > kOffsetLimit - kSectorSize) return -1;
    return SectorCeil(size);
}

long long ReadonlyCache::GetFileSize() {
    std::lock_guard<std::mutex> guard(fileLock);
    return StreamSize(file);
}

AERROR ReadonlyCache::Close() {
    // Jobs deliver through FetchWrite, which needs `lock`: wait before
    // taking it.
    for (long long running; (running = readAheadThreads.load(std::memory_order_acquire)) != 0;) {
        Log(LL_DETAIL, "[%s] %lld of read-ahead thread still working. Wait for thread termination.",
            running);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::lock_guard<std::shared_mutex> guard(lock);
    if (file == nullptr) return AE_INVALID_HANDLE;
    {
        std::lock_guard<std::mutex> fileGuard(fileLock);
        CloseHandle(file);
        file = nullptr;
    }
    ClearSectorsNoLock();
    emptySlots.clear();
    readHistory.clear();
    return AE_OK;
}

AERROR ReadonlyCache::Truncate(long long size) {
    std::lock_guard<std::shared_mutex> guard(lock);
    if (file == nullptr) {
        Log(LL_ERROR, "[%s] Truncate failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    // A size past the range of offsets would leave no slot a valid place.
    if (size > kOffsetLimit || ftruncate(fileno(file), size) != 0) {
        const int error = size > kOffsetLimit ? EINVAL : errno;
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

// ---- The sector map ----

_SECTOR& ReadonlyCache::InsertSectorNoLock(long long key, const _SECTOR& sector) {
    runs.Insert(key);
    SectorsChangedNoLock();
    return sectors.emplace(key, sector).first->second;
}

SectorMap::iterator ReadonlyCache::EraseSectorNoLock(SectorMap::iterator entry) {
    runs.Erase(entry->first);
    SectorsChangedNoLock();
    return sectors.erase(entry);
}

void ReadonlyCache::ClearSectorsNoLock() {
    sectors.clear();
    runs.Clear();
    SectorsChangedNoLock();
}

void ReadonlyCache::SectorsChangedNoLock() {
    ++mapVersion;
    if (mapWaiters > 0) sectorsChanged.notify_all();
}

void ReadonlyCache::WaitForChangeNoLock(std::unique_lock<std::shared_mutex>& guard,
                                        unsigned long long seen) {
    ++mapWaiters;
    sectorsChanged.wait_for(guard, kPollPeriod, [&] { return mapVersion != seen; });
    --mapWaiters;
}

long long ReadonlyCache::TakeFreeSlotNoLock() {
    if (emptySlots.empty()) return -1;
    const long long slot = emptySlots.front();
    emptySlots.pop_front();
    return slot;
}

long long ReadonlyCache::GetLargestEmptyOffset(long long offset) {
    const long long ramax = config->GetConfig().ramax;
    std::lock_guard<std::shared_mutex> guard(lock);
    return GetLargestEmptyOffsetNoLock(offset, ramax);
}

long long ReadonlyCache::GetLargestEmptyOffsetNoLock(long long offset, long long ramax) const {
    const long long cur = SectorOf(offset);
    const std::optional<long long> last = runs.LastOfRun(cur);
    if (!last) return cur;
    // Walking the run sector by sector would stop with -1 at the first
    // sector past offset + ramax; the run's last sector decides that.
    if (*last > cur && *last - offset > ramax) return -1;
    return *last;
}

// ---- Fetch writes ----

AERROR ReadonlyCache::FetchWrite(long long offset, const char* data, long size, long* written) {
    std::lock_guard<std::shared_mutex> guard(lock);
    return FetchWriteNoLock(offset, data, size, written);
}

AERROR ReadonlyCache::FetchWriteNoLock(long long offset, const char* data, long size,
                                       long* written) {
    Log(LL_INFO, "[%s] Fetch write : %p, %lld, %d", static_cast<const void*>(data), offset,
        static_cast<int>(size));
    if (!IsValidTransfer(offset, size, data)) {
        Log(LL_ERROR, "[%s] Fetch write failed : invalid data");
        return AE_WRITE_FAILED;
    }
    if (file == nullptr) {
        Log(LL_ERROR, "[%s] Fetch write failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    const long long first = SectorOf(offset);
    const auto now = std::chrono::steady_clock::now();
    // Where the next appended slot goes: the file's end, looked up once and
    // then advanced past every slot this call appends.
    long long appendAt = -1;
    long long total = 0;
    for (long long cur = first; total < size; cur += kSectorSize) {
        // The part of the piece that belongs to this sector, and where in
        // the sector it starts (only the first sector can start inside).
        const long long within = cur == first ? offset - first : 0;
        const long long part = std::min(size - total, kSectorSize - within);
        const AERROR stored = StorePartNoLock(cur, within, data + total, part, now, &appendAt);
        if (stored != AE_OK) return stored;
        total += part;
    }
    if (written != nullptr) *written = static_cast<long>(total);
    return AE_OK;
}

long long ReadonlyCache::AppendSlotNoLock(long long* appendAt) {
    if (*appendAt == -1) *appendAt = GetFileOffset(0);
    if (*appendAt == -1 || *appendAt > kOffsetLimit - kSectorSize) return -1;
    const long long slot = *appendAt;
    *appendAt += kSectorSize;
    return slot;
}

AERROR ReadonlyCache::StorePartNoLock(long long key, long long within, const char* source,
                                      long long part, std::chrono::steady_clock::time_point now,
                                      long long* appendAt) {
    auto found = sectors.find(key);
    // A piece must continue bytes the sector holds: one that starts inside
    // a sector without data, or past the end of a short one, would leave
    // unknown bytes before it.
    const long long held = found == sectors.end() ? 0 : HeldBytes(found->second);
    if (within > held) {
        Log(LL_ERROR, "[%s] Fetch write failed : Cache offset was not aligned");
        return AE_NOT_ALIGNED;
    }
    // Set when the slot is given out here: it holds nothing of its sector
    // yet, so its tail is padded.
    bool assigned = false;
    if (found == sectors.end()) {
        Log(LL_DETAIL, "[%s] Fetch write : %lld", key);
        long long slot = TakeFreeSlotNoLock();
        if (slot != -1) {
            Log(LL_DETAIL, "[%s] Fetch write : Empty sector found on %lld", slot);
        } else {
            slot = AppendSlotNoLock(appendAt);
            if (slot == -1) {
                Log(LL_ERROR, "[%s] Fetch write failed : %s", strerror(EFBIG));
                return AE_WRITE_FAILED;
            }
            Log(LL_DETAIL, "[%s] Fetch write : Empty sector not found. Append cache on %lld.",
                slot);
        }
        // Reserved until its bytes are in the file, so that a failed write
        // releases it like any other reservation.
        InsertSectorNoLock(key, _SECTOR{slot, 0, 0, true, false, now});
        found = sectors.find(key);
        assigned = true;
    } else if (found->second.reserved) {
        // A reserved sector without a slot appends one; freed slots are
        // handed out by reservations only.
        if (found->second.offset == -1) {
            found->second.offset = AppendSlotNoLock(appendAt);
            if (found->second.offset == -1) return FailFetchWriteNoLock(found, EFBIG);
            assigned = true;
        }
        Log(LL_DETAIL, "[%s] Fetch write : Sector %lld reserved and write on %lld", key,
            found->second.offset);
    } else {
        Log(LL_DETAIL,
            "[%s] Fetch write : Sector %lld not reserved. Data will be overwritten on current "
            "cache %lld",
            key, found->second.offset);
    }
    _SECTOR& entry = found->second;
    // Bytes the sector holds stay as they are: they are the remote's, or a
    // host wrote them, and fetched data never replaces a host's bytes.
    const long long kept = std::min(part, held - within);
    size_t done = 0;
    if (kept < part && !WriteAt(file, entry.offset + within + kept, source + kept,
                                static_cast<size_t>(part - kept), &done)) {
        return FailFetchWriteNoLock(found, errno);
    }
    if (assigned && part < kSectorSize) {
        WriteZerosAt(file, entry.offset + part, static_cast<size_t>(kSectorSize - part));
    }
    if (entry.reserved) {
        entry.reserved = false;
        entry.keepsData = false;
        entry.hits = 0;
        entry.time = now;
    }
    entry.length = std::max(held, within + part);
    // What a waiting read or write waits for may have come with it.
    SectorsChangedNoLock();
    return AE_OK;
}

AERROR ReadonlyCache::FailFetchWriteNoLock(SectorMap::iterator entry, int error) {
    Log(LL_ERROR, "[%s] Fetch write failed : %s", strerror(error));
    // Only the sector this write was filling is given up, and only what it
    // was waiting for: present sectors, including the one being rewritten,
    // keep their bytes, and so does one that was being completed. A slot
    // inside the file goes back to the free list; one at or past its end
    // was never there, and the next append takes that place again.
    if (entry->second.reserved) ReleaseReservationNoLock(entry, GetFileSize());
    return AE_WRITE_FAILED;
}

SectorMap::iterator ReadonlyCache::ReleaseReservationNoLock(SectorMap::iterator entry,
                                                            long long fileEnd) {
    _SECTOR& sector = entry->second;
    if (sector.keepsData) {
        sector.reserved = false;
        sector.keepsData = false;
        SectorsChangedNoLock();
        return ++entry;
    }
    const long long slot = sector.offset;
    entry = EraseSectorNoLock(entry);
    if (slot != -1 && slot < fileEnd) emptySlots.push_back(slot);
    return entry;
}

// ---- Reservations ----

AERROR ReadonlyCache::Reserve(long long offset, long long length) {
    std::lock_guard<std::shared_mutex> guard(lock);
    return ReserveNoLock(offset, length);
}

AERROR ReadonlyCache::ReserveNoLock(long long offset, long long length) {
    if (!IsValidRange(offset, length)) {
        Log(LL_ERROR, "[%s] Reserve block failed : invalid range");
        return AE_NOTHING_RESERVED;
    }
    Log(LL_INFO, "[%s] Reserved blocks %lld to %lld(%lld bytes)", offset, offset + length, length);
    if (file == nullptr) {
        Log(LL_ERROR, "[%s] Reserve block failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    if (length > DiskRoomNoLock()) {
        Log(LL_ERROR, "[%s] Reserve block failed : larger than the cache can hold");
        return AE_NOTHING_RESERVED;
    }
    const long long first = SectorOf(offset);
    const auto now = std::chrono::steady_clock::now();
    long long cur = first;
    long long remaining = length;
    int count = 0;
    while (remaining != 0) {
        if (cur == first && offset % kSectorSize != 0 && sectors.find(cur) == sectors.end()) {
            return AE_NOT_ALIGNED;
        }
        // An incomplete first sector is left alone when `offset` lies
        // inside it: the fetch that follows cannot deliver its head.
        if ((cur != first || offset % kSectorSize == 0) &&
            ReserveSectorNoLock(cur, std::min(remaining, kSectorSize), now)) {
            ++count;
        }
        const long long part = cur == first ? kSectorSize - offset % kSectorSize : kSectorSize;
        remaining -= std::min(part, remaining);
        cur += kSectorSize;
    }
    Log(LL_INFO, "[%s] %d blocks reserved", count);
    return count > 0 ? AE_OK : AE_NOTHING_RESERVED;
}

long long ReadonlyCache::DiskRoomNoLock() {
    struct statvfs disk;
    if (fstatvfs(fileno(file), &disk) != 0) return LLONG_MAX;
    const unsigned long long freeBytes =
        static_cast<unsigned long long>(disk.f_bavail) * disk.f_frsize;
    return SaturatingAdd(static_cast<long long>(std::min<unsigned long long>(freeBytes, LLONG_MAX)),
                         GetFileSize());
}

bool ReadonlyCache::ReserveSectorNoLock(long long key, long long expected,
                                        std::chrono::steady_clock::time_point now) {
    auto found = sectors.find(key);
    if (found == sectors.end()) {
        InsertSectorNoLock(key, _SECTOR{TakeFreeSlotNoLock(), expected, 0, true, false, now});
        return true;
    }
    _SECTOR& sector = found->second;
    if (sector.reserved || IsCompleteNoLock(key, sector)) return false;
    sector.reserved = true;
    sector.keepsData = true;
    sector.hits = 0;
    sector.time = now;
    return true;
}

AERROR ReadonlyCache::ClearReserved(long long offset, long long length) {
    std::lock_guard<std::shared_mutex> guard(lock);
    ClearReservedNoLock(offset, length);
    return AE_OK;
}

long long ReadonlyCache::ClearReservedNoLock(long long offset, long long length) {
    if (!IsValidRange(offset, length)) {
        Log(LL_ERROR, "[%s] Clear reserved blocks failed : invalid range");
        return 0;
    }
    Log(LL_DETAIL, "[%s] Clear reserved blocks %lld to %lld(%lld bytes)", offset, offset + length,
        length);
    if (file == nullptr || length == 0) return 0;
    // The sectors first, first + 64 KiB, ... one per started 64 KiB of
    // `length` (the first counts whole even when `offset` is not aligned).
    // Visiting the map's entries in that span instead of every offset costs
    // nothing for huge ranges.
    const long long first = SectorOf(offset);
    const unsigned long long span = static_cast<unsigned long long>(length - 1) / kSectorSize + 1;
    const long long fileEnd = GetFileSize();
    long long released = 0;
    for (auto entry = sectors.lower_bound(first);
         entry != sectors.end() &&
         (static_cast<unsigned long long>(entry->first) - static_cast<unsigned long long>(first)) /
                 kSectorSize <
             span;) {
        if (!entry->second.reserved) {
            ++entry;
            continue;
        }
        entry = ReleaseReservationNoLock(entry, fileEnd);
        ++released;
    }
    return released;
}

}  // namespace cache
