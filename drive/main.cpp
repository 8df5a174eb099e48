// cachedrive: mounts a directory that a web server publishes as a file
// system, writable over WebDAV and read-only on a plain web directory;
// every read and write goes through the cache library.
//
// Start-up (Mount::Run): parse the options, take the cache directory, ask
// the server for OPTIONS and list the root once (a bad URL, refused
// credentials or an untrusted certificate fail here, with a clear message),
// mount, daemonise unless -f, then start the threads (job queue,
// statistics, the library's own) and serve until the file system is
// unmounted or SIGINT/SIGTERM/SIGHUP arrives.

#include <fuse_lowlevel.h>
#include <grp.h>
#include <jansson.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
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
#include "drive/pending_copies.h"
#include "drive/remote_tree.h"
#include "drive/server_space.h"
#include "drive/stats.h"
#include "hostkit/result_text.h"
#include "hostkit/thread_pool_queue.h"

namespace {

// Fetchers wait while the cache directory is over the storage limit by more
// than limit / kRoomMarginDivisor, for at most kRoomMaxWait: long enough for
// the library to evict sectors a second old, short of the transfers'
// low-speed time-out. The read-ahead stays within that margin too, so that
// what one read-ahead brings is not evicted before it is read.
constexpr long long kRoomMarginDivisor = 4;
constexpr std::chrono::milliseconds kRoomMaxWait{3000};
// The library looks at its storage limit every 30 s and, over the limit,
// evicts only sectors older than 30 s (read) or 60 s (never read): a drive
// reading at network speed would fill the cache directory far past the
// limit before the first pass, and the fetchers' wait for room would run
// out. The drive has it look every second and, over the limit, evict what
// was read at least a second ago and read-ahead left unread for two.
constexpr const char* kEvictionSettings =
    R"({"cache":{"clear":{"period":1000,"over":{"usedblock":0,"unusedblock":1}}}})";
// The library's read-ahead bounds when not configured otherwise.
constexpr long long kLibraryReadAheadMin = 1LL << 20;
constexpr long long kLibraryReadAheadMax = 64LL << 20;
constexpr long long kSector = 64 * 1024;

// Listings and attributes are kept this long unless --dir-cache says
// otherwise: listing a directory costs the server work for every entry,
// while what the drive changes itself it knows at once, and an open asks
// about its own file anyway. A change made elsewhere shows in listings and
// stat within this time.
constexpr std::chrono::seconds kDefaultDirCache{30};
// The kernel keeps names and attributes at most this long.
constexpr std::chrono::milliseconds kKernelAttributeTtl{1000};

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
  --netrc-file FILE    credentials for the server's host, in curl's netrc
                       format ("machine HOST login USER password PASSWORD";
                       default ~/.netrc when it exists); basic or digest
                       authentication, as the server asks
  --cacert FILE        trust the CA certificates in FILE (PEM) for https://
  --cert FILE          client certificate (PEM) for servers that ask for one
  --key FILE           its private key (PEM, unencrypted; default: in --cert)
  --uid USER           show every file as owned by USER (name or number;
                       default: the user who mounts)
  --gid GROUP          show every file in GROUP (name or number)
  --umask MASK         mode bits to hide, in octal (default 022: 0755 for
                       directories, 0644 for files); -o uid=,gid=,umask= too
  --cache-dir DIR      cache directory (default $XDG_CACHE_HOME/cachedrive/<hash
                       of URL>, or ~/.cache/cachedrive/...); one drive at a time
  --limit BYTES        storage limit of the cache (default 1G, at least 64M);
                       suffixes K, M, G, T (powers of 1024)
  --config JSON|@FILE  configuration of the cache library, as text or a file
  --connections N      HTTP connections to the server (default 8); one more
                       serves small requests while large fetches use them all
  --webdav             list with PROPFIND without asking the server first
  --dir-cache SECONDS  keep listings and attributes this long (default 30);
                       changes made through the mount show at once, and an
                       open always asks about its file unless the drive
                       learnt of it within the last second
  --log FILE           write log lines to FILE (default: standard error)
  --stats              print statistics on exit; SIGUSR1 prints them any time
  -f                   stay in the foreground (SIGINT/SIGTERM unmount)
  -v                   log the library's one-line-per-request lines; -vv adds
                       per-sector detail (default: errors only)
  -q                   log nothing but the drive's own errors
  -o OPT[,OPT...]      FUSE mount options; -o direct_io makes the kernel bypass
                       its page cache, so every read reaches the cache;
                       -o allow_other lets other users in (non-root users need
                       user_allow_other in /etc/fuse.conf), and with
                       -o default_permissions the kernel enforces the modes
  -h, --help           show this text
  --version            show the version

A user name or password in URL is refused: it would show in ps. Put it in a
netrc file instead.

Exit status: 0 after a clean unmount, 1 when the mount fails (the server
refuses the credentials, its certificate is not trusted, ...) or the cache
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
    drive::HttpAccess access;
    drive::Ownership owner;
    std::chrono::milliseconds dirCache{kDefaultDirCache};
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

// `path` made absolute: the drive leaves its working directory when it
// goes to the background. Refused when the file cannot be read.
std::string ReadableFile(const std::string& option, const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        throw UsageError(option + ": cannot read " + path + ": " + strerror(errno));
    }
    if (path[0] == '/') return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) throw UsageError("cannot find the working directory");
    return std::string(cwd) + "/" + path;
}

// A number, or a name that `lookup` finds in the user or group database.
template <typename Lookup>
unsigned long IdOf(const std::string& option, const std::string& text, Lookup lookup) {
    char* end = nullptr;
    const unsigned long number = strtoul(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && text[0] != '-' && number < UINT32_MAX) return number;
    if (const std::optional<unsigned long> found = lookup(text.c_str())) return *found;
    throw UsageError(option + " needs a number or a known name, not '" + text + "'");
}

uid_t UserId(const std::string& option, const std::string& text) {
    return static_cast<uid_t>(IdOf(option, text, [](const char* name) {
        const passwd* entry = getpwnam(name);
        return entry ? std::optional<unsigned long>(entry->pw_uid) : std::nullopt;
    }));
}

gid_t GroupId(const std::string& option, const std::string& text) {
    return static_cast<gid_t>(IdOf(option, text, [](const char* name) {
        const group* entry = getgrnam(name);
        return entry ? std::optional<unsigned long>(entry->gr_gid) : std::nullopt;
    }));
}

mode_t Umask(const std::string& option, const std::string& text) {
    char* end = nullptr;
    const unsigned long mask = strtoul(text.c_str(), &end, 8);
    if (text.empty() || *end != '\0' || text[0] == '-' || mask > 0777) {
        throw UsageError(option + " needs an octal mask from 0 to 777, not '" + text + "'");
    }
    return static_cast<mode_t>(mask);
}

// Takes the ownership options of the -o form (uid=, gid=, umask=); false
// for any other, which goes to FUSE.
bool TakeOwnershipOption(const std::string& option, drive::Ownership* owner) {
    const size_t equals = option.find('=');
    const std::string name = option.substr(0, equals);
    if (equals == std::string::npos || (name != "uid" && name != "gid" && name != "umask")) {
        return false;
    }
    const std::string value = option.substr(equals + 1);
    if (name == "uid") {
        owner->uid = UserId("-o uid", value);
    } else if (name == "gid") {
        owner->gid = GroupId("-o gid", value);
    } else {
        owner->umask = Umask("-o umask", value);
    }
    return true;
}

// ~/.netrc when it exists: curl's tools read it too.
std::string DefaultNetrc() {
    const char* home = getenv("HOME");
    if (home == nullptr || *home == '\0') return {};
    const std::string path = std::string(home) + "/.netrc";
    return access(path.c_str(), R_OK) == 0 ? path : std::string();
}

// The value of --connections.
int Connections(const std::string& text) {
    char* end = nullptr;
    const long count = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || count < 1 || count > 64) {
        throw UsageError("--connections needs a number from 1 to 64, not '" + text + "'");
    }
    return static_cast<int>(count);
}

// The value of --dir-cache.
std::chrono::milliseconds DirCacheTime(const std::string& text) {
    char* end = nullptr;
    const double seconds = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds >= 0) || seconds > 86400) {
        throw UsageError("--dir-cache needs seconds from 0 to 86400, not '" + text + "'");
    }
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

// Checks the URL and the options that depend on each other, and fills in
// the defaults that depend on others.
void CompleteOptions(Options* options) {
    if (options->url.rfind("http://", 0) != 0 && options->url.rfind("https://", 0) != 0) {
        throw UsageError("URL must start with http:// or https://: " + options->url);
    }
    if (options->url.find_first_of("?#") != std::string::npos) {
        throw UsageError("URL must name a directory, without query or fragment");
    }
    if (drive::HasUserInfo(options->url)) {
        throw UsageError(
            "URL must not carry a user name or password, which would show in ps: put them "
            "in a netrc file (mode 0600) and give it with --netrc-file");
    }
    if (!options->access.keyFile.empty() && options->access.certFile.empty()) {
        throw UsageError("--key needs --cert");
    }
    if (options->access.netrcFile.empty()) options->access.netrcFile = DefaultNetrc();
    if (options->url.back() != '/') options->url += '/';
    if (options->config) {
        json_error_t error;
        json_t* parsed = json_loads(options->config->c_str(), 0, &error);
        if (parsed == nullptr) {
            throw UsageError(std::string("--config is not JSON: ") + error.text);
        }
        json_decref(parsed);
    }
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
            options.connections = Connections(value());
        } else if (argument == "--netrc-file") {
            options.access.netrcFile = ReadableFile(argument, value());
        } else if (argument == "--cacert") {
            options.access.caFile = ReadableFile(argument, value());
        } else if (argument == "--cert") {
            options.access.certFile = ReadableFile(argument, value());
        } else if (argument == "--key") {
            options.access.keyFile = ReadableFile(argument, value());
        } else if (argument == "--uid") {
            options.owner.uid = UserId(argument, value());
        } else if (argument == "--gid") {
            options.owner.gid = GroupId(argument, value());
        } else if (argument == "--umask") {
            options.owner.umask = Umask(argument, value());
        } else if (argument == "--dir-cache") {
            options.dirCache = DirCacheTime(value());
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
                } else if (!option.empty() && !TakeOwnershipOption(option, &options.owner)) {
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
    CompleteOptions(&options);
    return options;
}

// Closes the records of the reads still running once the FUSE session has
// ended, so that its loop, which waits for every request being served,
// does not wait for reads whose fetches failed or stalled.
class SessionEndWatch {
  public:
    SessionEndWatch(fuse_session* session, drive::OpenFiles* files)
        : thread_([this, session, files] { Run(session, files); }) {}
    SessionEndWatch(const SessionEndWatch&) = delete;
    SessionEndWatch& operator=(const SessionEndWatch&) = delete;
    ~SessionEndWatch() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

  private:
    void Run(fuse_session* session, drive::OpenFiles* files) {
        std::unique_lock<std::mutex> guard(lock_);
        while (
            !wake_.wait_for(guard, std::chrono::milliseconds(100), [this] { return stopping_; })) {
            if (fuse_session_exited(session)) {
                files->AbortReads();
                return;
            }
        }
    }

    std::mutex lock_;
    std::condition_variable wake_;
    bool stopping_ = false;  // GUARDED_BY(lock_)
    std::thread thread_;
};

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

// Applies the drive's eviction settings, caps the read-ahead of a cache
// with a small limit, then applies the user's configuration, which may
// change either. Returns false, with the reason logged, when the cache
// refuses a configuration.
bool ConfigureCache(ICache* cache, const Options& options, drive::DriveLog& log) {
    std::vector<std::string> texts = {kEvictionSettings};
    const long long readAheadMax =
        std::max(kLibraryReadAheadMin, cache->GetLimit() / kRoomMarginDivisor / kSector * kSector);
    if (readAheadMax < kLibraryReadAheadMax) {
        texts.push_back("{\"cache\":{\"ra\":{\"max\":" + std::to_string(readAheadMax) + "}}}");
    }
    if (options.config) texts.push_back(*options.config);
    for (const std::string& text : texts) {
        if (cache->SetConfiguration(text.c_str()) != AE_OK) {
            log.Error("The cache refused the configuration %s", text.c_str());
            return false;
        }
    }
    return true;
}

// Why the server did not let the drive in, for the person mounting: a
// certificate it does not trust, credentials it refused, a server it
// cannot reach. Empty when `response` is no such refusal.
std::string Refusal(const drive::HttpResponse& response, const Options& options) {
    const std::string host = drive::HostOfUrl(options.url);
    const std::string& netrc = options.access.netrcFile;
    const bool https = options.url.rfind("https://", 0) == 0;
    // A server that requires a client certificate ends the handshake with
    // an alert (Apache) or answers 400 (nginx) when none comes.
    const std::string clientCertificateHint =
        https && options.access.certFile.empty()
            ? "\n  (a server that requires a client certificate needs --cert FILE and --key FILE)"
            : "";
    if (response.code != CURLE_OK) {
        if (drive::IsCertificateProblem(response.code)) {
            const bool serverCertificate = response.code == CURLE_PEER_FAILED_VERIFICATION;
            return "certificate problem with " + host + ": " + response.error +
                   (serverCertificate && options.access.caFile.empty()
                        ? "\n  (a server with a certificate of a private CA needs --cacert FILE)"
                        : "");
        }
        if (https && response.error.find("certificate") != std::string::npos) {
            return "certificate problem with " + host + ": " + response.error +
                   clientCertificateHint;
        }
        return "cannot reach " + host + ": " + response.error;
    }
    switch (response.status) {
        case 400:
            return host + " rejected the request (HTTP 400)" + clientCertificateHint;
        case 401:
            if (netrc.empty()) {
                return host +
                       " asks for credentials (HTTP 401): give them in a netrc file with "
                       "--netrc-file FILE";
            }
            return host + " refused the credentials (HTTP 401): check the entry for " +
                   host.substr(0, host.rfind(':')) + " in " + netrc;
        case 403:
            return host + " refused access to " + options.url + " (HTTP 403)" +
                   (netrc.empty() ? "" : ": check the credentials in " + netrc);
    }
    return {};
}

// Asks the server for OPTIONS: whether it speaks WebDAV (a DAV header),
// and whether it lets the drive in. Returns an empty string, or why the
// mount is refused.
std::string CheckServer(drive::HttpClient& client, const Options& options, bool* webdav) {
    drive::HttpRequest request;
    request.method = "OPTIONS";
    const drive::HttpResponse response = client.Send(request, {});
    *webdav = options.webdav || (drive::Succeeded(response) && !response.dav.empty());
    return Refusal(response, options);
}

// Warns when a netrc file can be read by others: their credentials would be
// in the open. curl reads it all the same, and so does the drive.
void WarnOfOpenNetrc(const std::string& path) {
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0 || (info.st_mode & 077) == 0) return;
    fprintf(stderr,
            "cachedrive: warning: other users can read %s; make it private with chmod 600\n",
            path.c_str());
}

// The signals that end the mount.
sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

// One mount from start to end. Run takes the start-up steps in order; each
// step reports its own failure, and what it sets up lives until the
// unmount.
class Mount {
  public:
    Mount(const Options& options, drive::DriveLog* log) : options_(options), log_(*log) {}
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    // Returns the exit status.
    int Run() {
        if (!CheckMountpoint() || !TakeCacheDir() || !ConnectToServer()) return 1;
        FillContext();
        if (const int status = StartSession(); status != 0) return status;
        // Threads started from here on never take the stop signals: those
        // must reach a FUSE worker to end the loop.
        const sigset_t stopSignals = StopSignals();
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
        const int status = ServeWithCache(stopSignals);
        fuse_remove_signal_handlers(session_);
        fuse_session_destroy(session_);
        log_.Info("Unmounted %s", options_.mountpoint.c_str());
        return status;
    }

  private:
    // Makes the mount point absolute: the kernel's read-ahead is set by it
    // once mounted, when resolving it would ask the mount itself.
    bool CheckMountpoint() {
        struct stat mountInfo;
        char resolved[PATH_MAX];
        if (stat(options_.mountpoint.c_str(), &mountInfo) == 0 && S_ISDIR(mountInfo.st_mode) &&
            realpath(options_.mountpoint.c_str(), resolved) != nullptr) {
            mountpoint_ = resolved;
            return true;
        }
        fprintf(stderr, "cachedrive: mount point %s is not a directory\n",
                options_.mountpoint.c_str());
        return false;
    }

    // Takes the cache directory (one drive at a time) and reports the
    // changes an earlier drive left without uploading them.
    bool TakeCacheDir() {
        cachePath_ =
            options_.cacheDir.empty() ? drive::DefaultCacheDir(options_.url) : options_.cacheDir;
        if (cachePath_[0] != '/') {
            char cwd[PATH_MAX];
            if (getcwd(cwd, sizeof cwd) == nullptr) return false;
            cachePath_ = std::string(cwd) + "/" + cachePath_;
        }
        if (std::string error; !cacheDir_.Take(cachePath_, &error)) {
            fprintf(stderr, "cachedrive: %s\n", error.c_str());
            return false;
        }
        for (const drive::RecoveredCopy& copy : cacheDir_.leftovers()) {
            if (copy.savedAs.empty()) {
                log_.Error("Changes to /%s were lost: the drive stopped before it uploaded them",
                           copy.path.c_str());
            } else {
                log_.Error(
                    "Changes to /%s are not on the server: the drive stopped before it uploaded "
                    "them; the changed file is saved as %s",
                    copy.path.c_str(), copy.savedAs.c_str());
            }
        }
        return true;
    }

    // Asks the server whether it lets the drive in and speaks WebDAV, and
    // lists the root once: a bad URL, refused credentials or an untrusted
    // certificate fail here, with a clear message.
    bool ConnectToServer() {
        WarnOfOpenNetrc(options_.access.netrcFile);
        client_.emplace(options_.url, options_.connections, drive::HttpLimits(), &stats_,
                        options_.access);
        if (const std::string refusal = CheckServer(*client_, options_, &webdav_);
            !refusal.empty()) {
            fprintf(stderr, "cachedrive: %s\n", refusal.c_str());
            return false;
        }
        tree_.emplace(&*client_, &log_, options_.dirCache, std::min(options_.connections, 8),
                      webdav_);
        if (std::vector<drive::DirEntry> root; tree_->List(drive::kRootInode, &root) != 0) {
            fprintf(stderr, "cachedrive: cannot list %s\n", options_.url.c_str());
            return false;
        }
        // Quota changes slowly and df or a file manager may ask many times
        // a second.
        space_.emplace(&*client_, webdav_, std::chrono::seconds(10));
        return true;
    }

    // What the operations reach, but the open files: those need the cache.
    void FillContext() {
        context_.tree = &*tree_;
        context_.space = &*space_;
        context_.owner = options_.owner;
        context_.writable = webdav_;
        context_.stats = &stats_;
        context_.log = &log_;
        context_.directIo = options_.directIo;
        context_.mountpoint = mountpoint_;
        // The kernel asks the drive again after a second at most, so that
        // the drive's own checks (an open's, the listings' age) decide.
        context_.attributeTtl =
            std::chrono::duration<double>(
                std::min<std::chrono::milliseconds>(options_.dirCache, kKernelAttributeTtl))
                .count();
    }

    // Creates the FUSE session, mounts it and goes to the background unless
    // -f. Returns 0, or the exit status of the failure.
    int StartSession() {
        std::vector<std::string> fuseArguments = {
            "cachedrive", "-o",
            "auto_unmount,fsname=cachedrive,subtype=cachedrive,max_read=1048576"};
        for (const std::string& option : options_.fuseOptions) {
            fuseArguments.push_back("-o");
            fuseArguments.push_back(option);
        }
        std::vector<char*> fuseArgv;
        for (std::string& argument : fuseArguments) fuseArgv.push_back(argument.data());
        fuse_args args = FUSE_ARGS_INIT(static_cast<int>(fuseArgv.size()), fuseArgv.data());
        const fuse_lowlevel_ops& ops = drive::DriveOperations();
        session_ = fuse_session_new(&args, &ops, sizeof ops, &context_);
        fuse_opt_free_args(&args);
        if (session_ == nullptr) {
            fprintf(stderr, "cachedrive: bad FUSE options\n");
            return 2;
        }
        // A shell starts background jobs with SIGINT ignored, and libfuse
        // only takes over signals left at their default: the drive must
        // still stop.
        for (const int stopSignal : {SIGINT, SIGTERM, SIGHUP}) signal(stopSignal, SIG_DFL);
        if (fuse_set_signal_handlers(session_) != 0 ||
            fuse_session_mount(session_, mountpoint_.c_str()) != 0) {
            fprintf(stderr, "cachedrive: cannot mount on %s\n", options_.mountpoint.c_str());
            fuse_remove_signal_handlers(session_);
            fuse_session_destroy(session_);
            return 1;
        }
        fuse_daemonize(options_.foreground ? 1 : 0);
        return 0;
    }

    // Starts the threads (statistics, job queue, the library's own) and the
    // cache, and serves the files until the unmount. Returns the exit
    // status.
    int ServeWithCache(const sigset_t& stopSignals) {
        int status = 0;
        {
            StatsPrinter printer(&stats_, log_.out());
            // Fetch jobs mostly wait on the network: a few more threads than
            // connections keep every connection busy.
            hostkit::ThreadPoolQueue queue(options_.connections + 2);
            Cache_BindLogger(&log_);
            Cache_BindAsyncQ(&queue);
            ICache* cache = nullptr;
            status = OpenCache(&cache);
            if (status == 0) status = ServeFiles(cache, stopSignals);
            if (cache != nullptr) ReleaseCache(cacheDir_.filesPath().c_str());
            Cache_UnbindAsyncQ();
            if (options_.stats) stats_.Print(log_.out());
        }
        Cache_UnbindLogger();
        return status;
    }

    // Creates the cache in the cache directory and configures it. Returns
    // 0, or 1 with the reason logged; `*cache` is set once created.
    int OpenCache(ICache** cache) {
        if (const AERROR error = InitCache(cacheDir_.filesPath().c_str(), options_.limit, cache);
            error != AE_OK) {
            log_.Error("Cannot create the cache in %s: %s", cacheDir_.filesPath().c_str(),
                       hostkit::DescribeResult(error).c_str());
            return 1;
        }
        return ConfigureCache(*cache, options_, log_) ? 0 : 1;
    }

    // Runs the FUSE loop over the open files of `cache` until the unmount.
    // Returns the exit status.
    int ServeFiles(ICache* cache, const sigset_t& stopSignals) {
        const long long limit = cache->GetLimit();
        drive::CacheRoom room(cacheDir_.filesPath(), limit + limit / kRoomMarginDivisor,
                              kRoomMaxWait, &log_);
        drive::PendingCopies pending(cacheDir_.pendingPath(), cacheDir_.recoveredPath());
        drive::OpenFiles files(cache, &*client_, &*tree_, &log_, &stats_, &room, &pending,
                               drive::FetchPolicy{.parallelRanges = options_.connections}, 256);
        drive::WebDavChanges changes(&*tree_, &files, &*client_, &log_);
        context_.files = &files;
        context_.changes = &changes;
        log_.Info("Serving %s%s on %s, cache in %s", options_.url.c_str(),
                  webdav_ ? " (WebDAV)" : "", options_.mountpoint.c_str(), cachePath_.c_str());
        SessionEndWatch watch(session_, &files);
        pthread_sigmask(SIG_UNBLOCK, &stopSignals, nullptr);
        fuse_loop_config loop;
        loop.clone_fd = 0;
        loop.max_idle_threads = 16;
        const int status = fuse_session_loop_mt(session_, &loop) < 0 ? 1 : 0;
        pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
        fuse_session_unmount(session_);
        return status;
    }

    const Options& options_;
    std::string mountpoint_;  // options_.mountpoint made absolute
    drive::DriveLog& log_;
    std::string cachePath_;
    drive::CacheDir cacheDir_;
    drive::Stats stats_;
    std::optional<drive::HttpClient> client_;
    std::optional<drive::RemoteTree> tree_;
    std::optional<drive::ServerSpace> space_;
    bool webdav_ = false;
    drive::FuseContext context_;
    fuse_session* session_ = nullptr;
};

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
    const int status = Mount(options, &log).Run();
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
