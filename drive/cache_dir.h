// The drive's ownership of its cache directory: an exclusive lock held for
// the life of the mount, and a clean start.
//
// Layout: DIR/lock (the lock file), DIR/files/ (the library's cache files),
// DIR/pending/ and DIR/recovered/ (see PendingCopies). Not thread-safe;
// used once at start-up.
#ifndef DRIVE_CACHE_DIR_H_
#define DRIVE_CACHE_DIR_H_

#include <string>
#include <vector>

#include "drive/pending_copies.h"

namespace drive {

class CacheDir {
  public:
    CacheDir() = default;
    CacheDir(const CacheDir&) = delete;
    CacheDir& operator=(const CacheDir&) = delete;
    // Removes the lock file and releases the lock.
    ~CacheDir();

    // Creates `path` (mode 0700) and its files directory, locks it, moves
    // the copies with changes a killed drive left to the recovered
    // directory (see leftovers()) and removes the other files it left.
    // Returns false with a message in `*error`, e.g. when another drive
    // holds the lock.
    bool Take(const std::string& path, std::string* error);

    // The directory to hand to InitCache, ending in '/'.
    const std::string& filesPath() const { return filesPath_; }
    const std::string& pendingPath() const { return pendingPath_; }
    const std::string& recoveredPath() const { return recoveredPath_; }
    // The copies Take found.
    const std::vector<RecoveredCopy>& leftovers() const { return leftovers_; }

  private:
    std::string lockPath_;
    std::string filesPath_;
    std::string pendingPath_;
    std::string recoveredPath_;
    std::vector<RecoveredCopy> leftovers_;
    int lockFd_ = -1;
};

// The default cache directory of `url`:
// $XDG_CACHE_HOME/cachedrive/<16 hex digits of a hash of the URL>, with
// ~/.cache when XDG_CACHE_HOME is unset.
std::string DefaultCacheDir(const std::string& url);

}  // namespace drive

#endif  // DRIVE_CACHE_DIR_H_
