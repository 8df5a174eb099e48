// cachecat: reads files through the cache library the way a drive client
// does, and reports what the cache did on each pass.
//
// The "remote" is a local file behind hostkit::FileFetcher, slowed down to a
// network's latency and bandwidth; fetch jobs run on a hostkit thread pool.
// Every pass reads each file from start to end in fixed-size requests
// through one cache object per file, so the first pass shows a cold cache
// and later passes a warm one.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "cache/cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/line_logger.h"
#include "hostkit/read_range.h"
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
  --limit BYTES     storage limit of the cache (default 1G; at least 64M)
  --config JSON     configuration text for the cache, for example
                    '{"cache":{"read":{"timeout":5000}}}'
  --read-size BYTES size of each read request (default 1M)
  --passes N        number of passes over the files (default 1)
  --latency-ms MS   latency of every remote request (default 20)
  --bandwidth MBPS  remote bandwidth in MB/s, 0 for unlimited (default 200)
  --threads N       threads of the fetch job queue (default 4)
  --verify          compare every byte read with the file itself
  --verbose         print the library's log lines on stderr
  --help            show this text

BYTES accepts a suffix K, M or G (powers of 1024).
A progress bar is drawn on stderr when it is a terminal.
Exit status: 0 on success, 1 on a read error or a verify mismatch,
2 on a usage error.
)";

struct Options {
    std::string cacheDir;
    unsigned long long limit = 1ULL << 30;
    std::optional<std::string> config;
    long long readSize = 1 << 20;
    int passes = 1;
    long long latencyMs = 20;
    double bandwidthMBps = 200;
    int threads = 4;
    bool verify = false;
    bool verbose = false;
    std::vector<std::string> files;
};

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A whole non-negative number, with an optional K, M or G suffix when
// `withSuffix` is set.
long long ParseNumber(const std::string& option, const std::string& text, bool withSuffix) {
    size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used);
    } catch (const std::exception&) {
        throw UsageError(option + " needs a number, not '" + text + "'");
    }
    std::string rest = text.substr(used);
    if (withSuffix && rest.size() == 1) {
        const int shift = rest == "K" || rest == "k"   ? 10
                          : rest == "M" || rest == "m" ? 20
                          : rest == "G" || rest == "g" ? 30
                                                       : -1;
        if (shift < 0 || value > (LLONG_MAX >> shift)) {
            throw UsageError(option + " cannot take '" + text + "'");
        }
        value <<= shift;
        rest.clear();
    }
    if (!rest.empty() || value < 0) {
        throw UsageError(option + " needs a non-negative number, not '" + text + "'");
    }
    return value;
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument.rfind("--", 0) != 0) {
            options.files.push_back(argument);
            continue;
        }
        std::optional<std::string> attached;
        if (const size_t equals = argument.find('='); equals != std::string::npos) {
            attached = argument.substr(equals + 1);
            argument.resize(equals);
        }
        auto value = [&]() -> std::string {
            if (attached) return *attached;
            if (i + 1 >= argc) throw UsageError(argument + " needs a value");
            return argv[++i];
        };
        auto flag = [&]() {
            if (attached) throw UsageError(argument + " takes no value");
            return true;
        };
        if (argument == "--help" && flag()) {
            fputs(kUsage, stdout);
            exit(0);
        } else if (argument == "--cache-dir") {
            options.cacheDir = value();
        } else if (argument == "--limit") {
            options.limit = static_cast<unsigned long long>(ParseNumber(argument, value(), true));
        } else if (argument == "--config") {
            options.config = value();
        } else if (argument == "--read-size") {
            options.readSize = ParseNumber(argument, value(), true);
            if (options.readSize == 0) throw UsageError("--read-size must be above 0");
        } else if (argument == "--passes") {
            options.passes = static_cast<int>(ParseNumber(argument, value(), false));
            if (options.passes == 0) throw UsageError("--passes must be above 0");
        } else if (argument == "--latency-ms") {
            options.latencyMs = ParseNumber(argument, value(), false);
        } else if (argument == "--bandwidth") {
            const std::string text = value();
            try {
                size_t used = 0;
                options.bandwidthMBps = std::stod(text, &used);
                if (used != text.size() || options.bandwidthMBps < 0) throw std::exception();
            } catch (const std::exception&) {
                throw UsageError("--bandwidth needs a non-negative number, not '" + text + "'");
            }
        } else if (argument == "--threads") {
            options.threads = static_cast<int>(ParseNumber(argument, value(), false));
            if (options.threads == 0) throw UsageError("--threads must be above 0");
        } else if (argument == "--verify") {
            options.verify = flag();
        } else if (argument == "--verbose") {
            options.verbose = flag();
        } else {
            throw UsageError("unknown option " + argument);
        }
    }
    if (options.files.empty()) throw UsageError("no file to read");
    return options;
}

// One file read through the cache: its fetcher, its cache object and a
// descriptor of the file itself for verifying.
struct Remote {
    std::string path;
    std::unique_ptr<hostkit::FileFetcher> fetcher;
    std::shared_ptr<ICacheObj> object;
    std::shared_ptr<_FS_HANDLE> handle;
    int sourceFd = -1;
};

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

struct PassResult {
    long long bytes = 0;
    bool failed = false;
};

// Reads `remote` from start to end in requests of `readSize` bytes.
PassResult ReadThrough(Remote& remote, const Options& options, int pass, Progress& progress,
                       long long doneBefore, long long totalBytes) {
    PassResult result;
    const long long size = remote.fetcher->Size();
    std::vector<char> expected(options.verify ? static_cast<size_t>(options.readSize) : 0);
    for (long long offset = 0; offset < size; offset += options.readSize) {
        const long long length = std::min(options.readSize, size - offset);
        const hostkit::ReadResult got = hostkit::ReadRange(*remote.object, remote.fetcher.get(),
                                                           size, offset, length, 0, remote.handle);
        if (got.error != AE_OK || got.transferred != length) {
            progress.Clear();
            fprintf(
                stderr, "cachecat: %s: read of %lld bytes at %lld failed: error %d, %lld bytes\n",
                remote.path.c_str(), length, offset, static_cast<int>(got.error), got.transferred);
            result.failed = true;
            return result;
        }
        if (options.verify) {
            const ssize_t fromFile = pread(remote.sourceFd, expected.data(),
                                           static_cast<size_t>(length), static_cast<off_t>(offset));
            if (fromFile < 0) {
                progress.Clear();
                fprintf(stderr, "cachecat: %s: cannot read the file to verify: %s\n",
                        remote.path.c_str(), strerror(errno));
                result.failed = true;
                return result;
            }
            if (fromFile != static_cast<ssize_t>(length) ||
                memcmp(expected.data(), got.bytes.data(), static_cast<size_t>(length)) != 0) {
                progress.Clear();
                fprintf(stderr, "cachecat: %s: bytes at %lld..%lld differ from the file\n",
                        remote.path.c_str(), offset, offset + length);
                result.failed = true;
                return result;
            }
        }
        result.bytes += length;
        progress.Show(pass, doneBefore + result.bytes, totalBytes);
    }
    return result;
}

int Run(const Options& options) {
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
    auto queue = std::make_unique<hostkit::ThreadPoolQueue>(options.threads);
    Cache_BindAsyncQ(queue.get());

    int status = 0;
    ICache* cache = nullptr;
    const AERROR initError = InitCache(directory.c_str(), options.limit, &cache);
    std::vector<Remote> remotes;
    if (initError != AE_OK || cache == nullptr) {
        fprintf(stderr, "cachecat: cannot create the cache in %s: error %d\n", directory.c_str(),
                static_cast<int>(initError));
        status = 1;
    } else if (options.config && cache->SetConfiguration(options.config->c_str()) != AE_OK) {
        fprintf(stderr, "cachecat: the configuration is not valid JSON\n");
        status = 2;
    }

    hostkit::FetcherOptions fetcherOptions;
    fetcherOptions.latencyMs = options.latencyMs;
    fetcherOptions.bytesPerSecond = options.bandwidthMBps * 1e6;
    long long totalBytes = 0;
    for (size_t i = 0; status == 0 && i < options.files.size(); ++i) {
        Remote remote;
        remote.path = options.files[i];
        try {
            remote.fetcher = std::make_unique<hostkit::FileFetcher>(remote.path, fetcherOptions);
            remote.object =
                cache->Open(remote.path.c_str(), 'r', remote.fetcher->Size(), remote.fetcher.get());
        } catch (const std::exception& error) {
            fprintf(stderr, "cachecat: %s\n", error.what());
            status = 1;
        } catch (AERROR error) {
            fprintf(stderr, "cachecat: %s: cannot open a cache object: error %d\n",
                    remote.path.c_str(), static_cast<int>(error));
            status = 1;
        }
        if (status != 0) break;
        if (!remote.object) {
            fprintf(stderr, "cachecat: %s: cannot open a cache object\n", remote.path.c_str());
            status = 1;
            break;
        }
        remote.handle = hostkit::OpenHandle(remote.fetcher->GetHostHandle());
        totalBytes += remote.fetcher->Size();
        remotes.push_back(std::move(remote));
        if (!options.verify) continue;
        remotes.back().sourceFd = open(remotes.back().path.c_str(), O_RDONLY | O_CLOEXEC);
        if (remotes.back().sourceFd < 0) {
            fprintf(stderr, "cachecat: %s: cannot open the file to verify: %s\n",
                    remotes.back().path.c_str(), strerror(errno));
            status = 1;
        }
    }

    if (status == 0) {
        printf("cache %s, storage limit %lld bytes\n", directory.c_str(), cache->GetLimit());
        printf("remote: %lld ms latency, %g MB/s, %d queue thread(s); reads of %lld bytes\n",
               options.latencyMs, options.bandwidthMBps, options.threads, options.readSize);
        printf("%4s %14s %9s %9s %12s %14s\n", "pass", "bytes", "seconds", "MB/s", "fetch calls",
               "bytes fetched");
        Progress progress;
        for (int pass = 1; pass <= options.passes && status == 0; ++pass) {
            for (Remote& remote : remotes) remote.fetcher->ResetCounters();
            const auto start = std::chrono::steady_clock::now();
            long long bytes = 0;
            for (Remote& remote : remotes) {
                const PassResult result =
                    ReadThrough(remote, options, pass, progress, bytes, totalBytes);
                bytes += result.bytes;
                if (result.failed) status = 1;
            }
            // Read-ahead may still be fetching; count it with this pass.
            queue->WaitIdle();
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
        if (status == 0 && options.verify) printf("verify: every byte matches\n");
        const hostkit::DirectoryUsage usage = hostkit::UsageOf(directory);
        printf("cache directory %s holds %d file(s), %lld bytes\n", directory.c_str(), usage.files,
               usage.bytes);
    }

    for (Remote& remote : remotes) {
        remote.object->Close();
        cache->Close(remote.path.c_str());
        remote.object.reset();
        if (remote.sourceFd >= 0) close(remote.sourceFd);
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
    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const UsageError& error) {
        fprintf(stderr, "cachecat: %s\n\n%s", error.what(), kUsage);
        return 2;
    }
    return Run(options);
}
