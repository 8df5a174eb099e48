#include "drive/cache_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace drive {

namespace {

// Creates every missing directory of `path` with mode 0700.
bool MakeDirectories(const std::string& path, std::string* error) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (!prefix.empty() && mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot create " + prefix + ": " + strerror(errno);
            return false;
        }
        if (slash == std::string::npos) break;
    }
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        *error = path + " is not a directory";
        return false;
    }
    return true;
}

}  // namespace

CacheDir::~CacheDir() {
    if (lockFd_ < 0) return;
    unlink(lockPath_.c_str());
    close(lockFd_);
}

bool CacheDir::Take(const std::string& path, std::string* error) {
    if (!MakeDirectories(path, error)) return false;
    lockPath_ = path + "/lock";
    lockFd_ = open(lockPath_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lockFd_ < 0) {
        *error = "cannot open " + lockPath_ + ": " + strerror(errno);
        return false;
    }
    if (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        *error = errno == EWOULDBLOCK
                     ? "the cache directory " + path + " is in use by another cachedrive"
                     : "cannot lock " + lockPath_ + ": " + strerror(errno);
        close(lockFd_);
        lockFd_ = -1;
        return false;
    }
    filesPath_ = path + "/files/";
    pendingPath_ = path + "/pending/";
    recoveredPath_ = path + "/recovered/";
    if (!MakeDirectories(path + "/files", error)) return false;
    leftovers_ = PendingCopies(pendingPath_, recoveredPath_).RecoverLeftovers(filesPath_);
    // Cache files never outlive a drive: whatever is here was left by a crash.
    if (DIR* files = opendir(filesPath_.c_str())) {
        const int directory = dirfd(files);
        while (const dirent* entry = readdir(files)) {
            struct stat info;
            if (fstatat(directory, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                !S_ISDIR(info.st_mode)) {
                unlinkat(directory, entry->d_name, 0);
            }
        }
        closedir(files);
    }
    return true;
}

std::string DefaultCacheDir(const std::string& url) {
    uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
    for (const char c : url) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
    }
    char digits[17];
    snprintf(digits, sizeof digits, "%016" PRIx64, hash);
    std::string base;
    if (const char* xdg = getenv("XDG_CACHE_HOME"); xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = getenv("HOME");
        base = std::string(home != nullptr ? home : "/tmp") + "/.cache";
    }
    return base + "/cachedrive/" + digits;
}

}  // namespace drive
