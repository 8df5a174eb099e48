#include "cache/file_io.h"

#include <sys/stat.h>
#include <unistd.h>

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

long long StreamSize(FILE* stream) {
    if (stream == nullptr) return 0;
    struct stat st;
    if (fstat(fileno(stream), &st) != 0) return 0;
    return st.st_size;
}

}  // namespace cache
