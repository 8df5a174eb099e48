// Fault scenarios through the public boundary: a remote that fails, stops
// short, delivers out of line, stalls or grows; handles closed while reads
// wait; the cache released with fetches in flight; the cache directory
// swapped or removed under a live cache; a full disk. In each, data read
// back is the remote's bytes or an error, and nothing hangs.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "cache/cache_obj.h"
#include "tests/model_remote.h"
#include "tests/test_host.h"

namespace {

namespace fs = std::filesystem;
using modeltest::Bytes;
using modeltest::kSector;
using modeltest::ModelRemote;
using modeltest::SliceOf;
using Clock = std::chrono::steady_clock;

constexpr long long kMiB = 1048576;

struct Outcome {
    AERROR error = AE_OK;
    Bytes bytes;  // what the read delivered
    long long elapsedMs = 0;
    bool hung = false;  // still waiting after 15 s: its handle was closed to end it
};

void CloseHandle(const std::shared_ptr<_FS_HANDLE>& handle) {
    std::atomic_ref<int32_t>(handle->state).store(4);
}

// One read on another thread. A read still waiting after 15 s counts as hung;
// its handle is then closed so that the test can go on.
Outcome BoundedRead(ICacheIO& io, IFetch* fetch, long long fileSize, long long offset,
                    long long length, long long timeout, RD_FLAGS flags = RD_NONE,
                    std::shared_ptr<_FS_HANDLE> handle = testhost::OpenHandle()) {
    auto run = std::async(std::launch::async, [&] {
        Outcome outcome;
        outcome.bytes.resize(static_cast<size_t>(length));
        _READDATA request{
            outcome.bytes.data(), offset, length, 0, handle, fileSize, fetch, timeout, flags};
        const auto start = Clock::now();
        outcome.error = io.Read(&request);
        outcome.elapsedMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
        outcome.bytes.resize(static_cast<size_t>(std::clamp(request.transferred, 0LL, length)));
        return outcome;
    });
    if (run.wait_for(std::chrono::seconds(15)) == std::future_status::ready) return run.get();
    CloseHandle(handle);
    Outcome outcome = run.get();
    outcome.hung = true;
    return outcome;
}

// Every path under `root` with its inode, so that a file replaced by another
// of the same name shows.
std::set<std::string> Listing(const std::string& root) {
    std::set<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat info {};
        lstat(entry.path().c_str(), &info);
        entries.insert(entry.path().string() + " #" + std::to_string(info.st_ino));
    }
    return entries;
}

// Bytes in use on the file system of `path`.
long long UsedBlocks(const std::string& path) {
    const fs::space_info space = fs::space(path);
    return static_cast<long long>(space.capacity - space.free);
}

class FaultTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Cache_BindLogger(&log));
        ASSERT_TRUE(Cache_BindAsyncQ(&queue));
    }
    void TearDown() override {
        if (remote) remote->Release();
        queue.WaitIdle();
        if (cache) ReleaseCache(cachePath.c_str());
        Cache_UnbindAsyncQ();
        Cache_UnbindLogger();
    }

    // A cache in `path` and one object over a remote of `size` bytes.
    void Start(long long size, const std::string& path = "", long long pieceSectors = 1) {
        if (!path.empty()) cachePath = path;
        ASSERT_EQ(InitCache(cachePath.c_str(), 1ULL << 30, &cache), AE_OK);
        bytes = modeltest::RandomBytes(size, 7);
        remote = std::make_unique<ModelRemote>(bytes, pieceSectors);
        object = cache->Open("remote.bin", 'r', size, remote.get());
        ASSERT_NE(object, nullptr);
    }

    // True when a read of the range gives exactly the remote's bytes.
    bool ReadsRemote(long long offset, long long length, long long fileSize = -1) {
        if (fileSize < 0) fileSize = std::ssize(bytes);
        const Outcome got = BoundedRead(*object, remote.get(), fileSize, offset, length, 5000);
        return got.error == AE_OK && got.bytes == SliceOf(bytes, offset, length);
    }

    // Checks that `got` is an error with an error line, or the right bytes.
    void ExpectRightBytesOrError(const Outcome& got, long long offset, long long length) {
        EXPECT_FALSE(got.hung);
        if (got.error == AE_OK) {
            EXPECT_EQ(got.bytes, SliceOf(bytes, offset, length)) << "wrong bytes at " << offset;
        } else {
            EXPECT_TRUE(HasErrorLine()) << "result " << got.error << " without an error line";
        }
    }

    bool HasErrorLine() const {
        for (const auto& line : log.Lines()) {
            if (line.level == (LL_ERROR | LL_CACHE)) return true;
        }
        return false;
    }

    testhost::TempDir dir;
    std::string cachePath = dir.Sub("cache");
    hostkit::LineLogger log;
    hostkit::ThreadPoolQueue queue{4};
    ICache* cache = nullptr;
    Bytes bytes;
    std::unique_ptr<ModelRemote> remote;
    std::shared_ptr<ICacheObj> object;
};

TEST_F(FaultTest, FailingRemoteGivesAnErrorThenRecovers) {
    Start(5 * kSector + 3);
    remote->SetFailing(true);
    const Outcome failed = BoundedRead(*object, remote.get(), std::ssize(bytes), 0, 200000, 2000);
    EXPECT_FALSE(failed.hung);
    EXPECT_NE(failed.error, AE_OK);
    EXPECT_TRUE(HasErrorLine());
    // A whole-file read honours its own time-out when its fetch fails.
    const Outcome whole = BoundedRead(*object, remote.get(), std::ssize(bytes), 0,
                                      std::ssize(bytes), 500, RD_FETCH_ALL);
    EXPECT_FALSE(whole.hung) << "whole-file read waited past its time-out";
    EXPECT_NE(whole.error, AE_OK);

    remote->SetFailing(false);
    EXPECT_TRUE(ReadsRemote(0, std::ssize(bytes)));
}

TEST_F(FaultTest, RemoteStoppingInsideASectorIsNeverReadAsWhole) {
    // The remote answers 0 after delivering a prefix that ends inside
    // sector 1; the rest must come from a later fetch, not from the slot.
    Start(5 * kSector);
    remote->StopDeliveringAt(kSector + 1000);
    const Outcome first =
        BoundedRead(*object, remote.get(), std::ssize(bytes), 0, 3 * kSector, 2000);
    ExpectRightBytesOrError(first, 0, 3 * kSector);
    remote->StopDeliveringAt(-1);
    EXPECT_TRUE(ReadsRemote(kSector, 2 * kSector));
    EXPECT_TRUE(ReadsRemote(0, std::ssize(bytes)));
}

TEST_F(FaultTest, UnalignedPiecesGiveRightBytesOrAnError) {
    Start(4 * kSector + 10);
    remote->SetUnalignedPieces(10007);
    for (long long offset : {0LL, kSector + 5, 3 * kSector}) {
        const Outcome got =
            BoundedRead(*object, remote.get(), std::ssize(bytes), offset, kSector, 2000);
        ExpectRightBytesOrError(got, offset, kSector);
    }
    remote->SetUnalignedPieces(0);
}

TEST_F(FaultTest, GrownRemoteRefetchesItsShortSector) {
    // 100,000 bytes cached, then the remote grows to 300,000 with the same
    // prefix: the short sector is fetched again, not read as if whole.
    Start(100000);
    ASSERT_TRUE(ReadsRemote(0, 100000));
    Bytes grown = modeltest::RandomBytes(300000, 8);
    std::copy(bytes.begin(), bytes.end(), grown.begin());
    bytes = grown;
    remote->Replace(grown);
    EXPECT_TRUE(ReadsRemote(0, 300000, 300000));
    EXPECT_TRUE(ReadsRemote(99990, 20, 300000));
}

TEST_F(FaultTest, StalledRemoteTimesOutThenServes) {
    Start(3 * kSector);
    remote->Stall();
    const Outcome stalled = BoundedRead(*object, remote.get(), std::ssize(bytes), 0, 100, 200);
    EXPECT_EQ(stalled.error, AE_READ_NOT_SERVED);
    EXPECT_LT(stalled.elapsedMs, 5000);
    EXPECT_TRUE(log.HasTextContaining("Read timed-out"));
    remote->Release();
    EXPECT_TRUE(testhost::WaitFor([&] { return ReadsRemote(0, 100); }));
}

TEST_F(FaultTest, HandleClosedMidWaitAnswers28WhateverHappensFirst) {
    Start(3 * kSector);
    for (bool fetcherGivesUpFirst : {false, true}) {
        object->Close();
        object->SetMode('r', std::ssize(bytes), remote.get());
        remote->Stall();
        auto handle = testhost::OpenHandle();
        auto read = std::async(std::launch::async, [&] {
            return BoundedRead(*object, remote.get(), std::ssize(bytes), 0, 100, -1, RD_NONE,
                               handle);
        });
        ASSERT_TRUE(remote->WaitForStalled(1));
        const auto closedAt = Clock::now();
        if (fetcherGivesUpFirst) {
            // The fetcher sees the closed handle before the read polls it.
            CloseHandle(handle);
            remote->Release();
        } else {
            CloseHandle(handle);
        }
        const Outcome got = read.get();
        const auto latency =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - closedAt).count();
        EXPECT_FALSE(got.hung);
        EXPECT_EQ(got.error, AE_HANDLE_CLOSED) << "fetcher first: " << fetcherGivesUpFirst;
        EXPECT_LT(latency, 1000);  // one poll period plus scheduling slack
        remote->Release();
        queue.WaitIdle();
    }
}

TEST_F(FaultTest, ReleaseWithFetchesInFlight) {
    Start(64 * kSector);
    remote->Stall();
    std::vector<std::future<Outcome>> reads;
    for (int i = 0; i < 4; ++i) {
        reads.push_back(std::async(std::launch::async, [&, i] {
            return BoundedRead(*object, remote.get(), std::ssize(bytes), i * 8 * kSector, kSector,
                               5000);
        }));
    }
    ASSERT_TRUE(remote->WaitForStalled(1));
    const auto start = Clock::now();
    EXPECT_EQ(ReleaseCache(cachePath.c_str()), AE_OK);
    cache = nullptr;
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    remote->Release();
    for (size_t i = 0; i < reads.size(); ++i) {
        const Outcome got = reads[i].get();
        const long long offset = static_cast<long long>(i) * 8 * kSector;
        EXPECT_FALSE(got.hung);
        if (got.error == AE_OK) {
            EXPECT_EQ(got.bytes, SliceOf(bytes, offset, kSector));
        }
    }
    // The object the host still holds goes on serving.
    EXPECT_TRUE(ReadsRemote(0, 2 * kSector));
    object->Close();
}

// The parent of the cache directory: the directory, a decoy directory the
// link will point to, and a file of the same name as the cache file there.
class DirectorySwapTest : public FaultTest {
  protected:
    void SetUp() override {
        FaultTest::SetUp();
        Start(4 * kSector, dir.Sub("parent/cache"));
        ASSERT_TRUE(ReadsRemote(0, 2 * kSector));
        for (const auto& entry : fs::directory_iterator(cachePath)) {
            cacheFiles.push_back(entry.path().filename().string());
        }
        ASSERT_FALSE(cacheFiles.empty());
    }

    // Plants files named like the cache files in `where`.
    void PlantDecoys(const std::string& where) {
        fs::create_directories(where);
        for (const std::string& name : cacheFiles)
            testhost::WriteRandomFile(where + "/" + name, 10);
    }

    // Closes the object, opens a new one and reads through it.
    void UseTheCache() {
        object->Close();
        cache->Close("remote.bin");
        try {
            object = cache->Open("other.bin", 'r', std::ssize(bytes), remote.get());
            if (object) BoundedRead(*object, remote.get(), std::ssize(bytes), 0, kSector, 2000);
        } catch (AERROR) {
            object = nullptr;  // refusing to create the file is a clear answer
        }
        if (object) object->Close();
        cache->Close("other.bin");
    }

    std::vector<std::string> cacheFiles;
};

TEST_F(DirectorySwapTest, LinkInPlaceOfTheDirectory) {
    // The directory moves away (it stays the cache's own, under a new name)
    // and a link to a decoy takes its place.
    const std::string moved = dir.Sub("parent/moved");
    fs::rename(cachePath, moved);
    PlantDecoys(dir.Sub("elsewhere"));
    fs::create_directory_symlink(dir.Sub("elsewhere"), cachePath);
    auto outsideMoved = [&] {
        auto entries = Listing(dir.path());
        std::erase_if(entries, [&](const std::string& e) { return e.rfind(moved + "/", 0) == 0; });
        return entries;
    };
    const auto before = outsideMoved();
    UseTheCache();
    EXPECT_EQ(outsideMoved(), before) << "files created or deleted through the link";
}

TEST_F(DirectorySwapTest, DirectoryRemovedAndMadeAgain) {
    fs::remove_all(cachePath);
    PlantDecoys(cachePath);
    const auto before = Listing(dir.path());
    UseTheCache();
    const auto after = Listing(dir.path());
    for (const std::string& entry : before) {
        EXPECT_TRUE(after.count(entry)) << "deleted: " << entry;
    }
}

TEST_F(FaultTest, FullDiskFailsClearlyThenRecoversOnceSpaceIsFree) {
    const std::string mountPoint = dir.Sub("small");
    fs::create_directory(mountPoint);
    if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=8m,mode=0700") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs (" << std::strerror(errno)
                     << "): needs root or CAP_SYS_ADMIN";
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{mountPoint};
    Start(24 * kMiB, mountPoint + "/cache");
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":1000}}})"), AE_OK);

    // Reading the whole file cannot fit: reads fail with an error line (or
    // give the right bytes while there is room), never wrong bytes.
    bool sawFailure = false;
    for (long long offset = 0; offset < std::ssize(bytes); offset += kMiB) {
        const Outcome got =
            BoundedRead(*object, remote.get(), std::ssize(bytes), offset, kMiB, 3000);
        ExpectRightBytesOrError(got, offset, kMiB);
        sawFailure = sawFailure || got.error != AE_OK;
    }
    EXPECT_TRUE(sawFailure) << "24 MiB fitted on an 8 MiB file system";

    // Eviction frees the space; reads then work without closing anything.
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"clear":{"period":0,"usedblock":0,
        "unusedblock":0,"over":{"usedblock":0,"unusedblock":0}}}})"),
              AE_OK);
    EXPECT_TRUE(testhost::WaitFor([&] { return UsedBlocks(mountPoint) < kMiB; }))
        << "eviction left " << UsedBlocks(mountPoint) << " bytes in use";
    EXPECT_TRUE(testhost::WaitFor([&] { return ReadsRemote(20 * kMiB, 2 * kMiB); }))
        << "the cache stayed wedged after space was freed";
    EXPECT_TRUE(ReadsRemote(0, kMiB));
}

TEST_F(FaultTest, ExtremeOffsetsGetRangeCodes) {
    Start(3 * kSector);
    const long long big = LLONG_MAX;
    for (long long offset : {big, big - 10, -1LL, big - kSector}) {
        const Outcome got = BoundedRead(*object, remote.get(), std::ssize(bytes), offset, 100, 500);
        EXPECT_FALSE(got.hung);
        EXPECT_TRUE(got.bytes.empty() || got.error != AE_OK) << offset;
    }
    for (long long length : {big, big - 1}) {
        object->Reserve(big - 5, length);
        object->ClearReserved(big - 5, length);
        object->Reserve(kSector, length);
        object->ClearReserved(kSector, length);
    }
    ASSERT_EQ(object->SetMode('w', std::ssize(bytes), remote.get()), AE_OK);
    EXPECT_NE(object->Truncate(big), AE_OK);
    EXPECT_NE(object->Truncate(-1), AE_OK);
    _WRITEDATA write{"x", big, 1, 0, testhost::OpenHandle(), 0, remote.get(), 500};
    EXPECT_NE(object->Write(&write), AE_OK);
    ASSERT_EQ(object->SetMode('r', std::ssize(bytes), remote.get()), AE_OK);
    EXPECT_TRUE(ReadsRemote(0, std::ssize(bytes)));
}

}  // namespace
