// Eviction of old sectors from the sparse store and compaction of its cache
// file, alone and while readers read and fetch jobs deliver. Ages count in
// whole seconds, so a sector older than a limit of 0 takes just over 1 s.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using EvictionTest = StoreTest;

TEST_F(EvictionTest, OldSectorsGoByAgeAndReadsButNeverWhileReserved) {
    // Within the limit only read sectors expire (after 0 s); over it any.
    settings.rahit = 1000;  // no read-ahead
    settings.clrused = settings.clroverunused = 0;
    settings.clrunused = settings.clroverused = 3600;
    UseQueue();
    constexpr long long kSlots = 512;
    MakeRemote(kSlots * kSector);
    auto reserved = ReadOnly("reserved.bin");
    ASSERT_EQ(reserved->Reserve(0, 4 * kSector), AE_OK);
    // Small reads at every 16th sector, in a scrambled order, fetch all the
    // sectors (a mebibyte each) but read only those 32: the slots mix.
    auto store = ReadOnly();
    std::vector<long long> groups;
    for (long long sector = 0; sector < kSlots; sector += 16) groups.push_back(sector);
    std::shuffle(groups.begin(), groups.end(), std::mt19937(7));
    for (long long sector : groups)
        ASSERT_TRUE(ReadsRemote(*store, sector * kSector, 100, fetch.get()));
    queue->WaitIdle();  // each read waits for its own sector only
    ASSERT_EQ(store->GetFileSize(), Size());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));

    // Within the limit the 32 sectors read expire; the highest slots move
    // into their places and the file loses as many.
    store->ClearOldCache(false);
    EXPECT_TRUE(
        log.HasText("[remote.bin] ClearOldCache : 32 sector(s) will clear(total 512 sector(s))"));
    EXPECT_TRUE(log.HasText("[remote.bin] ClearOldCache : OK, 33554432 => 31457280"));
    // Over it every old sector goes; runs of four read again just now stay,
    // every byte of them intact. Ages count in whole seconds, so this holds
    // only while re-reading and clearing take less than one.
    const auto rereadStart = std::chrono::steady_clock::now();
    for (long long first = 1; first < kSlots; first += 8) {
        ASSERT_TRUE(ReadsRemote(*store, first * kSector, 4 * kSector, nullptr));
    }
    store->ClearOldCache(true);
    if (std::chrono::steady_clock::now() - rereadStart >= std::chrono::seconds(1)) {
        GTEST_SKIP() << "re-reading took a second or more: the fresh sectors aged";
    }
    EXPECT_TRUE(
        log.HasText("[remote.bin] ClearOldCache : 224 sector(s) will clear(total 480 sector(s))"));
    EXPECT_EQ(store->GetFileSize(), Size() / 2);
    for (long long first = 1; first < kSlots; first += 8) {
        ASSERT_TRUE(ReadsRemote(*store, first * kSector, 4 * kSector, nullptr)) << first;
        EXPECT_EQ(Read(*store, nullptr, Size(), (first + 4) * kSector, 100).transferred, 0);
    }
    EXPECT_EQ(Read(*store, nullptr, Size(), 0, 100).transferred, 0);
    fetch->Take();
    EXPECT_TRUE(ReadsRemote(*store, 5 * kSector + 10, 1000, fetch.get()));
    // The window's other gap (sectors 13 to 16) is fetched by a job of its
    // own, which the queue may run first.
    const auto calls = fetch->Take();
    EXPECT_NE(std::find(calls.begin(), calls.end(), std::pair(5 * kSector, 4 * kSector)),
              calls.end());
    // Reserved sectors are awaited by someone and stay, however old.
    reserved->ClearOldCache(true);
    EXPECT_EQ(reserved->Reserve(0, 4 * kSector), AE_NOTHING_RESERVED);
}

TEST_F(EvictionTest, EvictionRunsWhileReadersReadAndFetchesDeliver) {
    settings.clrused = settings.clrunused = settings.clroverused = settings.clroverunused = 0;
    UseQueue();
    MakeRemote(256 * kSector + 1234, {.latencyMs = 1});
    auto store = ReadOnly();
    std::atomic<bool> stop{false};
    std::thread evictor([&] {
        for (int pass = 0; !stop; ++pass) {
            store->ClearOldCache(pass % 2 == 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::atomic<int> served{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        // Mostly a hot region, now and then anywhere: what is fetched around
        // the rare reads ages and is evicted.
        readers.emplace_back([&, r] {
            for (std::mt19937_64 random(r + 1); !stop;) {
                const long long span = random() % 5 == 0 ? Size() : 32 * kSector;
                const long long offset = static_cast<long long>(random() % span);
                const long long length =
                    std::min<long long>(1 + random() % 300000, Size() - offset);
                const auto read = Read(*store, fetch.get(), Size(), offset, length, 5000);
                if (read.error == AE_OK) {
                    EXPECT_EQ(read.bytes, Slice(remote, offset, length));
                    ++served;
                } else {  // a sector this read waited for may expire meanwhile
                    EXPECT_EQ(read.error, AE_READ_NOT_SERVED);
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        });
    }
    const auto started = std::chrono::steady_clock::now();
    const auto evicted = [&] {
        return !log.WithFormat("[%s] ClearOldCache : OK, %lld => %lld").empty();
    };
    WaitFor([&] {
        return evicted() && std::chrono::steady_clock::now() - started > std::chrono::seconds(2);
    });
    stop = true;
    for (auto& reader : readers) reader.join();
    evictor.join();
    queue->WaitIdle();
    EXPECT_GT(served, 0);
    EXPECT_TRUE(evicted());
    EXPECT_TRUE(ReadsRemote(*store, 0, Size(), fetch.get()));
}

// A tmpfs of a few MiB mounted for one test and detached after it.
class SmallDisk {
  public:
    explicit SmallDisk(const std::string& path) : path_(path) {
        mkdir(path.c_str(), 0700);
        if (mount("tmpfs", path.c_str(), "tmpfs", 0, "size=2m,mode=0700") != 0) {
            error_ = strerror(errno);
        }
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk() {
        if (error_.empty()) umount2(path_.c_str(), MNT_DETACH);
    }
    const std::string& error() const { return error_; }

  private:
    std::string path_;
    std::string error_;
};

// A full disk fails the fetch that meets it, and only that: what other
// fetches stored stays readable, the failed slot is free again, eviction
// gives the space back, and reads succeed again without closing anything.
TEST_F(EvictionTest, AFullDiskFailsReadsUntilEvictionFreesSpace) {
    SmallDisk disk(dir.Sub("disk"));
    if (!disk.error().empty()) GTEST_SKIP() << "cannot mount a tmpfs: " << disk.error();
    UseQueue();
    settings.rahit = 1000;  // no read-ahead
    MakeRemote(4 * kMiB);
    auto config = Config();
    ReadonlyCache store(cache::CacheDirectory::Open(dir.Sub("disk") + "/"), "remote.bin", Size(),
                        config);

    EXPECT_TRUE(ReadsRemote(store, 0, kMiB / 2, fetch.get()));
    EXPECT_TRUE(ReadsRemote(store, 2 * kMiB, kMiB / 2, fetch.get()));
    // The disk fills between the two cached ranges.
    EXPECT_EQ(Read(store, fetch.get(), Size(), kMiB / 2, 3 * kMiB, 5000).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasText("[remote.bin] Fetch write failed : No space left on device"));
    EXPECT_TRUE(log.HasTextContaining("] Read failed : Sector "));
    queue->WaitIdle();  // the read gives up at the first failure; its other fetches end later
    EXPECT_TRUE(ReadsRemote(store, 0, kMiB / 2, nullptr));
    EXPECT_TRUE(ReadsRemote(store, 2 * kMiB, kMiB / 2, nullptr));

    // Nothing is old enough to drop, but the free slot ending the file goes.
    long long present = 0;
    for (const auto& [key, sector] : ReadonlyCachePeer::Sectors(store)) {
        EXPECT_FALSE(sector.reserved) << key;
        ++present;
    }
    store.ClearOldCache(false);
    EXPECT_LE(store.GetFileSize(), present * kSector);
    EXPECT_GT(store.GetFileSize(), (present - 1) * kSector);

    // Everything expires; the space is back and the same store serves again.
    _CACHECONFIG expireAll = settings;
    expireAll.clrused = expireAll.clrunused = 0;
    config->SetConfig(expireAll);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    store.ClearOldCache(false);
    EXPECT_EQ(store.GetFileSize(), 0);
    EXPECT_TRUE(ReadsRemote(store, kMiB, kMiB, fetch.get()));
    queue->WaitIdle();
}

}  // namespace
}  // namespace storetest
