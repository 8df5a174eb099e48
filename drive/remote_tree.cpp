#include "drive/remote_tree.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <set>
#include <thread>

#include "drive/content_range.h"

namespace drive {

namespace {

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
    for (int attempt = 0; attempt < kMetadataRetries &&
                          (response.code != CURLE_OK || response.status >= 500);
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

bool IsStrongEtag(const std::string& etag) {
    return !etag.empty() && etag.rfind("W/", 0) != 0;
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
        const Node& directory = nodes_.at(parent);
        const auto found = directory.children.find(name);
        if (found == directory.children.end()) return ENOENT;
        child = found->second;
    }
    return StatFresh(child, ttl_, info);
}

int RemoteTree::Stat(Inode inode, NodeInfo* info) {
    return StatFresh(inode, ttl_, info);
}

int RemoteTree::StatFresh(Inode inode, std::chrono::milliseconds maxAge, NodeInfo* info) {
    Inode parent = 0;
    std::string probePath;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto node = nodes_.find(inode);
        if (node == nodes_.end()) return ENOENT;
        parent = node->second.parent;
        // A file an HTML listing named is checked alone: listing again would
        // ask the server about every file of the directory.
        const Node& parentNode = nodes_.at(parent);
        if (node->second.probed && !node->second.gone && parentNode.listed &&
            std::chrono::steady_clock::now() - parentNode.listedAt < ttl_ &&
            std::chrono::steady_clock::now() - node->second.checkedAt >= maxAge) {
            probePath = node->second.info.path;
        }
    }
    if (!probePath.empty()) {
        ListingEntry entry;
        std::string etag;
        ProbeOne(probePath, &entry, &etag);
        std::lock_guard<std::mutex> guard(lock_);
        Node& node = nodes_.at(inode);
        if (entry.size < 0) {
            nodes_.at(parent).listed = false;  // gone or failing: the listing tells
        } else {
            UpdateNoLock(node, entry.size, entry.mtime < 0 ? 0 : entry.mtime, etag);
            *info = node.info;
            return 0;
        }
    }
    if (const int error = Refresh(parent, maxAge); error != 0) return error;
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

void RemoteTree::MarkChanged(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto node = nodes_.find(inode);
    if (node == nodes_.end()) return;
    nodes_.at(node->second.parent).listed = false;
}

void RemoteTree::MarkListingStale(Inode directory) {
    std::lock_guard<std::mutex> guard(lock_);
    if (const auto node = nodes_.find(directory); node != nodes_.end()) node->second.listed = false;
}

void RemoteTree::KeepPinned(Inode directory, std::vector<ListingEntry>* entries,
                            std::vector<std::string>* etags) {
    std::set<std::string> listed;
    for (const ListingEntry& entry : *entries) listed.insert(entry.name);
    std::vector<std::pair<std::string, std::string>> missing;  // name, path
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (const auto& [name, child] : nodes_.at(directory).children) {
            const Node& node = nodes_.at(child);
            if (node.pinned && !node.info.isDirectory && !listed.count(name)) {
                missing.emplace_back(name, node.info.path);
            }
        }
    }
    for (const auto& [name, path] : missing) {
        ListingEntry entry;
        entry.name = name;
        std::string etag;
        ProbeOne(path, &entry, &etag);
        if (entry.size < 0) continue;  // gone from the server too
        entries->push_back(std::move(entry));
        etags->push_back(std::move(etag));
    }
}

int RemoteTree::Added(Inode parent, const std::string& name, NodeInfo* info) {
    std::lock_guard<std::mutex> guard(lock_);
    Node& directory = nodes_.at(parent);
    Inode inode = 0;
    if (const auto found = directory.children.find(name);
        found != directory.children.end() && !nodes_.at(found->second).info.isDirectory) {
        inode = found->second;
    } else {
        if (found != directory.children.end()) return EISDIR;
        inode = nextInode_++;
        Node& node = nodes_[inode];
        node.info.inode = inode;
        node.info.path = directory.info.path + PercentEncode(name);
        node.parent = parent;
        directory.children[name] = inode;
    }
    Node& node = nodes_.at(inode);
    node.pinned = true;
    node.gone = false;
    UpdateNoLock(node, 0, time(nullptr), std::string());
    *info = node.info;
    return 0;
}

int RemoteTree::Renamed(Inode parent, const std::string& name, Inode newParent,
                        const std::string& newName, NodeInfo* moved, Inode* replaced) {
    std::lock_guard<std::mutex> guard(lock_);
    *replaced = 0;
    Node& from = nodes_.at(parent);
    const auto found = from.children.find(name);
    if (found == from.children.end()) return ENOENT;
    const Inode inode = found->second;
    from.children.erase(found);
    Node& to = nodes_.at(newParent);
    if (auto old = to.children.find(newName); old != to.children.end() && old->second != inode) {
        *replaced = old->second;
        nodes_.at(old->second).gone = true;
    }
    to.children[newName] = inode;
    Node& node = nodes_.at(inode);
    node.parent = newParent;
    node.pinned = true;
    const std::string oldPath = node.info.path;
    const std::string newPath =
        to.info.path + PercentEncode(newName) + (node.info.isDirectory ? "/" : "");
    for (auto& [number, other] : nodes_) {
        if (other.info.path.compare(0, oldPath.size(), oldPath) == 0 &&
            (number == inode || node.info.isDirectory)) {
            other.info.path = newPath + other.info.path.substr(oldPath.size());
            ++other.info.version;
        }
    }
    *moved = node.info;
    return 0;
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
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto node = nodes_.find(inode);
        if (node == nodes_.end()) return ENOENT;
        if (!node->second.info.isDirectory) return ENOTDIR;
        if (node->second.listed &&
            std::chrono::steady_clock::now() - node->second.listedAt < maxAge) {
            return 0;
        }
        path = node->second.info.path;
    }
    std::vector<ListingEntry> entries;
    if (const int error = FetchListing(path, &entries); error != 0) return error;
    std::vector<std::string> etags(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) etags[i] = entries[i].etag;
    const bool complete = std::all_of(entries.begin(), entries.end(), [](const ListingEntry& e) {
        return e.isDirectory || e.size >= 0;
    });
    if (!complete) Probe(path, &entries, &etags);
    KeepPinned(inode, &entries, &etags);
    std::lock_guard<std::mutex> guard(lock_);
    MergeNoLock(inode, entries, etags, !complete);
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
        log_->Error("Listing /%s failed: %s (HTTP %ld)", path.c_str(),
                    response.code != CURLE_OK ? response.error.c_str() : "bad status",
                    response.status);
        return response.status == 404 || response.status == 403 ? ENOENT : EIO;
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

void RemoteTree::ProbeOne(const std::string& path, ListingEntry* entry, std::string* etag) {
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
    *etag = response.etag;
}

void RemoteTree::Probe(const std::string& directoryPath, std::vector<ListingEntry>* entries,
                       std::vector<std::string>* etags) {
    std::atomic<size_t> next{0};
    auto work = [&] {
        for (size_t i = next++; i < entries->size(); i = next++) {
            ListingEntry& entry = (*entries)[i];
            if (entry.isDirectory || entry.size >= 0) continue;
            ProbeOne(directoryPath + PercentEncode(entry.name), &entry, &(*etags)[i]);
        }
    };
    std::vector<std::thread> probes;
    const size_t count = std::min<size_t>(parallelProbes_, entries->size());
    for (size_t i = 1; i < count; ++i) probes.emplace_back(work);
    work();
    for (std::thread& probe : probes) probe.join();
}

void RemoteTree::UpdateNoLock(Node& node, long long size, long long mtime,
                              const std::string& etag) {
    const std::string& strong = IsStrongEtag(etag) ? etag : std::string();
    NodeInfo& info = node.info;
    if (info.size != size || info.mtime != mtime || (!strong.empty() && strong != info.etag)) {
        // An ETag learned from a response stays while size and time hold.
        if (strong.empty() && (info.size != size || info.mtime != mtime)) info.etag.clear();
        ++info.version;
    }
    info.size = size;
    info.mtime = mtime;
    if (!strong.empty()) info.etag = strong;
    node.checkedAt = std::chrono::steady_clock::now();
}

void RemoteTree::MergeNoLock(Inode directory, const std::vector<ListingEntry>& entries,
                             const std::vector<std::string>& etags, bool probed) {
    std::map<std::string, Inode> children;
    const std::string directoryPath = nodes_.at(directory).info.path;
    for (size_t i = 0; i < entries.size(); ++i) {
        const ListingEntry& entry = entries[i];
        if (!entry.isDirectory && entry.size < 0) {
            log_->Error("Listing /%s: no size known for '%s'; left out", directoryPath.c_str(),
                        entry.name.c_str());
            continue;
        }
        Node* node = nullptr;
        const auto& old = nodes_.at(directory).children;
        if (auto found = old.find(entry.name);
            found != old.end() && nodes_.at(found->second).info.isDirectory == entry.isDirectory) {
            node = &nodes_.at(found->second);
        } else {
            const Inode inode = nextInode_++;
            node = &nodes_[inode];
            node->info.inode = inode;
            node->info.isDirectory = entry.isDirectory;
            node->info.path =
                directoryPath + PercentEncode(entry.name) + (entry.isDirectory ? "/" : "");
            node->parent = directory;
        }
        node->probed = probed && !entry.isDirectory;
        UpdateNoLock(*node, entry.isDirectory ? 0 : entry.size, entry.mtime < 0 ? 0 : entry.mtime,
                     etags[i]);
        node->gone = false;
        children[entry.name] = node->info.inode;
    }
    Node& listed = nodes_.at(directory);
    for (const auto& [name, inode] : listed.children) {
        if (!children.count(name) || children.at(name) != inode) nodes_.at(inode).gone = true;
    }
    listed.children = std::move(children);
    listed.listed = true;
    listed.listedAt = std::chrono::steady_clock::now();
}

}  // namespace drive
