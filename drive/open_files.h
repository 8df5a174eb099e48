// The cache objects of the remote files the drive has opened, one per
// version of a file, shared by every opener of that version.
//
// An object stays in the cache after its last opener leaves, so a later
// open of the same version is served from the cache files; it is closed
// when a newer version of the file is opened and nobody holds the old one,
// when more than a bound of unused objects pile up (the oldest go), and at
// shut-down.
//
// Thread-safe: one lock guards the table; reads run on the objects without it.
#ifndef DRIVE_OPEN_FILES_H_
#define DRIVE_OPEN_FILES_H_

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "cache/cache.h"
#include "drive/http_fetcher.h"
#include "drive/remote_tree.h"

namespace drive {

// One version of one remote file in the cache.
struct CachedFile {
    NodeInfo info;           // what was known when it was opened first
    std::string objectName;  // the cache object's name: "i<inode>v<version>"
    std::unique_ptr<HttpFetcher> fetcher;
    std::shared_ptr<ICacheObj> object;
    int openers = 0;  // GUARDED_BY(OpenFiles::lock_)
};

// One open of a file by the kernel, with its own handle record.
struct OpenHandle {
    std::shared_ptr<CachedFile> file;
    std::shared_ptr<_FS_HANDLE> record;
};

class OpenFiles {
  public:
    // Objects are opened in `cache` (not owned) with fetchers made from
    // these parts (not owned); at most `maxUnused` objects without openers
    // are kept.
    OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log, Stats* stats,
              FetchPolicy policy, size_t maxUnused);
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;
    // Closes every object.
    ~OpenFiles();

    // Opens version `info.version` of a file. `*unchanged` tells whether the
    // previous open of the file saw the same version (the kernel may then
    // keep its cached pages). Returns 0 or an errno value.
    int Open(const NodeInfo& info, std::unique_ptr<OpenHandle>* opened, bool* unchanged);
    // Ends an open: its record is marked closed, so reads still waiting on
    // it give up.
    void Release(std::unique_ptr<OpenHandle> handle);

  private:
    // REQUIRES: lock_ held. Closes `file` in the cache.
    void CloseNoLock(const std::shared_ptr<CachedFile>& file);
    // REQUIRES: lock_ held. Closes the oldest unused objects beyond the bound.
    void TrimUnusedNoLock();

    ICache* const cache_;
    HttpClient* const client_;
    RemoteTree* const tree_;
    DriveLog* const log_;
    Stats* const stats_;
    const FetchPolicy policy_;
    const size_t maxUnused_;

    std::mutex lock_;
    std::map<Inode, std::shared_ptr<CachedFile>> current_;  // GUARDED_BY(lock_)
    std::map<Inode, uint64_t> lastOpenedVersion_;           // GUARDED_BY(lock_)
    std::list<std::shared_ptr<CachedFile>> unused_;         // GUARDED_BY(lock_); oldest first
};

}  // namespace drive

#endif  // DRIVE_OPEN_FILES_H_
