#include "cache/sector_runs.h"

#include <algorithm>
#include <iterator>

#include "cache/file_io.h"

namespace cache {

namespace {

// True when `key` directly follows `before` (before + one sector), computed
// without overflow for any pair of keys.
bool Follows(long long key, long long before) {
    return key > before &&
           static_cast<unsigned long long>(key) - static_cast<unsigned long long>(before) ==
               static_cast<unsigned long long>(kSectorSize);
}

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

std::map<long long, long long> RunsOf(const std::deque<long long>& sectorOffsets) {
    std::map<long long, long long> runs;  // start -> length
    std::map<long long, long long> ends;  // end -> start, for the run ending at a sector
    for (const long long sector : sectorOffsets) {
        auto after = runs.upper_bound(sector);
        if (after != runs.begin()) {
            auto run = std::prev(after);
            if (run->first + run->second > sector) continue;  // listed twice
        }
        auto joined = ends.find(sector);
        if (joined != ends.end()) {
            const long long start = joined->second;
            ends.erase(joined);
            runs[start] += kSectorSize;
            ends.emplace(sector + kSectorSize, start);
        } else {
            runs.emplace(sector, kSectorSize);
            ends.emplace(sector + kSectorSize, sector);
        }
    }
    return runs;
}

}  // namespace cache
