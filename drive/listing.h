// Parsers of directory index pages that web servers generate: nginx's JSON
// autoindex, the HTML pages of nginx, Apache and python's http.server, and
// WebDAV multistatus answers (listings and quota).
//
// Pure functions of the page text; thread-safe.
#ifndef DRIVE_LISTING_H_
#define DRIVE_LISTING_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace drive {

// One entry of a directory as a listing shows it. Fields a listing does not
// give are left unknown (-1 or empty).
struct ListingEntry {
    std::string name;  // decoded: the name a user sees, never containing '/'
    bool isDirectory = false;
    long long size = -1;   // bytes; -1 when the listing does not say
    long long mtime = -1;  // seconds since the epoch; -1 when unknown
    std::string etag;      // empty when the listing does not say
};

// The entries of nginx's JSON autoindex; nullopt when `text` is not such a
// listing. Entries with unusable names (empty, ".", "..", containing '/')
// are left out.
std::optional<std::vector<ListingEntry>> ParseJsonListing(std::string_view text);

// The entries an HTML index page links to: relative links to direct
// children of the directory, or absolute links (path or full URL) under
// `directoryPath`, the percent-encoded path of the listed directory ending
// in '/'. A trailing slash marks a directory. Sizes and times stay unknown.
// Sorting links, parent links and links elsewhere are left out; each name
// appears once.
std::vector<ListingEntry> ParseHtmlListing(std::string_view html, std::string_view directoryPath);

// The entries of a WebDAV multistatus body (the answer to a PROPFIND with
// "Depth: 1" on the directory whose percent-encoded path is `directoryPath`,
// ending in '/'); nullopt when `xml` is not a multistatus body. The
// directory itself, responses outside it and properties reported with an
// error status are left out.
std::optional<std::vector<ListingEntry>> ParsePropfindListing(std::string_view xml,
                                                              std::string_view directoryPath);

// The space a WebDAV server reports for a collection; -1 for what it does
// not report.
struct Quota {
    long long availableBytes = -1;
    long long usedBytes = -1;
};

// The quota-available-bytes and quota-used-bytes properties of the answer to
// a PROPFIND with "Depth: 0"; nullopt when `xml` does not parse.
std::optional<Quota> ParsePropfindQuota(std::string_view xml);

// `text` with %XX escapes decoded; nullopt for a malformed escape.
std::optional<std::string> PercentDecode(std::string_view text);

// `name` with every byte other than unreserved ones (RFC 3986) escaped as %XX.
std::string PercentEncode(std::string_view name);

}  // namespace drive

#endif  // DRIVE_LISTING_H_
