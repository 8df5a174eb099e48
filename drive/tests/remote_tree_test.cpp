// The remote tree against a scripted server: listings of both kinds, the
// probes an HTML listing needs, and refreshing after the time-to-live.
#include "drive/remote_tree.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
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

struct TreeRig {
    TreeRig(ScriptedServer& server, std::chrono::milliseconds ttl)
        : log(stderr, -1),
          client(server.Url(), 4, HttpLimits(), &stats),
          tree(&client, &log, ttl, 3) {}
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
    EXPECT_EQ(rig.tree.List(d.inode, &entries), ENOENT);
    EXPECT_EQ(rig.tree.List(e.inode, &entries), EIO);
}

}  // namespace
}  // namespace drive
