// cachedrive: mounts a directory that a web server publishes as a read-only
// file system, every read served through the cache library.
//
// Start-up: parse the options, take the cache directory, list the root once
// (a bad URL fails here, with a clear message), mount, daemonise unless -f,
// then start the threads (job queue, statistics, the library's own) and
// serve until the file system is unmounted or SIGINT/SIGTERM/SIGHUP arrives.

#include <fuse_lowlevel.h>
#include <jansson.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache.h"
#include "drive/cache_dir.h"
#include "drive/cache_room.h"
#include "drive/fuse_ops.h"
#include "drive/http_client.h"
#include "drive/log.h"
#include "drive/open_files.h"
#include "drive/remote_tree.h"
#include "drive/stats.h"
#include "hostkit/thread_pool_queue.h"

namespace {

// Fetchers wait while the cache directory is over the storage limit by more
// than limit / kRoomMarginDivisor, for at most kRoomMaxWait: long enough for
// the library to evict sectors a second old, short of the transfers'
// low-speed time-out. The read-ahead stays within that margin too, so that
// what one read-ahead brings is not evicted before it is read.
constexpr long long kRoomMarginDivisor = 4;
constexpr std::chrono::milliseconds kRoomMaxWait{3000};
// The library's read-ahead bounds when not configured otherwise.
constexpr long long kLibraryReadAheadMin = 1LL << 20;
constexpr long long kLibraryReadAheadMax = 64LL << 20;
constexpr long long kSector = 64 * 1024;

// The drive carries the version of the library it is built with.
constexpr const char* kVersion = "cachedrive " CACHE_VERSION_STRING;

constexpr const char* kUsage = R"(usage: cachedrive URL MOUNTPOINT [options]

Mounts the directory that a web server publishes at URL (http:// or https://)
on MOUNTPOINT, read-write when the server speaks WebDAV. Listings come from the server's index pages (nginx's JSON
autoindex, or the links of an HTML index), or from PROPFIND when the server
speaks WebDAV (it answers OPTIONS with a DAV header); file content is
fetched with ranged GETs and kept in a local disk cache. A file written
through the mount is uploaded whole with one PUT when it is closed or synced.

Options:
  --cache-dir DIR      cache directory (default $XDG_CACHE_HOME/cachedrive/<hash
                       of URL>, or ~/.cache/cachedrive/...); one drive at a time
  --limit BYTES        storage limit of the cache (default 1G, at least 64M);
                       suffixes K, M, G, T (powers of 1024)
  --config JSON|@FILE  configuration of the cache library, as text or a file
  --connections N      HTTP connections to the server (default 8)
  --webdav             list with PROPFIND without asking the server first
  --log FILE           write log lines to FILE (default: standard error)
  --stats              print statistics on exit; SIGUSR1 prints them any time
  -f                   stay in the foreground (SIGINT/SIGTERM unmount)
  -v                   log the library's one-line-per-request lines; -vv adds
                       per-sector detail (default: errors only)
  -q                   log nothing but the drive's own errors
  -o OPT[,OPT...]      FUSE mount options; -o direct_io makes the kernel bypass
                       its page cache, so every read reaches the cache
  -h, --help           show this text
  --version            show the version

Exit status: 0 after a clean unmount, 1 when the mount fails or the cache
directory is in use, 2 on bad arguments.
)";

struct Options {
    std::string url;
    std::string mountpoint;
    std::string cacheDir;
    unsigned long long limit = 1ULL << 30;
    std::optional<std::string> config;
    int connections = 8;
    std::string logFile;
    bool stats = false;
    bool foreground = false;
    int verbosity = 0;
    std::vector<std::string> fuseOptions;
    bool directIo = false;
    bool webdav = false;
};

class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

unsigned long long ParseBytes(const std::string& text) {
    size_t used = 0;
    unsigned long long value = 0;
    try {
        if (text.empty() || text[0] == '-') throw std::invalid_argument(text);
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        throw UsageError("--limit needs a number of bytes, not '" + text + "'");
    }
    const std::string suffix = text.substr(used);
    int shift = 0;
    if (suffix == "K" || suffix == "k") {
        shift = 10;
    } else if (suffix == "M" || suffix == "m") {
        shift = 20;
    } else if (suffix == "G" || suffix == "g") {
        shift = 30;
    } else if (suffix == "T" || suffix == "t") {
        shift = 40;
    } else if (!suffix.empty()) {
        throw UsageError("--limit: unknown suffix in '" + text + "' (K, M, G or T)");
    }
    if (value > (static_cast<unsigned long long>(LLONG_MAX) >> shift)) {
        throw UsageError("--limit: '" + text + "' is too large");
    }
    return value << shift;
}

std::string ReadConfig(const std::string& value) {
    if (value.empty() || value[0] != '@') return value;
    std::ifstream file(value.substr(1));
    if (!file) throw UsageError("--config: cannot read " + value.substr(1));
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError(argument + " needs a value");
            return argv[++i];
        };
        if (argument == "-h" || argument == "--help") {
            fputs(kUsage, stdout);
            exit(0);
        } else if (argument == "--version") {
            puts(kVersion);
            exit(0);
        } else if (argument == "--cache-dir") {
            options.cacheDir = value();
        } else if (argument == "--limit") {
            options.limit = ParseBytes(value());
            if (options.limit < (64ULL << 20)) throw UsageError("--limit must be at least 64M");
        } else if (argument == "--config") {
            options.config = ReadConfig(value());
        } else if (argument == "--connections") {
            const std::string text = value();
            char* end = nullptr;
            const long count = strtol(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || count < 1 || count > 64) {
                throw UsageError("--connections needs a number from 1 to 64, not '" + text + "'");
            }
            options.connections = static_cast<int>(count);
        } else if (argument == "--webdav") {
            options.webdav = true;
        } else if (argument == "--log") {
            options.logFile = value();
        } else if (argument == "--stats") {
            options.stats = true;
        } else if (argument == "-f") {
            options.foreground = true;
        } else if (argument == "-v" || argument == "-vv") {
            options.verbosity += static_cast<int>(argument.size()) - 1;
        } else if (argument == "-q") {
            options.verbosity = -1;
        } else if (argument == "-o" || (argument.rfind("-o", 0) == 0 && argument.size() > 2)) {
            std::stringstream list(argument == "-o" ? value() : argument.substr(2));
            for (std::string option; std::getline(list, option, ',');) {
                if (option == "direct_io") {
                    options.directIo = true;
                } else if (!option.empty()) {
                    options.fuseOptions.push_back(option);
                }
            }
        } else if (!argument.empty() && argument[0] == '-') {
            throw UsageError("unknown option " + argument);
        } else {
            positional.push_back(argument);
        }
    }
    if (positional.size() != 2) throw UsageError("expected URL and MOUNTPOINT");
    options.url = positional[0];
    options.mountpoint = positional[1];
    if (options.url.rfind("http://", 0) != 0 && options.url.rfind("https://", 0) != 0) {
        throw UsageError("URL must start with http:// or https://: " + options.url);
    }
    if (options.url.find_first_of("?#") != std::string::npos) {
        throw UsageError("URL must name a directory, without query or fragment");
    }
    if (options.url.back() != '/') options.url += '/';
    if (options.config) {
        json_error_t error;
        json_t* parsed = json_loads(options.config->c_str(), 0, &error);
        if (parsed == nullptr) {
            throw UsageError(std::string("--config is not JSON: ") + error.text);
        }
        json_decref(parsed);
    }
    return options;
}

// Prints the statistics whenever SIGUSR1 arrives, until stopped.
class StatsPrinter {
  public:
    StatsPrinter(const drive::Stats* stats, FILE* out)
        : thread_([this, stats, out] { Run(stats, out); }) {}
    StatsPrinter(const StatsPrinter&) = delete;
    StatsPrinter& operator=(const StatsPrinter&) = delete;
    ~StatsPrinter() {
        stopping_.store(true);
        pthread_kill(thread_.native_handle(), SIGUSR1);
        thread_.join();
    }

  private:
    // SIGUSR1 is blocked in every thread, so only sigwait receives it.
    void Run(const drive::Stats* stats, FILE* out) {
        sigset_t wanted;
        sigemptyset(&wanted);
        sigaddset(&wanted, SIGUSR1);
        for (int signal = 0; sigwait(&wanted, &signal) == 0;) {
            if (stopping_.load()) return;
            stats->Print(out);
        }
    }

    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// Caps the read-ahead of a cache with a small limit, then applies the
// user's configuration, which may set a cap of its own. Returns false, with
// the reason logged, when the cache refuses a configuration.
bool ConfigureCache(ICache* cache, const Options& options, drive::DriveLog& log) {
    const long long readAheadMax =
        std::max(kLibraryReadAheadMin, cache->GetLimit() / kRoomMarginDivisor / kSector * kSector);
    if (readAheadMax < kLibraryReadAheadMax) {
        const std::string cap =
            "{\"cache\":{\"ra\":{\"max\":" + std::to_string(readAheadMax) + "}}}";
        if (cache->SetConfiguration(cap.c_str()) != AE_OK) {
            log.Error("The cache refused the configuration %s", cap.c_str());
            return false;
        }
    }
    if (options.config && cache->SetConfiguration(options.config->c_str()) != AE_OK) {
        log.Error("The cache refused the configuration %s", options.config->c_str());
        return false;
    }
    return true;
}

// True when the server answers OPTIONS with a DAV header.
bool SpeaksWebDav(drive::HttpClient& client) {
    drive::HttpRequest request;
    request.method = "OPTIONS";
    const drive::HttpResponse response = client.Send(request, {});
    return response.code == CURLE_OK && response.status / 100 == 2 && !response.dav.empty();
}

int Serve(const Options& options) {
    FILE* logOut = stderr;
    if (!options.logFile.empty()) {
        logOut = fopen(options.logFile.c_str(), "a");
        if (logOut == nullptr) {
            fprintf(stderr, "cachedrive: cannot open %s: %s\n", options.logFile.c_str(),
                    strerror(errno));
            return 1;
        }
    }
    drive::DriveLog log(logOut, options.verbosity);

    struct stat mountInfo;
    if (stat(options.mountpoint.c_str(), &mountInfo) != 0 || !S_ISDIR(mountInfo.st_mode)) {
        fprintf(stderr, "cachedrive: mount point %s is not a directory\n",
                options.mountpoint.c_str());
        return 1;
    }
    std::string cachePath =
        options.cacheDir.empty() ? drive::DefaultCacheDir(options.url) : options.cacheDir;
    if (cachePath[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr) return 1;
        cachePath = std::string(cwd) + "/" + cachePath;
    }
    drive::CacheDir cacheDir;
    if (std::string error; !cacheDir.Take(cachePath, &error)) {
        fprintf(stderr, "cachedrive: %s\n", error.c_str());
        return 1;
    }

    drive::Stats stats;
    drive::HttpClient client(options.url, options.connections, drive::HttpLimits(), &stats);
    // Listings and sizes are trusted for as long as the kernel keeps names
    // and attributes: an open or a stat after that asks the server again,
    // so a file replaced there is seen whole, with its new size.
    constexpr std::chrono::seconds kMetadataTtl(1);
    const bool webdav = options.webdav || SpeaksWebDav(client);
    drive::RemoteTree tree(&client, &log, kMetadataTtl, std::min(options.connections, 8), webdav);
    if (std::vector<drive::DirEntry> root; tree.List(drive::kRootInode, &root) != 0) {
        fprintf(stderr, "cachedrive: cannot list %s\n", options.url.c_str());
        return 1;
    }

    drive::FuseContext context;
    context.tree = &tree;
    context.client = &client;
    context.writable = webdav;
    context.stats = &stats;
    context.log = &log;
    context.directIo = options.directIo;
    context.attributeTtl = std::chrono::duration<double>(kMetadataTtl).count();

    std::vector<std::string> fuseArguments = {"cachedrive", "-o",
                                              "auto_unmount,fsname=cachedrive,subtype=cachedrive,"
                                              "max_read=1048576"};
    for (const std::string& option : options.fuseOptions) {
        fuseArguments.push_back("-o");
        fuseArguments.push_back(option);
    }
    std::vector<char*> fuseArgv;
    for (std::string& argument : fuseArguments) fuseArgv.push_back(argument.data());
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(fuseArgv.size()), fuseArgv.data());
    const fuse_lowlevel_ops& ops = drive::DriveOperations();
    fuse_session* session = fuse_session_new(&args, &ops, sizeof ops, &context);
    fuse_opt_free_args(&args);
    if (session == nullptr) {
        fprintf(stderr, "cachedrive: bad FUSE options\n");
        return 2;
    }
    // A shell starts background jobs with SIGINT ignored, and libfuse only
    // takes over signals left at their default: the drive must still stop.
    for (const int stopSignal : {SIGINT, SIGTERM, SIGHUP}) signal(stopSignal, SIG_DFL);
    if (fuse_set_signal_handlers(session) != 0 ||
        fuse_session_mount(session, options.mountpoint.c_str()) != 0) {
        fprintf(stderr, "cachedrive: cannot mount on %s\n", options.mountpoint.c_str());
        fuse_remove_signal_handlers(session);
        fuse_session_destroy(session);
        return 1;
    }
    fuse_daemonize(options.foreground ? 1 : 0);

    // Threads started from here on never take the stop signals: those must
    // reach a FUSE worker to end the loop.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    int status = 0;
    {
        StatsPrinter printer(&stats, log.out());
        // Fetch jobs mostly wait on the network: a few more threads than
        // connections keep every connection busy.
        hostkit::ThreadPoolQueue queue(options.connections + 2);
        Cache_BindLogger(&log);
        Cache_BindAsyncQ(&queue);
        ICache* cache = nullptr;
        if (const AERROR error = InitCache(cacheDir.filesPath().c_str(), options.limit, &cache);
            error != AE_OK) {
            log.Error("Cannot create the cache in %s: %d", cacheDir.filesPath().c_str(), error);
            status = 1;
        } else if (!ConfigureCache(cache, options, log)) {
            status = 1;
        }
        if (status == 0) {
            const long long limit = cache->GetLimit();
            drive::CacheRoom room(cacheDir.filesPath(), limit + limit / kRoomMarginDivisor,
                                  kRoomMaxWait, &log);
            drive::OpenFiles files(cache, &client, &tree, &log, &stats, &room, drive::FetchPolicy(),
                                   256);
            context.files = &files;
            log.Info("Serving %s%s on %s, cache in %s", options.url.c_str(),
                     webdav ? " (WebDAV)" : "", options.mountpoint.c_str(), cachePath.c_str());
            pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);
            fuse_loop_config loop;
            loop.clone_fd = 0;
            loop.max_idle_threads = 16;
            status = fuse_session_loop_mt(session, &loop) < 0 ? 1 : 0;
            pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
            fuse_session_unmount(session);
        }
        if (cache != nullptr) ReleaseCache(cacheDir.filesPath().c_str());
        Cache_UnbindAsyncQ();
        if (options.stats) stats.Print(log.out());
    }
    Cache_UnbindLogger();
    fuse_remove_signal_handlers(session);
    fuse_session_destroy(session);
    log.Info("Unmounted %s", options.mountpoint.c_str());
    if (logOut != stderr) fclose(logOut);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // Only the statistics thread takes SIGUSR1 (with sigwait); every thread
    // inherits the mask.
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);

    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const UsageError& error) {
        fprintf(stderr, "cachedrive: %s\nTry 'cachedrive --help'.\n", error.what());
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const int status = Serve(options);
    curl_global_cleanup();
    return status;
}
