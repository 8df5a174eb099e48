#include "cache/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <vector>

#include "common/utils.h"

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

namespace {

// The remote name and display name of `name`, and the first free cache file
// name for it in `cacheDir`.
CacheFileName NameCacheFile(const std::string& cacheDir, const std::string& name) {
    static const std::regex colon(":");
    static const std::regex dot("\\.");
    CacheFileName result;
    const std::vector<std::string> parts = split(name, colon);
    result.displayName = parts.size() > 1 ? parts[1] : name;

    std::string fileName = result.displayName;
    for (char& c : fileName) {
        if (c == '/') c = '_';
    }
    const std::vector<std::string> pieces = split(fileName, dot);
    std::string base;
    for (size_t i = 0; i + 1 < pieces.size(); ++i) {
        if (i > 0) base += ".";
        base += pieces[i];
    }
    const std::string extension = pieces.empty() ? std::string() : pieces.back();

    std::string candidate = fileName;
    for (long long n = 0; GetFileAttributes(cacheDir + candidate) != kAttrNone; ++n) {
        candidate = base + "[" + std::to_string(n) + "]." + extension;
    }
    result.cachePath = cacheDir + candidate;
    return result;
}

}  // namespace

FILE* CreateCacheFile(const std::string& cacheDir, const std::string& name, CacheFileName* chosen) {
    for (;;) {
        *chosen = NameCacheFile(cacheDir, name);
        const char* path = chosen->cachePath.c_str();
        const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            FILE* stream = fdopen(fd, "w+");
            if (stream == nullptr) close(fd);
            return stream;
        }
        // Lost the name to a store created at the same moment: its file is
        // a regular one. Anything else at the path is refused.
        const int error = errno;
        if (error != EEXIST || GetFileAttributes(chosen->cachePath) != kAttrRegular) {
            errno = error;
            return nullptr;
        }
    }
}

}  // namespace cache
