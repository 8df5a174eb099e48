// What the stores share about sectors and cache files: sector arithmetic
// and the ranges a store accepts, the stream functions and positioned I/O on
// a stream's descriptor.
#ifndef CACHE_FILE_IO_H_
#define CACHE_FILE_IO_H_

#include <climits>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace cache {

// Every remote file is cut into sectors of this many bytes; a sector is
// named by the remote offset of its first byte.
inline constexpr long long kSectorSize = 65536;

// The sector that holds remote offset `offset` (signed, rounds toward zero
// like the division it stands for).
inline long long SectorOf(long long offset) {
    return offset - offset % kSectorSize;
}

// The start of the last whole sector that 64-bit offsets can name. Valid
// ranges end at or below it, so rounding an end up to a sector never
// overflows.
inline constexpr long long kOffsetLimit = LLONG_MAX - LLONG_MAX % kSectorSize;

// `offset` rounded up to a sector boundary. REQUIRES: 0 <= offset <=
// kOffsetLimit.
inline long long SectorCeil(long long offset) {
    const long long start = SectorOf(offset);
    return start == offset ? start : start + kSectorSize;
}

// True when [offset, offset + length) is a remote range a store can act on:
// offset and length not negative, and the range ending at or below
// kOffsetLimit. The stores refuse anything else before touching their state.
inline bool IsValidRange(long long offset, long long length) {
    return offset >= 0 && length >= 0 && offset <= kOffsetLimit && length <= kOffsetLimit - offset;
}

// A valid range to move through `buffer`: IsValidRange, and a buffer
// whenever there are bytes to move.
inline bool IsValidTransfer(long long offset, long long length, const void* buffer) {
    return IsValidRange(offset, length) && (buffer != nullptr || length == 0);
}

// a + b, or the nearest of LLONG_MIN and LLONG_MAX when the sum lies beyond
// them: for totals of sizes that may each be near the end of the range.
inline long long SaturatingAdd(long long a, long long b) {
    long long sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b > 0 ? LLONG_MAX : LLONG_MIN;
}

// GetFileAttributes results.
inline constexpr int kAttrNone = -1;
inline constexpr int kAttrDirectory = 16;
inline constexpr int kAttrRegular = 128;

// kAttrRegular for a regular file, kAttrDirectory for a directory and
// kAttrNone for anything else or when `path` cannot be stat'ed.
int GetFileAttributes(const std::string& path);

// Flushes and closes `stream`; false only for a null stream.
bool CloseHandle(FILE* stream);

// pread / pwrite of `count` bytes at `position` on the stream's descriptor,
// retried until done, the end of the file (reads) or an error. They neither
// use nor move the stream's position, so threads never disturb each other.
// The count moved goes to *done; false on an error (errno is set). Writes
// must all go through WriteAt so the stream's buffer never holds data.
bool ReadAt(FILE* stream, long long position, void* destination, size_t count, size_t* done);
bool WriteAt(FILE* stream, long long position, const void* source, size_t count, size_t* done);
// WriteAt of `count` zero bytes, at most one sector.
bool WriteZerosAt(FILE* stream, long long position, size_t count);

// The size of the file behind `stream` without moving its position; 0 when
// it cannot be determined.
long long StreamSize(FILE* stream);

// A run of whole sectors [first, end) of a file.
struct SectorSpan {
    long long first;
    long long end;
};

// The runs of sectors of the first `size` bytes of the file behind `stream`
// that hold data, found with SEEK_DATA / SEEK_HOLE, in ascending order: the
// work follows the file's extents, not its size. A sector counts when any of
// its bytes lies in a data extent. Where the file system cannot tell holes
// apart, the whole size is one run. Moves the descriptor's position.
// REQUIRES: 0 <= size <= kOffsetLimit.
std::vector<SectorSpan> DataSectors(FILE* stream, long long size);

}  // namespace cache

#endif  // CACHE_FILE_IO_H_
