// The file system the kernel sees: libfuse's low-level operations mapped
// onto the remote tree (names, attributes, listings), the WebDAV changes
// (create, mkdir, unlink, rmdir, rename) and the cache objects (open, read,
// write, release). On a read-only remote every change answers EROFS; on a
// writable one, links and special files answer ENOTSUP. The kernel's forget
// is ignored: nodes live as long as the mount (see remote_tree.h).
//
// Thread-safe: libfuse's multi-threaded loop calls the operations from many
// threads; each operation uses only thread-safe parts.
#ifndef DRIVE_FUSE_OPS_H_
#define DRIVE_FUSE_OPS_H_

#include <fuse_lowlevel.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "drive/handle_table.h"
#include "drive/log.h"
#include "drive/open_files.h"
#include "drive/remote_tree.h"
#include "drive/server_space.h"
#include "drive/stats.h"
#include "drive/webdav.h"

namespace drive {

// A directory's entries as opendir saw them, paged through by readdir.
using Listing = std::vector<DirEntry>;

// The owner every node shows, and the mode bits it shows: those the umask
// leaves of rwx for directories and of rw for files (the write bits only
// on a writable remote). The server keeps no owners: a chown that changes
// nothing succeeds, any other answers EPERM.
struct Ownership {
    uid_t uid = getuid();
    gid_t gid = getgid();
    mode_t umask = 022;
};

// What the operations reach through fuse_req_userdata(); the pointers are
// not owned.
struct FuseContext {
    RemoteTree* tree = nullptr;
    OpenFiles* files = nullptr;
    Stats* stats = nullptr;
    DriveLog* log = nullptr;
    WebDavChanges* changes = nullptr;  // the changes to the server's tree
    ServerSpace* space = nullptr;      // what statfs reports; null: nothing known
    Ownership owner;
    bool writable = false;      // the remote takes changes (WebDAV)
    bool directIo = false;      // the kernel bypasses its page cache
    double attributeTtl = 1.0;  // seconds the kernel keeps names and attributes
    std::string mountpoint;     // absolute; INIT raises its kernel read-ahead
    // Set by INIT when the kernel drops the cached pages a direct write
    // replaces (FUSE 7.39, Linux 6.6): then write-only opens skip the page
    // cache without leaving other opens stale pages.
    std::atomic<bool> writeOnlyDirect{false};
    HandleTable<Listing> listings;  // the open directories
};

// The operations table to hand to fuse_session_new.
const fuse_lowlevel_ops& DriveOperations();

}  // namespace drive

#endif  // DRIVE_FUSE_OPS_H_
