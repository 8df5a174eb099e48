// What the host-driven tests share: the host kit's scratch directories,
// remote files and reads, single writes through a cache object, polling, and
// a fixture with a bound host around one cache directory. Only the public
// header and the host kit are used, so a test host that loads the library
// with dlopen can use it too.
#ifndef CACHE_TESTS_TEST_HOST_H_
#define CACHE_TESTS_TEST_HOST_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/line_logger.h"
#include "hostkit/read_range.h"
#include "hostkit/scratch.h"
#include "hostkit/thread_pool_queue.h"

namespace testhost {

using TempDir = hostkit::ScratchDir;
using hostkit::OpenHandle;
using hostkit::ReadRange;
using hostkit::ReadResult;
using hostkit::UsageOf;
using hostkit::WriteRandomFile;

// Closes `handle` as a host does from another thread: its state goes above
// 3, atomically.
inline void MarkClosed(const std::shared_ptr<_FS_HANDLE>& handle) {
    std::atomic_ref<int32_t>(handle->state).store(kHandleClosedState);
}

struct WriteResult {
    AERROR error = AE_OK;
    long long transferred = 0;
    long long fileSize = 0;  // as the write left it in the record
};

// One write of `text` at `offset` through `io`; the record's file size
// starts as `fileSize`.
inline WriteResult WriteText(ICacheIO& io, IFetch* fetch, long long offset, const std::string& text,
                             long long timeout = 0, long long fileSize = -7) {
    _WRITEDATA request{text.data(), offset, std::ssize(text), 0, OpenHandle(),
                       fileSize,    fetch,  timeout};
    const AERROR error = io.Write(&request);
    return {error, request.transferred, request.fileSize};
}

// The bytes `remote` holds in [offset, offset + length), clipped at its end.
inline std::vector<char> Slice(const std::vector<char>& remote, long long offset,
                               long long length) {
    const long long end =
        std::min<long long>(offset + length, static_cast<long long>(remote.size()));
    if (offset >= end) return {};
    return std::vector<char>(remote.begin() + offset, remote.begin() + end);
}

// Polls `done` until it holds; false after 10 s.
inline bool WaitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The AERROR that `action` throws, or AE_OK when it throws nothing.
template <class Action>
AERROR Thrown(Action action) {
    try {
        action();
    } catch (AERROR error) {
        return error;
    }
    return AE_OK;
}

// The library's binding functions: the linked ones, or those a host that
// loads the library found with dlsym.
struct Bindings {
    bool (*bindLogger)(ILog*);
    void (*unbindLogger)();
    bool (*bindAsyncQ)(IAsyncQueue*);
    void (*unbindAsyncQ)();
};

// A host around the cache directory `cachePath`, which is not made yet: a
// remote file of pseudo-random bytes with its fetcher, a queue of four
// threads and a logger, bound for the length of each test.
class HostFixture : public ::testing::Test {
  protected:
    HostFixture(const Bindings& bindings, long long remoteSize)
        : remote(WriteRandomFile(remotePath, static_cast<size_t>(remoteSize))),
          bindings_(bindings) {}

    void SetUp() override {
        ASSERT_TRUE(bindings_.bindLogger(&log));
        ASSERT_TRUE(bindings_.bindAsyncQ(&queue));
    }
    void TearDown() override {
        queue.WaitIdle();
        bindings_.unbindAsyncQ();
        bindings_.unbindLogger();
    }

    // True when a read of [offset, offset + length) through `io` succeeds
    // with exactly the remote's bytes.
    bool ReadsRemote(ICacheIO& io, IFetch* fetch, long long offset, long long length) {
        const ReadResult got = ReadRange(io, fetch, size, offset, length);
        return got.error == AE_OK && got.bytes == Slice(remote, offset, length);
    }

    TempDir dir;
    const std::string cachePath = dir.Sub("cache");
    const std::string remotePath = dir.Sub("remote.bin");
    std::vector<char> remote;
    const long long size = static_cast<long long>(remote.size());
    hostkit::FileFetcher fetcher{remotePath};
    hostkit::ThreadPoolQueue queue{4};
    hostkit::LineLogger log;

  private:
    const Bindings bindings_;
};

}  // namespace testhost

#endif  // CACHE_TESTS_TEST_HOST_H_
