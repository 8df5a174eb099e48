// SectorMap: the ordered map from a sector's offset in the remote file to its
// entry, kept in pages of consecutive sectors.
//
// A read walks the sectors of its range and of the window it queues, one
// after the other. In a tree with one node per sector every step of such a
// walk chases a pointer; here 32 consecutive sectors share one page, a flat
// array with a bit per present entry, so a walk steps through memory and
// descends the tree once per two mebibytes. A dense gibibyte costs about
// 700 KiB of entries; a lone sector costs a page of 1.3 KiB.
//
// The interface is the part of std::map the stores use: keys are ascending
// sector offsets (multiples of the sector size, never negative), iteration is
// in key order, and an iterator or reference stays valid until its own entry
// is erased (or the map cleared), whatever else is inserted or erased.
//
// Not thread-safe: the owning store keeps it under its own lock.
#ifndef CACHE_SECTOR_MAP_H_
#define CACHE_SECTOR_MAP_H_

#include <atomic>
#include <bit>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "cache/file_io.h"

namespace cache {

// One entry of the sector map.
struct _SECTOR {
    long long offset = 0;  // slot in the cache file; -1 while reserved without a slot
    // Valid bytes, never more than one slot: the first `length` bytes of the
    // slot are the sector's first bytes. Only the file's last sector, or one
    // a host write or a short delivery left incomplete, is shorter. While
    // reserved without `keepsData` it is what the reservation expects.
    long long length = 0;
    // Reads served since the sector was last queued or filled. Copies under
    // the store's shared lock count through SectorHit.
    long long hits = 0;
    bool reserved = false;  // a fetch is announced but its data has not arrived
    // Reserved to be completed: the first `length` bytes are held already
    // and stay as they are when the data arrives or the reservation ends.
    bool keepsData = false;
    std::chrono::steady_clock::time_point time{};  // creation or last read
};

// The bytes a sector holds now: none while it waits for its first data.
inline long long HeldBytes(const _SECTOR& sector) {
    return sector.reserved && !sector.keepsData ? 0 : sector.length;
}

// Counts a read of `sector` at `now`. Safe for several copies under the
// store's shared lock at once; the exclusive lock orders it with every other
// access.
inline void SectorHit(_SECTOR& sector, std::chrono::steady_clock::time_point now) {
    std::atomic_ref<long long>(sector.hits).fetch_add(1, std::memory_order_relaxed);
    std::atomic_ref<std::chrono::steady_clock::time_point>(sector.time)
        .store(now, std::memory_order_relaxed);
}

class SectorMap {
    // 32 sectors (2 MiB) per page: the mebibyte a small read queues mostly
    // lies in one page, never in more than two. `present` has a bit each.
    static constexpr int kPageSectors = 32;
    static constexpr long long kPageBytes = kPageSectors * kSectorSize;

    struct Page {
        uint32_t present = 0;  // bit i: entries[i] holds a sector
        _SECTOR entries[kPageSectors];
    };
    // By the page's first key. The pages live apart from the tree's nodes,
    // so that the nodes a lookup visits lie close together.
    using Pages = std::map<long long, std::unique_ptr<Page>>;

  public:
    // What an iterator points to: the key and the entry, as a map's pair.
    struct Entry {
        const long long first;
        _SECTOR& second;
    };

    class iterator {
      public:
        iterator() = default;

        Entry operator*() const { return {page_->first + index_ * kSectorSize, Slot()}; }
        // Gives `entry->first` and `entry->second` as for a map's iterator.
        struct Arrow {
            Entry entry;
            const Entry* operator->() const { return &entry; }
        };
        Arrow operator->() const { return {**this}; }

        iterator& operator++() {
            const uint32_t later = page_->second->present & ~((2u << index_) - 1);
            if (later != 0) {
                index_ = std::countr_zero(later);
            } else {
                ++page_;
                index_ = page_ == end_ ? 0 : std::countr_zero(page_->second->present);
            }
            return *this;
        }
        bool operator==(const iterator& other) const {
            return page_ == other.page_ && index_ == other.index_;
        }

      private:
        friend class SectorMap;
        iterator(Pages::iterator page, Pages::iterator end, int index)
            : page_(page), end_(end), index_(index) {}
        _SECTOR& Slot() const { return page_->second->entries[index_]; }

        Pages::iterator page_{};
        Pages::iterator end_{};  // the map's end, where increments stop
        int index_ = 0;
    };

    SectorMap() = default;
    SectorMap(const SectorMap&) = delete;
    SectorMap& operator=(const SectorMap&) = delete;

    iterator begin() { return First(pages_.begin()); }
    iterator end() { return {pages_.end(), pages_.end(), 0}; }
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }

    // The entry of `key`, or end().
    iterator find(long long key) {
        if (key < 0) return end();
        const auto page = pages_.find(PageOf(key));
        if (page == pages_.end()) return end();
        const int index = IndexOf(key);
        return (page->second->present >> index & 1) != 0 ? iterator{page, pages_.end(), index}
                                                         : end();
    }
    // The first entry whose key is not below `key`, or end().
    iterator lower_bound(long long key) {
        if (key < 0) return begin();
        if (key % kSectorSize != 0) {  // no key lies inside a sector: the next one
            if (key > LLONG_MAX - kSectorSize) return end();
            key += kSectorSize - key % kSectorSize;
        }
        auto page = pages_.lower_bound(PageOf(key));
        if (page == pages_.end()) return end();
        if (page->first == PageOf(key)) {
            const uint32_t atOrAfter = page->second->present & ~((1u << IndexOf(key)) - 1);
            if (atOrAfter != 0) return {page, pages_.end(), std::countr_zero(atOrAfter)};
            ++page;
        }
        return First(page);
    }

    // Inserts `sector` under `key` unless the key is present; the entry and
    // whether it was inserted.
    std::pair<iterator, bool> emplace(long long key, const _SECTOR& sector) {
        auto page = pages_.lower_bound(PageOf(key));
        if (page == pages_.end() || page->first != PageOf(key)) {
            page = pages_.emplace_hint(page, PageOf(key), std::make_unique<Page>());
        }
        const int index = IndexOf(key);
        const iterator at{page, pages_.end(), index};
        Page& entries = *page->second;
        if ((entries.present >> index & 1) != 0) return {at, false};
        entries.present |= 1u << index;
        entries.entries[index] = sector;
        ++count_;
        return {at, true};
    }
    // Erases the entry; returns the iterator after it.
    iterator erase(iterator entry) {
        iterator next = entry;
        ++next;
        Page& page = *entry.page_->second;
        page.present &= ~(1u << entry.index_);
        --count_;
        if (page.present == 0) pages_.erase(entry.page_);
        return next;
    }
    void clear() {
        pages_.clear();
        count_ = 0;
    }

  private:
    static long long PageOf(long long key) { return key - key % kPageBytes; }
    static int IndexOf(long long key) { return static_cast<int>(key % kPageBytes / kSectorSize); }
    // The first entry of `page` or of a later page; pages are never empty.
    iterator First(Pages::iterator page) {
        return {page, pages_.end(),
                page == pages_.end() ? 0 : std::countr_zero(page->second->present)};
    }

    Pages pages_;
    size_t count_ = 0;
};

}  // namespace cache

#endif  // CACHE_SECTOR_MAP_H_
