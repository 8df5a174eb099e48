// Back-pressure against real files in a scratch directory standing in for
// the cache directory: removing a file stands in for eviction.
#include "drive/cache_room.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "hostkit/scratch.h"

namespace drive {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr long long kMiB = 1 << 20;

const auto kNever = [] { return false; };

// Removes `path` after `delay`, noting the moment in `removed`.
std::thread RemoveLater(std::string path, milliseconds delay, std::atomic<bool>* removed) {
    return std::thread([path = std::move(path), delay, removed] {
        std::this_thread::sleep_for(delay);
        removed->store(true);
        unlink(path.c_str());
    });
}

TEST(CacheRoomTest, WaitsUntilEvictionMakesRoomOrTheWaitIsCancelled) {
    hostkit::ScratchDir scratch("room-");
    DriveLog log(stderr, -1);
    CacheRoom room(scratch.path(), kMiB, std::chrono::seconds(30), &log);

    hostkit::WriteRandomFile(scratch.Sub("under"), kMiB / 2);
    auto start = Clock::now();
    room.WaitForRoom(kNever);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));

    hostkit::WriteRandomFile(scratch.Sub("over"), kMiB);
    EXPECT_GT(room.Measure(), kMiB);
    std::atomic<bool> removed{false};
    std::thread evictor = RemoveLater(scratch.Sub("over"), milliseconds(200), &removed);
    room.WaitForRoom(kNever);
    EXPECT_TRUE(removed.load()) << "went on while the directory was over its ceiling";
    evictor.join();

    // Measured at once: the estimate would trust the last measurement,
    // taken under the ceiling a moment ago, for a few more milliseconds.
    hostkit::WriteRandomFile(scratch.Sub("over"), kMiB);
    EXPECT_GT(room.Measure(), kMiB);
    std::atomic<bool> cancelled{false};
    std::thread canceller([&] {
        std::this_thread::sleep_for(milliseconds(200));
        cancelled.store(true);
    });
    start = Clock::now();
    room.WaitForRoom([&] { return cancelled.load(); });
    EXPECT_TRUE(cancelled.load());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    canceller.join();
}

TEST(CacheRoomTest, StallsOnceWhenNothingShrinksAndHoldsAgainOnceUnderTheCeiling) {
    hostkit::ScratchDir scratch("room-");
    DriveLog log(stderr, -1);
    const milliseconds bound(1000);
    CacheRoom room(scratch.path(), kMiB, bound, &log);

    // A copy being written: nothing evicts it.
    hostkit::WriteRandomFile(scratch.Sub("copy"), 2 * kMiB);
    auto start = Clock::now();
    room.WaitForRoom(kNever);
    EXPECT_GE(Clock::now() - start, bound);
    start = Clock::now();
    room.WaitForRoom(kNever);
    room.WaitForRoom(kNever);
    EXPECT_LT(Clock::now() - start, bound / 2) << "stalled again on the same excess";

    // Back under the ceiling, a new excess is waited for again.
    unlink(scratch.Sub("copy").c_str());
    EXPECT_LT(room.Measure(), kMiB);
    room.WaitForRoom(kNever);
    hostkit::WriteRandomFile(scratch.Sub("more"), 2 * kMiB);
    std::atomic<bool> removed{false};
    std::thread evictor = RemoveLater(scratch.Sub("more"), milliseconds(300), &removed);
    room.WaitForRoom(kNever);
    EXPECT_TRUE(removed.load());
    evictor.join();
}

}  // namespace
}  // namespace drive
