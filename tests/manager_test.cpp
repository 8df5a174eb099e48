// The cache manager and its cache objects: configuration, write sizes and
// the closed state of an object, the quota thread's eviction passes, and
// hosts using one cache from several threads. The object table and mode
// switches through the loaded library are in host_dlopen_test.cpp.
#include <gtest/gtest.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/file_io.h"
#include "tests/test_host.h"

namespace {

using testhost::ReadRange;
using testhost::Slice;
using testhost::WaitFor;
using testhost::WriteText;

// The ten values of a configuration record, in field order.
std::vector<long long> Values(const _CACHECONFIG& c) {
    return {c.rahit,     c.ramin,   c.ramax,     c.readtimeout, c.readfetchmax,
            c.clrperiod, c.clrused, c.clrunused, c.clroverused, c.clroverunused};
}

// A remote that is down: every fetch fails without delivering anything.
struct FailingFetcher final : IFetch {
    AERROR Fetch(long long, long long, std::shared_ptr<_FS_HANDLE>, IFetchCallback*) override {
        return AE_READ_FAILED;
    }
    long long GetHostHandle() override { return 0; }
};

// Every entry under `root` (links not followed) with its size, or -1 for
// what is not a regular file; entries under `skipped` are left out.
std::map<std::string, long long> Listing(const std::string& root, const std::string& skipped) {
    namespace fs = std::filesystem;
    std::map<std::string, long long> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string path = it->path().string();
        if (!skipped.empty() && (path == skipped || path.starts_with(skipped + "/"))) {
            it.disable_recursion_pending();
            continue;
        }
        entries[path] = it->is_regular_file() && !it->is_symlink()
                            ? static_cast<long long>(it->file_size())
                            : -1;
    }
    return entries;
}

class ManagerTest : public testhost::HostFixture {
  protected:
    ManagerTest()
        : HostFixture(
              {&Cache_BindLogger, &Cache_UnbindLogger, &Cache_BindAsyncQ, &Cache_UnbindAsyncQ},
              12 * 65536 + 77) {}

    void SetUp() override {
        HostFixture::SetUp();
        cache = std::make_unique<cache::Cache>(cachePath.c_str(), 64ULL << 20);
    }
    void TearDown() override {
        cache.reset();
        HostFixture::TearDown();
    }

    std::shared_ptr<cache::CacheObj> Open(const char* name) {
        return std::static_pointer_cast<cache::CacheObj>(cache->Open(name, 'r', size, &fetcher));
    }

    FailingFetcher down;
    std::unique_ptr<cache::Cache> cache;
};

TEST_F(ManagerTest, ConfigurationTextsUpdateOnlyTheKeysTheyHold) {
    EXPECT_EQ(
        Values(cache->GetConfig()),
        (std::vector<long long>{3, 1048576, 67108864, 60000, 107374182, 30000, 60, 3600, 30, 60}));
    // Numbers and numeric strings both configure, other text reads as 0, and
    // keys a JSON text lacks keep their values.
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"read":{"timeout":5000}}})"), AE_OK);
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":"7"},
        "clear":{"period":"never","over":{"unusedblock":" 90s"}}}})"),
              AE_OK);
    const std::vector<long long> configured = {7, 1048576, 67108864, 5000, 107374182,
                                               0, 60,      3600,     30,   90};
    EXPECT_EQ(Values(cache->GetConfig()), configured);

    // Malformed, null and empty texts leave the record as it was.
    EXPECT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":1})"), AE_INVALID_CONFIG);
    EXPECT_EQ(log.WithFormat("Configuration rejected : %s").at(0).level, LL_ERROR | LL_CACHE);
    EXPECT_EQ(cache->SetConfiguration(nullptr), AE_NOT_FOUND);
    EXPECT_EQ(cache->SetConfiguration(""), AE_OK);
    EXPECT_EQ(Values(cache->GetConfig()), configured);
}

// The limit the host passes is a signed count: ~0ULL is -1, raised to the
// 64 MiB floor (which the disk may then lower to half its free space).
TEST_F(ManagerTest, AnAllOnesLimitIsRaisedToTheFloor) {
    struct statfs disk;
    ASSERT_EQ(statfs(cachePath.c_str(), &disk), 0);
    const long long space =
        static_cast<long long>(disk.f_bsize) * static_cast<long long>(disk.f_bfree);
    ASSERT_GT(space, 2 * cache::kMinimumLimit);  // so the floor and half the disk differ
    cache.reset();
    cache = std::make_unique<cache::Cache>(cachePath.c_str(), ~0ULL);
    EXPECT_EQ(cache->GetLimit(), cache::kMinimumLimit);
    EXPECT_EQ(cache->GetQuota(), cache::kMinimumLimit);
    EXPECT_TRUE(log.HasTextContaining(", Storage limit : 67108864 bytes"));
}

// The cache's directory is swapped for a link, its file entries replaced,
// or the directory removed and made again while objects are live: stores
// create and delete files only in the directory the cache opened, and only
// the files they created themselves.
TEST_F(ManagerTest, StoresNeverCreateOrDeleteOutsideTheirDirectory) {
    namespace fs = std::filesystem;
    const std::string moved = dir.Sub("moved");
    const std::string elsewhere = dir.Sub("elsewhere");
    ASSERT_TRUE(fs::create_directory(elsewhere));
    WriteText(*Open("replaced.bin"), nullptr, 0, "ours");
    auto swapped = Open("share\\swapped.bin");
    ASSERT_TRUE(ReadsRemote(*swapped, &fetcher, 0, 1000));

    // An entry replaced by another file under the same name is not deleted.
    ASSERT_EQ(unlink((cachePath + "/replaced.bin").c_str()), 0);
    testhost::WriteRandomFile(cachePath + "/replaced.bin", 10);
    EXPECT_EQ(cache->Close("replaced.bin"), AE_OK);
    EXPECT_EQ(fs::file_size(cachePath + "/replaced.bin"), 10u);

    // The path now leads to another directory holding a file of the same name.
    fs::rename(cachePath, moved);
    testhost::WriteRandomFile(elsewhere + "/swapped.bin", 10);
    fs::create_directory_symlink(elsewhere, cachePath);
    EXPECT_EQ(testhost::Thrown([&] { cache::Cache(cachePath.c_str(), 0); }),
              AE_CREATE_DIRECTORY_FAILED);  // a new cache refuses the link
    const auto before = Listing(dir.path(), moved);
    EXPECT_EQ(cache->Close("share\\swapped.bin"), AE_OK);
    swapped.reset();
    auto fresh = Open("fresh.bin");
    EXPECT_TRUE(ReadsRemote(*fresh, &fetcher, 0, size));
    ASSERT_EQ(fresh->SetMode('w', size, &fetcher), AE_OK);
    EXPECT_TRUE(ReadsRemote(*fresh, &fetcher, 0, 1000));
    EXPECT_EQ(Listing(dir.path(), moved), before);
    // The read-only store's file went with the switch; the writable one's
    // took the next name while both existed.
    const std::map<std::string, long long> inside = Listing(moved, "");
    ASSERT_EQ(inside.size(), 2u);
    EXPECT_EQ(inside.count(moved + "/replaced.bin"), 1u);
    EXPECT_EQ(inside.count(moved + "/fresh[0].bin"), 1u);

    // Removed and made again at the same path: that is another directory.
    // Nothing is created there and its entries are not deleted; the objects
    // still open keep serving from their open files.
    fs::remove_all(moved);
    ASSERT_TRUE(fs::create_directory(moved));
    testhost::WriteRandomFile(moved + "/fresh[0].bin", 10);
    const auto remade = Listing(dir.path(), "");
    EXPECT_EQ(testhost::Thrown([&] { Open("other.bin"); }), AE_CREATE_FILE_FAILED);
    EXPECT_TRUE(ReadsRemote(*fresh, &fetcher, 0, 1000));
    EXPECT_EQ(cache->Close("fresh.bin"), AE_OK);
    fresh.reset();
    EXPECT_EQ(Listing(dir.path(), ""), remade);
}

// The cache directory removed while the cache lives (rm -rf, a temporary
// files cleaner) is made again for the next new object, which then works
// there; objects already open go on with their open files. A link put in its
// place is still refused, and nothing appears where it leads.
TEST_F(ManagerTest, ARemovedDirectoryIsMadeAgainForNewObjects) {
    namespace fs = std::filesystem;
    auto before = Open("before.bin");
    ASSERT_TRUE(ReadsRemote(*before, &fetcher, 0, 1000));
    fs::remove_all(cachePath);
    auto after = Open("after.bin");
    EXPECT_TRUE(ReadsRemote(*after, &fetcher, 0, size));
    EXPECT_TRUE(fs::is_regular_file(cachePath + "/after.bin"));
    EXPECT_TRUE(ReadsRemote(*before, &fetcher, 0, size));

    const std::string elsewhere = dir.Sub("elsewhere");
    ASSERT_TRUE(fs::create_directory(elsewhere));
    fs::remove_all(cachePath);
    fs::create_directory_symlink(elsewhere, cachePath);
    EXPECT_EQ(testhost::Thrown([&] { Open("linked.bin"); }), AE_CREATE_FILE_FAILED);
    EXPECT_TRUE(fs::is_empty(elsewhere));
    EXPECT_TRUE(ReadsRemote(*after, &fetcher, 0, size));
}

// Cache files of nearly 2^63 bytes (sparse, on tmpfs) add up to more than a
// 64-bit count holds: the sums stop at the largest count, so the limit a
// host sets stays as set and a pass sees the cache as over it.
TEST_F(ManagerTest, HugeCacheFilesDoNotOverflowTheLimitsSums) {
    if (access("/dev/shm", W_OK) != 0) GTEST_SKIP() << "no tmpfs at /dev/shm";
    testhost::TempDir shm("cache-", "/dev/shm");
    cache::Cache onTmpfs((shm.path() + "/cache").c_str(), 1ULL << 30);
    std::vector<std::shared_ptr<ICacheObj>> objects;
    for (const char* name : {"a.bin", "b.bin"}) {
        objects.push_back(onTmpfs.Open(name, 'r', size, &fetcher));
        ASSERT_EQ(objects.back()->Truncate(cache::kOffsetLimit), AE_OK);
    }
    EXPECT_EQ(onTmpfs.SetLimit(1ULL << 30), AE_OK);
    EXPECT_EQ(onTmpfs.GetLimit(), 1LL << 30);
    ASSERT_EQ(onTmpfs.SetConfiguration(R"({"cache":{"clear":{"period":0}}})"), AE_OK);
    EXPECT_TRUE(WaitFor([&] {
        return log.HasTextContaining("] Total cache : 9223372036854775807(limits : 1073741824)");
    }));
    for (auto& object : objects) object->Close();
}

TEST_F(ManagerTest, WriteSizesAndTheClosedStateUntilReopened) {
    // Hash index texts handed out stay valid after a replacement.
    auto object = Open("data.bin");
    const char* first = object->GetHashIndex();
    object->SetHashIndex("hash:b");
    EXPECT_STREQ(object->GetHashIndex(), "hash:b");
    EXPECT_STREQ(first, "data.bin");

    // A null request is refused, not followed.
    EXPECT_EQ(object->Read(nullptr), AE_NOT_FOUND);
    EXPECT_EQ(object->Write(nullptr), AE_NOT_FOUND);

    // Without a fetcher a write lands at once and gives the store a size,
    // which a failed write reports too: the remote is down for a partial
    // write into an uncached sector.
    const testhost::WriteResult seeded = WriteText(*object, nullptr, 0, "seed");
    ASSERT_EQ(seeded.error, AE_OK);
    const long long stored = object->GetFileSize();
    ASSERT_GT(stored, 0);
    EXPECT_EQ(seeded.fileSize, stored);
    const testhost::WriteResult failed = WriteText(*object, &down, 3 * 65536 + 10, "lost", 200);
    EXPECT_EQ(failed.error, AE_WRITE_FAILED);
    EXPECT_EQ(failed.fileSize, stored);

    // Closed: the file is gone and every request answers without a store.
    object->Close();
    object->Close();
    EXPECT_EQ(testhost::UsageOf(cachePath).files, 0);
    EXPECT_EQ(ReadRange(*object, &fetcher, size, 0, 100).error, AE_NOT_FOUND);
    const testhost::WriteResult closed = WriteText(*object, &fetcher, 0, "x");
    EXPECT_EQ(closed.error, AE_NOT_FOUND);
    EXPECT_EQ(closed.fileSize, -7);  // untouched
    EXPECT_EQ(object->Truncate(0), AE_NOT_FOUND);
    EXPECT_EQ(object->GetFileSize(), 0);
    object->ClearOldCache(true);

    // SetMode attaches a fresh store of either kind. A reservation made and
    // cleared through the object leaves nothing for a read to wait on; a
    // rehashed store logs under its new name.
    ASSERT_EQ(object->SetMode('r', size, &fetcher), AE_OK);
    EXPECT_EQ(object->Reserve(0, size), AE_OK);
    EXPECT_EQ(object->ClearReserved(0, size), AE_OK);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 0, size));
    object->Close();
    EXPECT_EQ(object->Reserve(0, size), AE_NOT_FOUND);
    EXPECT_EQ(object->ClearReserved(0, size), AE_NOT_FOUND);
    ASSERT_EQ(object->SetMode('w', size, &fetcher), AE_OK);
    ASSERT_EQ(cache->Rehash("data.bin", "renamed", "renamed.bin"), AE_OK);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 5, 70000));
    EXPECT_TRUE(log.HasTextContaining("[renamed.bin] Read done"));
}

// The stricter ages apply only while the read-only files exceed the limit.
TEST_F(ManagerTest, OverLimitPassesUseTheStricterAges) {
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"clear":{"period":0,
        "usedblock":3600,"unusedblock":3600,"over":{"usedblock":0,"unusedblock":0}}}})"),
              AE_OK);
    auto object = Open("data.bin");
    ASSERT_TRUE(ReadsRemote(*object, &fetcher, 0, size));
    const std::string evicting = "[data.bin] ClearOldCache : 13 sector(s) will clear";

    // Old enough for the strict ages, but under the limit: kept.
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    EXPECT_FALSE(log.HasTextContaining(evicting));

    // A sparse tail past the limit puts the cache over it.
    ASSERT_EQ(object->Truncate(cache->GetLimit() + 65536), AE_OK);
    EXPECT_TRUE(WaitFor([&] { return log.HasTextContaining(evicting); }));
    const long long calls = fetcher.Calls();
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 0, size));
    EXPECT_GT(fetcher.Calls(), calls);
}

// Host threads open, read, switch and close the same names while the quota
// thread evicts. Like a client serialising its own open, write and close of
// a file, a thread changes a name's stores only under that name's host
// lock; reads run without it. Each thread reads the first half of the
// remote, then the second, so the first half ages and is evicted meanwhile.
TEST_F(ManagerTest, HostThreadsShareNamesWhileTheQuotaThreadEvicts) {
    ASSERT_EQ(cache->SetConfiguration(
                  R"({"cache":{"clear":{"period":0,"usedblock":0,"unusedblock":0}}})"),
              AE_OK);
    const char* names[] = {"a.bin", "b.bin", "c.bin"};
    std::mutex hostLocks[3];
    std::atomic<int> served{0};
    const auto start = std::chrono::steady_clock::now();
    const auto half = std::chrono::milliseconds(1300);

    auto host = [&](int seed) {
        std::mt19937 random(seed);
        try {
            for (auto now = start; now < start + 2 * half; now = std::chrono::steady_clock::now()) {
                const long long from = now < start + half ? 0 : size / 2;
                const int which = static_cast<int>(random() % 3);
                std::unique_lock<std::mutex> hostLock(hostLocks[which]);
                std::shared_ptr<ICacheObj> object = Open(names[which]);
                ASSERT_TRUE(object);
                // a.bin only serves reads, so its store lives long enough to age.
                const int action = which == 0 ? -1 : static_cast<int>(random() % 6);
                AERROR result = AE_OK;
                if (action == 0) result = object->SetMode('w', size, &fetcher);
                if (action == 1) result = object->FillEmptySectors(&fetcher);
                if (action == 1 && result == AE_OK) result = object->SetMode('r', size, &fetcher);
                if (action == 2) result = cache->Close(names[which]);
                ASSERT_EQ(result, AE_OK) << "action " << action;
                hostLock.unlock();
                const long long offset = from + random() % (size / 2);
                const long long length = 1 + random() % std::min(2 * 65536LL, size - offset);
                const auto got = ReadRange(*object, &fetcher, size, offset, length, 5000);
                if (got.error == AE_OK) {
                    ASSERT_EQ(got.bytes, Slice(remote, offset, length));
                    served.fetch_add(1);
                } else {
                    ASSERT_EQ(got.error, AE_INVALID_HANDLE);  // a writable store handed on
                }
            }
        } catch (AERROR error) {
            ADD_FAILURE() << "host thread " << seed << " caught AERROR " << error;
        }
    };
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; ++t) hosts.emplace_back(host, t);
    for (std::thread& thread : hosts) thread.join();
    EXPECT_GT(served.load(), 0);
    EXPECT_EQ(cache->GetUsedBytes(), 0);  // the manager keeps no count of its own
    EXPECT_TRUE(log.HasTextContaining("[a.bin] ClearOldCache : "));

    // Once the hosts are done, passes shrink a.bin's file to nothing on disk
    // and the next read fetches again.
    auto idle = Open("a.bin");
    EXPECT_TRUE(WaitFor([&] {
        return idle->GetFileSize() == 0 && std::filesystem::file_size(cachePath + "/a.bin") == 0;
    }));
    EXPECT_TRUE(log.HasTextContaining("[CACHE] [" + cachePath + "/] Total cache : "));
    EXPECT_TRUE(log.HasTextContaining("(limits : " + std::to_string(cache->GetLimit()) + ")"));
    const long long calls = fetcher.Calls();
    EXPECT_TRUE(ReadsRemote(*idle, &fetcher, 0, size));
    EXPECT_GT(fetcher.Calls(), calls);
}

}  // namespace
