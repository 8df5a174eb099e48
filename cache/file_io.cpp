#include "cache/file_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace cache {

int GetFileAttributes(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return kAttrNone;
    if (S_ISREG(st.st_mode)) return kAttrRegular;
    if (S_ISDIR(st.st_mode)) return kAttrDirectory;
    return kAttrNone;
}

bool CloseHandle(FILE* stream) {
    if (stream == nullptr) return false;
    fflush(stream);
    fclose(stream);
    return true;
}

bool ReadAt(FILE* stream, long long position, void* destination, size_t count, size_t* done) {
    const int fd = fileno(stream);
    auto* out = static_cast<char*>(destination);
    *done = 0;
    while (*done < count) {
        const ssize_t n = pread(fd, out + *done, count - *done, position + *done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;  // end of file
        *done += static_cast<size_t>(n);
    }
    return true;
}

bool WriteAt(FILE* stream, long long position, const void* source, size_t count, size_t* done) {
    const int fd = fileno(stream);
    const auto* in = static_cast<const char*>(source);
    *done = 0;
    while (*done < count) {
        const ssize_t n = pwrite(fd, in + *done, count - *done, position + *done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        *done += static_cast<size_t>(n);
    }
    return true;
}

bool WriteZerosAt(FILE* stream, long long position, size_t count) {
    static const char kZeros[kSectorSize] = {};
    size_t done = 0;
    return WriteAt(stream, position, kZeros, std::min(count, sizeof(kZeros)), &done);
}

long long StreamSize(FILE* stream) {
    if (stream == nullptr) return 0;
    struct stat st;
    if (fstat(fileno(stream), &st) != 0) return 0;
    return st.st_size;
}

std::vector<SectorSpan> DataSectors(FILE* stream, long long size) {
    std::vector<SectorSpan> spans;
    const int fd = fileno(stream);
    for (long long at = 0; at < size;) {
        const off_t data = lseek(fd, at, SEEK_DATA);
        if (data < 0) {
            // ENXIO: no data from `at` on. Anything else: holes cannot be
            // told apart here, so what is left counts as data.
            if (errno != ENXIO) spans.push_back({SectorOf(at), SectorCeil(size)});
            break;
        }
        if (data >= size) break;
        off_t hole = lseek(fd, data, SEEK_HOLE);
        if (hole < 0 || hole > size) hole = size;
        const SectorSpan span{SectorOf(data), SectorCeil(hole)};
        if (!spans.empty() && spans.back().end >= span.first) {
            spans.back().end = std::max(spans.back().end, span.end);
        } else {
            spans.push_back(span);
        }
        at = hole;
    }
    return spans;
}

}  // namespace cache
