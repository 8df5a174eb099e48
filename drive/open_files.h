// The cache objects of the remote files the drive has opened, one per
// version of a file, shared by every opener of that version.
//
// An object stays in the cache after its last opener leaves, so a later
// open of the same version is served from the cache files; it is closed
// when a newer version of the file is opened and nobody holds the old one,
// when more than a bound of unused objects pile up (the oldest go), and at
// shut-down.
//
// Writing: the first open for writing turns the object into a writable,
// complete local copy; writes and truncations change only that copy, and
// Upload sends it whole to the server with one PUT. A copy with changes the
// server has not taken stays in the cache (never replaced or trimmed) so
// that a later flush retries; the object turns read-only again when its
// last writer has left and nothing is pending.
//
// Opens are owned here, not by the kernel that holds their handles: the
// releases of the last opens may never arrive when the mount ends, and the
// destructor releases what is left.
//
// Thread-safe: one lock guards the table; reads run on the objects without it.
#ifndef DRIVE_OPEN_FILES_H_
#define DRIVE_OPEN_FILES_H_

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "cache/cache.h"
#include "drive/handle_table.h"
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

    // The size readers see: the remote's, or the local copy's while writing.
    std::atomic<long long> size{0};
    // Set while the object is a complete writable copy: reads then fetch
    // nothing. Written under writeLock, read anywhere.
    std::atomic<bool> writing{false};
    std::mutex writeLock;  // serialises writes, truncations and uploads
    int writers = 0;       // GUARDED_BY(writeLock)
    bool dirty = false;    // GUARDED_BY(writeLock); changes the server has not taken
    std::string etag;      // GUARDED_BY(writeLock); the server's version the changes apply to
    // GUARDED_BY(writeLock). Where uploads go: follows renames; empty once
    // the file was removed, so that nothing brings it back.
    std::string path;
};

// One open of a file by the kernel. Its handle record is the pattern each
// read copies into a record of its own (see the read operation).
struct OpenHandle {
    std::shared_ptr<CachedFile> file;
    std::shared_ptr<_FS_HANDLE> record;
    bool writer = false;  // opened for writing (BeginWrite succeeded)
};

class OpenFiles {
  public:
    // Objects are opened in `cache` (not owned) with fetchers made from
    // these parts (not owned; `room` may be null); at most `maxUnused`
    // objects without openers are kept.
    OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log, Stats* stats,
              CacheRoom* room, FetchPolicy policy, size_t maxUnused);
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;
    // Releases the opens left and closes every object. REQUIRES: no other
    // thread uses the opens any more (the FUSE session has ended).
    ~OpenFiles();

    // Opens version `info.version` of a file. `*unchanged` tells whether the
    // previous open of the file saw the same version (the kernel may then
    // keep its cached pages). Returns 0 and the open in `*opened`, which
    // stays owned here until Release, or an errno value.
    int Open(const NodeInfo& info, OpenHandle** opened, bool* unchanged);
    // Ends an open (the kernel sends it once no read of the open runs) and
    // frees `handle`. A writer's pending changes are uploaded first (a
    // failure is logged; the changes stay for a later flush).
    void Release(OpenHandle* handle);

    // Makes `handle` a writer: the object becomes a complete local copy,
    // emptied when `truncate`. Returns 0, or EIO when the remote bytes could
    // not be fetched.
    int BeginWrite(OpenHandle* handle, bool truncate);
    // REQUIRES: handle->writer. Writes `size` bytes at `offset` into the
    // local copy. Returns the bytes written or -errno.
    long long Write(OpenHandle* handle, const char* data, size_t size, long long offset);
    // REQUIRES: handle->writer. Sets the local copy's size; new bytes are
    // zeros. Returns 0 or an errno value.
    int Truncate(OpenHandle* handle, long long size);
    // Sends the pending changes of `file` to the server with one PUT.
    // Returns 0 (also when nothing is pending), EBUSY when the server's file
    // changed meanwhile, or EIO.
    int Upload(CachedFile& file);
    // Upload of `inode`'s pending changes, if it has any.
    int UploadPending(Inode inode);
    // The file `to.inode` was renamed on the server; `to` is what the
    // tree knows of it now. A copy being written uploads to the new path;
    // an unused object follows the file under its new name, with a fetcher
    // for the new path; an object being read is replaced at the next open.
    void Moved(const NodeInfo& to);
    // The file `inode` was removed on the server: pending changes are
    // dropped and later ones never uploaded.
    void Removed(Inode inode);
    // The size of `inode` while a local copy of it is being written;
    // -1 otherwise.
    long long LocalSize(Inode inode);

  private:
    // Release of an open already taken out of `opens_`.
    void ReleaseTaken(std::unique_ptr<OpenHandle> handle);
    // REQUIRES: lock_ held. Closes `file` in the cache.
    void CloseNoLock(const std::shared_ptr<CachedFile>& file);
    // REQUIRES: lock_ held. Takes `inode`'s object out of the table; it is
    // closed now when unused, else by its last Release.
    std::shared_ptr<CachedFile> DetachNoLock(Inode inode);
    // A new entry for version `info.version` of a file, without its object.
    std::shared_ptr<CachedFile> MakeFile(const NodeInfo& info);
    // REQUIRES: lock_ held. Closes the oldest unused objects beyond the bound.
    void TrimUnusedNoLock();

    ICache* const cache_;
    HttpClient* const client_;
    RemoteTree* const tree_;
    DriveLog* const log_;
    Stats* const stats_;
    CacheRoom* const room_;
    const FetchPolicy policy_;
    const size_t maxUnused_;

    std::mutex lock_;
    std::map<Inode, std::shared_ptr<CachedFile>> current_;  // GUARDED_BY(lock_)
    std::map<Inode, uint64_t> lastOpenedVersion_;           // GUARDED_BY(lock_)
    std::list<std::shared_ptr<CachedFile>> unused_;         // GUARDED_BY(lock_); oldest first
    HandleTable<OpenHandle> opens_;
};

}  // namespace drive

#endif  // DRIVE_OPEN_FILES_H_
