#include "drive/cache_room.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <thread>

namespace drive {

namespace {

// A measurement younger than this is good enough: it costs a directory scan.
constexpr std::chrono::milliseconds kFresh{10};
constexpr long long kSectorBytes = 64 * 1024;
// How often a waiting fetcher looks again.
constexpr std::chrono::milliseconds kPoll{20};

// Bytes on disk of the regular files directly in `directory` (holes excluded).
long long DiskBytes(const std::string& directory) {
    DIR* files = opendir(directory.c_str());
    if (files == nullptr) return 0;
    long long total = 0;
    const int fd = dirfd(files);
    while (const dirent* entry = readdir(files)) {
        struct stat info;
        if (fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
            total += static_cast<long long>(info.st_blocks) * 512;
        }
    }
    closedir(files);
    return total;
}

}  // namespace

CacheRoom::CacheRoom(std::string directory, long long ceiling, std::chrono::milliseconds maxWait,
                     DriveLog* log)
    : directory_(std::move(directory)), ceiling_(ceiling), maxWait_(maxWait), log_(log) {}

long long CacheRoom::Measure() {
    const long long bytes = DiskBytes(directory_);
    std::lock_guard<std::mutex> guard(lock_);
    measuredAt_ = std::chrono::steady_clock::now();
    measured_ = bytes;
    addedSince_ = 0;
    return bytes;
}

long long CacheRoom::Estimate() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (std::chrono::steady_clock::now() - measuredAt_ < kFresh) {
            return measured_ + addedSince_;
        }
    }
    return Measure();
}

bool CacheRoom::LacksSpace(long long bytes) const {
    struct statvfs info;
    if (statvfs(directory_.c_str(), &info) != 0) return false;
    const long long free = static_cast<long long>(info.f_bavail) * info.f_frsize;
    return free < std::max(bytes, kSectorBytes);
}

void CacheRoom::Added(long long bytes) {
    std::lock_guard<std::mutex> guard(lock_);
    addedSince_ += bytes;
}

void CacheRoom::WaitForRoom(const std::function<bool()>& cancelled) {
    if (Estimate() <= ceiling_) {
        if (!holding_.load(std::memory_order_relaxed)) {
            holding_.store(true, std::memory_order_relaxed);
        }
        return;
    }
    if (!holding_.load(std::memory_order_relaxed)) return;
    const auto deadline = std::chrono::steady_clock::now() + maxWait_;
    while (!cancelled() && Measure() > ceiling_) {
        if (std::chrono::steady_clock::now() >= deadline) {
            if (holding_.exchange(false, std::memory_order_relaxed)) {
                log_->Info(
                    "The cache directory stays above %lld bytes: fetching on without "
                    "waiting for eviction",
                    ceiling_);
            }
            return;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

}  // namespace drive
