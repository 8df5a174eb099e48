// The read-only store's cache file, sector map, fetch writes, reservations
// and refusals.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <random>

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
        AERROR error = AE_OK;
        try {
            ReadOnly(planted);
        } catch (AERROR thrown) {
            error = thrown;
        }
        EXPECT_EQ(error, AE_CREATE_FILE_FAILED) << planted;
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
    EXPECT_EQ(store->Reserve(0, kSector), AE_OK);
    EXPECT_EQ(store->Reserve(0, kSector), AE_NOTHING_RESERVED);
    EXPECT_EQ(Texts("[%s] %d blocks reserved"),
              (std::vector<std::string>{"[remote.bin] 1 blocks reserved",
                                        "[remote.bin] 0 blocks reserved"}));
    EXPECT_EQ(store->Reserve(kSector + 5, 10), AE_NOT_ALIGNED);
    EXPECT_EQ(store->Reserve(kSector, kSector + 1), AE_OK);  // sectors 1 and 2
    // The first sector counts whole: only sector 0 is released, though the
    // range reaches into sector 1.
    store->ClearReserved(1000, kSector);
    EXPECT_EQ(store->Reserve(kSector, kSector), AE_NOTHING_RESERVED);
    EXPECT_EQ(store->Reserve(0, kSector), AE_OK);
    store->ClearReserved(0, 3 * kSector);
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*store).empty());

    EXPECT_EQ(store->FetchWrite(1000, remote.data(), 10, nullptr), AE_NOT_ALIGNED);
    EXPECT_TRUE(log.HasText("[remote.bin] Fetch write failed : Cache offset was not aligned"));
    long written = 0;
    ASSERT_EQ(store->FetchWrite(0, remote.data(), 100000, &written), AE_OK);
    EXPECT_EQ(written, 100000);
    EXPECT_EQ(store->GetFileSize(), 2 * kSector);  // two whole slots
    EXPECT_TRUE(
        log.HasText("[remote.bin] Fetch write : Empty sector not found. Append cache on 65536."));
    store->ClearReserved(0, 2 * kSector);  // present sectors are never released
    EXPECT_TRUE(ReadsRemote(*store, 0, 100000, nullptr));

    // Freed slots are reused oldest first, by reservations and new sectors;
    // a released reservation gives its slot back at the end of the queue.
    ReadonlyCachePeer::FreeSlots(*store, kSector);
    ReadonlyCachePeer::FreeSlots(*store, 0);
    ASSERT_EQ(store->Reserve(10 * kSector, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 11 * kSector, kSector), AE_OK);
    EXPECT_TRUE(log.HasText("[remote.bin] Fetch write : Empty sector found on 0"));
    store->ClearReserved(10 * kSector, kSector);
    EXPECT_EQ(ReadonlyCachePeer::FreeSlots(*store), std::deque<long long>{kSector});
    ASSERT_EQ(store->Reserve(12 * kSector, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 12 * kSector, kSector), AE_OK);
    EXPECT_TRUE(
        log.HasText("[remote.bin] Fetch write : Sector 786432 reserved and write on 65536"));
    EXPECT_EQ(store->GetFileSize(), 2 * kSector);  // nothing appended
    EXPECT_TRUE(ReadsRemote(*store, 11 * kSector, 2 * kSector, nullptr));
}

// The run index answers as walking the map sector by sector would, through
// every kind of change to the map.
TEST_F(ReadonlyTest, LargestEmptyOffsetMatchesAWalkOfTheMap) {
    settings.ramax = 6 * kSector;
    MakeRemote(64 * kSector);
    auto store = ReadOnly();
    Cache_UnbindLogger();  // thousands of lines otherwise
    auto walk = [&](const std::map<long long, cache::_SECTOR>& sectors, long long offset) {
        long long cur = cache::SectorOf(offset);
        auto entry = sectors.find(cur);
        if (entry == sectors.end()) return cur;
        for (++entry; entry != sectors.end() && entry->first == cur + kSector; ++entry) {
            if (entry->first > offset + settings.ramax) return -1LL;
            cur = entry->first;
        }
        return cur;
    };
    std::mt19937 random(7);
    for (int step = 0; step < 600; ++step) {
        const long long sector = static_cast<long long>(random() % 64) * kSector;
        const long long length = (1 + random() % 5) * kSector;
        const auto change = random() % 4;
        if (change == 0) store->Reserve(sector, length);
        if (change == 1) store->ClearReserved(sector, length);
        if (change == 2) Deliver(*store, sector, std::min(length, Size() - sector));
        if (change == 3 && random() % 20 == 0) store = ReadOnly();
        const auto sectors = ReadonlyCachePeer::Sectors(*store);
        for (long long offset = 0; offset < Size(); offset += kSector / 2) {
            ASSERT_EQ(store->GetLargestEmptyOffset(offset), walk(sectors, offset))
                << "step " << step << " offset " << offset;
        }
    }
}

}  // namespace
}  // namespace storetest
