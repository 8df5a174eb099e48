#include "cache/read_ahead.h"

#include <algorithm>
#include <climits>

namespace cache {

ReadAheadPolicy::ReadAheadPolicy(const _CACHECONFIG& settings) {
    // Whole sectors, so that every read-ahead ends on a sector boundary.
    const long long ramax = WholeSectors(settings.ramax);
    long long size = WholeSectors(settings.ramin);
    for (long long& entry : readAheadSizes) {
        entry = std::min(size, ramax);
        // Saturate instead of overflowing for absurd configurations.
        size = entry > LLONG_MAX / 2 ? LLONG_MAX : entry < LLONG_MIN / 2 ? LLONG_MIN : entry * 2;
    }
}

std::optional<ReadAheadPolicy::Plan> ReadAheadPolicy::PlanForRun(long long runEnd,
                                                                 long long fileSize) {
    if (runEnd == -1) return Plan::kIgnore;  // cached well beyond one read-ahead
    if (runEnd + kSectorSize >= fileSize) return Plan::kForget;  // cached to the end
    return std::nullopt;
}

ReadAheadPolicy::Plan ReadAheadPolicy::PlanFromHistory(
    long long offset, long long runEnd, long long quota, const _CACHECONFIG& settings,
    std::chrono::steady_clock::time_point now) const {
    // runEnd < offset + quota, written so that a huge quota cannot overflow.
    if (readHistory.empty() || runEnd - offset >= quota) return Plan::kRemember;
    const _READHISTORY& previous = readHistory.back();
    const auto gap = std::chrono::duration_cast<std::chrono::seconds>(now - previous.time);
    if (gap.count() > kSequenceGapSeconds || previous.offset > offset ||
        offset - previous.offset > settings.ramax) {
        return Plan::kRestart;  // a pause, a backward read or a jump
    }
    return static_cast<long long>(readHistory.size()) > settings.rahit ? Plan::kStart
                                                                       : Plan::kRemember;
}

void ReadAheadPolicy::Remember(Plan plan, const _READHISTORY& read) {
    if (plan == Plan::kIgnore) return;
    if (plan == Plan::kForget || plan == Plan::kRestart) readHistory.clear();
    if (plan == Plan::kForget) return;
    if (readHistory.empty()) readAheadLevel = 1;
    readHistory.push_back(read);
    while (readHistory.size() > kHistoryLength) readHistory.pop_front();
}

long long ReadAheadPolicy::NextSize(long long runEnd, long long fileSize,
                                    const _CACHECONFIG& settings) const {
    const long long size =
        std::min(readAheadSizes[readAheadLevel - 1], WholeSectors(settings.ramax));
    return std::clamp(size, 0LL, fileSize - runEnd);
}

void ReadAheadPolicy::Advance() {
    readAheadLevel = std::min(readAheadLevel + 1, kMaxLevel);
}

}  // namespace cache
