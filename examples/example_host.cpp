// A complete small host of the cache library, to copy from.
//
//   example_host CACHE_DIR FILE
//
// FILE stands in for a remote file: a fetcher reads it from the local disk.
// The host reads FILE through the cache twice (the second time from the
// cache alone) and checks every byte, switches it to a writable copy and
// writes a few bytes, then shuts down in the required order and checks that
// the cache file is gone. It prints one line per step and exits with 0 when
// every check holds.
//
// It uses only <cache/cache.h> and cache.so.
#include <cache/cache.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr long long kSector = 65536;

// Prints the library's error lines on stderr. The library hands over an
// unformatted printf-style format and its arguments; formatting is ours.
class StderrLogger final : public ILog {
  public:
    void Log(LOGLEVEL level, const char* format, ...) override {
        va_list args;
        va_start(args, format);
        LogV(level, format, args);
        va_end(args);
    }
    void LogW(LOGLEVEL, const wchar_t*, ...) override {}  // the library logs narrow text only
    void LogV(LOGLEVEL level, const char* format, va_list args) override {
        if ((level & LL_ERROR) == 0) return;
        char line[1024];
        vsnprintf(line, sizeof line, format, args);
        std::lock_guard<std::mutex> hold(lock_);
        fprintf(stderr, "cache: %s\n", line);
    }

  private:
    std::mutex lock_;
};

// Runs the library's fetch jobs on a few worker threads. Every job it was
// given gets exactly one of Process or Canceled, with its context, even
// while the queue shuts down: a cache object's Close waits for its jobs.
class ThreadQueue final : public IAsyncQueue {
  public:
    explicit ThreadQueue(int threads) {
        for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { Work(); });
    }
    ThreadQueue(const ThreadQueue&) = delete;
    ThreadQueue& operator=(const ThreadQueue&) = delete;
    ~ThreadQueue() {
        std::deque<std::pair<IAsyncObj*, void*>> left;
        {
            std::lock_guard<std::mutex> hold(lock_);
            stopping_ = true;
            left.swap(jobs_);
        }
        wake_.notify_all();
        for (std::thread& worker : workers_) worker.join();
        for (auto& [job, context] : left) job->Canceled(context);
    }

    bool Queue(IAsyncObj* job, void* context) override {
        {
            std::lock_guard<std::mutex> hold(lock_);
            if (!stopping_) {
                jobs_.emplace_back(job, context);
                wake_.notify_one();
                return true;
            }
        }
        job->Canceled(context);
        return false;
    }

  private:
    void Work() {
        std::unique_lock<std::mutex> hold(lock_);
        for (;;) {
            wake_.wait(hold, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            auto [job, context] = jobs_.front();
            jobs_.pop_front();
            hold.unlock();
            job->Process(context);  // the job deletes itself
            hold.lock();
        }
    }

    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<std::pair<IAsyncObj*, void*>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

// Fetches from a local file. Fetch is synchronous, and every piece handed
// to the sink starts on a 64 KiB sector boundary and covers whole sectors,
// except the last piece of the file: the library relies on both.
class LocalFileFetcher final : public IFetch {
  public:
    explicit LocalFileFetcher(int fd, long long size) : fd_(fd), size_(size) {}

    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        const long long end = std::min(offset + length, size_);
        std::vector<char> piece;
        for (long long position = offset; position < end;) {
            if (handle && IsClosedState(handle->state)) return AE_HANDLE_CLOSED;
            const long long pieceEnd = std::min(end, (position / kSector + 1) * kSector);
            piece.resize(static_cast<size_t>(pieceEnd - position));
            if (pread(fd_, piece.data(), piece.size(), position) !=
                static_cast<ssize_t>(piece.size())) {
                return AE_READ_FAILED;
            }
            long written = 0;
            const AERROR result =
                sink->FetchWrite(position, piece.data(), static_cast<long>(piece.size()), &written);
            if (result != AE_OK) return result;
            position = pieceEnd;
        }
        return AE_OK;
    }
    long long GetHostHandle() override { return fd_; }

  private:
    int fd_;
    long long size_;
};

// The host's handle of the open remote file; a state above 3 would tell
// the library that the host closed it.
std::shared_ptr<_FS_HANDLE> OpenHandle(long long hostHandle) {
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 1;
    handle->hostHandle = hostHandle;
    return handle;
}

// Reads [offset, offset + length) through `file`. The host clips every read
// to the file size: a read past the end of the file fails.
AERROR ReadThrough(ICacheObj& file, IFetch* fetch, const std::shared_ptr<_FS_HANDLE>& handle,
                   long long fileSize, long long offset, long long length, char* buffer,
                   long long* transferred) {
    _READDATA request{};
    request.buffer = buffer;
    request.offset = offset;
    request.length = std::max(0LL, std::min(length, fileSize - offset));
    request.handle = handle;
    request.fileSize = fileSize;
    request.fetch = fetch;  // null would serve only what is cached
    request.timeout = 0;    // the cache's configured read time-out
    const AERROR result = file.Read(&request);
    *transferred = request.transferred;
    return result;
}

// Reads the whole file through the cache in 64 KiB requests and compares it
// with `expected`. Returns false and says why on any difference.
bool ReadAndCompare(ICacheObj& file, IFetch* fetch, const std::shared_ptr<_FS_HANDLE>& handle,
                    const std::vector<char>& expected) {
    const long long size = static_cast<long long>(expected.size());
    std::vector<char> buffer(kSector);
    for (long long offset = 0; offset < size; offset += kSector) {
        long long got = 0;
        const AERROR result =
            ReadThrough(file, fetch, handle, size, offset, kSector, buffer.data(), &got);
        const long long want = std::min(kSector, size - offset);
        if (result != AE_OK || got != want ||
            memcmp(buffer.data(), expected.data() + offset, static_cast<size_t>(want)) != 0) {
            fprintf(stderr, "example_host: read at %lld: result %d, %lld of %lld bytes\n", offset,
                    static_cast<int>(result), got, want);
            return false;
        }
    }
    return true;
}

int CountFiles(const std::string& directory) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files += entry.is_regular_file() ? 1 : 0;
    }
    return files;
}

// Everything between binding the host's objects and unbinding them.
bool UseCache(const std::string& directory, const std::string& path, int fd,
              const std::vector<char>& content) {
    ICache* cache = nullptr;
    const AERROR init = InitCache(directory.c_str(), 256ULL << 20, &cache);
    // A path whose first InitCache failed answers 0 with a null cache: check both.
    if (init != AE_OK || cache == nullptr) {
        fprintf(stderr, "example_host: InitCache(%s) failed: %d\n", directory.c_str(),
                static_cast<int>(init));
        return false;
    }
    bool ok = cache->SetConfiguration(R"({"cache":{"read":{"timeout":5000}}})") == AE_OK;

    const long long size = static_cast<long long>(content.size());
    LocalFileFetcher fetcher(fd, size);
    const std::shared_ptr<_FS_HANDLE> handle = OpenHandle(fetcher.GetHostHandle());
    // Objects are keyed by the exact name text: "a\\b" and "a/b" are two objects.
    const std::string name = "server\\share\\" + std::filesystem::path(path).filename().string();
    std::shared_ptr<ICacheObj> file;
    try {
        file = cache->Open(name.c_str(), 'r', size, &fetcher);
    } catch (AERROR error) {  // Open throws when it cannot build the object
        fprintf(stderr, "example_host: Open failed: %d\n", static_cast<int>(error));
    }
    if (!file) {
        ReleaseCache(directory.c_str());
        return false;
    }

    ok = ok && ReadAndCompare(*file, &fetcher, handle, content);
    if (ok) printf("cold read: %lld bytes, identical to the file\n", size);
    // Without a fetcher the read is served from the cache alone.
    ok = ok && ReadAndCompare(*file, nullptr, handle, content);
    if (ok) printf("warm read: served from the cache alone\n");

    // Writes go to a dense writable copy; the library never sends them to
    // the remote (uploading is the host's job).
    std::vector<char> changed = content;
    if (ok && file->SetMode('w', size, &fetcher) == AE_OK) {
        const char text[] = "written by the host";
        const long long offset = size / 2;
        _WRITEDATA write{};
        write.buffer = text;
        write.offset = offset;
        write.length = sizeof text - 1;
        write.handle = handle;
        write.fetch = &fetcher;  // the rest of a partly written sector is fetched
        const AERROR result = file->Write(&write);
        ok = result == AE_OK && write.transferred == write.length;
        changed.resize(static_cast<size_t>(std::max(size, offset + write.length)));
        std::copy(text, text + write.length, changed.begin() + offset);
        // The copy holds only the sectors written or read so far; filling it
        // makes it whole, so that no read needs the remote any more.
        ok = ok && file->FillEmptySectors(&fetcher) == AE_OK &&
             ReadAndCompare(*file, nullptr, handle, changed);
        if (ok) printf("write: %lld bytes at %lld read back\n", write.transferred, offset);
    } else {
        ok = false;
    }

    // Close the object, then its entry, then the cache. Cached data does not
    // outlive Close: the cache file is deleted.
    file->Close();
    cache->Close(name.c_str());
    file.reset();
    const int left = CountFiles(directory);
    printf("after Close: %d cache file(s) left\n", left);
    ReleaseCache(directory.c_str());  // `cache` is invalid from here on
    return ok && left == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: example_host CACHE_DIR FILE\n");
        return 2;
    }
    // The library reads a relative cache directory from the root.
    const std::string directory = std::filesystem::absolute(argv[1]).string();
    const std::string path = argv[2];
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        fprintf(stderr, "example_host: %s: %s\n", path.c_str(), strerror(errno));
        return 1;
    }
    if (!S_ISREG(st.st_mode)) {
        fprintf(stderr, "example_host: %s: not a regular file\n", path.c_str());
        return 1;
    }
    std::vector<char> content(static_cast<size_t>(st.st_size));
    if (pread(fd, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        fprintf(stderr, "example_host: %s: cannot read it\n", path.c_str());
        return 1;
    }

    // The logger and the queue outlive every cache and object that may use them.
    StderrLogger logger;
    auto queue = std::make_unique<ThreadQueue>(2);
    Cache_BindLogger(&logger);
    Cache_BindAsyncQ(queue.get());
    const bool ok = UseCache(directory, path, fd, content);
    Cache_UnbindAsyncQ();
    queue.reset();
    Cache_UnbindLogger();
    close(fd);
    printf("%s\n", ok ? "example_host: every check holds" : "example_host: FAILED");
    return ok ? 0 : 1;
}
