#include "cache/cache_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "cache/file_io.h"
#include "common/utils.h"

namespace cache {

std::shared_ptr<const CacheDirectory> CacheDirectory::Open(const std::string& path) {
    std::string target = path;
    while (target.size() > 1 && target.back() == '/') target.pop_back();
    const int descriptor = open(target.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    return std::shared_ptr<const CacheDirectory>(new CacheDirectory(descriptor));
}

CacheDirectory::CacheDirectory(int descriptor) : descriptor_(descriptor) {}

CacheDirectory::~CacheDirectory() {
    close(descriptor_);
}

int CacheDirectory::Attributes(const std::string& name) const {
    struct stat st;
    if (fstatat(descriptor_, name.c_str(), &st, 0) != 0) return kAttrNone;
    if (S_ISREG(st.st_mode)) return kAttrRegular;
    if (S_ISDIR(st.st_mode)) return kAttrDirectory;
    return kAttrNone;
}

CacheFileName CacheDirectory::NameFile(const std::string& name) const {
    CacheFileName result;
    const std::vector<std::string> parts = split(name, ':');
    result.displayName = parts.size() > 1 ? parts[1] : name;

    std::string fileName = result.displayName;
    for (char& c : fileName) {
        if (c == '/') c = '_';
    }
    const std::vector<std::string> pieces = split(fileName, '.');
    std::string base;
    for (size_t i = 0; i + 1 < pieces.size(); ++i) {
        if (i > 0) base += ".";
        base += pieces[i];
    }
    const std::string extension = pieces.empty() ? std::string() : pieces.back();

    std::string candidate = fileName;
    for (long long n = 0; Attributes(candidate) != kAttrNone; ++n) {
        candidate = base + "[" + std::to_string(n) + "]." + extension;
    }
    result.fileName = candidate;
    return result;
}

FILE* CacheDirectory::CreateFile(const std::string& name, CacheFileName* chosen) const {
    for (;;) {
        *chosen = NameFile(name);
        const int fd = openat(descriptor_, chosen->fileName.c_str(),
                              O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            struct stat st;
            FILE* stream = fstat(fd, &st) == 0 ? fdopen(fd, "w+") : nullptr;
            if (stream == nullptr) {
                const int error = errno;
                unlinkat(descriptor_, chosen->fileName.c_str(), 0);
                close(fd);
                errno = error;
                return nullptr;
            }
            chosen->device = st.st_dev;
            chosen->inode = st.st_ino;
            return stream;
        }
        // Lost the name to a store created at the same moment: its file is
        // a regular one. Anything else at the name is refused.
        const int error = errno;
        if (error != EEXIST || Attributes(chosen->fileName) != kAttrRegular) {
            errno = error;
            return nullptr;
        }
    }
}

bool CacheDirectory::IsRemoved() const {
    struct stat st;
    return fstat(descriptor_, &st) == 0 && st.st_nlink == 0;
}

void CacheDirectory::RemoveFile(const CacheFileName& file) const {
    if (file.fileName.empty()) return;
    struct stat st;
    if (fstatat(descriptor_, file.fileName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (st.st_dev != file.device || st.st_ino != file.inode) return;
    unlinkat(descriptor_, file.fileName.c_str(), 0);
}

}  // namespace cache
