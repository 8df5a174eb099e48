// Runs of consecutive sectors: the index a sparse store keeps beside its
// sector map, and the builder that groups a list of sector offsets into the
// ranges one fetch each asks for.
//
// Not thread-safe: a SectorRuns lives inside its owner's sector table and is
// used under that owner's lock; RunsOf works on its arguments only and may
// be called from any thread.
#ifndef CACHE_SECTOR_RUNS_H_
#define CACHE_SECTOR_RUNS_H_

#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace cache {

// The maximal runs of consecutive sectors (keys k, k + 64 KiB, ...) of a
// sector map, as a sorted vector of [first, last] pairs. It answers "where
// does the run holding this sector end" in O(log runs) and costs 16 bytes
// per run, not per sector. Keys are multiples of the sector size.
class SectorRuns {
  public:
    // Adds `key`, which must not be present.
    void Insert(long long key);
    // Removes `key`, which must be present.
    void Erase(long long key);
    void Clear() { runs_.clear(); }

    // The last key of the run holding `key`, or nullopt when `key` is absent.
    std::optional<long long> LastOfRun(long long key) const;

  private:
    struct Run {
        long long first;
        long long last;
    };

    std::vector<Run> runs_;  // sorted by first; never adjacent or overlapping
};

// Groups sector offsets, in the order given, into runs to fetch: start ->
// length in bytes. A sector extends the run that ends where it begins; one
// that lies inside a run already (listed twice) adds nothing; any other
// starts a run of its own. A list in ascending order therefore gives the
// maximal runs of consecutive sectors.
std::map<long long, long long> RunsOf(const std::deque<long long>& sectorOffsets);

}  // namespace cache

#endif  // CACHE_SECTOR_RUNS_H_
