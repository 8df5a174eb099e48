// The remote directory tree as the drive knows it: one node per remote file
// or directory, numbered by inode, filled from the server's index pages and
// refreshed when a listing is older than its time-to-live.
//
// Thread-safe: one lock guards the nodes; listings are fetched without it,
// so two threads may list the same directory at once (the later merge wins).
#ifndef DRIVE_REMOTE_TREE_H_
#define DRIVE_REMOTE_TREE_H_

#include <chrono>
#include <cstdint>
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
    std::string etag;      // empty when unknown
    uint64_t version = 0;  // bumped whenever size, mtime or ETag changed
};

struct DirEntry {
    std::string name;
    NodeInfo info;
};

class RemoteTree {
  public:
    // Lists through `client` (not owned); listings live for `ttl`; at most
    // `parallelProbes` HEAD requests run at once for an HTML listing.
    RemoteTree(HttpClient* client, DriveLog* log, std::chrono::milliseconds ttl,
               int parallelProbes);
    RemoteTree(const RemoteTree&) = delete;
    RemoteTree& operator=(const RemoteTree&) = delete;

    // The child `name` of directory `parent`. Returns 0 and fills `info`, or
    // an errno value (ENOENT, ENOTDIR, EIO).
    int Lookup(Inode parent, const std::string& name, NodeInfo* info);
    // The node `inode`, refreshed through its directory's listing when that
    // is out of date. Returns 0 or an errno value.
    int Stat(Inode inode, NodeInfo* info);
    // As Stat, but lists the directory again when its listing is older than
    // `maxAge`: an open must see a file replaced on the server.
    int StatFresh(Inode inode, std::chrono::milliseconds maxAge, NodeInfo* info);
    // The entries of directory `inode`. Returns 0 or an errno value.
    int List(Inode inode, std::vector<DirEntry>* entries);

    // The server reported that `inode` changed: its directory is listed
    // again on the next use.
    void MarkChanged(Inode inode);
    // Records the ETag a response gave for version `version` of `inode`
    // when none is known yet.
    void LearnEtag(Inode inode, uint64_t version, const std::string& etag);

  private:
    struct Node {
        NodeInfo info;
        Inode parent = 0;
        bool gone = false;    // no longer in its directory's listing
        bool probed = false;  // size and times come from HEAD, not from the listing
        std::chrono::steady_clock::time_point checkedAt;  // when they were last learnt
        std::map<std::string, Inode> children;
        bool listed = false;
        std::chrono::steady_clock::time_point listedAt;
    };

    // Lists directory `inode` again when its listing is missing or older
    // than `maxAge`. Returns 0 or an errno value.
    int Refresh(Inode inode, std::chrono::milliseconds maxAge);
    // Fetches and parses the listing of the directory at `path`. Returns 0
    // or an errno value.
    int FetchListing(const std::string& path, std::vector<ListingEntry>* entries);
    // Fills size, time and ETag of the HTML listing's files with HEAD
    // requests (a ranged GET where HEAD is refused).
    void Probe(const std::string& directoryPath, std::vector<ListingEntry>* entries,
               std::vector<std::string>* etags);
    // Learns size, time and ETag of the file at `path` into `entry` and
    // `etag`; the size stays -1 when the server tells none.
    void ProbeOne(const std::string& path, ListingEntry* entry, std::string* etag);
    // REQUIRES: lock_ held. Records what the server said of `node`, bumping
    // its version when anything changed.
    void UpdateNoLock(Node& node, long long size, long long mtime, const std::string& etag);
    // REQUIRES: lock_ held. `probed`: the files' details come from Probe.
    void MergeNoLock(Inode directory, const std::vector<ListingEntry>& entries,
                     const std::vector<std::string>& etags, bool probed);

    HttpClient* const client_;
    DriveLog* const log_;
    const std::chrono::milliseconds ttl_;
    const int parallelProbes_;
    std::string basePath_;  // path part of the base URL, for absolute links

    std::mutex lock_;
    std::map<Inode, Node> nodes_;       // GUARDED_BY(lock_)
    Inode nextInode_ = kRootInode + 1;  // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_REMOTE_TREE_H_
