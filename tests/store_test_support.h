// What the store tests share: a host (logger, optional thread-pool queue), a
// "remote" file of pseudo-random bytes with a fetcher whose faults a test
// chooses, single requests on a store, and a peer that sees a read-only
// store's private sector map.
#ifndef CACHE_TESTS_STORE_TEST_SUPPORT_H_
#define CACHE_TESTS_STORE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <thread>

#include "cache/cache_settings.h"
#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "cache/writable_cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/line_logger.h"
#include "hostkit/thread_pool_queue.h"
#include "tests/test_host.h"

namespace cache {

class ReadonlyCachePeer {
  public:
    // A copy of the sector map, in key order.
    static std::map<long long, _SECTOR> Sectors(ReadonlyCache& store) {
        ExclusiveLock guard(store.lock);
        std::map<long long, _SECTOR> copy;
        for (const auto& [key, sector] : store.sectors) copy.emplace(key, sector);
        return copy;
    }
    // True when no sector claims more than one slot: the sector table's
    // invariant that every valid length is at most kSectorSize.
    static bool EveryLengthWithinOneSlot(ReadonlyCache& store) {
        for (const auto& [key, sector] : Sectors(store)) {
            if (sector.length > kSectorSize) return false;
        }
        return true;
    }
    // Queues `slot` as free, as eviction would.
    static void AddFreeSlot(ReadonlyCache& store, long long slot) {
        ExclusiveLock guard(store.lock);
        store.file.Free(slot);
    }
    // Drops the sector at `key` and queues its slot as free, as eviction
    // does; the slot keeps the sector's bytes until it is reused.
    static void Evict(ReadonlyCache& store, long long key) {
        ExclusiveLock guard(store.lock);
        const auto entry = store.sectors.find(key);
        store.file.Free(entry->second.offset);
        store.sectors.Erase(entry);
    }
};

}  // namespace cache

namespace storetest {

using cache::ReadonlyCache;
using cache::ReadonlyCachePeer;
using cache::WritableCache;
using testhost::Slice;
using testhost::WaitFor;
constexpr long long kSector = cache::kSectorSize;
constexpr long long kMiB = 1048576;
constexpr auto kPatience = std::chrono::seconds(10);         // bounds every wait of a test
using Calls = std::vector<std::pair<long long, long long>>;  // (offset, length)

// The host's fetcher over the remote file, with faults a test chooses: it
// records every call and holds it while the gate is closed (kPatience at
// most, so that a failing test cannot hang); then a call whose handle is
// closed or that touches [failFrom, failTo) fails.
class TestFetcher final : public IFetch {
  public:
    explicit TestFetcher(const std::string& path, hostkit::FetcherOptions options = {})
        : remote(path, options) {}
    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        {
            std::unique_lock<std::mutex> guard(lock_);
            calls_.emplace_back(offset, length);
            ++held_;
            changed_.notify_all();
            changed_.wait_for(guard, kPatience, [&] { return open_; });
            --held_;
        }
        if (cache::HandleClosed(handle)) return AE_HANDLE_CLOSED;
        if (offset < failTo && offset + length > failFrom) return AE_READ_FAILED;
        return remote.Fetch(offset, length, std::move(handle), sink);
    }
    long long GetHostHandle() override { return remote.GetHostHandle(); }
    void SetGate(bool open) {
        std::lock_guard<std::mutex> guard(lock_);
        open_ = open;
        changed_.notify_all();
    }
    // True once `count` calls are held at the closed gate.
    bool WaitForHeld(int count) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, kPatience, [&] { return held_ >= count; });
    }
    Calls Take() {
        std::lock_guard<std::mutex> guard(lock_);
        return std::exchange(calls_, {});
    }

    hostkit::FileFetcher remote;
    std::atomic<long long> failFrom{0}, failTo{0};

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool open_ = true;
    int held_ = 0;
    Calls calls_;
};

// One read or write through a store or a cache object (`Io`).
template <class Io>
testhost::ReadResult Read(Io& store, IFetch* fetch, long long fileSize, long long offset,
                          long long length, long long timeout = 0,
                          std::shared_ptr<_FS_HANDLE> handle = testhost::OpenHandle(),
                          RD_FLAGS flags = RD_NONE) {
    testhost::ReadResult result;
    result.bytes.assign(static_cast<size_t>(length), '\0');
    _READDATA request{
        result.bytes.data(), offset, length, 0, std::move(handle), fileSize, fetch, timeout, flags};
    result.error = store.Read(&request);
    result.transferred = request.transferred;
    result.bytes.resize(static_cast<size_t>(std::max(0LL, request.transferred)));
    return result;
}

template <class Io>
AERROR Write(Io& store, IFetch* fetch, long long fileSize, long long offset,
             const std::vector<char>& bytes, long long timeout = 0,
             std::shared_ptr<_FS_HANDLE> handle = testhost::OpenHandle()) {
    _WRITEDATA request{bytes.data(), offset, std::ssize(bytes), 0, std::move(handle), fileSize,
                       fetch,        timeout};
    const AERROR error = store.Write(&request);
    EXPECT_EQ(request.transferred, error == AE_OK ? std::ssize(bytes) : 0);
    return error;
}

// `count` bytes unlike any remote file of the tests.
inline std::vector<char> Pattern(long long count, char seed) {
    std::vector<char> bytes(static_cast<size_t>(count));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(seed + 7 * (i % 31));
    return bytes;
}

// Lays `bytes` over `image` at `offset`, growing the image with zeros.
inline void Overlay(std::vector<char>& image, long long offset, const std::vector<char>& bytes) {
    image.resize(std::max(image.size(), static_cast<size_t>(offset) + bytes.size()), '\0');
    std::memcpy(image.data() + offset, bytes.data(), bytes.size());
}

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(Cache_BindLogger(&log)); }
    void TearDown() override {
        if (queue) queue->WaitIdle();
        Cache_UnbindAsyncQ();
        Cache_UnbindLogger();
    }
    void UseQueue(int threads = 2) {
        queue = std::make_unique<hostkit::ThreadPoolQueue>(threads);
        ASSERT_TRUE(Cache_BindAsyncQ(queue.get()));
    }
    // The remote file, "remote.bin" in the cache directory, and its fetcher.
    void MakeRemote(long long size, hostkit::FetcherOptions options = {}) {
        remote = testhost::WriteRandomFile(dir.Sub("remote.bin"), static_cast<size_t>(size));
        fetch = std::make_unique<TestFetcher>(dir.Sub("remote.bin"), options);
    }
    long long Size() const { return std::ssize(remote); }
    std::shared_ptr<cache::CacheSettings> Config() {
        return std::make_shared<cache::CacheSettings>(1LL << 40, settings);
    }
    // Makes the stores' directory one on tmpfs, where sparse files of nearly
    // 2^63 bytes can be made; false when /dev/shm is not there.
    bool UseTmpfs() {
        if (access("/dev/shm", W_OK) != 0) return false;
        tmpfs = std::make_unique<testhost::TempDir>("cache-", "/dev/shm");
        directory = cache::CacheDirectory::Open(tmpfs->path() + "/");
        return directory != nullptr;
    }
    // The scratch directory, opened as a cache manager opens its directory.
    std::shared_ptr<const cache::CacheDirectory> Directory() {
        if (!directory) directory = cache::CacheDirectory::Open(dir.path() + "/");
        return directory;
    }
    std::unique_ptr<ReadonlyCache> ReadOnly(const std::string& name = "remote.bin") {
        return std::make_unique<ReadonlyCache>(Directory(), name, Size(), Config());
    }
    std::unique_ptr<WritableCache> Writable(const std::string& name, long long size) {
        return std::make_unique<WritableCache>(Directory(), name, size, nullptr, Config());
    }
    // Stores the remote's bytes of [offset, offset + length) as a fetch does.
    AERROR Deliver(ReadonlyCache& store, long long offset, long long length) {
        return store.FetchWrite(offset, remote.data() + offset, static_cast<long>(length), nullptr);
    }
    // True when a read of the range succeeds with exactly the remote's bytes.
    template <class Io>
    bool ReadsRemote(Io& store, long long offset, long long length, IFetch* source) {
        const auto result = Read(store, source, Size(), offset, length);
        return result.error == AE_OK && result.bytes == Slice(remote, offset, length);
    }

    testhost::TempDir dir;
    std::unique_ptr<testhost::TempDir> tmpfs;
    std::shared_ptr<const cache::CacheDirectory> directory;
    hostkit::LineLogger log;
    _CACHECONFIG settings = cache::kDefaultConfig;
    std::vector<char> remote;
    std::unique_ptr<TestFetcher> fetch;
    std::unique_ptr<hostkit::ThreadPoolQueue> queue;
};

}  // namespace storetest

#endif  // CACHE_TESTS_STORE_TEST_SUPPORT_H_
