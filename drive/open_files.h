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
// Upload sends it whole with one PUT to the path the tree gives for the
// file's inode at that moment, so it follows renames of the file and of
// the directories above it. An upload is the drive's own change: the tree
// learns the new size and version at once. A copy with changes the server
// has not taken stays in the cache (never replaced or trimmed) so that a
// later flush retries; the object turns read-only again when its last
// writer has left and nothing is pending. A write the cache directory has
// no room for fails with ENOSPC and spoils the copy: nothing of it is
// uploaded any more, and it is dropped (its space freed) when its last
// writer leaves. Every change given up is logged as an error naming the
// file; an unmount that cannot upload a copy saves it (see PendingCopies).
//
// Opens are owned here, not by the kernel that holds their handles: the
// releases of the last opens may never arrive when the mount ends, and the
// destructor releases what is left.
//
// Thread-safe: one lock guards the table; reads run on the objects without
// it. Uploads, removals and moves hold the file's writeLock across their
// HTTP request; the lock order is in LOCKING.md.
#ifndef DRIVE_OPEN_FILES_H_
#define DRIVE_OPEN_FILES_H_

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

#include "cache/cache.h"
#include "drive/handle_table.h"
#include "drive/http_fetcher.h"
#include "drive/pending_copies.h"
#include "drive/remote_tree.h"

namespace drive {

// One version of one remote file in the cache.
struct CachedFile {
    NodeInfo info;           // what was known when it was opened first
    std::string objectName;  // the cache object's name: "i<inode>v<version>"
    std::unique_ptr<HttpFetcher> fetcher;
    std::shared_ptr<ICacheObj> object;
    int openers = 0;       // GUARDED_BY(OpenFiles::lock_)
    uint64_t version = 0;  // GUARDED_BY(OpenFiles::lock_); the content's: info's, or an upload's
    bool closed = false;   // GUARDED_BY(OpenFiles::lock_); closed in the cache
    // GUARDED_BY(OpenFiles::lock_). Its place in the list of unused
    // objects, while it is there: taking it out costs no walk of the list.
    std::optional<std::list<std::shared_ptr<CachedFile>>::iterator> unusedEntry;

    // The size readers see: the remote's, or the local copy's while writing.
    std::atomic<long long> size{0};
    // Set while the object is a complete writable copy: reads then fetch
    // nothing. Written under writeLock, read anywhere.
    std::atomic<bool> writing{false};
    // The errno value of a write that failed (ENOSPC, EIO): the copy lacks
    // bytes the program wrote. Written under writeLock, read anywhere.
    std::atomic<int> failure{0};
    std::mutex writeLock;  // serialises writes, truncations and uploads
    int writers = 0;       // GUARDED_BY(writeLock)
    bool dirty = false;    // GUARDED_BY(writeLock); changes the server has not taken
    // GUARDED_BY(writeLock). Among them, bytes written or a truncation
    // asked for, not only the emptying by an open with O_TRUNC.
    bool written = false;
    bool removed = false;  // GUARDED_BY(writeLock); removed on the server: never uploaded again
    // GUARDED_BY(writeLock). Created with O_EXCL and not uploaded yet: the
    // first upload must not replace a file of that name.
    bool exclusive = false;
    std::string etag;  // GUARDED_BY(writeLock); the server's version the changes apply to
    // GUARDED_BY(writeLock). The remote path the pending record of the copy
    // holds; empty while there is no record.
    std::string recordedPath;
};

// One open of a file by the kernel. Its handle record is the pattern each
// read copies into a record of its own (see BeginRead).
struct OpenHandle {
    std::shared_ptr<CachedFile> file;
    std::shared_ptr<_FS_HANDLE> record;
    bool writer = false;  // opened for writing (BeginWrite succeeded)
};

// Marks a handle record closed: the library's waits and the fetches that
// carry it end.
void CloseRecord(_FS_HANDLE* record);

class OpenFiles {
  public:
    // Objects are opened in `cache` (not owned) with fetchers made from
    // these parts (not owned; `room` and `pending` may be null); at most
    // `maxUnused` objects without openers are kept.
    OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log, Stats* stats,
              CacheRoom* room, PendingCopies* pending, FetchPolicy policy, size_t maxUnused);
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;
    // Releases the opens left, uploads the copies with pending changes (a
    // copy that cannot be uploaded is saved and logged) and closes every
    // object. REQUIRES: no other thread uses the opens any more (the FUSE
    // session has ended).
    ~OpenFiles();

    // Opens version `info.version` of a file, or the newer one the drive
    // already holds. `*unchanged` tells whether the previous open of the
    // file saw the same version (the kernel may then keep its cached
    // pages). Returns 0 and the open in `*opened`, which stays owned here
    // until Release, or an errno value. `emptied`: the open truncates the
    // file (BeginWrite with `truncate` follows), so a new object starts as
    // an empty writable copy instead of a read-only one replaced at once.
    int Open(const NodeInfo& info, OpenHandle** opened, bool* unchanged, bool emptied = false);
    // Ends an open (the kernel sends it once no read of the open runs) and
    // frees `handle`. A writer's pending changes are uploaded first (a
    // failure is logged; the changes stay for a later flush).
    void Release(OpenHandle* handle);

    // A record of its own for one read of `handle`, closed by an interrupt
    // of that read or by AbortReads. End it with EndRead.
    std::shared_ptr<_FS_HANDLE> BeginRead(const OpenHandle& handle);
    void EndRead(const std::shared_ptr<_FS_HANDLE>& record);
    // Closes the records of every read running and of those that begin
    // later: their waits for fetches end at once. Called when the mount ends.
    void AbortReads();

    // Makes `handle` a writer: the object becomes a complete local copy,
    // emptied when `truncate`. `exclusive`: the file was just created with
    // O_EXCL, and its first upload fails with EEXIST where the server
    // already has one of that name. Returns 0, or ENOSPC or EIO when the
    // remote bytes could not be fetched into it.
    int BeginWrite(OpenHandle* handle, bool truncate, bool exclusive = false);
    // REQUIRES: handle->writer. Writes `size` bytes at `offset` into the
    // local copy. Returns the bytes written or -errno (ENOSPC when the
    // cache directory is full).
    long long Write(OpenHandle* handle, const char* data, size_t size, long long offset);
    // REQUIRES: handle->writer. Sets the local copy's size; new bytes are
    // zeros. Returns 0 or an errno value.
    int Truncate(OpenHandle* handle, long long size);
    // Sends the pending changes of `file` to the server with one PUT.
    // Returns 0 (also when nothing is pending), EBUSY when the server's file
    // changed meanwhile, EEXIST (see BeginWrite), ENOSPC when a write did
    // not fit into the cache, or EIO.
    int Upload(CachedFile& file);
    // Upload at the close() of a descriptor, except for a file on the
    // server that an open with O_TRUNC emptied and nothing has been written
    // to since: programs (shells among them) open a file, dup the
    // descriptor and close the first before they write, and the server
    // keeps its file until there are new bytes to replace it with, or until
    // the open ends.
    int Flush(CachedFile& file);
    // Runs `move`, the request that moves file `inode` on the server, after
    // its pending changes are uploaded and while no upload of it runs.
    // Returns the upload's error or `move`'s result.
    int Move(Inode inode, const std::function<int()>& move);
    // Runs `remove`, the request that removes file `inode` on the server,
    // while no upload of it runs; when it succeeds, pending changes are
    // dropped and later ones never uploaded. Returns `remove`'s result.
    int Remove(Inode inode, const std::function<int()>& remove);
    // The size of `inode` while a local copy of it is being written;
    // -1 otherwise.
    long long LocalSize(Inode inode);

  private:
    // Release of an open already taken out of `opens_`.
    void ReleaseTaken(std::unique_ptr<OpenHandle> handle);
    // REQUIRES: file.writeLock held. Upload's work.
    int UploadNoLock(CachedFile& file);
    // REQUIRES: file.writeLock held. Notes changes the server lacks.
    void MarkDirtyNoLock(CachedFile& file);
    // REQUIRES: file.writeLock held. Records that the copy holds changes to
    // remote `path`; a record that already names `path` is left as it is.
    void RecordPendingNoLock(CachedFile& file, const std::string& path);
    // REQUIRES: file.writeLock held. Drops the pending record of the copy.
    void ForgetPendingNoLock(CachedFile& file);
    // REQUIRES: file.writeLock held. Notes bytes written or a truncation
    // asked for: the file's modification time is now.
    void MarkWrittenNoLock(CachedFile& file);
    // REQUIRES: file.writeLock held. A write or truncation of `bytes`
    // failed: the copy is spoilt. Returns the errno value for the writer.
    int FailNoLock(CachedFile& file, long long bytes);
    // REQUIRES: file.writeLock held. The unmount could not upload `file`
    // (`reason`): saves it for the user and logs where.
    void GiveUpNoLock(CachedFile& file, const char* reason);
    // The file `inode` of the table, or null.
    std::shared_ptr<CachedFile> Find(Inode inode);
    // Closes the unused objects, freeing their cache files. Returns whether
    // there were any.
    bool DropUnused();
    // REQUIRES: lock_ held. Closes `file` in the cache.
    void CloseNoLock(const std::shared_ptr<CachedFile>& file);
    // REQUIRES: lock_ held. Takes `file` out of the table (and out of the
    // unused ones); it is closed now when unused, else by its last Release.
    void DetachNoLock(const std::shared_ptr<CachedFile>& file);
    // A new entry for version `info.version` of a file, without its object.
    std::shared_ptr<CachedFile> MakeFile(const NodeInfo& info);
    // REQUIRES: lock_ held. Puts `file` last among the unused objects.
    void AddUnusedNoLock(const std::shared_ptr<CachedFile>& file);
    // REQUIRES: lock_ held. Takes `file` out of the unused objects, if there.
    void RemoveUnusedNoLock(CachedFile& file);
    // REQUIRES: lock_ held. Closes the oldest unused objects beyond the bound.
    void TrimUnusedNoLock();

    ICache* const cache_;
    HttpClient* const client_;
    RemoteTree* const tree_;
    DriveLog* const log_;
    Stats* const stats_;
    CacheRoom* const room_;
    PendingCopies* const pending_;
    const FetchPolicy policy_;
    const size_t maxUnused_;

    std::mutex lock_;
    std::map<Inode, std::shared_ptr<CachedFile>> current_;  // GUARDED_BY(lock_)
    std::map<Inode, uint64_t> lastOpenedVersion_;           // GUARDED_BY(lock_)
    std::list<std::shared_ptr<CachedFile>> unused_;         // GUARDED_BY(lock_); oldest first
    HandleTable<OpenHandle> opens_;

    std::mutex readsLock_;
    std::unordered_set<std::shared_ptr<_FS_HANDLE>> reads_;  // GUARDED_BY(readsLock_)
    bool readsAborted_ = false;                              // GUARDED_BY(readsLock_)
};

}  // namespace drive

#endif  // DRIVE_OPEN_FILES_H_
