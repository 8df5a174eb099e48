// Fault scenarios through the public boundary: the host's queue canceling
// fetch jobs, a full disk under a writable copy, the cache released with
// fetches in flight. In each, data read back is the remote's bytes or an
// error with an error line, and nothing hangs.
#include <sys/mount.h>

#include <cstring>
#include <filesystem>
#include <future>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using testhost::ReadResult;

// A read of a cache object on another thread, as a host thread makes it.
struct PendingRead {
    std::shared_ptr<_FS_HANDLE> handle = testhost::OpenHandle();
    std::future<ReadResult> result;
};

class FaultTest : public StoreTest {
  protected:
    void TearDown() override {
        if (fetch) fetch->SetGate(true);
        ReleaseCache(cachePath.c_str());
        StoreTest::TearDown();
    }

    // A cache in `path` and one object over a remote of `size` bytes.
    void Start(long long size, const std::string& path) {
        cachePath = path;
        MakeRemote(size);
        ASSERT_EQ(InitCache(cachePath.c_str(), 1ULL << 30, &cache), AE_OK);
        object = cache->Open("remote.bin", 'r', size, fetch.get());
        ASSERT_NE(object, nullptr);
    }

    PendingRead ReadLater(long long offset, long long length, RD_FLAGS flags = RD_NONE) {
        PendingRead read;
        read.result = std::async(std::launch::async, [=, this, handle = read.handle] {
            return Read(*object, fetch.get(), Size(), offset, length, 10000, handle, flags);
        });
        return read;
    }

    // The result of `read`, which must end within 5 s: one still waiting
    // then fails the test and has its handle closed, so that it ends.
    static ReadResult Ended(PendingRead& read) {
        if (read.result.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            ADD_FAILURE() << "a read still waits after 5 s";
            testhost::MarkClosed(read.handle);
        }
        return read.result.get();
    }

    // Checks that `got` holds the remote's bytes, or is an error with an
    // error line.
    void ExpectRightBytesOrError(const ReadResult& got, long long offset, long long length) {
        if (got.error == AE_OK) {
            EXPECT_EQ(got.bytes, Slice(remote, offset, length)) << "wrong bytes at " << offset;
            return;
        }
        const auto lines = log.Lines();
        EXPECT_TRUE(
            std::any_of(lines.begin(), lines.end(),
                        [](const auto& line) { return line.level == (LL_ERROR | LL_CACHE); }))
            << "result " << got.error << " without an error line";
    }

    std::string cachePath = dir.Sub("cache");
    ICache* cache = nullptr;
    std::shared_ptr<ICacheObj> object;
};

// The host's queue goes away with fetch jobs still waiting in it and
// cancels them. A canceled job releases what it reserved, so the readers
// waiting for it stop waiting at once instead of at their time-out, and the
// range can be fetched again. First a read's own fetch waits in the queue,
// then a whole-file fetch, which a read waits for as long as it is current.
TEST_F(FaultTest, CanceledJobsReleaseWhatTheyReserved) {
    Start(64 * kSector, cachePath);
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"ra":{"hit":1000}}})"), AE_OK);
    const struct {
        long long running, waiting;
        RD_FLAGS flags;
        const char* posted;  // logged once the waiting read's job is queued
    } rounds[] = {{0, 32 * kSector, RD_NONE, "Read-ahead : 2097152, "},
                  {16 * kSector, 48 * kSector, RD_FETCH_ALL, "Read-ahead large block : 0, "}};
    for (const auto& round : rounds) {
        UseQueue(1);
        fetch->SetGate(false);
        PendingRead running = ReadLater(round.running, 100);  // its job holds the only worker
        ASSERT_TRUE(fetch->WaitForHeld(1));
        PendingRead waiting = ReadLater(round.waiting, 100, round.flags);
        ASSERT_TRUE(WaitFor([&] { return log.HasTextContaining(round.posted); }));

        Cache_UnbindAsyncQ();
        std::thread opener([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            fetch->SetGate(true);
        });
        queue.reset();  // waits for the running job and cancels the other
        opener.join();
        ExpectRightBytesOrError(Ended(running), round.running, 100);
        ExpectRightBytesOrError(Ended(waiting), round.waiting, 100);
    }
    // The canceled whole-file job gave up its place: the next one starts.
    log.Clear();
    const auto handle = testhost::OpenHandle();
    EXPECT_EQ(Read(*object, fetch.get(), Size(), 56 * kSector, 100, 0, handle, RD_FETCH_ALL).error,
              AE_OK);
    EXPECT_TRUE(log.HasTextContaining("Fetch all at once specified"));
    EXPECT_TRUE(ReadsRemote(*object, 0, Size(), fetch.get()));
}

// A writable copy on a full disk: the write and the fill that meet it fail
// with error lines, and the sectors they touched stay missing. Once there is
// room again, a read fetches them and gets the remote's bytes, not the
// failed write's nor zeros, and writes land again.
TEST_F(FaultTest, WritableCopyOnAFullDiskRecoversOnceThereIsRoom) {
    namespace fs = std::filesystem;
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
    ASSERT_EQ(object->SetMode('w', kMiB, fetch.get()), AE_OK);

    const std::vector<char> written = Pattern(kMiB, 'w');
    EXPECT_EQ(Write(*object, nullptr, kMiB, 0, written), AE_WRITE_FAILED);
    EXPECT_TRUE(log.HasTextContaining("] Write failed : No space left on device"));
    EXPECT_EQ(Read(*object, fetch.get(), kMiB, 0, kMiB).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasTextContaining("] Fetch write failed : No space left on device"));

    fs::remove(mountPoint + "/filler");
    EXPECT_TRUE(ReadsRemote(*object, 0, kMiB, fetch.get()));
    EXPECT_EQ(Write(*object, nullptr, kMiB, 0, written), AE_OK);
    EXPECT_EQ(Read(*object, nullptr, kMiB, 0, kMiB).bytes, written);
}

// Releasing the cache does not wait for held fetches, and the objects the
// host still holds go on serving.
TEST_F(FaultTest, ReleaseWithFetchesInFlight) {
    UseQueue(4);
    Start(64 * kSector, cachePath);
    fetch->SetGate(false);
    std::vector<PendingRead> reads;
    for (int i = 0; i < 4; ++i) reads.push_back(ReadLater(i * 8 * kSector, kSector));
    ASSERT_TRUE(fetch->WaitForHeld(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ReleaseCache(cachePath.c_str()), AE_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    fetch->SetGate(true);
    for (size_t i = 0; i < reads.size(); ++i) {
        ExpectRightBytesOrError(Ended(reads[i]), static_cast<long long>(i) * 8 * kSector, kSector);
    }
    EXPECT_TRUE(ReadsRemote(*object, 0, 2 * kSector, fetch.get()));
    object->Close();
}

}  // namespace
}  // namespace storetest
