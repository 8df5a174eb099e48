// The read-ahead policy on its own (no store, no I/O), the run builder the
// stores share, and what a closed handle is.
#include "cache/read_ahead.h"

#include <gtest/gtest.h>

#include "cache/readonly_cache.h"
#include "cache/sector_runs.h"

namespace cache {
namespace {

using Plan = ReadAheadPolicy::Plan;
using Clock = std::chrono::steady_clock;
constexpr long long kSector = kSectorSize;
constexpr long long kMiB = 1048576;
constexpr long long kNoQuota = 1LL << 50;

_CACHECONFIG Settings(long long rahit, long long ramin, long long ramax) {
    return _CACHECONFIG{rahit, ramin, ramax, 1000, 0, 0, 0, 0, 0, 0};
}

// Feeds `count` sequential 64 KiB reads from offset 0 through the policy the
// way the store does, with the run always ending `ahead` past the read.
Plan ReadSequentially(ReadAheadPolicy& policy, const _CACHECONFIG& settings, int count,
                      Clock::time_point now) {
    Plan plan = Plan::kIgnore;
    for (int i = 0; i < count; ++i) {
        const long long offset = i * kSector;
        plan = policy.PlanFromHistory(offset, offset, kNoQuota, settings, now);
        policy.Remember(plan, {offset, kSector, now});
    }
    return plan;
}

TEST(ReadAheadPolicyTest, StartsAfterMoreThanRahitSequentialReadsAndRestartsOnBreaks) {
    const _CACHECONFIG settings = Settings(3, kMiB, 8 * kMiB);
    const auto now = Clock::now();
    ReadAheadPolicy policy(settings);
    // An empty history only remembers; the fourth read follows three.
    EXPECT_EQ(policy.PlanFromHistory(0, 0, kNoQuota, settings, now), Plan::kRemember);
    EXPECT_EQ(ReadSequentially(policy, settings, 4, now), Plan::kRemember);
    EXPECT_EQ(policy.PlanFromHistory(4 * kSector, 4 * kSector, kNoQuota, settings, now),
              Plan::kStart);
    // A run that ends beyond the quota from the read waits.
    EXPECT_EQ(policy.PlanFromHistory(4 * kSector, 5 * kSector, kSector, settings, now),
              Plan::kRemember);
    // Backwards, a jump past ramax, or a pause of over 300 s: a new sequence.
    EXPECT_EQ(policy.PlanFromHistory(0, 0, kNoQuota, settings, now), Plan::kRestart);
    EXPECT_EQ(policy.PlanFromHistory(3 * kSector + 8 * kMiB + 1, 0, kNoQuota, settings, now),
              Plan::kRestart);
    EXPECT_EQ(policy.PlanFromHistory(4 * kSector, 4 * kSector, kNoQuota, settings,
                                     now + std::chrono::seconds(301)),
              Plan::kRestart);
    // After a restart the history holds one read again.
    policy.Remember(Plan::kRestart, {0, kSector, now});
    EXPECT_EQ(policy.PlanFromHistory(kSector, kSector, kNoQuota, settings, now), Plan::kRemember);
    // Forgetting empties it.
    policy.Remember(Plan::kForget, {0, kSector, now});
    EXPECT_EQ(policy.PlanFromHistory(kSector, kSector, kNoQuota, settings, now), Plan::kRemember);
}

TEST(ReadAheadPolicyTest, SizesDoubleInWholeSectorsUpToRamaxAndStopAtTheFileEnd) {
    // An unaligned minimum and maximum round down to whole sectors.
    const _CACHECONFIG settings = Settings(0, kMiB + 100, 5 * kMiB + 7);
    ReadAheadPolicy policy(settings);
    const long long fileSize = 1LL << 40;
    std::vector<long long> sizes;
    for (int i = 0; i < 5; ++i) {
        sizes.push_back(policy.NextSize(0, fileSize, settings));
        policy.Advance();
    }
    EXPECT_EQ(sizes, (std::vector<long long>{kMiB, 2 * kMiB, 4 * kMiB, 5 * kMiB, 5 * kMiB}));
    // Near the end only what is left; a fresh history starts small again.
    EXPECT_EQ(policy.NextSize(fileSize - 100, fileSize, settings), 100);
    policy.Remember(Plan::kRestart, {0, 1, Clock::now()});
    EXPECT_EQ(policy.NextSize(0, fileSize, settings), kMiB);
    // Absurd configurations saturate rather than overflow.
    const _CACHECONFIG huge = Settings(0, 1LL << 62, 1LL << 62);
    ReadAheadPolicy saturated(huge);
    for (int i = 0; i < ReadAheadPolicy::kMaxLevel + 2; ++i) saturated.Advance();
    EXPECT_EQ(saturated.NextSize(0, 1LL << 62, huge), 1LL << 62);
}

TEST(ReadAheadPolicyTest, TheCachedRunDecidesBeforeTheHistory) {
    EXPECT_EQ(ReadAheadPolicy::PlanForRun(-1, 10 * kSector), Plan::kIgnore);
    EXPECT_EQ(ReadAheadPolicy::PlanForRun(9 * kSector, 10 * kSector), Plan::kForget);
    EXPECT_EQ(ReadAheadPolicy::PlanForRun(9 * kSector, 10 * kSector + 1), std::nullopt);
}

TEST(RunsOfTest, GroupsConsecutiveSectorsOnceEachInListOrder) {
    using Runs = std::map<long long, long long>;
    EXPECT_EQ(RunsOf({}), Runs{});
    EXPECT_EQ(RunsOf({0, kSector, 2 * kSector, 5 * kSector}),
              (Runs{{0, 3 * kSector}, {5 * kSector, kSector}}));
    // Repeats add nothing; a sector before a run's start begins its own run.
    EXPECT_EQ(RunsOf({kSector, 2 * kSector, kSector, 2 * kSector, 0}),
              (Runs{{0, kSector}, {kSector, 2 * kSector}}));
}

TEST(HandleStateTest, AHandleIsClosedAboveStateThree) {
    EXPECT_FALSE(IsClosedState(3));
    EXPECT_TRUE(IsClosedState(kHandleClosedState));
    EXPECT_TRUE(IsClosedState(5));
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 3;
    EXPECT_FALSE(HandleClosed(handle));
    handle->state = kHandleClosedState;
    EXPECT_TRUE(HandleClosed(handle));
    EXPECT_FALSE(HandleClosed(nullptr));  // a request without a handle is open
}

}  // namespace
}  // namespace cache
