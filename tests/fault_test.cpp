// Fault scenarios through the public boundary: the host's queue canceling
// fetch jobs, a full disk under a writable copy, the cache released with
// fetches in flight. In each, data read back is the remote's bytes or an
// error, and nothing hangs.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

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
    std::atomic_ref<int32_t>(handle->state).store(4);
    Outcome outcome = run.get();
    outcome.hung = true;
    return outcome;
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
    void Start(long long size, const std::string& path = "") {
        if (!path.empty()) cachePath = path;
        ASSERT_EQ(InitCache(cachePath.c_str(), 1ULL << 30, &cache), AE_OK);
        bytes = modeltest::RandomBytes(size, 7);
        remote = std::make_unique<ModelRemote>(bytes);
        object = cache->Open("remote.bin", 'r', size, remote.get());
        ASSERT_NE(object, nullptr);
    }

    // True when a read of the range gives exactly the remote's bytes.
    bool ReadsRemote(long long offset, long long length) {
        const Outcome got =
            BoundedRead(*object, remote.get(), std::ssize(bytes), offset, length, 5000);
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

// The host's queue goes away with fetch jobs still waiting in it and
// cancels them. A canceled job releases what it reserved, so the readers
// waiting for it stop waiting at once instead of at their time-out, and the
// range can be fetched again.
TEST_F(FaultTest, CanceledJobsReleaseWhatTheyReserved) {
    Start(64 * kSector);
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":1000}}})"), AE_OK);
    auto single = std::make_unique<hostkit::ThreadPoolQueue>(1);
    Cache_UnbindAsyncQ();
    ASSERT_TRUE(Cache_BindAsyncQ(single.get()));
    remote->Stall();
    auto read = [&](long long offset, RD_FLAGS flags) {
        return std::async(std::launch::async, [=, this] {
            return BoundedRead(*object, remote.get(), std::ssize(bytes), offset, 100, 10000, flags);
        });
    };
    auto running = read(0, RD_NONE);  // its job holds the only worker
    ASSERT_TRUE(remote->WaitForStalled(1));
    auto queued = read(32 * kSector, RD_NONE);
    ASSERT_TRUE(testhost::WaitFor([&] { return log.HasTextContaining("Read-ahead : 2097152"); }));
    auto whole = read(20 * kSector, RD_FETCH_ALL);
    ASSERT_TRUE(testhost::WaitFor([&] { return log.HasTextContaining("large block : 0, "); }));

    Cache_UnbindAsyncQ();
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        remote->Release();
    });
    single.reset();  // waits for the running job and cancels the two others
    releaser.join();
    ExpectRightBytesOrError(running.get(), 0, 100);
    const Outcome dropped = queued.get();
    ExpectRightBytesOrError(dropped, 32 * kSector, 100);
    EXPECT_LT(dropped.elapsedMs, 5000);
    // The whole-file read waits as long as its job is current: only the
    // canceled job giving up that place ends the wait; then it fetches again.
    const Outcome fetchedAgain = whole.get();
    ExpectRightBytesOrError(fetchedAgain, 20 * kSector, 100);
    EXPECT_EQ(fetchedAgain.error, AE_OK);
    EXPECT_TRUE(ReadsRemote(0, std::ssize(bytes)));
}

// A writable copy on a full disk: the write and the fill that meet it fail
// with error lines, and the sectors they touched stay missing. Once there is
// room again, a read fetches them and gets the remote's bytes, not the
// failed write's nor zeros, and writes land again.
TEST_F(FaultTest, WritableCopyOnAFullDiskRecoversOnceThereIsRoom) {
    const std::string mountPoint = dir.Sub("small");
    fs::create_directory(mountPoint);
    if (mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=2m,mode=0700") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs (" << std::strerror(errno)
                     << "): needs root or CAP_SYS_ADMIN";
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{mountPoint};
    testhost::WriteRandomFile(mountPoint + "/filler", 1536 * 1024);
    Start(kMiB, mountPoint + "/cache");
    ASSERT_EQ(object->SetMode('w', kMiB, remote.get()), AE_OK);

    const Bytes written = modeltest::RandomBytes(kMiB, 9);
    _WRITEDATA write{written.data(), 0, kMiB, 0, testhost::OpenHandle(), kMiB, nullptr, 0};
    EXPECT_EQ(object->Write(&write), AE_WRITE_FAILED);
    EXPECT_TRUE(log.HasTextContaining("] Write failed : No space left on device"));
    const Outcome unfilled = BoundedRead(*object, remote.get(), kMiB, 0, kMiB, 2000);
    EXPECT_EQ(unfilled.error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining("] Fetch write failed : No space left on device"));

    fs::remove(mountPoint + "/filler");
    EXPECT_TRUE(ReadsRemote(0, kMiB));
    EXPECT_EQ(object->Write(&write), AE_OK);
    EXPECT_EQ(BoundedRead(*object, nullptr, kMiB, 0, kMiB, 0).bytes, written);
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

}  // namespace
