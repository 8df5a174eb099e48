// The remote directory tree as the drive knows it: one node per remote file
// or directory, numbered by inode, filled from the server's index pages (or
// its WebDAV PROPFIND answers) and refreshed when a listing is older than
// its time-to-live.
//
// The drive's own changes (uploads, new files and directories, removals,
// renames) update the nodes at once, without asking the server again. Each
// such change gets a number from a counter; a listing or a direct check
// takes the counter's value when it starts, and whatever it reports about a
// node or a name that the drive changed after that moment is ignored: the
// server's answer may predate the change, and the drive knows better. So a
// listing that runs while a file is uploaded or removed never brings back
// the old size or the removed name.
//
// Names that a listing leaves out (nginx hides names that start with a dot)
// are looked up directly, with PROPFIND "Depth: 0" (or HEAD on a plain web
// directory); such nodes, and those the drive made itself, are checked on
// their own when a later listing leaves them out again.
//
// Nodes live as long as the mount: the drive does not answer the kernel's
// forget, and a removed or replaced node stays, marked gone. So every name
// the drive has seen, in a listing or a lookup, costs about 0.7 KB until
// the unmount (measured with 200,000 names in one listing): walking a tree
// of a million names holds about 700 MB. Dropping a node the kernel forgot
// would lose what the server does not keep (kept modes and times, the
// change numbers that make stale listings harmless, a file not uploaded
// yet), while fetches and uploads of a cached file still ask for its path
// by inode; and listings make nodes the kernel never looked up, which
// forget would not free.
//
// Thread-safe: one lock guards the nodes; listings are fetched without it,
// so two threads may list the same directory at once (the later merge wins).
#ifndef DRIVE_REMOTE_TREE_H_
#define DRIVE_REMOTE_TREE_H_

#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "drive/http_client.h"
#include "drive/listing.h"
#include "drive/log.h"

namespace drive {

using Inode = uint64_t;
inline constexpr Inode kRootInode = 1;

// What the drive knows of one node at one moment.
struct NodeInfo {
    Inode inode = 0;
    bool isDirectory = false;
    std::string path;  // percent-encoded, relative to the base URL; directories end in '/'
    long long size = 0;
    long long mtime = 0;
    std::string etag;      // strong ETag; empty when unknown
    uint64_t version = 0;  // bumped whenever the content may have changed
    // Kept by the drive, not by the server (see RemoteTree::Keep).
    int mode = -1;  // permission bits; -1: the drive's defaults
    // Modification time; tv_nsec UTIME_OMIT: the server's `mtime` holds.
    timespec modified{0, UTIME_OMIT};
};

struct DirEntry {
    std::string name;
    NodeInfo info;
};

class RemoteTree {
  public:
    // Lists through `client` (not owned); listings live for `ttl`; at most
    // `parallelProbes` HEAD requests run at once for an HTML listing.
    // `webdav`: directories are listed with PROPFIND instead of GET.
    RemoteTree(HttpClient* client, DriveLog* log, std::chrono::milliseconds ttl, int parallelProbes,
               bool webdav = false);
    RemoteTree(const RemoteTree&) = delete;
    RemoteTree& operator=(const RemoteTree&) = delete;

    // The child `name` of directory `parent`; a name the listing leaves out
    // is looked up directly when it starts with a dot (see above). Returns 0
    // and fills `info`, or an errno value (ENOENT, ENOTDIR, EIO).
    int Lookup(Inode parent, const std::string& name, NodeInfo* info);
    // The node `inode`, checked again when what is known of it is older
    // than the time-to-live. Returns 0 or an errno value.
    int Stat(Inode inode, NodeInfo* info);
    // As Stat, but checks with the server when what is known is older than
    // `maxAge`: an open must see a file replaced on the server. A file is
    // checked alone (PROPFIND "Depth: 0", or HEAD for a file of an HTML
    // listing); a JSON listing is fetched again.
    int StatFresh(Inode inode, std::chrono::milliseconds maxAge, NodeInfo* info);
    // The entries of directory `inode`. Returns 0 or an errno value.
    int List(Inode inode, std::vector<DirEntry>* entries);
    // The path `inode` has now (its last one once removed); empty for an
    // unknown inode. Uploads and fetches ask for it at each request, so
    // they follow renames of the file and of every directory above it.
    std::string PathOf(Inode inode);
    // What the tree knows of `inode` now, without asking the server; an
    // unknown inode gives an empty NodeInfo.
    NodeInfo Known(Inode inode);

    // A fetch found that `inode` changed on the server: the next Stat asks
    // the server again.
    void MarkChanged(Inode inode);
    // The drive created the empty file `name` with permission bits `mode`
    // in `parent`; it reaches the server with its first upload, and until
    // then it is the drive's alone: listings and checks leave it be.
    // Returns 0 and fills `info`, EEXIST when the directory has a file of
    // that name, or EISDIR.
    int Created(Inode parent, const std::string& name, int mode, NodeInfo* info);
    // True while `inode` is a file the drive created that has not reached
    // the server yet.
    bool IsLocal(Inode inode);
    // The file `inode` the drive created will never reach the server (its
    // first content was given up): it is removed unless it got there.
    void DropLocal(Inode inode);
    // The drive created directory `name` with permission bits `mode` in
    // `parent` on the server; it is known to be empty. Returns 0 and fills
    // `info`, or ENOTDIR.
    int MadeDirectory(Inode parent, const std::string& name, int mode, NodeInfo* info);
    // Keeps permission bits `mode` (-1: unchanged) and the modification
    // time `modified` (UTIME_OMIT: unchanged) of `inode`, which servers do
    // not store: for a directory as long as the mount lives, for a file as
    // long as the server's file is the one the drive knows (the drive's own
    // uploads keep them; another writer's change drops them). Returns what
    // is known now.
    NodeInfo Keep(Inode inode, int mode, timespec modified);
    // The drive removed child `name` of `parent` on the server.
    void Removed(Inode parent, const std::string& name);
    // The drive moved child `name` of `parent` to `newName` in `newParent`
    // on the server: the node keeps its inode (the kernel's name now points
    // to it) and its version (its content did not change), and gets its new
    // path; paths under a moved directory follow. Fills `moved` and, when a
    // node was replaced, `replaced` (else 0). Returns 0 or ENOENT.
    int Renamed(Inode parent, const std::string& name, Inode newParent, const std::string& newName,
                NodeInfo* moved, Inode* replaced);
    // The drive uploaded `size` bytes as the new content of file `inode`
    // (which is on the server from now on). Its version grows; the first
    // listing or check that starts afterwards and finds that size takes the
    // server's time and ETag without counting a change. Returns what is
    // known now.
    NodeInfo Uploaded(Inode inode, long long size);
    // Records the ETag a response gave for version `version` of `inode`
    // when none is known yet.
    void LearnEtag(Inode inode, uint64_t version, const std::string& etag);

  private:
    struct Node {
        NodeInfo info;
        std::string name;  // in its directory, decoded
        Inode parent = 0;
        bool gone = false;    // removed from the server, or not found there any more
        bool probed = false;  // size and times come from HEAD, not from the listing
        // Found by a direct lookup, or made here by the drive: checked on
        // its own when a listing leaves it out (servers hide some names).
        bool pinned = false;
        // Uploaded by the drive; the server's time and ETag are not known yet.
        bool uploaded = false;
        bool local = false;      // created by the drive, not on the server yet
        std::string validator;   // the server's ETag without "W/": tells versions apart
        uint64_t changedAt = 0;  // number of the drive's last change to the node
        std::chrono::steady_clock::time_point checkedAt;  // when the server last told
        // For a directory:
        std::map<std::string, Inode> children;
        std::map<std::string, uint64_t> removedAt;  // names the drive removed, by change number
        // Names a direct lookup did not find, and when.
        std::map<std::string, std::chrono::steady_clock::time_point> absentAt;
        bool listed = false;
        std::chrono::steady_clock::time_point listedAt;
    };

    // Lists directory `inode` again when its listing is missing or older
    // than `maxAge`. Returns 0 or an errno value.
    int Refresh(Inode inode, std::chrono::milliseconds maxAge);
    // Fetches and parses the listing of the directory at `path`. Returns 0
    // or an errno value.
    int FetchListing(const std::string& path, std::vector<ListingEntry>* entries);
    // Asks the server about the one entry `name` of the directory at
    // `directoryPath`. Returns 0 and fills `entry`, ENOENT when the server
    // does not have it, or EIO.
    int CheckOne(const std::string& directoryPath, const std::string& name, bool isDirectory,
                 ListingEntry* entry);
    // CheckOne for the node `inode`, applied to the node. Returns 0 or an
    // errno value (ENOENT once the server lacks it).
    int Recheck(Inode inode);
    // Looks `name` up in directory `parent` on the server, for a name its
    // listing leaves out. Returns 0 and fills `child`, or an errno value.
    int LookUpDirectly(Inode parent, const std::string& name, Inode* child);
    // Adds to the listing of `directory` the pinned children it leaves out
    // that the server still has.
    void KeepPinned(Inode directory, std::vector<ListingEntry>* entries);
    // Fills size, time and ETag of the HTML listing's files with HEAD
    // requests (a ranged GET where HEAD is refused).
    void Probe(const std::string& directoryPath, std::vector<ListingEntry>* entries);
    // Runs `work(0)` ... `work(count - 1)` on up to `parallelProbes` threads.
    void InParallel(size_t count, const std::function<void(size_t)>& work);
    // Learns size, time and ETag of the file at `path` into `entry`; the
    // size stays -1 when the server tells none. Returns the status.
    long ProbeOne(const std::string& path, ListingEntry* entry);
    // REQUIRES: lock_ held. A number for a change the drive made.
    uint64_t NextChangeNoLock() { return ++changeCount_; }
    // REQUIRES: lock_ held. Records what the server said of `node`, bumping
    // its version when the content may have changed.
    void ObserveNoLock(Node& node, const ListingEntry& entry);
    // REQUIRES: lock_ held. Merges a listing of `directory` that started at
    // change number `start`. `probed`: the files' details come from Probe.
    void MergeNoLock(Inode directory, const std::vector<ListingEntry>& entries, bool probed,
                     uint64_t start);
    // REQUIRES: lock_ held. The child `name` of `parent` as a node of the
    // given kind: the existing one, or a new one when there is none or it
    // is of the other kind.
    Node& ChildNoLock(Inode parent, const std::string& name, bool isDirectory);
    // REQUIRES: lock_ held. Marks the node and everything below it gone.
    void GoneNoLock(Inode inode);

    HttpClient* const client_;
    DriveLog* const log_;
    const std::chrono::milliseconds ttl_;
    const int parallelProbes_;
    const bool webdav_;
    std::string basePath_;  // path part of the base URL, for absolute links

    std::mutex lock_;
    std::map<Inode, Node> nodes_;       // GUARDED_BY(lock_)
    Inode nextInode_ = kRootInode + 1;  // GUARDED_BY(lock_)
    uint64_t changeCount_ = 0;          // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_REMOTE_TREE_H_
