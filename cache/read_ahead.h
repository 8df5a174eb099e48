// ReadAheadPolicy: when a sparse store reads ahead, and how much.
//
// It remembers the last reads of one file and decides, for each new read,
// whether the reads are sequential enough to start a read-ahead after the
// cached run, and how large that read-ahead is: the sizes double from the
// configured minimum to the maximum while the reads stay sequential. It
// does no I/O and knows nothing of sectors beyond the run end it is given,
// so every decision is a function of its arguments and its history.
//
// Not thread-safe. ReadonlyCache owns one and keeps it under its `lock`
// held exclusively, or shared together with its leaf `historyLock`; the
// decision functions are const and change nothing.
#ifndef CACHE_READ_AHEAD_H_
#define CACHE_READ_AHEAD_H_

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>

#include "cache/cache.h"
#include "cache/file_io.h"

namespace cache {

// One remembered read, for read-ahead.
struct _READHISTORY {
    long long offset;
    long long length;
    std::chrono::steady_clock::time_point time;
};

// `bytes` rounded down to whole sectors, and never below one sector. Fetch
// chunks and read-ahead sizes go through it, so every piece a job asks for
// starts on a sector boundary whatever the configuration says.
constexpr long long WholeSectors(long long bytes) {
    return std::max(bytes - bytes % kSectorSize, kSectorSize);
}

class ReadAheadPolicy {
  public:
    // What the store does with one read.
    enum class Plan {
        kIgnore,    // the history stays as it is
        kForget,    // the history is cleared (the end of the file is cached)
        kRemember,  // the read is appended to the history
        kRestart,   // the history is cleared, then the read appended
        kStart,     // a read-ahead is posted, then the read appended
    };

    // The history remembers at most this many reads.
    static constexpr size_t kHistoryLength = 10;
    // A read more than this long after the previous one starts a new sequence.
    static constexpr long long kSequenceGapSeconds = 300;
    static constexpr int kMaxLevel = 50;

    // Sizes from `settings`: ramin, doubling, capped at ramax, each in whole
    // sectors.
    explicit ReadAheadPolicy(const _CACHECONFIG& settings);

    // The plan that follows from where the cached run holding the read's
    // sector ends (`runEnd`, as the store's GetLargestEmptyOffset gives it),
    // or nullopt when the history decides: -1 (cached well beyond one
    // read-ahead) ignores the read, a run reaching the file's last sector
    // forgets the history.
    static std::optional<Plan> PlanForRun(long long runEnd, long long fileSize);
    // What the history decides for a read at `offset` made at `now`:
    // kStart when more than `rahit` sequential reads precede it and the
    // cached run ends within `quota` of it; kRestart after a pause, a
    // backward read or a jump beyond ramax; else kRemember.
    Plan PlanFromHistory(long long offset, long long runEnd, long long quota,
                         const _CACHECONFIG& settings,
                         std::chrono::steady_clock::time_point now) const;
    // Updates the history after `plan`; a fresh history starts again at the
    // smallest read-ahead.
    void Remember(Plan plan, const _READHISTORY& read);
    // The size of the read-ahead due now from `runEnd`: the current level's,
    // never more than ramax in whole sectors nor past the file's end.
    long long NextSize(long long runEnd, long long fileSize, const _CACHECONFIG& settings) const;
    // Moves to the next (doubled) size after a read-ahead was posted.
    void Advance();
    void Clear() { readHistory.clear(); }

  private:
    std::deque<_READHISTORY> readHistory;
    int readAheadLevel = 1;
    long long readAheadSizes[kMaxLevel] = {};
};

}  // namespace cache

#endif  // CACHE_READ_AHEAD_H_
