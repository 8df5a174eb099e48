#include "drive/listing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace drive {
namespace {

struct Seen {
    std::string name;
    bool isDirectory;
};

std::vector<Seen> Names(const std::vector<ListingEntry>& entries) {
    std::vector<Seen> names;
    for (const ListingEntry& entry : entries) names.push_back({entry.name, entry.isDirectory});
    return names;
}

void ExpectNames(const std::vector<ListingEntry>& entries, const std::vector<Seen>& expected) {
    const std::vector<Seen> names = Names(entries);
    ASSERT_EQ(names.size(), expected.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i].name, expected[i].name) << i;
        EXPECT_EQ(names[i].isDirectory, expected[i].isDirectory) << names[i].name;
    }
}

TEST(JsonListingTest, ReadsNginxAutoindex) {
    const char* text = R"([
{ "name":"sub dir", "type":"directory", "mtime":"Mon, 23 Nov 2026 10:00:00 GMT" },
{ "name":"caf\u00e9 \u6587.txt", "type":"file", "mtime":"Mon, 23 Nov 2026 10:00:01 GMT", "size":65537 },
{ "name":"100%.bin", "type":"file", "mtime":"Sun, 01 Jan 2017 00:00:00 GMT", "size":0 },
{ "name":"link", "type":"other", "mtime":"bad date" }
])";
    const auto entries = ParseJsonListing(text);
    ASSERT_TRUE(entries);
    ExpectNames(*entries, {{"sub dir", true},
                           {"caf\xC3\xA9 \xE6\x96\x87.txt", false},
                           {"100%.bin", false},
                           {"link", false}});
    EXPECT_EQ((*entries)[1].size, 65537);
    EXPECT_EQ((*entries)[2].size, 0);
    EXPECT_EQ((*entries)[2].mtime, 1483228800);
    EXPECT_EQ((*entries)[0].size, -1);
    EXPECT_EQ((*entries)[3].mtime, -1);
}

TEST(JsonListingTest, RefusesWhatIsNotAListingAndSkipsUnsafeNames) {
    EXPECT_FALSE(ParseJsonListing("<html>"));
    EXPECT_FALSE(ParseJsonListing(R"({"name":"a"})"));
    EXPECT_FALSE(ParseJsonListing(R"([{"size":1}])"));
    const auto entries = ParseJsonListing(
        R"([{"name":"..","type":"directory"},{"name":"a/b","type":"file","size":1},)"
        R"({"name":"","type":"file","size":1},{"name":"ok","type":"file","size":1}])");
    ASSERT_TRUE(entries);
    ExpectNames(*entries, {{"ok", false}});
}

TEST(HtmlListingTest, ReadsNginxIndex) {
    // nginx escapes names and prefixes a name with a colon by "./".
    const char* html = R"(<html>
<head><title>Index of /pub/</title></head>
<body>
<h1>Index of /pub/</h1><hr><pre><a href="../">../</a>
<a href="sub%20dir/">sub dir/</a>                                          23-Nov-2026 10:00       -
<a href="caf%C3%A9.txt">caf&#233;.txt</a>                                  23-Nov-2026 10:00   65537
<a href="./a:b.txt">a:b.txt</a>                                            23-Nov-2026 10:00       3
<a href="x%26y%3F%23.bin">x&amp;y?#.bin</a>                               23-Nov-2026 10:00       1
</pre><hr></body>
</html>)";
    ExpectNames(
        ParseHtmlListing(html, "/pub/"),
        {{"sub dir", true}, {"caf\xC3\xA9.txt", false}, {"a:b.txt", false}, {"x&y?#.bin", false}});
}

TEST(HtmlListingTest, ReadsApacheIndex) {
    // Sorting links, the parent link and absolute links to children.
    const char* html = R"(<!DOCTYPE HTML PUBLIC "-//W3C//DTD HTML 3.2 Final//EN">
<html><head><title>Index of /data</title></head><body>
<h1>Index of /data</h1>
<table>
<tr><th><a href="?C=N;O=D">Name</a></th><th><a href="?C=M;O=A">Last modified</a></th></tr>
<tr><td><a href="/">Parent Directory</a></td></tr>
<tr><td><a href="nested/">nested/</a></td><td>2026-11-23 10:00</td></tr>
<tr><td><A HREF='two%20words.iso'>two words.iso</A></td></tr>
<tr><td><a href="/data/abs.txt">abs.txt</a></td></tr>
<tr><td><a href="http://example.org/data/full.txt">full.txt</a></td></tr>
<tr><td><a href="/elsewhere/no.txt">no.txt</a></td></tr>
<tr><td><a href="mailto:admin@example.org">admin</a></td></tr>
</table></body></html>)";
    ExpectNames(
        ParseHtmlListing(html, "/data/"),
        {{"nested", true}, {"two words.iso", false}, {"abs.txt", false}, {"full.txt", false}});
}

TEST(HtmlListingTest, ReadsPythonHttpServerIndex) {
    const char* html = R"(<!DOCTYPE HTML>
<html lang="en">
<head><meta charset="utf-8"><title>Directory listing for /</title></head>
<body>
<h1>Directory listing for /</h1>
<hr>
<ul>
<li><a href=".hidden">.hidden</a></li>
<li><a href="deep/">deep/</a></li>
<li><a href="%E6%97%A5%E6%9C%AC%E8%AA%9E.txt">&#26085;&#26412;&#35486;.txt</a></li>
<li><a href="quote%27s%20%22q%22.txt">quote&#x27;s &quot;q&quot;.txt</a></li>
<li><a href="deep/">deep/</a></li>
</ul>
<hr>
</body>
</html>)";
    ExpectNames(ParseHtmlListing(html, "/"), {{".hidden", false},
                                              {"deep", true},
                                              {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt", false},
                                              {"quote's \"q\".txt", false}});
}

TEST(HtmlListingTest, LeavesOutLinksThatAreNotChildren) {
    const char* html = R"(<a href="a/b.txt">nested file</a><a href="%2e%2e/">up</a>
<a href="bad%zz">bad escape</a><a href="#top">anchor</a><a name="x">no href</a>
<a href="a%2Fb">encoded slash</a><abbr href="x">not a link</abbr><a href="kept">kept</a>)";
    ExpectNames(ParseHtmlListing(html, "/"), {{"kept", false}});
}

TEST(PercentTest, EncodesEveryReservedByteAndDecodesBack) {
    const std::string name = "a b%c/d?e#f&g\xC3\xA9~_.-";
    const std::string encoded = PercentEncode(name);
    EXPECT_EQ(encoded, "a%20b%25c%2Fd%3Fe%23f%26g%C3%A9~_.-");
    EXPECT_EQ(PercentDecode(encoded), name);
    EXPECT_FALSE(PercentDecode("%4"));
    EXPECT_FALSE(PercentDecode("%G0"));
}

TEST(PropfindListingTest, ReadsNginxMultistatus) {
    const char* xml = R"(<?xml version="1.0" encoding="utf-8" ?>
<D:multistatus xmlns:D="DAV:">
<D:response><D:href>/share/sub%20dir/</D:href><D:propstat><D:prop>
<D:getlastmodified>Mon, 23 Nov 2026 14:19:16 GMT</D:getlastmodified>
<D:resourcetype><D:collection/></D:resourcetype></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>
<D:response><D:href>/share/sub%20dir/a%20b</D:href><D:propstat><D:prop>
<D:getcontentlength>65537</D:getcontentlength>
<D:getlastmodified>Sun, 01 Jan 2017 00:00:00 GMT</D:getlastmodified>
<D:resourcetype></D:resourcetype></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>
<D:response><D:href>/share/sub%20dir/nested/</D:href><D:propstat><D:prop>
<D:resourcetype><D:collection/></D:resourcetype></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>
</D:multistatus>)";
    const auto entries = ParsePropfindListing(xml, "/share/sub%20dir/");
    ASSERT_TRUE(entries);
    ExpectNames(*entries, {{"a b", false}, {"nested", true}});
    EXPECT_EQ((*entries)[0].size, 65537);
    EXPECT_EQ((*entries)[0].mtime, 1483228800);
    EXPECT_TRUE((*entries)[0].etag.empty());
}

// Another server's habits: a default namespace without prefix, full URLs
// with other escapes than the drive's, entities, CDATA, ETags, properties
// split over a 200 and a 404 propstat, and a collection without a slash.
TEST(PropfindListingTest, ReadsOtherServersHabits) {
    const char* xml = R"(<?xml version="1.0"?>
<multistatus xmlns="DAV:"><!-- a <comment> -->
<response><href>http://h:8080/d%c3%a9j%C3%A0/</href></response>
<response>
  <href>http://h:8080/d%c3%a9j%C3%A0/caf%c3%a9%21.txt</href>
  <propstat><prop><getcontentlength>3</getcontentlength>
    <getetag>"e&amp;1"</getetag><resourcetype/></prop>
    <status>HTTP/1.1 200 OK</status></propstat>
  <propstat><prop><getlastmodified/><getcontentlength>99</getcontentlength></prop>
    <status>HTTP/1.1 404 Not Found</status></propstat>
</response>
<response><href><![CDATA[/d%C3%A9j%C3%A0/R&D]]></href>
  <propstat><prop><resourcetype><collection/></resourcetype></prop>
  <status>HTTP/1.1 200 OK</status></propstat></response>
<response><href>/elsewhere/x</href><propstat><prop><getcontentlength>1</getcontentlength>
  </prop><status>HTTP/1.1 200 OK</status></propstat></response>
</multistatus>)";
    const auto entries = ParsePropfindListing(xml, "/d%C3%A9j%C3%A0/");
    ASSERT_TRUE(entries);
    ExpectNames(*entries, {{"caf\xC3\xA9!.txt", false}, {"R&D", true}});
    EXPECT_EQ((*entries)[0].size, 3);
    EXPECT_EQ((*entries)[0].mtime, -1);
    EXPECT_EQ((*entries)[0].etag, "\"e&1\"");
}

TEST(PropfindListingTest, RefusesWhatIsNoMultistatus) {
    EXPECT_FALSE(ParsePropfindListing("<html><body>index</body></html>", "/"));
    EXPECT_FALSE(ParsePropfindListing("<D:multistatus xmlns:D=\"DAV:\"><D:response", "/"));
    EXPECT_FALSE(ParsePropfindListing("", "/"));
    const auto empty = ParsePropfindListing("<multistatus xmlns='DAV:'/>", "/");
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
}

TEST(PropfindQuotaTest, ReadsTheQuotaOfTheRoot) {
    // The shape ownCloud-style servers give: both properties found.
    const auto both = ParsePropfindQuota(R"(<?xml version="1.0"?>
<d:multistatus xmlns:d="DAV:" xmlns:oc="http://owncloud.org/ns"><d:response>
<d:href>/remote.php/dav/files/alice/</d:href><d:propstat><d:prop>
<d:quota-available-bytes>5368709120</d:quota-available-bytes>
<d:quota-used-bytes>1048576</d:quota-used-bytes>
</d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response></d:multistatus>)");
    ASSERT_TRUE(both);
    EXPECT_EQ(both->availableBytes, 5368709120LL);
    EXPECT_EQ(both->usedBytes, 1048576);

    // A server without quotas reports the properties as not found; one
    // with unlimited space may give a negative or empty value.
    const auto none = ParsePropfindQuota(R"(<D:multistatus xmlns:D="DAV:"><D:response>
<D:href>/dav/</D:href>
<D:propstat><D:prop><D:quota-used-bytes>77</D:quota-used-bytes></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat>
<D:propstat><D:prop><D:quota-available-bytes>12</D:quota-available-bytes></D:prop>
<D:status>HTTP/1.1 404 Not Found</D:status></D:propstat></D:response></D:multistatus>)");
    ASSERT_TRUE(none);
    EXPECT_EQ(none->availableBytes, -1);
    EXPECT_EQ(none->usedBytes, 77);
    const auto unlimited = ParsePropfindQuota(
        "<multistatus xmlns='DAV:'><response><propstat><prop>"
        "<quota-available-bytes>-3</quota-available-bytes><quota-used-bytes/>"
        "</prop><status>HTTP/1.1 200 OK</status></propstat></response></multistatus>");
    ASSERT_TRUE(unlimited);
    EXPECT_EQ(unlimited->availableBytes, -1);
    EXPECT_EQ(unlimited->usedBytes, -1);
    EXPECT_FALSE(ParsePropfindQuota("<D:multistatus><D:response"));
}

}  // namespace
}  // namespace drive
