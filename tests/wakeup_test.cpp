// Reads and writes of a read-only store that wait for fetched sectors return
// as soon as the sector map changes under them, not at their next poll; what
// nothing signals (a host closing its handle) is still seen by the poll.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using Clock = std::chrono::steady_clock;

class WakeupTest : public StoreTest {
  protected:
    // Starts `wait` on a thread, gives it time to settle into its wait,
    // runs `change` and returns the milliseconds from the change to the
    // return of `wait`. A waiter that only polls returns about one poll
    // period (10 ms) after it started, so some 8 ms after the change.
    static double Latency(const std::function<void()>& wait, const std::function<void()>& change) {
        Clock::time_point returned;
        std::thread waiter([&] {
            wait();
            returned = Clock::now();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        const Clock::time_point changed = Clock::now();
        change();
        waiter.join();
        return std::chrono::duration<double, std::milli>(returned - changed).count();
    }

    static double Best(const std::vector<double>& values) {
        return *std::min_element(values.begin(), values.end());
    }

    // The best of several rounds: a loaded machine may delay any one of them
    // by more than a poll period, but a polling waiter is never quick.
    static constexpr int kRounds = 7;
    // Well below the 8 ms a polling waiter needs.
    static constexpr double kWokenMs = 4;
};

TEST_F(WakeupTest, ReadersAndWritersWakeWhenTheirSectorsChange) {
    UseQueue();
    MakeRemote(64 * kSector);
    // What a read at offset 100 queues: a mebibyte from there.
    constexpr long long kWindow = kMiB + kSector;
    std::vector<double> delivered, othersDelivered, released, closed, written;
    for (int round = 0; round < kRounds; ++round) {
        // This read's own fetch, held at the gate, then let through.
        auto store = ReadOnly();
        fetch->SetGate(false);
        delivered.push_back(
            Latency([&] { EXPECT_TRUE(ReadsRemote(*store, 5000, 4096, fetch.get())); },
                    [&] {
                        ASSERT_TRUE(fetch->WaitForHeld(1));
                        fetch->SetGate(true);
                    }));
        queue->WaitIdle();
        fetch->Take();

        // Somebody else reserved the read's window: the read waits for them.
        // Their data arrives; the store closes.
        store = ReadOnly();
        ASSERT_EQ(store->Reserve(0, kWindow), AE_OK);
        othersDelivered.push_back(
            Latency([&] { EXPECT_TRUE(ReadsRemote(*store, 100, 4096, fetch.get())); },
                    [&] { ASSERT_EQ(Deliver(*store, 0, kSector), AE_OK); }));
        store = ReadOnly();
        ASSERT_EQ(store->Reserve(0, kWindow), AE_OK);
        closed.push_back(Latency(
            [&] {
                EXPECT_EQ(Read(*store, fetch.get(), Size(), 100, 4096).error, AE_INVALID_HANDLE);
            },
            [&] { ASSERT_EQ(store->Close(), AE_OK); }));
        // Only the read's own sector is somebody else's: the read queues the
        // rest of its window and gives up when that reservation is released.
        store = ReadOnly();
        ASSERT_EQ(store->Reserve(0, kSector), AE_OK);
        fetch->SetGate(false);
        released.push_back(Latency(
            [&] {
                EXPECT_EQ(Read(*store, fetch.get(), Size(), 100, 4096).error, AE_READ_NOT_SERVED);
            },
            [&] {
                ASSERT_TRUE(fetch->WaitForHeld(1));  // the read has queued
                store->ClearReserved(0, kSector);
            }));
        fetch->SetGate(true);
        queue->WaitIdle();

        // A write into a sector it must fetch first.
        store = ReadOnly();
        fetch->SetGate(false);
        written.push_back(Latency(
            [&] { EXPECT_EQ(Write(*store, fetch.get(), Size(), 10, Pattern(10, 'w')), AE_OK); },
            [&] {
                ASSERT_TRUE(fetch->WaitForHeld(1));
                fetch->SetGate(true);
            }));
        queue->WaitIdle();
    }
    EXPECT_LT(Best(delivered), kWokenMs);
    EXPECT_LT(Best(othersDelivered), kWokenMs);
    EXPECT_LT(Best(released), kWokenMs);
    EXPECT_LT(Best(closed), kWokenMs);
    EXPECT_LT(Best(written), kWokenMs);
}

TEST_F(WakeupTest, ClosedHandlesAndTimeOutsAreStillSeenByThePoll) {
    UseQueue();
    MakeRemote(16 * kSector);
    auto store = ReadOnly();
    fetch->SetGate(false);
    auto handle = testhost::OpenHandle();
    const double readClosed = Latency(
        [&] {
            EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, -1, handle).error,
                      AE_HANDLE_CLOSED);
        },
        [&] { testhost::MarkClosed(handle); });
    EXPECT_TRUE(log.HasText("[remote.bin] Read failed : Handle closed before return"));
    handle = testhost::OpenHandle();
    const double writeClosed = Latency(
        [&] {
            EXPECT_EQ(Write(*store, fetch.get(), Size(), 10, Pattern(10, 'c'), -1, handle),
                      AE_WRITE_FAILED);
        },
        [&] { testhost::MarkClosed(handle); });
    EXPECT_EQ(log.WithFormat("[%s] Write handle closed : %p, %lld, %d").size(), 1u);
    // Seen within a poll period; loose for a loaded machine.
    EXPECT_LT(readClosed, 500);
    EXPECT_LT(writeClosed, 500);

    const auto start = Clock::now();
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 30).error, AE_READ_NOT_SERVED);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    fetch->SetGate(true);
}

// Many readers wait on the same reservations while eviction erases what
// arrives: each read returns the remote's bytes or, when a sector it waited
// for was evicted after its own fetch delivered it, 8; never anything else,
// and never a hang.
TEST_F(WakeupTest, ManyReadersWaitOnSharedReservationsWhileEvictionRuns) {
    settings.clrused = settings.clrunused = settings.clroverused = settings.clroverunused = 0;
    UseQueue(3);
    MakeRemote(32 * kSector + 777, {.latencyMs = 0.5});
    auto store = ReadOnly();
    std::atomic<bool> stop{false};
    std::thread evictor([&] {
        for (int pass = 0; !stop; ++pass) {
            store->ClearOldCache(pass % 2 == 0);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    std::atomic<int> served{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 8; ++r) {
        readers.emplace_back([&, r] {
            std::mt19937_64 random(r + 11);
            for (int i = 0; i < 40; ++i) {
                const long long offset = static_cast<long long>(random() % (8 * kSector));
                const long long length =
                    std::min<long long>(1 + random() % (3 * kSector), Size() - offset);
                const auto read = Read(*store, fetch.get(), Size(), offset, length, 5000);
                if (read.error == AE_OK) {
                    EXPECT_EQ(read.bytes, Slice(remote, offset, length));
                    ++served;
                } else {
                    EXPECT_EQ(read.error, AE_READ_NOT_SERVED);
                }
            }
        });
    }
    for (auto& reader : readers) reader.join();
    stop = true;
    evictor.join();
    queue->WaitIdle();
    EXPECT_GT(served, 0);
    EXPECT_TRUE(log.WithFormat("[%s] Read timed-out : %p, %lld, %d(%s)").empty());
    EXPECT_TRUE(ReadsRemote(*store, 0, Size(), fetch.get()));
}

}  // namespace
}  // namespace storetest
