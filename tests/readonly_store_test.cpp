// The read-only store's cache file, sector map, fetch writes, reservations
// and refusals.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using ReadonlyTest = StoreTest;

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

TEST_F(ReadonlyTest, CacheFileStaysInsideItsDirectoryAndNeverFollowsAnEntry) {
    MakeRemote(1000);
    ASSERT_EQ(symlink(dir.Sub("target").c_str(), dir.Sub("link.bin").c_str()), 0);
    ASSERT_EQ(mkfifo(dir.Sub("pipe.bin").c_str(), 0600), 0);
    for (const char* planted : {"link.bin", "pipe.bin"}) {
        EXPECT_EQ(testhost::Thrown([&] { ReadOnly(planted); }), AE_CREATE_FILE_FAILED) << planted;
    }
    {
        auto climbing = ReadOnly("a/../../x");
        EXPECT_FALSE(Exists(dir.path() + "/../x"));
        auto taken = ReadOnly("server:remote.bin");  // a slot written in its own file
        EXPECT_TRUE(log.HasText("[remote.bin] Read only cache created"));
        ASSERT_EQ(Deliver(*taken, 0, 1000), AE_OK);
    }
    // Only what was planted is left, untouched; nothing was followed.
    EXPECT_FALSE(Exists(dir.Sub("target")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                            std::filesystem::directory_iterator()),
              3);
    EXPECT_EQ(std::filesystem::file_size(dir.Sub("remote.bin")), 1000u);
}

TEST_F(ReadonlyTest, ReservationsAndFetchWritesFillSlotsInOrder) {
    MakeRemote(20 * kSector);
    auto store = ReadOnly();
    EXPECT_EQ(store->Reserve(0, 2 * kSector), AE_OK);
    EXPECT_EQ(store->Reserve(0, kSector), AE_NOTHING_RESERVED);
    EXPECT_EQ(store->Reserve(2 * kSector + 5, 10), AE_NOT_ALIGNED);
    // The first sector counts whole: only sector 0 is released, though the
    // range reaches into sector 1.
    store->ClearReserved(1000, kSector);
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*store).begin()->first, kSector);
    store->ClearReserved(kSector, kSector);

    EXPECT_EQ(store->FetchWrite(1000, remote.data(), 10, nullptr), AE_NOT_ALIGNED);
    EXPECT_TRUE(log.HasText("[remote.bin] Fetch write failed : Cache offset was not aligned"));
    long written = 0;
    ASSERT_EQ(store->FetchWrite(0, remote.data(), 100000, &written), AE_OK);
    EXPECT_EQ(written, 100000);
    EXPECT_EQ(store->GetFileSize(), 2 * kSector);  // two whole slots
    EXPECT_TRUE(
        log.HasText("[remote.bin] Fetch write : Empty sector not found. Append cache on 65536."));
    store->ClearReserved(0, 2 * kSector);  // present sectors are never released
    // A shorter piece rewrites a present sector's head and keeps the rest.
    ASSERT_EQ(Deliver(*store, 0, 1000), AE_OK);
    EXPECT_TRUE(ReadsRemote(*store, 0, 100000, nullptr));

    // Freed slots are reused oldest first, by reservations and new sectors;
    // a released reservation gives its slot back at the end of the queue.
    ReadonlyCachePeer::AddFreeSlot(*store, kSector);
    ReadonlyCachePeer::AddFreeSlot(*store, 0);
    ASSERT_EQ(store->Reserve(10 * kSector, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 11 * kSector, kSector), AE_OK);
    EXPECT_TRUE(log.HasText("[remote.bin] Fetch write : Empty sector found on 0"));
    store->ClearReserved(10 * kSector, kSector);
    ASSERT_EQ(store->Reserve(12 * kSector, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 12 * kSector, kSector), AE_OK);
    EXPECT_TRUE(
        log.HasText("[remote.bin] Fetch write : Sector 786432 reserved and write on 65536"));
    EXPECT_EQ(store->GetFileSize(), 2 * kSector);  // nothing appended
    EXPECT_TRUE(ReadsRemote(*store, 11 * kSector, 2 * kSector, nullptr));
}

// A host write leaves the cache file ending inside a slot; the next slot
// still starts on a boundary, so growing the short one never reaches it.
TEST_F(ReadonlyTest, SlotsAppendedAfterAShortOneNeverOverlapIt) {
    MakeRemote(2 * kSector);
    auto store = ReadOnly();
    ASSERT_EQ(Write(*store, nullptr, Size(), 5, Pattern(10, 'a')), AE_OK);
    ASSERT_EQ(Deliver(*store, kSector, kSector), AE_OK);
    ASSERT_EQ(Write(*store, nullptr, Size(), 1000, Pattern(10, 'b')), AE_OK);
    EXPECT_TRUE(ReadsRemote(*store, kSector, kSector, nullptr));
}

TEST_F(ReadonlyTest, LargestEmptyOffsetFollowsRunsAsTheyJoinAndSplit) {
    settings.ramax = 4 * kSector;
    MakeRemote(16 * kSector);
    auto store = ReadOnly();
    ASSERT_EQ(store->Reserve(kSector, 2 * kSector), AE_OK);
    ASSERT_EQ(store->Reserve(4 * kSector, 3 * kSector), AE_OK);
    EXPECT_EQ(store->GetLargestEmptyOffset(kSector + 5), 2 * kSector);
    EXPECT_EQ(store->GetLargestEmptyOffset(3 * kSector + 5), 3 * kSector);  // absent
    ASSERT_EQ(Deliver(*store, 3 * kSector, kSector), AE_OK);                // joins the two runs
    EXPECT_EQ(store->GetLargestEmptyOffset(3 * kSector), 6 * kSector);
    EXPECT_EQ(store->GetLargestEmptyOffset(kSector + 5), -1);  // beyond ramax
    store->ClearReserved(5 * kSector, kSector);                // splits the run
    EXPECT_EQ(store->GetLargestEmptyOffset(kSector + 5), 4 * kSector);
    EXPECT_EQ(store->GetLargestEmptyOffset(6 * kSector), 6 * kSector);
}

}  // namespace
}  // namespace storetest
