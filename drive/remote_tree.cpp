#include "drive/remote_tree.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <set>
#include <thread>

#include "drive/content_range.h"
#include "drive/http_values.h"

namespace drive {

namespace {

using Clock = std::chrono::steady_clock;

// Logs a listing or lookup that did not get its answer and returns the
// errno: refused access, a name that is not there, or EIO.
int RequestFailed(DriveLog* log, const char* what, const std::string& path,
                  const HttpResponse& response) {
    log->Error("%s /%s failed: %s", what, path.c_str(),
               Succeeded(response) ? "unexpected status" : DescribeFailure(response).c_str());
    if (response.code != CURLE_OK) return EIO;
    if (response.status == 401 || response.status == 403) return EACCES;
    return response.status == 404 ? ENOENT : EIO;
}

// Index pages above this size are refused rather than held in memory.
constexpr size_t kMaxListingBytes = 64 << 20;

// A listing or a probe that meets a connection error or a 5xx is sent again
// this many times, after 100 ms, 200 ms, ...: a busy server must not make a
// whole directory vanish.
constexpr int kMetadataRetries = 3;

// Sends `request` through `send` until it gets an answer that is not a
// connection error or a 5xx, or the retries are spent.
template <typename Send>
HttpResponse SendRetrying(Send send) {
    HttpResponse response = send();
    for (int attempt = 0;
         attempt < kMetadataRetries && (response.code != CURLE_OK || response.status >= 500);
         ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100 << attempt));
        response = send();
    }
    return response;
}

// The path part of `url` ("http://host:port/a/b/" gives "/a/b/").
std::string PathOfUrl(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t path = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    return path == std::string::npos ? "/" : url.substr(path);
}

// A directory forgets names found missing that are older than the
// time-to-live when it holds this many.
constexpr size_t kMaxAbsentNames = 256;

// Servers hide these names from listings (nginx does), but answer for them.
bool MayBeHidden(const std::string& name) {
    return !name.empty() && name[0] == '.';
}

}  // namespace

RemoteTree::RemoteTree(HttpClient* client, DriveLog* log, std::chrono::milliseconds ttl,
                       int parallelProbes, bool webdav)
    : client_(client),
      log_(log),
      ttl_(ttl),
      parallelProbes_(parallelProbes),
      webdav_(webdav),
      basePath_(PathOfUrl(client->baseUrl())) {
    Node& root = nodes_[kRootInode];
    root.info.inode = kRootInode;
    root.info.isDirectory = true;
    root.info.mtime = time(nullptr);  // no listing tells the root's own time
    root.parent = kRootInode;
}

int RemoteTree::Lookup(Inode parent, const std::string& name, NodeInfo* info) {
    if (const int error = Refresh(parent, ttl_); error != 0) return error;
    Inode child = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        Node& directory = nodes_.at(parent);
        if (const auto found = directory.children.find(name); found != directory.children.end()) {
            child = found->second;
        } else if (!MayBeHidden(name)) {
            return ENOENT;
        } else if (const auto absent = directory.absentAt.find(name);
                   absent != directory.absentAt.end() && Clock::now() - absent->second < ttl_) {
            return ENOENT;
        }
    }
    if (child == 0) {
        if (const int error = LookUpDirectly(parent, name, &child); error != 0) return error;
    }
    return StatFresh(child, ttl_, info);
}

int RemoteTree::Stat(Inode inode, NodeInfo* info) {
    return StatFresh(inode, ttl_, info);
}

int RemoteTree::StatFresh(Inode inode, std::chrono::milliseconds maxAge, NodeInfo* info) {
    Inode parent = 0;
    bool recheck = false;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto found = nodes_.find(inode);
        if (found == nodes_.end()) return ENOENT;
        const Node& node = found->second;
        if (node.gone) return ENOENT;
        // Nobody but the drive knows of a file not on the server yet.
        if (inode == kRootInode || node.local || Clock::now() - node.checkedAt < maxAge) {
            *info = node.info;
            return 0;
        }
        parent = node.parent;
        // A WebDAV node, or a file an HTML listing named, is checked alone:
        // listing again would ask the server about the whole directory.
        const Node& directory = nodes_.at(parent);
        recheck = webdav_ ||
                  (node.probed && directory.listed && Clock::now() - directory.listedAt < ttl_);
    }
    const int error = recheck ? Recheck(inode) : Refresh(parent, maxAge);
    // A file of an HTML listing that HEAD cannot tell about: the listing tells.
    if (error == EIO && recheck && !webdav_) {
        if (const int listed = Refresh(parent, std::chrono::milliseconds(0)); listed != 0) {
            return listed;
        }
    } else if (error != 0) {
        return error;
    }
    std::lock_guard<std::mutex> guard(lock_);
    const Node& node = nodes_.at(inode);
    if (node.gone) return ENOENT;
    *info = node.info;
    return 0;
}

int RemoteTree::List(Inode inode, std::vector<DirEntry>* entries) {
    if (const int error = Refresh(inode, ttl_); error != 0) return error;
    std::lock_guard<std::mutex> guard(lock_);
    entries->clear();
    for (const auto& [name, child] : nodes_.at(inode).children) {
        entries->push_back({name, nodes_.at(child).info});
    }
    return 0;
}

std::string RemoteTree::PathOf(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = nodes_.find(inode);
    return found == nodes_.end() ? std::string() : found->second.info.path;
}

NodeInfo RemoteTree::Known(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = nodes_.find(inode);
    return found == nodes_.end() ? NodeInfo() : found->second.info;
}

NodeInfo RemoteTree::Keep(Inode inode, int mode, timespec modified) {
    std::lock_guard<std::mutex> guard(lock_);
    NodeInfo& info = nodes_.at(inode).info;
    if (mode >= 0) info.mode = mode;
    if (modified.tv_nsec != UTIME_OMIT) info.modified = modified;
    return info;
}

void RemoteTree::MarkChanged(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto node = nodes_.find(inode);
    if (node == nodes_.end()) return;
    node->second.checkedAt = Clock::time_point();
    nodes_.at(node->second.parent).listed = false;
}

RemoteTree::Node& RemoteTree::ChildNoLock(Inode parent, const std::string& name, bool isDirectory) {
    Node& directory = nodes_.at(parent);
    if (const auto found = directory.children.find(name); found != directory.children.end()) {
        Node& existing = nodes_.at(found->second);
        if (existing.info.isDirectory == isDirectory && !existing.gone) return existing;
        GoneNoLock(found->second);
    }
    const Inode inode = nextInode_++;
    Node& node = nodes_[inode];
    node.info.inode = inode;
    node.info.isDirectory = isDirectory;
    node.info.path = directory.info.path + PercentEncode(name) + (isDirectory ? "/" : "");
    node.name = name;
    node.parent = parent;
    directory.children[name] = inode;
    return node;
}

void RemoteTree::GoneNoLock(Inode inode) {
    Node& node = nodes_.at(inode);
    node.gone = true;
    node.listed = false;
    node.removedAt.clear();
    node.absentAt.clear();
}

int RemoteTree::Created(Inode parent, const std::string& name, int mode, NodeInfo* info) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& directory = nodes_.at(parent);
    if (const auto found = directory.children.find(name); found != directory.children.end()) {
        return nodes_.at(found->second).info.isDirectory ? EISDIR : EEXIST;
    }
    Node& node = ChildNoLock(parent, name, false);
    node.pinned = true;
    node.local = true;
    node.changedAt = NextChangeNoLock();
    node.checkedAt = Clock::now();
    node.validator.clear();
    node.info.size = 0;
    node.info.mtime = time(nullptr);
    node.info.etag.clear();
    node.info.mode = mode;
    clock_gettime(CLOCK_REALTIME, &node.info.modified);
    ++node.info.version;
    directory.removedAt.erase(name);
    directory.absentAt.erase(name);
    *info = node.info;
    return 0;
}

bool RemoteTree::IsLocal(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = nodes_.find(inode);
    return found != nodes_.end() && found->second.local;
}

void RemoteTree::DropLocal(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& node = nodes_.at(inode);
    if (!node.local) return;
    node.local = false;
    GoneNoLock(inode);
    Node& directory = nodes_.at(node.parent);
    if (const auto found = directory.children.find(node.name);
        found != directory.children.end() && found->second == inode) {
        directory.children.erase(found);
    }
}

int RemoteTree::MadeDirectory(Inode parent, const std::string& name, int mode, NodeInfo* info) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& directory = nodes_.at(parent);
    if (const auto found = directory.children.find(name);
        found != directory.children.end() && !nodes_.at(found->second).info.isDirectory) {
        return ENOTDIR;
    }
    Node& node = ChildNoLock(parent, name, true);
    node.gone = false;
    node.pinned = true;
    node.changedAt = NextChangeNoLock();
    node.checkedAt = Clock::now();
    node.info.mtime = time(nullptr);
    node.info.mode = mode;
    clock_gettime(CLOCK_REALTIME, &node.info.modified);
    // New and empty: nothing to list.
    node.children.clear();
    node.listed = true;
    node.listedAt = Clock::now();
    directory.removedAt.erase(name);
    directory.absentAt.erase(name);
    *info = node.info;
    return 0;
}

void RemoteTree::Removed(Inode parent, const std::string& name) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& directory = nodes_.at(parent);
    if (const auto found = directory.children.find(name); found != directory.children.end()) {
        GoneNoLock(found->second);
        directory.children.erase(found);
    }
    directory.removedAt[name] = NextChangeNoLock();
}

int RemoteTree::Renamed(Inode parent, const std::string& name, Inode newParent,
                        const std::string& newName, NodeInfo* moved, Inode* replaced) {
    std::lock_guard<std::mutex> guard(lock_);
    *replaced = 0;
    Node& from = nodes_.at(parent);
    const auto found = from.children.find(name);
    if (found == from.children.end()) return ENOENT;
    const Inode inode = found->second;
    const uint64_t change = NextChangeNoLock();
    from.children.erase(found);
    from.removedAt[name] = change;
    Node& to = nodes_.at(newParent);
    if (auto old = to.children.find(newName); old != to.children.end() && old->second != inode) {
        *replaced = old->second;
        GoneNoLock(old->second);
    }
    to.children[newName] = inode;
    to.removedAt.erase(newName);
    to.absentAt.erase(newName);
    Node& node = nodes_.at(inode);
    node.parent = newParent;
    node.name = newName;
    node.pinned = true;
    node.changedAt = change;
    const std::string oldPath = node.info.path;
    const std::string newPath =
        to.info.path + PercentEncode(newName) + (node.info.isDirectory ? "/" : "");
    for (auto& [number, other] : nodes_) {
        if (other.info.path.compare(0, oldPath.size(), oldPath) == 0 &&
            (number == inode || node.info.isDirectory)) {
            other.info.path = newPath + other.info.path.substr(oldPath.size());
        }
    }
    *moved = node.info;
    return 0;
}

NodeInfo RemoteTree::Uploaded(Inode inode, long long size) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& node = nodes_.at(inode);
    node.uploaded = true;
    node.local = false;
    node.changedAt = NextChangeNoLock();
    node.checkedAt = Clock::now();
    node.validator.clear();
    node.info.size = size;
    node.info.mtime = time(nullptr);
    node.info.etag.clear();
    ++node.info.version;
    return node.info;
}

void RemoteTree::LearnEtag(Inode inode, uint64_t version, const std::string& etag) {
    if (!IsStrongEtag(etag)) return;
    std::lock_guard<std::mutex> guard(lock_);
    const auto node = nodes_.find(inode);
    if (node == nodes_.end() || node->second.info.version != version) return;
    if (node->second.info.etag.empty()) node->second.info.etag = etag;
}

int RemoteTree::Refresh(Inode inode, std::chrono::milliseconds maxAge) {
    std::string path;
    uint64_t start = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto node = nodes_.find(inode);
        if (node == nodes_.end() || node->second.gone) return ENOENT;
        if (!node->second.info.isDirectory) return ENOTDIR;
        if (node->second.listed && Clock::now() - node->second.listedAt < maxAge) return 0;
        path = node->second.info.path;
        start = changeCount_;
    }
    std::vector<ListingEntry> entries;
    if (const int error = FetchListing(path, &entries); error != 0) return error;
    const bool complete = std::all_of(entries.begin(), entries.end(), [](const ListingEntry& e) {
        return e.isDirectory || e.size >= 0;
    });
    if (!complete) Probe(path, &entries);
    KeepPinned(inode, &entries);
    std::lock_guard<std::mutex> guard(lock_);
    MergeNoLock(inode, entries, !complete, start);
    return 0;
}

int RemoteTree::FetchListing(const std::string& path, std::vector<ListingEntry>* entries) {
    std::string body;
    HttpRequest request;
    request.path = path;
    if (webdav_) {
        // Without a body PROPFIND asks for every property: sizes, times and
        // ETags of all children in one answer.
        request.method = "PROPFIND";
        request.headers = {"Depth: 1"};
    }
    const HttpResponse response =
        SendRetrying([&] { return client_->SendForText(request, &body, kMaxListingBytes); });
    const long expected = webdav_ ? 207 : 200;
    if (response.code != CURLE_OK || response.status != expected) {
        return RequestFailed(log_, "Listing", path, response);
    }
    if (webdav_) {
        if (auto parsed = ParsePropfindListing(body, basePath_ + path)) {
            *entries = std::move(*parsed);
            return 0;
        }
        log_->Error("Listing /%s: the PROPFIND answer does not parse", path.c_str());
        return EIO;
    }
    if (response.contentType.find("json") != std::string::npos) {
        if (auto parsed = ParseJsonListing(body)) {
            *entries = std::move(*parsed);
            return 0;
        }
        log_->Error("Listing /%s: the JSON index does not parse", path.c_str());
        return EIO;
    }
    *entries = ParseHtmlListing(body, basePath_ + path);
    return 0;
}

int RemoteTree::CheckOne(const std::string& directoryPath, const std::string& name,
                         bool isDirectory, ListingEntry* entry) {
    const std::string path = directoryPath + PercentEncode(name) + (isDirectory ? "/" : "");
    entry->name = name;
    if (!webdav_) {
        // A plain web directory answers HEAD for files only.
        const long status = ProbeOne(path, entry);
        if (status == 404 || isDirectory) return ENOENT;
        return entry->size >= 0 ? 0 : EIO;
    }
    HttpRequest request;
    request.path = path;
    request.method = "PROPFIND";
    request.headers = {"Depth: 0"};
    std::string body;
    const HttpResponse response =
        SendRetrying([&] { return client_->SendForText(request, &body, kMaxListingBytes); });
    if (response.code == CURLE_OK && response.status == 404) return ENOENT;
    if (response.code != CURLE_OK || response.status != 207) {
        return RequestFailed(log_, "Checking", path, response);
    }
    // The answer names the entry itself, a child of its directory.
    std::optional<std::vector<ListingEntry>> parsed =
        ParsePropfindListing(body, basePath_ + directoryPath);
    if (!parsed || parsed->size() != 1 || (*parsed)[0].name != name) {
        log_->Error("Checking /%s: the PROPFIND answer does not name it", path.c_str());
        return EIO;
    }
    *entry = std::move((*parsed)[0]);
    if (!entry->isDirectory && entry->size < 0) return EIO;
    return 0;
}

int RemoteTree::Recheck(Inode inode) {
    std::string directoryPath;
    std::string name;
    bool isDirectory = false;
    uint64_t start = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const Node& node = nodes_.at(inode);
        directoryPath = nodes_.at(node.parent).info.path;
        name = node.name;
        isDirectory = node.info.isDirectory;
        start = changeCount_;
    }
    ListingEntry entry;
    const int error = CheckOne(directoryPath, name, isDirectory, &entry);
    std::lock_guard<std::mutex> guard(lock_);
    Node& node = nodes_.at(inode);
    // The drive changed the node meanwhile: what it knows is newer.
    if (node.changedAt > start) return 0;
    if (error == ENOENT || (error == 0 && entry.isDirectory != isDirectory)) {
        GoneNoLock(inode);
        Node& directory = nodes_.at(node.parent);
        if (const auto found = directory.children.find(node.name);
            found != directory.children.end() && found->second == inode) {
            directory.children.erase(found);
        }
        return ENOENT;
    }
    if (error != 0) return error;
    ObserveNoLock(node, entry);
    return 0;
}

int RemoteTree::LookUpDirectly(Inode parent, const std::string& name, Inode* child) {
    std::string directoryPath;
    uint64_t start = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        directoryPath = nodes_.at(parent).info.path;
        start = changeCount_;
    }
    ListingEntry entry;
    const int error = CheckOne(directoryPath, name, false, &entry);
    std::lock_guard<std::mutex> guard(lock_);
    Node& directory = nodes_.at(parent);
    // The drive created or removed the name meanwhile: what it knows is newer.
    if (const auto found = directory.children.find(name); found != directory.children.end()) {
        *child = found->second;
        return 0;
    }
    if (const auto removed = directory.removedAt.find(name);
        removed != directory.removedAt.end() && removed->second > start) {
        return ENOENT;
    }
    if (error == ENOENT) {
        // Names found missing pile up (rsync's temporary names are new each
        // time) until the directory is listed again, or here.
        if (directory.absentAt.size() >= kMaxAbsentNames) {
            std::erase_if(directory.absentAt, [this](const auto& absent) {
                return Clock::now() - absent.second >= ttl_;
            });
        }
        directory.absentAt[name] = Clock::now();
    }
    if (error != 0) return error;
    Node& node = ChildNoLock(parent, name, entry.isDirectory);
    node.pinned = true;
    ObserveNoLock(node, entry);
    *child = node.info.inode;
    return 0;
}

void RemoteTree::KeepPinned(Inode directory, std::vector<ListingEntry>* entries) {
    std::set<std::string> listed;
    for (const ListingEntry& entry : *entries) listed.insert(entry.name);
    std::vector<std::pair<std::string, bool>> missing;  // name, is a directory
    std::string directoryPath;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const Node& node = nodes_.at(directory);
        directoryPath = node.info.path;
        for (const auto& [name, child] : node.children) {
            const Node& known = nodes_.at(child);
            if (known.pinned && !known.local && !listed.count(name)) {
                missing.emplace_back(name, known.info.isDirectory);
            }
        }
    }
    std::vector<ListingEntry> found(missing.size());
    std::vector<int> errors(missing.size());
    InParallel(missing.size(), [&](size_t i) {
        errors[i] = CheckOne(directoryPath, missing[i].first, missing[i].second, &found[i]);
    });
    for (size_t i = 0; i < missing.size(); ++i) {
        if (errors[i] == 0) entries->push_back(std::move(found[i]));
    }
}

long RemoteTree::ProbeOne(const std::string& path, ListingEntry* entry) {
    HttpRequest request;
    request.path = path;
    request.headOnly = true;
    HttpResponse response = SendRetrying([&] { return client_->Send(request, {}); });
    if (response.code == CURLE_OK && response.status == 200 && response.contentLength >= 0) {
        entry->size = response.contentLength;
    } else if (response.code == CURLE_OK && response.status != 404) {
        // HEAD refused: the first byte's Content-Range gives the size.
        request.headOnly = false;
        request.rangeFirst = 0;
        request.rangeLast = 0;
        response =
            client_->Send(request, [](const HttpResponse&, const char*, size_t) { return false; });
        const auto range = ParseContentRange(response.contentRange);
        if (response.status == 206 && range && range->total >= 0) {
            entry->size = range->total;
        } else if (response.status == 200 && response.contentLength >= 0) {
            entry->size = response.contentLength;
        }
    }
    if (entry->mtime < 0) entry->mtime = response.lastModified;
    entry->etag = response.etag;
    return response.status;
}

void RemoteTree::Probe(const std::string& directoryPath, std::vector<ListingEntry>* entries) {
    InParallel(entries->size(), [&](size_t i) {
        ListingEntry& entry = (*entries)[i];
        if (entry.isDirectory || entry.size >= 0) return;
        ProbeOne(directoryPath + PercentEncode(entry.name), &entry);
    });
}

void RemoteTree::InParallel(size_t count, const std::function<void(size_t)>& work) {
    std::atomic<size_t> next{0};
    auto worker = [&] {
        for (size_t i = next++; i < count; i = next++) work(i);
    };
    std::vector<std::thread> threads;
    const size_t width = std::min<size_t>(parallelProbes_, count);
    for (size_t i = 1; i < width; ++i) threads.emplace_back(worker);
    worker();
    for (std::thread& thread : threads) thread.join();
}

void RemoteTree::ObserveNoLock(Node& node, const ListingEntry& entry) {
    const long long size = entry.isDirectory ? 0 : entry.size;
    const long long mtime = entry.mtime < 0 ? 0 : entry.mtime;
    const bool strong = IsStrongEtag(entry.etag);
    // Apache's ETags are weak for a second after a change, then the same
    // text without "W/": both name the same content.
    std::string validator = entry.etag;
    if (!strong) validator.erase(0, std::min<size_t>(2, validator.size()));
    NodeInfo& info = node.info;
    node.checkedAt = Clock::now();
    node.gone = false;
    const bool adopt = node.uploaded && size == info.size;
    node.uploaded = false;
    if (!adopt &&
        (size != info.size || mtime != info.mtime ||
         (!validator.empty() && !node.validator.empty() && validator != node.validator))) {
        ++info.version;
        info.etag.clear();  // an ETag learned from a response named the old content
    }
    // Taken over without a new version when the drive uploaded this content:
    // these are the server's names for it.
    info.size = size;
    info.mtime = mtime;
    if (!validator.empty()) node.validator = validator;
    if (strong) info.etag = entry.etag;
}

void RemoteTree::MergeNoLock(Inode directory, const std::vector<ListingEntry>& entries, bool probed,
                             uint64_t start) {
    std::map<std::string, Inode> children;
    const std::string directoryPath = nodes_.at(directory).info.path;
    for (const ListingEntry& entry : entries) {
        if (!entry.isDirectory && entry.size < 0) {
            log_->Error("Listing /%s: no size known for '%s'; left out", directoryPath.c_str(),
                        entry.name.c_str());
            continue;
        }
        Node& listed = nodes_.at(directory);
        // Removed by the drive after the listing began: the server's answer
        // may predate the removal.
        if (const auto removed = listed.removedAt.find(entry.name);
            removed != listed.removedAt.end() && removed->second > start) {
            continue;
        }
        if (const auto known = listed.children.find(entry.name);
            known != listed.children.end() &&
            (nodes_.at(known->second).changedAt > start || nodes_.at(known->second).local)) {
            continue;  // the drive's own, or changed by it after the listing began: kept below
        }
        Node& node = ChildNoLock(directory, entry.name, entry.isDirectory);
        node.probed = probed && !entry.isDirectory;
        ObserveNoLock(node, entry);
        children[entry.name] = node.info.inode;
    }
    Node& listed = nodes_.at(directory);
    for (const auto& [name, inode] : listed.children) {
        if (children.count(name)) continue;
        // Made or moved here by the drive after the listing began, or not
        // on the server yet.
        if (nodes_.at(inode).changedAt > start || nodes_.at(inode).local) {
            children[name] = inode;
        } else {
            GoneNoLock(inode);
        }
    }
    std::erase_if(listed.removedAt,
                  [start](const auto& removed) { return removed.second <= start; });
    listed.children = std::move(children);
    listed.listed = true;
    listed.listedAt = Clock::now();
}

}  // namespace drive
