// Reading the values HTTP and WebDAV answers carry: header values and
// element text without their surrounding white space, dates, and ETags
// that name one exact content.
//
// Pure functions; thread-safe.
#ifndef DRIVE_HTTP_VALUES_H_
#define DRIVE_HTTP_VALUES_H_

#include <string_view>

namespace drive {

// `text` without the spaces, tabs and line ends around it.
std::string_view TrimHttpSpace(std::string_view text);

// Seconds since the epoch of an HTTP date ("Sun, 06 Nov 1994 08:49:37
// GMT", and the older forms libcurl reads); -1 when it does not parse.
long long ParseHttpDate(std::string_view text);

// True for an ETag that names exactly one content: not empty and not weak
// ("W/" in front).
bool IsStrongEtag(std::string_view etag);

}  // namespace drive

#endif  // DRIVE_HTTP_VALUES_H_
