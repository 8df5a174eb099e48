// The remote tree against a scripted server: listings of both kinds, the
// probes an HTML listing needs, and refreshing after the time-to-live.
#include "drive/remote_tree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "drive/tests/scripted_server.h"

namespace drive {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::SeenRequest;

Reply Json(const std::string& body) {
    return Reply{200, {{"Content-Type", "application/json"}}, body};
}
Reply Html(const std::string& body) {
    return Reply{200, {{"Content-Type", "text/html"}}, body};
}

// A multistatus answer naming `entries` (name, size; -1 for a directory)
// under the directory `path`.
Reply Multistatus(const std::string& path,
                  const std::vector<std::pair<std::string, long long>>& entries) {
    std::string body = "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\">";
    for (const auto& [name, size] : entries) {
        body += "<D:response><D:href>" + path + name + (size < 0 ? "/" : "") +
                "</D:href><D:propstat><D:prop>";
        body += size < 0 ? "<D:resourcetype><D:collection/></D:resourcetype>"
                         : "<D:getcontentlength>" + std::to_string(size) + "</D:getcontentlength>";
        body +=
            "<D:getlastmodified>Sun, 01 Jan 2017 00:00:00 GMT</D:getlastmodified>"
            "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
    }
    return Reply{207, {{"Content-Type", "text/xml"}}, body + "</D:multistatus>"};
}

struct TreeRig {
    TreeRig(ScriptedServer& server, std::chrono::milliseconds ttl, bool webdav = false)
        : log(stderr, -1),
          client(server.Url(), 4, HttpLimits(), &stats),
          tree(&client, &log, ttl, 3, webdav) {}
    Stats stats;
    DriveLog log;
    HttpClient client;
    RemoteTree tree;
};

TEST(RemoteTreeTest, WalksNestedJsonListingsAndRefreshesAfterTheTtl) {
    std::atomic<long long> size{10};
    ScriptedServer server([&](const SeenRequest& request) {
        if (request.path == "/") {
            return Json(
                R"([{"name":"a dir","type":"directory","mtime":"Sun, 01 Jan 2017 00:00:00 GMT"},)"
                R"({"name":"f","type":"file","mtime":"Sun, 01 Jan 2017 00:00:00 GMT","size":)" +
                std::to_string(size.load()) + "}]");
        }
        if (request.path == "/a%20dir/") {
            return Json(R"([{"name":"caf\u00e9.txt","type":"file","size":3}])");
        }
        return Reply{404, {}, "no"};
    });
    TreeRig rig(server, std::chrono::milliseconds(200));

    NodeInfo dir;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "a dir", &dir), 0);
    EXPECT_TRUE(dir.isDirectory);
    NodeInfo nested;
    ASSERT_EQ(rig.tree.Lookup(dir.inode, "caf\xC3\xA9.txt", &nested), 0);
    EXPECT_EQ(nested.path, "a%20dir/caf%C3%A9.txt");
    EXPECT_EQ(nested.size, 3);
    EXPECT_EQ(rig.tree.Lookup(dir.inode, "missing", &nested), ENOENT);
    EXPECT_EQ(rig.tree.Lookup(nested.inode, "x", &nested), ENOTDIR);

    NodeInfo file;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "f", &file), 0);
    EXPECT_EQ(file.mtime, 1483228800);
    const size_t listed = server.Requests().size();
    size = 20;
    NodeInfo again;
    ASSERT_EQ(rig.tree.Stat(file.inode, &again), 0);
    EXPECT_EQ(again.size, 10) << "a listing younger than the TTL is not fetched again";
    EXPECT_EQ(server.Requests().size(), listed);

    ASSERT_EQ(rig.tree.StatFresh(file.inode, std::chrono::milliseconds(0), &again), 0);
    EXPECT_EQ(again.inode, file.inode);
    EXPECT_EQ(again.size, 20);
    EXPECT_GT(again.version, file.version);

    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    std::vector<DirEntry> entries;
    ASSERT_EQ(rig.tree.List(kRootInode, &entries), 0);
    EXPECT_EQ(entries.size(), 2u);
    EXPECT_GT(server.Requests().size(), listed + 1);
}

TEST(RemoteTreeTest, ProbesHtmlEntriesWithHeadOrARangedGet) {
    std::atomic<size_t> headSize{1234};
    ScriptedServer server([&](const SeenRequest& request) {
        if (request.path == "/") {
            return Html(R"(<a href="../">up</a><a href="sub/">sub/</a><a href="head.bin">h</a>)"
                        R"(<a href="nohead.bin">n</a><a href="gone.bin">g</a>)");
        }
        if (request.path == "/head.bin") {
            Reply reply{
                200, {{"ETag", "\"h1\""}, {"Last-Modified", "Sun, 01 Jan 2017 00:00:00 GMT"}}, ""};
            reply.body = std::string(headSize.load(), 'h');
            return reply;
        }
        if (request.path == "/nohead.bin") {
            if (request.method == "HEAD") return Reply{405, {}, ""};
            return Reply{206, {{"Content-Range", "bytes 0-0/99999"}, {"ETag", "W/\"weak\""}}, "n"};
        }
        return Reply{404, {}, "no"};
    });
    TreeRig rig(server, std::chrono::seconds(10));
    std::vector<DirEntry> entries;
    ASSERT_EQ(rig.tree.List(kRootInode, &entries), 0);
    ASSERT_EQ(entries.size(), 3u) << "a file whose size cannot be learnt is left out";
    EXPECT_EQ(entries[0].name, "head.bin");
    EXPECT_EQ(entries[0].info.size, 1234);
    EXPECT_EQ(entries[0].info.etag, "\"h1\"");
    EXPECT_EQ(entries[0].info.mtime, 1483228800);
    EXPECT_EQ(entries[1].name, "nohead.bin");
    EXPECT_EQ(entries[1].info.size, 99999);
    EXPECT_EQ(entries[1].info.etag, "") << "weak ETags cannot guard ranged requests";
    EXPECT_EQ(entries[2].name, "sub");
    EXPECT_TRUE(entries[2].info.isDirectory);

    // An open checks that one file alone, not the whole directory.
    headSize = 4321;
    const size_t before = server.Requests().size();
    NodeInfo fresh;
    ASSERT_EQ(rig.tree.StatFresh(entries[0].info.inode, std::chrono::milliseconds(0), &fresh), 0);
    EXPECT_EQ(fresh.size, 4321);
    EXPECT_GT(fresh.version, entries[0].info.version);
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), before + 1);
    EXPECT_EQ(requests.back().method, "HEAD");
    EXPECT_EQ(requests.back().path, "/head.bin");
}

TEST(RemoteTreeTest, ReportsListingFailures) {
    ScriptedServer server([](const SeenRequest& request) {
        if (request.path == "/")
            return Json(R"([{"name":"d","type":"directory"},{"name":"e","type":"directory"}])");
        if (request.path == "/d/") return Reply{403, {}, "no"};
        return Json("not json");
    });
    TreeRig rig(server, std::chrono::seconds(10));
    NodeInfo d;
    NodeInfo e;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "d", &d), 0);
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "e", &e), 0);
    std::vector<DirEntry> entries;
    EXPECT_EQ(rig.tree.List(d.inode, &entries), EACCES);
    EXPECT_EQ(rig.tree.List(e.inode, &entries), EIO);
}

TEST(RemoteTreeTest, AListingThatBeganBeforeTheDrivesOwnChangesNeverUndoesThem) {
    // The second listing is held until the test has made its changes: it
    // reports the server as it was before them.
    std::mutex lock;
    std::condition_variable changed;
    bool hold = false;
    bool released = false;
    std::atomic<long long> size{10};
    ScriptedServer server([&](const SeenRequest& request) {
        std::unique_lock<std::mutex> guard(lock);
        if (hold) changed.wait(guard, [&] { return released; });
        if (request.headers.at("depth") == "0") return Multistatus("/", {{"renamed", 2}});
        if (released) return Multistatus("/", {{"", -1}, {"f", size.load()}, {"renamed", 2}});
        return Multistatus("/", {{"", -1}, {"f", size.load()}, {"gone", 1}, {"moved", 2}});
    });
    const auto ttl = std::chrono::milliseconds(50);
    TreeRig rig(server, ttl, true);
    NodeInfo f;
    NodeInfo moved;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "f", &f), 0);
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "moved", &moved), 0);
    EXPECT_EQ(f.size, 10);

    std::this_thread::sleep_for(2 * ttl);
    hold = true;
    const size_t before = server.Requests().size();
    std::vector<DirEntry> stale;
    std::thread listing([&] { EXPECT_EQ(rig.tree.List(kRootInode, &stale), 0); });
    while (server.Requests().size() == before) std::this_thread::yield();
    const NodeInfo uploaded = rig.tree.Uploaded(f.inode, 20);
    rig.tree.Removed(kRootInode, "gone");
    NodeInfo created;
    ASSERT_EQ(rig.tree.Created(kRootInode, "new", 0644, &created), 0);
    Inode replaced = 0;
    NodeInfo renamed;
    ASSERT_EQ(rig.tree.Renamed(kRootInode, "moved", kRootInode, "renamed", &renamed, &replaced), 0);
    {
        std::lock_guard<std::mutex> guard(lock);
        released = true;
    }
    changed.notify_all();
    listing.join();

    std::vector<std::string> names;
    for (const DirEntry& entry : stale) names.push_back(entry.name);
    EXPECT_EQ(names, (std::vector<std::string>{"f", "new", "renamed"}));
    EXPECT_EQ(stale[0].info.size, 20) << "the upload wins over the older listing";
    EXPECT_EQ(stale[0].info.version, uploaded.version);
    EXPECT_EQ(stale[2].info.inode, moved.inode);
    EXPECT_EQ(stale[2].info.version, moved.version) << "a rename keeps the content's version";
    EXPECT_EQ(rig.tree.PathOf(moved.inode), "renamed");

    // A listing after the changes: the server holds what was uploaded, and
    // its time for it is taken over without a new version; the new file is
    // not on the server before its first upload, yet stays.
    hold = false;
    size = 20;
    std::this_thread::sleep_for(2 * ttl);
    std::vector<DirEntry> fresh;
    ASSERT_EQ(rig.tree.List(kRootInode, &fresh), 0);
    ASSERT_EQ(fresh.size(), 3u);
    EXPECT_EQ(fresh[0].info.version, uploaded.version);
    EXPECT_EQ(fresh[0].info.mtime, 1483228800);
    EXPECT_EQ(fresh[1].name, "new");
    EXPECT_TRUE(rig.tree.IsLocal(created.inode));
    EXPECT_EQ(fresh[2].info.inode, moved.inode);
    size = 30;
    std::this_thread::sleep_for(2 * ttl);
    ASSERT_EQ(rig.tree.List(kRootInode, &fresh), 0);
    EXPECT_GT(fresh[0].info.version, uploaded.version) << "another writer's change counts";
}

TEST(RemoteTreeTest, LooksUpDotNamesTheListingLeavesOutDirectly) {
    ScriptedServer server([](const SeenRequest& request) {
        if (request.headers.count("depth") && request.headers.at("depth") == "1") {
            return Multistatus("/", {{"", -1}, {"plain", 3}});
        }
        if (request.path == "/.git") return Multistatus("/", {{".git", -1}});
        if (request.path == "/.profile") return Multistatus("/", {{".profile", 7}});
        return Reply{404, {}, ""};
    });
    TreeRig rig(server, std::chrono::seconds(10), true);
    NodeInfo info;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, ".git", &info), 0);
    EXPECT_TRUE(info.isDirectory);
    EXPECT_EQ(info.path, ".git/");
    ASSERT_EQ(rig.tree.Lookup(kRootInode, ".profile", &info), 0);
    EXPECT_EQ(info.size, 7);
    const size_t asked = server.Requests().size();
    EXPECT_EQ(rig.tree.Lookup(kRootInode, ".missing", &info), ENOENT);
    EXPECT_EQ(rig.tree.Lookup(kRootInode, ".missing", &info), ENOENT);
    EXPECT_EQ(rig.tree.Lookup(kRootInode, "missing", &info), ENOENT);
    EXPECT_EQ(server.Requests().size(), asked + 1)
        << "one direct lookup; its answer and the listing's are kept for the time-to-live";
    std::vector<DirEntry> entries;
    ASSERT_EQ(rig.tree.List(kRootInode, &entries), 0);
    EXPECT_EQ(entries.size(), 3u) << "names found directly are listed with the others";
}

}  // namespace
}  // namespace drive
