// What the host-driven tests share: a private temporary directory, a
// "remote" file of pseudo-random bytes, a handle record and whole-range
// reads through a cache object. Only the public header and the host kit are
// used, so a test host that loads the library with dlopen can use it too.
#ifndef CACHE_TESTS_TEST_HOST_H_
#define CACHE_TESTS_TEST_HOST_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cache/cache.h"

namespace testhost {

// A fresh directory under the test temporary directory, removed with
// everything in it when the object goes.
class TempDir {
  public:
    TempDir() {
        std::string pattern = ::testing::TempDir() + "cachetest-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string Sub(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Writes `size` pseudo-random bytes to `path` and returns them.
inline std::vector<char> WriteRandomFile(const std::string& path, size_t size, uint64_t seed = 42) {
    std::mt19937_64 random(seed);
    std::vector<char> bytes(size);
    for (char& byte : bytes) byte = static_cast<char>(random() >> 56);
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
    return bytes;
}

// An open handle of the host, as it passes one with every request.
inline std::shared_ptr<_FS_HANDLE> OpenHandle(long long hostHandle = 0x5eed) {
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 1;
    handle->hostHandle = hostHandle;
    return handle;
}

struct ReadResult {
    AERROR error = AE_OK;
    long long transferred = 0;
    std::vector<char> bytes;
};

// One read of [offset, offset + length) through `io`.
inline ReadResult ReadRange(ICacheIO& io, IFetch* fetch, long long fileSize, long long offset,
                            long long length, long long timeout = 0) {
    ReadResult result;
    result.bytes.assign(static_cast<size_t>(length), '\0');
    _READDATA request{};
    request.buffer = result.bytes.data();
    request.offset = offset;
    request.length = length;
    request.handle = OpenHandle();
    request.fileSize = fileSize;
    request.fetch = fetch;
    request.timeout = timeout;
    result.error = io.Read(&request);
    result.transferred = request.transferred;
    result.bytes.resize(static_cast<size_t>(std::max(0LL, request.transferred)));
    return result;
}

struct WriteResult {
    AERROR error = AE_OK;
    long long transferred = 0;
    long long fileSize = 0;  // as the write left it in the record
};

// One write of `text` at `offset` through `io`; the record's file size
// starts as `fileSize`.
inline WriteResult WriteText(ICacheIO& io, IFetch* fetch, long long offset, const std::string& text,
                             long long timeout = 0, long long fileSize = -7) {
    _WRITEDATA request{};
    request.buffer = text.data();
    request.offset = offset;
    request.length = static_cast<long long>(text.size());
    request.handle = OpenHandle();
    request.fileSize = fileSize;
    request.fetch = fetch;
    request.timeout = timeout;
    WriteResult result;
    result.error = io.Write(&request);
    result.transferred = request.transferred;
    result.fileSize = request.fileSize;
    return result;
}

// The bytes `remote` holds in [offset, offset + length), clipped at its end.
inline std::vector<char> Slice(const std::vector<char>& remote, long long offset,
                               long long length) {
    const long long end =
        std::min<long long>(offset + length, static_cast<long long>(remote.size()));
    if (offset >= end) return {};
    return std::vector<char>(remote.begin() + offset, remote.begin() + end);
}

// Regular files in `directory` and their total apparent size.
struct DirectoryUsage {
    int files = 0;
    long long bytes = 0;
};

inline DirectoryUsage UsageOf(const std::string& directory) {
    DirectoryUsage usage;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (!entry.is_regular_file(error)) continue;
        ++usage.files;
        usage.bytes += static_cast<long long>(entry.file_size(error));
    }
    return usage;
}

}  // namespace testhost

#endif  // CACHE_TESTS_TEST_HOST_H_
