// ReadonlyCache: storing fetched data, and reservations.
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>

#include "cache/file_io.h"
#include "cache/readonly_cache.h"

namespace cache {

// ---- Fetch writes ----

AERROR ReadonlyCache::FetchWrite(long long offset, const char* data, long size, long* written) {
    ExclusiveLock guard(lock);
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
    if (!file.IsOpen()) {
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

std::optional<SectorTable::iterator> ReadonlyCache::SlotForDeliveryNoLock(
    long long key, SectorTable::iterator found, std::chrono::steady_clock::time_point now,
    long long* appendAt, bool* assigned, AERROR* failure) {
    if (found == sectors.end()) {
        Log(LL_DETAIL, "[%s] Fetch write : %lld", key);
        long long slot = file.TakeFree();
        if (slot != -1) {
            Log(LL_DETAIL, "[%s] Fetch write : Empty sector found on %lld", slot);
        } else {
            slot = AppendSlotNoLock(appendAt);
            if (slot == -1) {
                Log(LL_ERROR, "[%s] Fetch write failed : %s", strerror(EFBIG));
                *failure = AE_WRITE_FAILED;
                return std::nullopt;
            }
            Log(LL_DETAIL, "[%s] Fetch write : Empty sector not found. Append cache on %lld.",
                slot);
        }
        // Reserved until its bytes are in the file, so that a failed write
        // releases it like any other reservation.
        sectors.Insert(key, _SECTOR{slot, 0, 0, true, false, now});
        *assigned = true;
        return sectors.find(key);
    }
    if (found->second.reserved) {
        // A reserved sector without a slot appends one; freed slots are
        // handed out by reservations only.
        if (found->second.offset == -1) {
            found->second.offset = AppendSlotNoLock(appendAt);
            if (found->second.offset == -1) {
                *failure = FailFetchWriteNoLock(found, EFBIG);
                return std::nullopt;
            }
            *assigned = true;
        }
        Log(LL_DETAIL, "[%s] Fetch write : Sector %lld reserved and write on %lld", key,
            found->second.offset);
        return found;
    }
    Log(LL_DETAIL,
        "[%s] Fetch write : Sector %lld not reserved. Data will be overwritten on current "
        "cache %lld",
        key, found->second.offset);
    return found;
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
    AERROR failure = AE_OK;
    const std::optional<SectorTable::iterator> filled =
        SlotForDeliveryNoLock(key, found, now, appendAt, &assigned, &failure);
    if (!filled) return failure;
    _SECTOR& entry = (*filled)->second;
    // Bytes the sector holds stay as they are: they are the remote's, or a
    // host wrote them, and fetched data never replaces a host's bytes.
    const long long kept = std::min(part, held - within);
    size_t done = 0;
    if (kept < part && !WriteAt(file.Stream(), entry.offset + within + kept, source + kept,
                                static_cast<size_t>(part - kept), &done)) {
        return FailFetchWriteNoLock(*filled, errno);
    }
    if (assigned && part < kSectorSize) {
        WriteZerosAt(file.Stream(), entry.offset + part, static_cast<size_t>(kSectorSize - part));
    }
    if (entry.reserved) {
        entry.reserved = false;
        entry.keepsData = false;
        entry.hits = 0;
        entry.time = now;
    }
    entry.length = std::max(held, within + part);
    assert(entry.length <= kSectorSize);
    // What a waiting read or write waits for may have come with it.
    sectors.Changed();
    return AE_OK;
}

AERROR ReadonlyCache::FailFetchWriteNoLock(SectorTable::iterator entry, int error) {
    Log(LL_ERROR, "[%s] Fetch write failed : %s", strerror(error));
    // Only the sector this write was filling is given up, and only what it
    // was waiting for: present sectors, including the one being rewritten,
    // keep their bytes, and so does one that was being completed. A slot
    // inside the file goes back to the free list; one at or past its end
    // was never there, and the next append takes that place again.
    if (entry->second.reserved) ReleaseReservationNoLock(entry, GetFileSize());
    return AE_WRITE_FAILED;
}

SectorTable::iterator ReadonlyCache::ReleaseReservationNoLock(SectorTable::iterator entry,
                                                              long long fileEnd) {
    _SECTOR& sector = entry->second;
    if (sector.keepsData) {
        sector.reserved = false;
        sector.keepsData = false;
        sectors.Changed();
        return ++entry;
    }
    const long long slot = sector.offset;
    entry = sectors.Erase(entry);
    if (slot != -1 && slot < fileEnd) file.Free(slot);
    return entry;
}

// ---- Reservations ----

AERROR ReadonlyCache::Reserve(long long offset, long long length) {
    ExclusiveLock guard(lock);
    return ReserveNoLock(offset, length);
}

AERROR ReadonlyCache::ReserveNoLock(long long offset, long long length) {
    if (!IsValidRange(offset, length)) {
        Log(LL_ERROR, "[%s] Reserve block failed : invalid range");
        return AE_NOTHING_RESERVED;
    }
    Log(LL_INFO, "[%s] Reserved blocks %lld to %lld(%lld bytes)", offset, offset + length, length);
    if (!file.IsOpen()) {
        Log(LL_ERROR, "[%s] Reserve block failed : Invalid cache file handle");
        return AE_INVALID_HANDLE;
    }
    if (length > file.DiskRoom()) {
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

bool ReadonlyCache::ReserveSectorNoLock(long long key, long long expected,
                                        std::chrono::steady_clock::time_point now) {
    auto found = sectors.find(key);
    if (found == sectors.end()) {
        sectors.Insert(key, _SECTOR{file.TakeFree(), expected, 0, true, false, now});
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
    ExclusiveLock guard(lock);
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
    if (!file.IsOpen() || length == 0) return 0;
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
