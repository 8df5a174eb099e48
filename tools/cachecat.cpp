// cachecat: reads files through the cache library the way a drive client
// does, and reports what the cache did on each pass.
//
// The "remote" is a local file behind hostkit::FileFetcher, slowed down to a
// network's latency and bandwidth; fetch jobs run on a hostkit thread pool.
// Every pass reads each file from start to end in fixed-size requests
// through one cache object per file, so the first pass shows a cold cache
// and later passes a warm one.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cache/cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/line_logger.h"
#include "hostkit/read_range.h"
#include "hostkit/result_text.h"
#include "hostkit/scratch.h"
#include "hostkit/thread_pool_queue.h"

namespace {

constexpr const char* kUsage = R"(usage: cachecat [options] FILE...

Reads each FILE through the cache library as a network-drive client would:
the file stands in for a remote file, served by a fetcher that adds a
latency to every request and is limited to a bandwidth. Each pass reads
every file from start to end; the first pass finds the cache cold, later
passes find it warm.

For every pass one row is printed:
  pass           the pass number
  bytes          bytes the reads delivered
  seconds        wall-clock time of the pass
  MB/s           bytes / seconds, in 10^6 bytes per second
  fetch calls    requests the cache sent to the remote
  bytes fetched  bytes the remote delivered for them
A warm pass that the cache serves entirely shows 0 fetch calls.

Options:
  --cache-dir DIR   cache directory (made if missing; default: a new
                    directory under $TMPDIR or /tmp, removed at the end)
  --limit BYTES     storage limit of the cache, 64M to 1048576G (default 1G)
  --config JSON     configuration text for the cache, for example
                    '{"cache":{"read":{"timeout":5000}}}'
  --read-size BYTES size of each read request, 1 to 1G (default 1M)
  --passes N        number of passes over the files, 1 to 1000 (default 1)
  --latency-ms MS   latency of every remote request, 0 to 10000 (default 20)
  --bandwidth MBPS  remote bandwidth in MB/s, 0.1 to 100000, or 0 for
                    unlimited (default 200)
  --threads N       threads of the fetch job queue, 1 to 256 (default 4)
  --verify          compare every byte read with the file itself
  --verbose         print the library's log lines on stderr
  -h, --help        show this text
  --version         show the version
  --                end of options: every later argument is a FILE

BYTES accepts a suffix K, M or G (powers of 1024).
A progress bar is drawn on stderr when it is a terminal.
FILE must be a regular file. SIGINT and SIGTERM stop the reads; the cache
files and the default cache directory are removed before cachecat ends.
Exit status: 0 on success, 1 on a read error, a verify mismatch or a file
that cannot be read, 2 on a usage error; killed by the signal on SIGINT or
SIGTERM.
)";

struct Options {
    std::string cacheDir;
    unsigned long long limit = 1ULL << 30;
    std::optional<std::string> config;
    long long readSize = 1 << 20;
    int passes = 1;
    long long latencyMs = 20;
    double bandwidthMBps = 200;
    long long threads = 4;
    bool verify = false;
    bool verbose = false;
    std::vector<std::string> files;
};

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The first SIGINT or SIGTERM, 0 before one arrives, and the fetchers'
// stop flag. The handler only sets them: fetches give up, and the reads look
// at the signal between requests and shut down in order.
std::atomic<int> stopSignal{0};
std::atomic<bool> stopFetches{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "set from a signal handler");

void OnStopSignal(int signal) {
    stopSignal.store(signal, std::memory_order_relaxed);
    stopFetches.store(true, std::memory_order_relaxed);
}

bool Stopping() {
    return stopSignal.load(std::memory_order_relaxed) != 0;
}

// A second signal ends the process at once (SA_RESETHAND); blocking calls
// are interrupted rather than restarted.
void CatchStopSignals() {
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// A whole number from `min` to `max`, written in decimal digits only, with
// an optional K, M or G suffix when `withSuffix` is set. `range` describes
// the accepted values for the message.
long long ParseWhole(const char* option, const char* text, bool withSuffix, long long min,
                     long long max, const char* range) {
    const auto refuse = [&]() -> long long {
        throw UsageError(std::string(option) + " takes " + range + ", not '" + text + "'");
    };
    if (text[0] < '0' || text[0] > '9') return refuse();
    errno = 0;
    char* end = nullptr;
    const unsigned long long digits = strtoull(text, &end, 10);
    if (errno == ERANGE || digits > static_cast<unsigned long long>(max)) return refuse();
    long long value = static_cast<long long>(digits);
    if (withSuffix && *end != '\0' && end[1] == '\0') {
        const int shift = strchr("Kk", *end)   ? 10
                          : strchr("Mm", *end) ? 20
                          : strchr("Gg", *end) ? 30
                                               : -1;
        if (shift < 0 || value > (max >> shift)) return refuse();
        value <<= shift;
        ++end;
    }
    if (*end != '\0' || value < min) return refuse();
    return value;
}

// 0 (unlimited) or a finite number of MB/s in the accepted range.
double ParseBandwidth(const char* text) {
    constexpr double kMin = 0.1;
    constexpr double kMax = 100000;
    char* end = nullptr;
    errno = 0;
    const double value = strtod(text, &end);
    const bool number = end != text && *end == '\0' && errno == 0 && std::isfinite(value) &&
                        strchr(" \t\n\v\f\r", text[0]) == nullptr;
    if (!number || !(value == 0 || (value >= kMin && value <= kMax))) {
        throw UsageError(
            std::string("--bandwidth takes 0 (unlimited) or 0.1 to 100000 MB/s, not '") + text +
            "'");
    }
    return value;
}

enum LongOnly : int {
    kCacheDir = 256,
    kLimit,
    kConfig,
    kReadSize,
    kPasses,
    kLatency,
    kBandwidth,
    kThreads,
    kVerify,
    kVerbose,
    kVersion
};

// Returns the options, or nullopt when --help or --version was answered.
std::optional<Options> ParseOptions(int argc, char** argv) {
    static const option kLongOptions[] = {
        {"cache-dir", required_argument, nullptr, kCacheDir},
        {"limit", required_argument, nullptr, kLimit},
        {"config", required_argument, nullptr, kConfig},
        {"read-size", required_argument, nullptr, kReadSize},
        {"passes", required_argument, nullptr, kPasses},
        {"latency-ms", required_argument, nullptr, kLatency},
        {"bandwidth", required_argument, nullptr, kBandwidth},
        {"threads", required_argument, nullptr, kThreads},
        {"verify", no_argument, nullptr, kVerify},
        {"verbose", no_argument, nullptr, kVerbose},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    opterr = 0;  // the messages below name the option and say what it takes
    for (;;) {
        const int code = getopt_long(argc, argv, ":h", kLongOptions, nullptr);
        if (code == -1) break;
        switch (code) {
            case 'h':
                fputs(kUsage, stdout);
                return std::nullopt;
            case kVersion:
                printf("cachecat (cache) %s\n", CACHE_VERSION_STRING);
                return std::nullopt;
            case kCacheDir:
                if (optarg[0] == '\0') throw UsageError("--cache-dir takes a directory, not ''");
                options.cacheDir = optarg;
                break;
            case kLimit:
                options.limit = static_cast<unsigned long long>(ParseWhole(
                    "--limit", optarg, true, 64LL << 20, 1LL << 50, "a size from 64M to 1048576G"));
                break;
            case kConfig:
                options.config = optarg;
                break;
            case kReadSize:
                options.readSize =
                    ParseWhole("--read-size", optarg, true, 1, 1LL << 30, "a size from 1 to 1G");
                break;
            case kPasses:
                options.passes = static_cast<int>(ParseWhole("--passes", optarg, false, 1, 1000,
                                                             "a whole number from 1 to 1000"));
                break;
            case kLatency:
                options.latencyMs = ParseWhole("--latency-ms", optarg, false, 0, 10000,
                                               "a whole number of ms from 0 to 10000");
                break;
            case kBandwidth:
                options.bandwidthMBps = ParseBandwidth(optarg);
                break;
            case kThreads:
                options.threads =
                    ParseWhole("--threads", optarg, false, 1, 256, "a whole number from 1 to 256");
                break;
            case kVerify:
                options.verify = true;
                break;
            case kVerbose:
                options.verbose = true;
                break;
            case ':':
                throw UsageError(std::string("option '") + argv[optind - 1] + "' needs a value");
            default:
                if (optopt >= kCacheDir) {
                    throw UsageError(std::string("option '") + argv[optind - 1] +
                                     "' takes no value");
                }
                if (optopt != 0)
                    throw UsageError(std::string("unknown option '-") + static_cast<char>(optopt) +
                                     "'");
                throw UsageError(std::string("unknown or ambiguous option '") + argv[optind - 1] +
                                 "'");
        }
    }
    for (int i = optind; i < argc; ++i) options.files.emplace_back(argv[i]);
    if (options.files.empty()) throw UsageError("no file to read");
    return options;
}

// One file read through the cache: the file itself (for checking it and
// verifying), its fetcher and its cache object.
struct Remote {
    std::string path;
    int sourceFd = -1;
    std::unique_ptr<hostkit::FileFetcher> fetcher;
    std::shared_ptr<ICacheObj> object;
    std::shared_ptr<_FS_HANDLE> handle;

    Remote() = default;
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;
    Remote(Remote&& other) noexcept
        : path(std::move(other.path)),
          sourceFd(std::exchange(other.sourceFd, -1)),
          fetcher(std::move(other.fetcher)),
          object(std::move(other.object)),
          handle(std::move(other.handle)) {}
    ~Remote() {
        if (sourceFd >= 0) close(sourceFd);
    }
};

// Opens every file without blocking (a FIFO would wait for a writer) and
// refuses what is not a regular file. Prints the reason and returns false
// when a file is unfit.
bool OpenSources(const std::vector<std::string>& paths, std::vector<Remote>& remotes) {
    for (const std::string& path : paths) {
        Remote remote;
        remote.path = path;
        remote.sourceFd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        struct stat st;
        if (remote.sourceFd < 0 || fstat(remote.sourceFd, &st) != 0) {
            fprintf(stderr, "cachecat: %s: cannot open: %s\n", path.c_str(), strerror(errno));
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            fprintf(stderr, "cachecat: %s: not a regular file\n", path.c_str());
            return false;
        }
        remotes.push_back(std::move(remote));
    }
    return true;
}

// Draws "pass N [#####.....] P%" on stderr when it is a terminal.
class Progress {
  public:
    Progress() : enabled_(isatty(STDERR_FILENO) != 0) {}

    void Show(int pass, long long done, long long total) {
        if (!enabled_ || total <= 0) return;
        const int percent = static_cast<int>(done * 100 / total);
        if (percent == shown_) return;
        shown_ = percent;
        constexpr int kWidth = 40;
        const int filled = percent * kWidth / 100;
        fprintf(stderr, "\rpass %d [%s%s] %3d%%", pass, std::string(filled, '#').c_str(),
                std::string(kWidth - filled, '.').c_str(), percent);
        fflush(stderr);
    }

    void Clear() {
        if (!enabled_ || shown_ < 0) return;
        fputs("\r\033[K", stderr);
        fflush(stderr);
        shown_ = -1;
    }

  private:
    bool enabled_;
    int shown_ = -1;
};

enum class PassEnd { kDone, kFailed, kStopped };

struct PassResult {
    long long bytes = 0;
    PassEnd end = PassEnd::kDone;
};

// Reads `remote` from start to end in requests of `readSize` bytes, until
// the end, a failure or a stop signal.
PassResult ReadThrough(Remote& remote, const Options& options, int pass, Progress& progress,
                       long long doneBefore, long long totalBytes) {
    PassResult result;
    const long long size = remote.fetcher->Size();
    std::vector<char> expected(
        options.verify ? static_cast<size_t>(std::min(options.readSize, size)) : 0);
    const auto fail = [&](const char* format, auto... args) {
        progress.Clear();
        fprintf(stderr, format, remote.path.c_str(), args...);
        result.end = PassEnd::kFailed;
        return result;
    };
    for (long long offset = 0; offset < size; offset += options.readSize) {
        // Never past the end of the file: such a read fails.
        const long long length = std::min(options.readSize, size - offset);
        const hostkit::ReadResult got = hostkit::ReadRange(*remote.object, remote.fetcher.get(),
                                                           size, offset, length, 0, remote.handle);
        if (Stopping()) {  // the read may have failed because its fetch gave up
            result.end = PassEnd::kStopped;
            return result;
        }
        if (got.error != AE_OK || got.transferred != length) {
            return fail("cachecat: %s: read of %lld bytes at %lld failed after %lld bytes: %s\n",
                        length, offset, got.transferred,
                        hostkit::DescribeResult(got.error).c_str());
        }
        if (options.verify) {
            const ssize_t fromFile = pread(remote.sourceFd, expected.data(),
                                           static_cast<size_t>(length), static_cast<off_t>(offset));
            if (fromFile < 0) {
                return fail("cachecat: %s: cannot read the file to verify: %s\n", strerror(errno));
            }
            if (fromFile != static_cast<ssize_t>(length) ||
                memcmp(expected.data(), got.bytes.data(), static_cast<size_t>(length)) != 0) {
                return fail("cachecat: %s: bytes at %lld..%lld differ from the file\n", offset,
                            offset + length);
            }
        }
        result.bytes += length;
        progress.Show(pass, doneBefore + result.bytes, totalBytes);
    }
    return result;
}

// Opens a cache object for every file and reads them all, pass after pass.
// Returns the exit status.
int ReadPasses(ICache& cache, const std::string& directory, hostkit::ThreadPoolQueue& queue,
               const Options& options, std::vector<Remote>& remotes) {
    hostkit::FetcherOptions fetcherOptions;
    fetcherOptions.latencyMs = options.latencyMs;
    fetcherOptions.bytesPerSecond = options.bandwidthMBps * 1e6;
    fetcherOptions.stop = &stopFetches;
    long long totalBytes = 0;
    for (Remote& remote : remotes) {
        remote.fetcher = std::make_unique<hostkit::FileFetcher>(remote.path, fetcherOptions);
        try {
            remote.object =
                cache.Open(remote.path.c_str(), 'r', remote.fetcher->Size(), remote.fetcher.get());
        } catch (AERROR error) {
            fprintf(stderr, "cachecat: %s: cannot open a cache object: %s\n", remote.path.c_str(),
                    hostkit::DescribeResult(error).c_str());
            return 1;
        }
        if (!remote.object) {
            fprintf(stderr, "cachecat: %s: cannot open a cache object\n", remote.path.c_str());
            return 1;
        }
        remote.handle = hostkit::OpenHandle(remote.fetcher->GetHostHandle());
        totalBytes += remote.fetcher->Size();
    }

    printf("cache %s, storage limit %lld bytes\n", directory.c_str(), cache.GetLimit());
    printf("remote: %lld ms latency, %g MB/s, %lld queue thread(s); reads of %lld bytes\n",
           options.latencyMs, options.bandwidthMBps, options.threads, options.readSize);
    printf("%4s %14s %9s %9s %12s %14s\n", "pass", "bytes", "seconds", "MB/s", "fetch calls",
           "bytes fetched");
    fflush(stdout);
    Progress progress;
    for (int pass = 1; pass <= options.passes; ++pass) {
        for (Remote& remote : remotes) remote.fetcher->ResetCounters();
        const auto start = std::chrono::steady_clock::now();
        long long bytes = 0;
        for (Remote& remote : remotes) {
            const PassResult result =
                ReadThrough(remote, options, pass, progress, bytes, totalBytes);
            bytes += result.bytes;
            if (result.end == PassEnd::kStopped) progress.Clear();
            if (result.end != PassEnd::kDone) return 1;
        }
        // Read-ahead may still be fetching; count it with this pass.
        queue.WaitIdle();
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        progress.Clear();
        long long calls = 0;
        long long fetched = 0;
        for (const Remote& remote : remotes) {
            calls += remote.fetcher->Calls();
            fetched += remote.fetcher->BytesDelivered();
        }
        printf("%4d %14lld %9.3f %9.1f %12lld %14lld\n", pass, bytes, seconds,
               seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0.0, calls, fetched);
        fflush(stdout);
    }
    if (options.verify) printf("verify: every byte matches\n");
    const hostkit::DirectoryUsage usage = hostkit::UsageOf(directory);
    printf("cache directory %s holds %d file(s), %lld bytes\n", directory.c_str(), usage.files,
           usage.bytes);
    return 0;
}

int Run(const Options& options) {
    std::vector<Remote> remotes;
    if (!OpenSources(options.files, remotes)) return 1;

    std::string directory = options.cacheDir;
    std::optional<hostkit::ScratchDir> scratch;  // removed last, with everything in it
    if (directory.empty()) {
        try {
            directory = scratch.emplace("cachecat-").path();
        } catch (const std::system_error& error) {
            fprintf(stderr, "cachecat: cannot make a cache directory: %s\n", error.what());
            return 1;
        }
    }
    // The library reads every path from the root, so hand it an absolute one.
    directory = std::filesystem::absolute(directory).lexically_normal().string();

    std::unique_ptr<hostkit::LineLogger> logger;
    if (options.verbose) {
        logger = std::make_unique<hostkit::LineLogger>(stderr, false);
        Cache_BindLogger(logger.get());
    }
    auto queue = std::make_unique<hostkit::ThreadPoolQueue>(static_cast<int>(options.threads));
    Cache_BindAsyncQ(queue.get());

    int status = 0;
    ICache* cache = nullptr;
    const AERROR initError = InitCache(directory.c_str(), options.limit, &cache);
    if (initError != AE_OK) {
        fprintf(stderr, "cachecat: cannot create the cache in %s: %s\n", directory.c_str(),
                hostkit::DescribeResult(initError).c_str());
        status = 1;
    } else if (cache == nullptr) {
        // An earlier failed InitCache of this path left an empty entry.
        fprintf(stderr, "cachecat: the library holds no cache for %s\n", directory.c_str());
        status = 1;
    } else if (options.config) {
        if (const AERROR error = cache->SetConfiguration(options.config->c_str()); error != AE_OK) {
            fprintf(stderr, "cachecat: --config: %s\n", hostkit::DescribeResult(error).c_str());
            status = 2;
        }
    }
    if (status == 0) {
        try {
            status = ReadPasses(*cache, directory, *queue, options, remotes);
        } catch (const std::exception& error) {
            fprintf(stderr, "cachecat: %s\n", error.what());
            status = 1;
        }
    }

    // Closing an object deletes its cache file; jobs end before the queue.
    for (Remote& remote : remotes) {
        if (!remote.object) continue;
        remote.object->Close();
        cache->Close(remote.path.c_str());
        remote.object.reset();
    }
    ReleaseCache(directory.c_str());
    remotes.clear();
    Cache_UnbindAsyncQ();
    queue.reset();
    Cache_UnbindLogger();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CatchStopSignals();
    int status = 0;
    try {
        const std::optional<Options> options = ParseOptions(argc, argv);
        if (!options) return 0;
        status = Run(*options);
    } catch (const UsageError& error) {
        fprintf(stderr, "cachecat: %s\nTry 'cachecat --help' for more information.\n",
                error.what());
        return 2;
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "cachecat: out of memory\n");
        return 1;
    } catch (const std::exception& error) {
        fprintf(stderr, "cachecat: %s\n", error.what());
        return 1;
    }
    if (const int signal = stopSignal.load(); signal != 0) {
        // Everything is cleaned up: end the way the signal ends a process.
        fflush(stdout);
        fprintf(stderr, "cachecat: stopped by %s\n", strsignal(signal));
        ::signal(signal, SIG_DFL);
        raise(signal);
    }
    return status;
}
