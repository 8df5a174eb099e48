// The Content-Range header of a partial response, and whether it answers the
// range a request asked for.
//
// Pure functions; thread-safe.
#ifndef DRIVE_CONTENT_RANGE_H_
#define DRIVE_CONTENT_RANGE_H_

#include <optional>
#include <string_view>

namespace drive {

struct ContentRange {
    long long first = 0;   // offset of the first byte in the body
    long long last = 0;    // offset of the last byte in the body
    long long total = -1;  // size of the whole file; -1 for "*"
};

// The value of a Content-Range header ("bytes 0-99/1000" or
// "bytes 0-99/*"); nullopt when it is malformed or not a byte range.
std::optional<ContentRange> ParseContentRange(std::string_view value);

// True when `range` covers exactly [offset, offset + length) of a file of
// `fileSize` bytes, and the server reports that size (when it reports one).
// Anything else means the server sent other bytes than those asked for.
bool RangeMatches(const ContentRange& range, long long offset, long long length,
                  long long fileSize);

}  // namespace drive

#endif  // DRIVE_CONTENT_RANGE_H_
