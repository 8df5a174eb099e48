// The read-only store's read path, queueing, read-ahead and fetch jobs,
// driven as a host drives them.
#include <algorithm>
#include <random>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using ReadonlyTest = StoreTest;

TEST_F(ReadonlyTest, ColdWarmAndPartialReads) {
    MakeRemote(3 * kMiB + 1000);
    auto store = ReadOnly();
    ASSERT_EQ(Deliver(*store, 2 * kSector, kSector), AE_OK);
    // Cold: a small read queues a mebibyte from its sector, one job per run
    // of missing sectors; with no queue bound they run inside the read.
    EXPECT_TRUE(ReadsRemote(*store, 70000, 100, fetch.get()));
    EXPECT_EQ(fetch->Take(), (Calls{{kSector, kSector}, {3 * kSector, 15 * kSector}}));

    // Warm: nothing fetched.
    EXPECT_TRUE(ReadsRemote(*store, 70000, 300000, fetch.get()));
    EXPECT_TRUE(fetch->Take().empty());

    // Without a fetcher: what is cached, up to the first gap, is a success.
    const auto partial = Read(*store, nullptr, Size(), 1100000, 200000);
    EXPECT_EQ(partial.error, AE_OK);
    EXPECT_EQ(partial.bytes, Slice(remote, 1100000, 1179648 - 1100000));
    EXPECT_EQ(Read(*store, nullptr, Size(), 2500000, 100).transferred, 0);
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*store).size(), 17u);  // nothing reserved

    // The window stops at the end of the file; the tail arrives whole.
    EXPECT_TRUE(ReadsRemote(*store, Size() - 150, 150, fetch.get()));
    EXPECT_TRUE(log.HasTextContaining("to 3211264("));
}

TEST_F(ReadonlyTest, WholeFileFlagPostsOneFetchForEveryone) {
    UseQueue();
    MakeRemote(20 * kSector + 7);
    fetch->SetGate(false);
    auto store = ReadOnly();
    auto readAll = [&](long long offset, long long length) {
        return Read(*store, fetch.get(), Size(), offset, length, 0, testhost::OpenHandle(),
                    RD_FETCH_ALL);
    };
    testhost::ReadResult first, second;
    std::thread a([&] { first = readAll(0, Size()); });
    EXPECT_TRUE(fetch->WaitForHeld(1));
    std::thread b([&] { second = readAll(5 * kSector, 1000); });
    EXPECT_TRUE(WaitFor([&] { return log.HasTextContaining(", 327680, 1000"); }));
    fetch->SetGate(true);
    a.join();
    b.join();
    EXPECT_EQ(first.bytes, remote);
    EXPECT_EQ(second.bytes, Slice(remote, 5 * kSector, 1000));
    EXPECT_EQ(fetch->Take(), (Calls{{0, Size()}}));
}

// A whole-file read posts one job for the whole file, also for a file larger
// than the storage limit (eviction deals with the excess later), and from
// then on waits without limit, as its record shows. A second one, while the
// job runs, posts nothing and keeps its own time-out.
TEST_F(ReadonlyTest, AWholeFileReadFetchesPastTheLimitAndWaitsWithoutLimit) {
    UseQueue();
    MakeRemote(64 * kMiB + kMiB);
    ReadonlyCache store(Directory(), "remote.bin", Size(),
                        std::make_shared<cache::CacheSettings>(64 * kMiB, settings));
    fetch->SetGate(false);
    struct Outcome {
        AERROR error = AE_OK;
        long long timeout = 0;
        std::vector<char> bytes = std::vector<char>(1000);
    };
    auto readAll = [&](long long offset, Outcome& outcome) {
        _READDATA request{
            outcome.bytes.data(), offset, 1000,        0, testhost::OpenHandle(), Size(),
            fetch.get(),          0,      RD_FETCH_ALL};
        outcome.error = store.Read(&request);
        outcome.timeout = request.timeout;
    };
    Outcome first, second;
    std::thread a([&] { readAll(0, first); });
    ASSERT_TRUE(fetch->WaitForHeld(1));
    std::thread b([&] { readAll(40 * kMiB, second); });
    EXPECT_TRUE(WaitFor([&] { return log.HasTextContaining(", 41943040, 1000"); }));
    fetch->SetGate(true);
    a.join();
    b.join();
    EXPECT_EQ(first.error, AE_OK);
    EXPECT_EQ(first.bytes, Slice(remote, 0, 1000));
    EXPECT_EQ(first.timeout, -1);
    EXPECT_EQ(second.error, AE_OK);
    EXPECT_EQ(second.bytes, Slice(remote, 40 * kMiB, 1000));
    EXPECT_EQ(second.timeout, settings.readtimeout);
    EXPECT_EQ(fetch->Take(), (Calls{{0, Size()}}));
    EXPECT_FALSE(log.HasTextContaining("larger than the cache can hold"));
}

// The time-out line describes the sector the read waited for as its
// reservation announced it: Reserve gives a sector the length it expects,
// a read's own queueing gives 0 until the data arrives.
TEST_F(ReadonlyTest, ATimeOutLineShowsTheLengthTheReservationAnnounced) {
    UseQueue();
    MakeRemote(4 * kSector);
    auto store = ReadOnly();
    fetch->SetGate(false);
    ASSERT_EQ(store->Reserve(0, kSector), AE_OK);  // nobody will deliver it
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 50).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining(
        "(last checked sector offset was 0 on offset -1, length 65536 and reserved)"));
    EXPECT_EQ(Read(*store, fetch.get(), Size(), kSector, 100, 50).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining(
        "(last checked sector offset was 65536 on offset -1, length 0 and reserved)"));
    fetch->SetGate(true);
}

TEST_F(ReadonlyTest, ConcurrentReadersSeeTheRemoteAndFetchEachSectorOnce) {
    UseQueue(4);
    settings.rahit = 1000;  // no read-ahead: it rewrites a present sector
    MakeRemote(8 * kMiB + 12345);
    auto store = ReadOnly();
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 8; ++t) {
        readers.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int i = 0; i < 30; ++i) {
                const long long offset = random() % (6 * kMiB - 300000);
                EXPECT_TRUE(ReadsRemote(*store, offset, 1 + random() % 300000, fetch.get()));
            }
        });
    }
    // The host reserves and releases beyond the readers' windows, asks for
    // the cache file's size and renames the store, all without its lock.
    std::thread host([&] {
        for (long long i = 0; !done; ++i) {
            const long long offset = 7 * kMiB + (i % 8) * kSector;
            store->Reserve(offset, 3 * kSector);
            store->ClearReserved(offset, kSector);
            EXPECT_GE(store->GetFileSize(), 0);
            store->ChangeFileName("name-" + std::to_string(i % 3));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    for (std::thread& reader : readers) reader.join();
    done = true;
    host.join();
    queue->WaitIdle();
    long long cached = 0;
    for (const auto& [key, sector] : ReadonlyCachePeer::Sectors(*store)) {
        if (!sector.reserved) cached += sector.length;
    }
    EXPECT_EQ(fetch->remote.BytesDelivered(), cached);
}

TEST_F(ReadonlyTest, FailedFetchTimeOutAndClosedHandleReleaseTheRange) {
    UseQueue();
    MakeRemote(4 * kSector);
    // A failing fetch: its whole run is released and the reader gives up.
    auto store = ReadOnly();
    fetch->failFrom = 2 * kSector;
    fetch->failTo = 3 * kSector;
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 5000).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasText("[remote.bin] Read-ahead failed : 0, 262144"));
    EXPECT_TRUE(log.HasText("[remote.bin] Read failed : Sector 0 not found on sector hash"));
    queue->WaitIdle();
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*store).empty());
    fetch->failTo = 0;
    EXPECT_TRUE(ReadsRemote(*store, 0, 100, fetch.get()));

    // A fetch that never comes: the time-out releases the read's own range.
    store = ReadOnly();
    fetch->SetGate(false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 50).error, AE_READ_NOT_SERVED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(log.HasTextContaining(
        "(last checked sector offset was 0 on offset -1, length 0 and reserved)"));
    auto sectors = ReadonlyCachePeer::Sectors(*store);
    EXPECT_EQ(sectors.count(0), 0u);
    EXPECT_TRUE(sectors.at(kSector).reserved);  // still awaited by the held job
    // Close waits for the held job, which still delivers.
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(store->Close(), AE_OK);
        closed = true;
    });
    EXPECT_TRUE(WaitFor([&] {
        return log.HasText(
            "[remote.bin] 1 of read-ahead thread still working. Wait for thread termination.");
    }));
    EXPECT_FALSE(closed);
    fetch->SetGate(true);
    closer.join();

    // The host has closed the handle: the reader gives up at once, the job
    // once it runs, silent about a failure the host caused.
    store = ReadOnly();
    log.Clear();
    fetch->SetGate(false);
    auto handle = testhost::OpenHandle();
    testhost::MarkClosed(handle);
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 20000, handle).error, AE_HANDLE_CLOSED);
    EXPECT_TRUE(log.HasText("[remote.bin] Read failed : Handle closed before return"));
    sectors = ReadonlyCachePeer::Sectors(*store);
    EXPECT_EQ(sectors.count(0), 0u);  // the reader's range, released by the reader
    EXPECT_TRUE(sectors.at(kSector).reserved);
    fetch->SetGate(true);
    queue->WaitIdle();
    EXPECT_TRUE(log.WithFormat("[%s] Read-ahead failed : %lld, %d").empty());
    EXPECT_TRUE(log.HasText("[remote.bin] Read-ahead done : 0, 262144"));
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*store).empty());
}

// Reads served from the cache alone still count, remember and look ahead as
// any read does: the window's other sectors count as requested again, the
// read sector as read, and sequential cached reads nearing the end of the
// cached run start read-ahead from there.
TEST_F(ReadonlyTest, CachedReadsKeepHitsHistoryAndReadAhead) {
    settings.ramin = kSector;
    settings.ramax = 4 * kMiB;
    MakeRemote(8 * kMiB);
    auto store = ReadOnly();
    ASSERT_EQ(Deliver(*store, 0, 6 * kMiB), AE_OK);
    for (long long s = 0; s < 30; ++s) {
        ASSERT_TRUE(ReadsRemote(*store, s * kSector, kSector, fetch.get()));
    }
    EXPECT_TRUE(fetch->Take().empty());  // more than ramax from the run's end
    ASSERT_TRUE(ReadsRemote(*store, 100, 1000, fetch.get()));
    const auto sectors = ReadonlyCachePeer::Sectors(*store);
    EXPECT_EQ(sectors.at(0).hits, 1);
    for (long long s = 1; s <= 16; ++s) EXPECT_EQ(sectors.at(s * kSector).hits, 0) << s;
    EXPECT_EQ(sectors.at(17 * kSector).hits, 1);

    // Within ramax of the run's end: the fifth sequential read starts it.
    for (long long offset = 2 * kMiB; offset < 2 * kMiB + 5 * kSector; offset += kSector) {
        ASSERT_TRUE(ReadsRemote(*store, offset, kSector, fetch.get()));
    }
    EXPECT_TRUE(log.HasTextContaining("Read-ahead from 6225920, 65536 bytes"));
    EXPECT_EQ(fetch->Take(), (Calls{{6 * kMiB - kSector, kSector}}));
}

// No queue is bound: read-ahead jobs run inside the reads, and Close, with
// nothing left running, returns at once.
TEST_F(ReadonlyTest, ReadAheadGrowsWithSequentialReadsAndRestarts) {
    settings.ramin = kSector;
    settings.ramax = kMiB;
    settings.readfetchmax = 3 * kSector;
    MakeRemote(24 * kMiB);
    auto store = ReadOnly();
    auto readMiB = [&](long long first, long long last) {
        for (long long m = first; m <= last; ++m) {
            EXPECT_TRUE(ReadsRemote(*store, m * kMiB, kMiB, fetch.get()));
        }
    };
    readMiB(6, 14);   // the fifth sequential read starts read-ahead, doubling after
    readMiB(0, 4);    // backward: starts over
    readMiB(18, 22);  // a jump of more than ramax: starts over
    std::vector<long long> sizes;
    for (const auto& line : log.WithFormat("[%s] Read-ahead from %lld, %lld bytes")) {
        sizes.push_back(std::stoll(line.text.substr(line.text.find(", ") + 2)));
    }
    EXPECT_EQ(sizes,
              (std::vector<long long>{65536, 131072, 262144, 524288, 1048576, 65536, 65536}));
    // Read-ahead arrives in chunks of readfetchmax: one, two, then five.
    EXPECT_EQ(
        std::ranges::count(fetch->Take(), 3 * kSector, &std::pair<long long, long long>::second),
        8);
    EXPECT_EQ(store->Close(), AE_OK);
}

}  // namespace
}  // namespace storetest
