// CacheDirectory: the cache directory, held open for as long as anything
// creates or deletes files in it.
//
// The manager opens the directory and every store then names, creates and
// deletes its cache file relative to that descriptor, never through the path
// text. If the path is later swapped for a symbolic link, or the directory is
// removed and made again, stores go on working in the directory they were
// given (their open files keep working once it is gone) and never create or
// delete anything elsewhere. Once the directory is removed the manager opens
// the path again for new objects (IsRemoved).
//
// Shared-owned: cache objects and their stores may outlive the manager, and
// the descriptor stays open until the last of them lets go. Nothing changes
// after construction, so any thread may use it without a lock.
#ifndef CACHE_CACHE_DIRECTORY_H_
#define CACHE_CACHE_DIRECTORY_H_

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

namespace cache {

// A cache file a store created, as it identifies it for deletion.
struct CacheFileName {
    std::string displayName;  // printed as [%s]; see CreateFile
    std::string fileName;     // the entry in the cache directory; empty for none
    dev_t device = 0;         // identity of the file created under fileName
    ino_t inode = 0;
};

class CacheDirectory {
  public:
    // Opens the directory at `path` with O_DIRECTORY | O_NOFOLLOW |
    // O_CLOEXEC. Trailing separators are dropped first, since they would
    // make the system follow a link in the last place. Null when it is not a
    // directory, its last component is a symbolic link, or it cannot be
    // opened (errno set).
    static std::shared_ptr<const CacheDirectory> Open(const std::string& path);

    CacheDirectory(const CacheDirectory&) = delete;
    CacheDirectory& operator=(const CacheDirectory&) = delete;
    ~CacheDirectory();

    // Names and creates the cache file for remote `name` and fills *chosen.
    // The display name is the piece between the first and the second ':'
    // (up to the end when there is no second) when the name holds a ':',
    // else the whole name; the file name is the display name with every '/'
    // turned into '_', so it is always an entry of this directory, or,
    // while that exists, base[0].ext, base[1].ext, ..., where ext is the
    // last '.'-separated piece and base the pieces before it. The file is created exclusively,
    // readable and writable by the user only, and never through a symbolic link: what already
    // stands at the chosen name (a planted link, FIFO or file) is never
    // opened or truncated, and creation fails. When another store creates
    // the same file first, the next free name is taken. Null on failure
    // (errno set), for instance once the directory has been removed.
    FILE* CreateFile(const std::string& name, CacheFileName* chosen) const;

    // True once the directory has been removed (its link count is 0): no
    // file can be created in it any more.
    bool IsRemoved() const;

    // Deletes `file` if the entry under its name is still the file that
    // CreateFile made (same device and inode); anything else standing there
    // is left alone. A rename of that entry by another process between the
    // check and the unlink is not guarded against: only the directory's
    // owner can do that, and the unlink stays inside this directory anyway.
    void RemoveFile(const CacheFileName& file) const;

  private:
    explicit CacheDirectory(int descriptor);

    // GetFileAttributes for the entry `name` of this directory.
    int Attributes(const std::string& name) const;
    // The display name and the first free file name for remote `name`.
    CacheFileName NameFile(const std::string& name) const;

    const int descriptor_;
};

}  // namespace cache

#endif  // CACHE_CACHE_DIRECTORY_H_
