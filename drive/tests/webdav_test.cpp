// The drive's changes to a WebDAV server: the errno values refusals map to,
// and the requests mkdir, rmdir and rename send (or must not send) against
// a scripted server.
#include "drive/webdav.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "drive/tests/scripted_server.h"

namespace drive {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::SeenRequest;

HttpResponse Answer(long status, CURLcode code = CURLE_OK) {
    HttpResponse response;
    response.status = status;
    response.code = code;
    return response;
}

TEST(ChangeResultTest, MapsEveryRefusalToTheErrnoProgramsExpect) {
    for (const long taken : {200L, 201L, 204L, 207L}) {
        EXPECT_EQ(ChangeResult(Answer(taken)), 0) << taken;
    }
    const std::vector<std::pair<long, int>> refusals = {
        {401, EACCES}, {403, EACCES}, {404, ENOENT}, {409, ENOENT}, {405, EEXIST}, {412, EBUSY},
        {507, ENOSPC}, {400, EIO},    {423, EIO},    {500, EIO},    {301, EIO},    {100, EIO}};
    for (const auto& [status, error] : refusals) {
        EXPECT_EQ(ChangeResult(Answer(status)), error) << status;
        EXPECT_EQ(ChangeErrno(status), error) << status;
    }
}

TEST(ChangeResultTest, ATransferThatBrokeIsNeverTaken) {
    // A 2xx status line followed by a broken body or connection is no
    // success: the server may not hold the change.
    EXPECT_EQ(ChangeResult(Answer(201, CURLE_RECV_ERROR)), EIO);
    EXPECT_EQ(ChangeResult(Answer(0, CURLE_COULDNT_CONNECT)), EIO);
    EXPECT_EQ(ChangeResult(Answer(404, CURLE_OPERATION_TIMEDOUT)), EIO);
}

// A WebDAV server with the directory "d" holding "f", and "e" and "g" empty.
Reply Listing(const SeenRequest& request) {
    auto entry = [](const std::string& href, bool directory) {
        return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop>" +
               (directory ? "<D:resourcetype><D:collection/></D:resourcetype>"
                          : "<D:getcontentlength>3</D:getcontentlength>") +
               "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
    };
    std::string body = "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\">";
    if (request.path == "/") {
        body += entry("/", true) + entry("/d/", true) + entry("/e/", true) + entry("/g/", true);
    } else if (request.path == "/d/") {
        body += entry("/d/", true) + entry("/d/f", false);
    } else if (request.path == "/e/" || request.path == "/g/") {
        body += entry(request.path, true);
    } else {
        return Reply{404, {}, ""};
    }
    return Reply{207, {{"Content-Type", "text/xml"}}, body + "</D:multistatus>"};
}

struct ChangesRig {
    explicit ChangesRig(ScriptedServer& server)
        : log(stderr, -1),
          client(server.Url(), 2, HttpLimits(), &stats),
          tree(&client, &log, std::chrono::seconds(60), 1, true),
          files(nullptr, &client, &tree, &log, &stats, nullptr, nullptr, FetchPolicy(), 4),
          changes(&tree, &files, &client, &log) {}
    Stats stats;
    DriveLog log;
    HttpClient client;
    RemoteTree tree;
    OpenFiles files;
    WebDavChanges changes;
};

std::vector<SeenRequest> Changes(ScriptedServer& server) {
    std::vector<SeenRequest> changes;
    for (const SeenRequest& request : server.Requests()) {
        if (request.method != "PROPFIND") changes.push_back(request);
    }
    return changes;
}

TEST(WebDavChangesTest, RemovesOnlyEmptyDirectoriesOfTheKindAsked) {
    ScriptedServer server([](const SeenRequest& request) {
        return request.method == "DELETE" ? Reply{204, {}, ""} : Listing(request);
    });
    ChangesRig rig(server);
    // The server's DELETE removes whole trees: nothing is sent for these.
    EXPECT_EQ(rig.changes.Remove(kRootInode, "d", true), ENOTEMPTY);
    EXPECT_EQ(rig.changes.Remove(kRootInode, "d", false), EISDIR);
    EXPECT_EQ(rig.changes.Remove(kRootInode, "missing", false), ENOENT);
    EXPECT_TRUE(Changes(server).empty());

    ASSERT_EQ(rig.changes.Remove(kRootInode, "e", true), 0);
    const std::vector<SeenRequest> sent = Changes(server);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].method, "DELETE");
    EXPECT_EQ(sent[0].path, "/e/");
    NodeInfo gone;
    EXPECT_EQ(rig.tree.Lookup(kRootInode, "e", &gone), ENOENT);
}

TEST(WebDavChangesTest, MovesWithTheFullDestinationAndKeepsTheInode) {
    ScriptedServer server([](const SeenRequest& request) {
        return request.method == "MOVE" ? Reply{201, {}, ""} : Listing(request);
    });
    ChangesRig rig(server);
    NodeInfo before;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "e", &before), 0);
    EXPECT_EQ(rig.changes.Move(kRootInode, "e", kRootInode, "g", false), EEXIST);
    EXPECT_EQ(rig.changes.Move(kRootInode, "e", kRootInode, "d", true), ENOTEMPTY);
    EXPECT_TRUE(Changes(server).empty());

    ASSERT_EQ(rig.changes.Move(kRootInode, "e", kRootInode, "new name", false), 0);
    const std::vector<SeenRequest> sent = Changes(server);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].path, "/e/");
    EXPECT_EQ(sent[0].headers.at("destination"), server.Url() + "new%20name/");
    EXPECT_EQ(sent[0].headers.at("overwrite"), "F");
    NodeInfo after;
    ASSERT_EQ(rig.tree.Lookup(kRootInode, "new name", &after), 0);
    EXPECT_EQ(after.inode, before.inode);
}

TEST(WebDavChangesTest, ARefusedMkcolAddsNothing) {
    ScriptedServer server([](const SeenRequest& request) {
        return request.method == "MKCOL" ? Reply{405, {}, ""} : Listing(request);
    });
    ChangesRig rig(server);
    NodeInfo info;
    EXPECT_EQ(rig.changes.MakeDirectory(kRootInode, "x", 0755, &info), EEXIST);
    std::vector<DirEntry> entries;
    ASSERT_EQ(rig.tree.List(kRootInode, &entries), 0);
    EXPECT_EQ(entries.size(), 3u);
}

}  // namespace
}  // namespace drive
