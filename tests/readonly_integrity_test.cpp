// The read-only store under awkward configurations, short deliveries and
// files that change size: every successful read returns the remote's bytes,
// and every read ends within its time-out.
#include <sys/statvfs.h>

#include <climits>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using IntegrityTest = StoreTest;

// A fetcher that delivers at most up to `stop` and then reports success, as
// a remote that ended early would.
class ShortFetcher final : public IFetch {
  public:
    ShortFetcher(IFetch& remote, long long stop) : remote_(remote), stop_(stop) {}
    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        if (offset >= stop_) return AE_OK;
        return remote_.Fetch(offset, std::min(length, stop_ - offset), std::move(handle), sink);
    }
    long long GetHostHandle() override { return remote_.GetHostHandle(); }

  private:
    IFetch& remote_;
    long long stop_;
};

TEST_F(IntegrityTest, UnalignedFetchAndReadAheadSizesStillFetchWholeSectors) {
    UseQueue();
    settings.rahit = 1;
    settings.readfetchmax = 1048583;
    settings.ramin = 3145729;
    settings.ramax = 7 * kMiB + 3;
    MakeRemote(24 * kMiB + 4321);
    auto store = ReadOnly();
    for (long long offset = 0; offset < Size(); offset += kMiB / 2) {
        ASSERT_TRUE(ReadsRemote(*store, offset, std::min(kMiB / 2, Size() - offset), fetch.get()))
            << offset;
    }
    const Calls calls = fetch->Take();
    EXPECT_TRUE(log.HasTextContaining("Read-ahead large block"));
    for (const auto& [offset, length] : calls) {
        EXPECT_EQ(offset % kSector, 0) << offset;
        EXPECT_TRUE(length % kSector == 0 || offset + length >= Size()) << offset << "+" << length;
    }
}

// The sector table's invariant: whatever shape deliveries, rewrites and
// host writes have, no sector's valid length exceeds one slot.
TEST_F(IntegrityTest, NoSectorsValidLengthExceedsOneSlot) {
    MakeRemote(6 * kSector + 123);
    auto store = ReadOnly();
    // Pieces that start inside a sector and run over several, rewrites that
    // grow a short sector past its end, and the file's short last sector.
    ASSERT_EQ(Deliver(*store, 0, 100), AE_OK);
    ASSERT_EQ(Deliver(*store, 50, 3 * kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 4 * kSector, Size() - 4 * kSector), AE_OK);
    EXPECT_TRUE(ReadonlyCachePeer::EveryLengthWithinOneSlot(*store));
    // Host writes that straddle sectors, present or not.
    ASSERT_EQ(Write(*store, nullptr, Size(), kSector - 10, Pattern(kSector + 20, 'w')), AE_OK);
    ASSERT_EQ(Write(*store, nullptr, Size(), 3 * kSector + 7, Pattern(2 * kSector, 'x')), AE_OK);
    EXPECT_TRUE(ReadonlyCachePeer::EveryLengthWithinOneSlot(*store));
    EXPECT_TRUE(ReadsRemote(*store, 0, kSector - 10, nullptr));
}

TEST_F(IntegrityTest, PiecesLandAtTheirPlaceInsidePresentSectors) {
    MakeRemote(4 * kSector);
    auto store = ReadOnly();
    ASSERT_EQ(Deliver(*store, 0, kSector), AE_OK);
    // Inside a present sector: written where it belongs, not at its start.
    ASSERT_EQ(Deliver(*store, 1000, 500), AE_OK);
    // Continuing a short sector grows it; a gap before the piece is refused.
    ASSERT_EQ(Deliver(*store, kSector, 100), AE_OK);
    ASSERT_EQ(Deliver(*store, kSector + 100, 2 * kSector - 100), AE_OK);
    EXPECT_EQ(Deliver(*store, 3 * kSector, 10), AE_OK);
    EXPECT_EQ(Deliver(*store, 3 * kSector + 20, 10), AE_NOT_ALIGNED);
    EXPECT_TRUE(ReadsRemote(*store, 0, 3 * kSector, nullptr));
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*store).at(kSector).length, kSector);
}

// The last sector cached of a shorter file is no longer whole when the file
// grows: it is fetched again, never copied as if it were.
TEST_F(IntegrityTest, AShortSectorOfAFileThatGrewIsFetchedAgain) {
    MakeRemote(300000);
    auto store = ReadOnly();
    ASSERT_EQ(Deliver(*store, 0, 100000), AE_OK);  // the remote held 100000 bytes then
    const auto old = Read(*store, fetch.get(), 100000, 0, 100000);
    EXPECT_EQ(old.error, AE_OK);
    EXPECT_EQ(old.bytes, Slice(remote, 0, 100000));
    EXPECT_TRUE(fetch->Take().empty());

    // Without a fetcher the short sector's bytes are served and the copy
    // stops after them.
    const auto partial = Read(*store, nullptr, Size(), 0, 200000);
    EXPECT_EQ(partial.error, AE_OK);
    EXPECT_EQ(partial.bytes, Slice(remote, 0, 100000));

    EXPECT_TRUE(ReadsRemote(*store, 0, Size(), fetch.get()));
    EXPECT_EQ(fetch->Take().front(), (std::pair<long long, long long>{kSector, 4 * kSector}));
}

TEST_F(IntegrityTest, AFetcherThatStopsShortFailsTheReadInsteadOfShiftingBytes) {
    MakeRemote(5 * kSector);
    auto store = ReadOnly();
    ShortFetcher shortOne(*fetch, kSector + 1000);
    for (const long long length : {2 * kSector, 3 * kSector}) {
        const auto result = Read(*store, &shortOne, Size(), 0, length, 2000);
        EXPECT_EQ(result.error, AE_READ_NOT_SERVED) << length;
        EXPECT_TRUE(
            log.HasText("[remote.bin] Read failed : Sector 65536 not found on sector hash"));
    }
    // Nothing of the failed fetches is left reserved; a good fetcher heals it.
    EXPECT_TRUE(ReadsRemote(*store, 0, Size(), fetch.get()));
}

// A writable copy shorter than the remote becomes a read-only store with a
// short last sector; a whole-file fetch completes it in its own slot.
TEST_F(IntegrityTest, AConvertedShortCopyIsCompletedInPlace) {
    MakeRemote(5 * kSector + 77);
    auto writable = Writable("remote.bin", 0);
    ASSERT_EQ(Write(*writable, nullptr, 0, 0, Slice(remote, 0, 100)), AE_OK);
    ReadonlyCache store(writable.get(), Config());
    const auto whole =
        Read(store, fetch.get(), Size(), 0, 1000, 2000, testhost::OpenHandle(), RD_FETCH_ALL);
    EXPECT_EQ(whole.error, AE_OK);
    EXPECT_EQ(whole.bytes, Slice(remote, 0, 1000));
    EXPECT_TRUE(ReadsRemote(store, 0, 2 * kSector, nullptr));
    EXPECT_TRUE(ReadsRemote(store, 0, Size(), nullptr));
}

TEST_F(IntegrityTest, WholeFileReadsEndWithinTheirTimeOut) {
    UseQueue();
    MakeRemote(100000);
    auto store = ReadOnly();
    auto readAll = [&](long long offset, long long length, long long timeout,
                       std::shared_ptr<_FS_HANDLE> handle = testhost::OpenHandle()) {
        return Read(*store, fetch.get(), Size(), offset, length, timeout, std::move(handle),
                    RD_FETCH_ALL);
    };
    // A range reaching past the end of the file waits only for what exists,
    // then fails on the sector that never will.
    const auto tail = readAll(99950, 40000, 0);
    EXPECT_EQ(tail.error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining("] Read failed : Sector 131072 not found on sector hash"));

    // A whole-file job that fails leaves its range reserved; the reader
    // still gives up after its own time-out once the job has ended. The
    // handle is closed after a while only so that a regression cannot hang.
    store = ReadOnly("again.bin");
    fetch->failTo = Size();
    auto handle = testhost::OpenHandle();
    std::atomic<bool> returned{false};
    std::thread closer([&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!returned && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        testhost::MarkClosed(handle);
    });
    const auto failed = readAll(0, 1000, 300, handle);
    returned = true;
    closer.join();
    EXPECT_EQ(failed.error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining("] Read timed-out : "));
}

TEST_F(IntegrityTest, AReadWhoseHandleWasClosedAnswers28WhateverFailedFirst) {
    MakeRemote(4 * kSector);
    auto store = ReadOnly();
    // No queue: the fetch runs inside the read and gives up on the closed
    // handle before the read starts waiting; its sectors are gone by then.
    auto closed = testhost::OpenHandle();
    testhost::MarkClosed(closed);
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 1000, 2000, closed).error, AE_HANDLE_CLOSED);
    EXPECT_TRUE(log.HasText("[remote.bin] Read failed : Handle closed before return"));
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*store).empty());
}

// Offsets and lengths at the 64-bit limits get the range codes, and sizes
// declared far beyond any disk cost no work per declared sector.
TEST_F(IntegrityTest, ExtremeOffsetsAndSizesGetRangeCodesAndNoWorkPerSector) {
    MakeRemote(3 * kSector);
    auto store = ReadOnly();
    EXPECT_EQ(store->Reserve(LLONG_MAX - 10, 100), AE_NOTHING_RESERVED);
    EXPECT_EQ(store->Reserve(0, LLONG_MAX), AE_NOTHING_RESERVED);
    EXPECT_EQ(store->Reserve(-kSector, kSector), AE_NOTHING_RESERVED);
    EXPECT_EQ(store->Reserve(0, 1LL << 50), AE_NOTHING_RESERVED);
    EXPECT_TRUE(log.HasText("[remote.bin] Reserve block failed : larger than the cache can hold"));
    EXPECT_EQ(store->ClearReserved(LLONG_MAX - 5, LLONG_MAX), AE_OK);
    EXPECT_EQ(store->ClearReserved(LLONG_MIN, -1), AE_OK);
    EXPECT_EQ(store->FetchWrite(LLONG_MAX - 100, remote.data(), 200, nullptr), AE_WRITE_FAILED);
    EXPECT_EQ(store->Truncate(-1), AE_TRUNCATE_FAILED);
    EXPECT_EQ(Write(*store, nullptr, Size(), LLONG_MAX - 10, Pattern(100, 'x')), AE_WRITE_FAILED);
    EXPECT_EQ(Read(*store, fetch.get(), Size(), LLONG_MAX - 10, 100).error, AE_READ_FAILED);
    // Nothing lies inside a file of negative size: no wait, nothing queued.
    EXPECT_EQ(Read(*store, fetch.get(), LLONG_MIN, 0, 100).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*store).empty());

    // A whole-file read of a file declared larger than any disk falls back
    // to fetching its own range.
    for (const long long declared : {1LL << 39, 1LL << 50}) {
        const auto huge = Read(*store, fetch.get(), declared, 0, 1000, 2000, testhost::OpenHandle(),
                               RD_FETCH_ALL);
        EXPECT_EQ(huge.error, AE_OK);
        EXPECT_EQ(huge.bytes, Slice(remote, 0, 1000));
    }
    EXPECT_LE(ReadonlyCachePeer::Sectors(*store).size(), 3u);
}

// Cache files of nearly 2^63 bytes, sparse on tmpfs: sizes past the range
// of offsets are refused, and a file that leaves no room for another slot
// fails the fetches that need one instead of overflowing.
TEST_F(IntegrityTest, CacheFilesAtTheEndOfTheOffsetRangeGetRangeCodes) {
    if (!UseTmpfs()) GTEST_SKIP() << "no tmpfs at /dev/shm";
    MakeRemote(100000);
    auto store = ReadOnly();
    EXPECT_EQ(store->Truncate(LLONG_MAX), AE_TRUNCATE_FAILED);
    ASSERT_EQ(store->Truncate(cache::kOffsetLimit), AE_OK);
    // The truncated file is sparse: its length is no room on the disk, so a
    // reservation past the free space is refused instead of mapping sectors.
    struct statvfs disk;
    ASSERT_EQ(statvfs("/dev/shm", &disk), 0);
    const long long freeBytes = static_cast<long long>(disk.f_bavail * disk.f_frsize);
    EXPECT_EQ(store->Reserve(0, freeBytes + (64LL << 30)), AE_NOTHING_RESERVED);
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 100, 2000).error, AE_READ_NOT_SERVED);
    EXPECT_EQ(Write(*store, nullptr, Size(), 0, Pattern(10, 'x')), AE_WRITE_FAILED);
    store->ClearOldCache(true);
    ASSERT_EQ(store->Truncate(0), AE_OK);
    EXPECT_TRUE(ReadsRemote(*store, 0, Size(), fetch.get()));

    // A writable copy declared as large as offsets go still lacks every
    // sector below a truncation to the end of the range.
    auto writable = Writable("w.bin", LLONG_MAX);
    ASSERT_EQ(writable->Truncate(cache::kOffsetLimit), AE_OK);
    EXPECT_TRUE(ReadsRemote(*writable, 0, Size(), fetch.get()));
}

}  // namespace
}  // namespace storetest
