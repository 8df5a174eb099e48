#include "hostkit/file_fetcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace hostkit {

namespace {

// Pieces end on the cache's sector boundaries.
constexpr long long kPieceSize = 65536;

}  // namespace

FileFetcher::FileFetcher(const std::string& path, FetcherOptions options)
    : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)), size_(0), options_(options) {
    struct stat st;
    if (fd_ < 0 || fstat(fd_, &st) != 0) {
        if (fd_ >= 0) close(fd_);
        throw std::runtime_error("cannot open " + path);
    }
    size_ = st.st_size;
}

FileFetcher::~FileFetcher() {
    close(fd_);
}

long long FileFetcher::GetHostHandle() {
    return options_.hostHandle;
}

void FileFetcher::ResetCounters() {
    calls_ = 0;
    bytes_ = 0;
}

bool FileFetcher::Stopped() const {
    return options_.stop != nullptr && options_.stop->load(std::memory_order_relaxed);
}

bool FileFetcher::WaitUntil(std::chrono::steady_clock::time_point due) const {
    constexpr auto kStep = std::chrono::milliseconds(50);
    for (auto now = std::chrono::steady_clock::now(); now < due;
         now = std::chrono::steady_clock::now()) {
        if (Stopped()) return false;
        std::this_thread::sleep_until(std::min(due, now + kStep));
    }
    return !Stopped();
}

AERROR FileFetcher::Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                          IFetchCallback* sink) {
    calls_.fetch_add(1);
    // Each piece is due at start + latency + (bytes so far) / bandwidth.
    using Ms = std::chrono::duration<double, std::milli>;
    const auto firstByte = std::chrono::steady_clock::now() +
                           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                               Ms(std::max(0.0, options_.latencyMs)));
    if (!WaitUntil(firstByte)) return AE_HANDLE_CLOSED;
    const long long end = std::min(offset + length, size_);
    std::vector<char> piece;
    for (long long position = offset; position < end;) {
        if ((handle && IsClosedState(handle->state)) || Stopped()) return AE_HANDLE_CLOSED;
        const long long pieceEnd = std::min(end, (position / kPieceSize + 1) * kPieceSize);
        const size_t count = static_cast<size_t>(pieceEnd - position);
        piece.resize(count);
        if (pread(fd_, piece.data(), count, position) != static_cast<ssize_t>(count)) {
            return AE_READ_FAILED;
        }
        if (options_.bytesPerSecond > 0) {
            const double seconds = static_cast<double>(pieceEnd - offset) / options_.bytesPerSecond;
            if (!WaitUntil(firstByte +
                           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                               std::chrono::duration<double>(seconds)))) {
                return AE_HANDLE_CLOSED;
            }
        }
        long written = 0;
        const AERROR result =
            sink->FetchWrite(position, piece.data(), static_cast<long>(count), &written);
        if (result != AE_OK) return result;
        bytes_.fetch_add(static_cast<long long>(count));
        position = pieceEnd;
    }
    return AE_OK;
}

}  // namespace hostkit
