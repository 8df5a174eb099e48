// A remote file held in memory, with the host's fetcher over it, for tests
// that compare every byte read with what the remote holds.
//
// The bytes can be replaced at any time (a host that uploaded a written
// copy); a fetch delivers from the version it started with. Pieces are
// whole sectors (the last one may end at the end of the file), `pieceSectors`
// at a time, so a fetcher can deliver in odd sector-aligned pieces, each
// call after a latency the test chooses.
//
// Thread-safe: Fetch may run on many threads at once while a test changes
// the bytes.
#ifndef CACHE_TESTS_MODEL_REMOTE_H_
#define CACHE_TESTS_MODEL_REMOTE_H_

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "cache/cache.h"

namespace modeltest {

constexpr long long kSector = 65536;

using Bytes = std::vector<char>;

// `count` pseudo-random bytes, the same ones for the same `seed`.
inline Bytes RandomBytes(long long count, uint64_t seed) {
    Bytes bytes(static_cast<size_t>(count));
    std::mt19937_64 random(seed);
    for (size_t i = 0; i < bytes.size(); i += 8) {
        const uint64_t word = random();
        std::memcpy(bytes.data() + i, &word, std::min<size_t>(8, bytes.size() - i));
    }
    return bytes;
}

// The bytes of `bytes` in [offset, offset + length), clipped at its end.
inline Bytes SliceOf(const Bytes& bytes, long long offset, long long length) {
    const long long size = static_cast<long long>(bytes.size());
    if (offset < 0 || offset >= size || length <= 0) return {};
    const long long end = offset + std::min(length, size - offset);
    return Bytes(bytes.begin() + offset, bytes.begin() + end);
}

// Lays `piece` over `image` at `offset`, growing the image with zeros.
inline void Overlay(Bytes& image, long long offset, const Bytes& piece) {
    image.resize(std::max(image.size(), static_cast<size_t>(offset) + piece.size()), '\0');
    std::copy(piece.begin(), piece.end(), image.begin() + offset);
}

// The index of the first byte where `got` differs from `want`, or -1 when
// they are equal (a length difference counts at the shorter length).
inline long long FirstDifference(const Bytes& got, const Bytes& want) {
    const auto [g, w] = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
    if (g == got.end() && w == want.end()) return -1;
    return g - got.begin();
}

class ModelRemote final : public IFetch {
  public:
    explicit ModelRemote(Bytes bytes, long long pieceSectors = 1, long long latencyMs = 0)
        : bytes_(std::make_shared<const Bytes>(std::move(bytes))),
          pieceSectors_(std::max(1LL, pieceSectors)),
          latencyMs_(latencyMs) {}
    ModelRemote(const ModelRemote&) = delete;
    ModelRemote& operator=(const ModelRemote&) = delete;
    virtual ~ModelRemote() = default;

    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        if (latencyMs_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(latencyMs_));
        const std::shared_ptr<const Bytes> bytes = Current();
        const long long size = static_cast<long long>(bytes->size());
        const long long end = std::min(offset + std::max(0LL, length), size);
        for (long long position = std::max(0LL, offset); position < end;) {
            if (handle && std::atomic_ref<int32_t>(handle->state).load() > 3) {
                return AE_HANDLE_CLOSED;
            }
            const long long pieceEnd =
                std::min(end, (position / kSector + pieceSectors_) * kSector);
            long written = 0;
            const AERROR result =
                sink->FetchWrite(position, bytes->data() + position,
                                 static_cast<long>(pieceEnd - position), &written);
            if (result != AE_OK) return result;
            position = pieceEnd;
        }
        return AE_OK;
    }
    long long GetHostHandle() override { return 0x5eed; }

    std::shared_ptr<const Bytes> Current() const {
        std::lock_guard<std::mutex> guard(lock_);
        return bytes_;
    }
    void Replace(Bytes bytes) {
        auto next = std::make_shared<const Bytes>(std::move(bytes));
        std::lock_guard<std::mutex> guard(lock_);
        bytes_ = std::move(next);
    }

  private:
    mutable std::mutex lock_;  // guards bytes_
    std::shared_ptr<const Bytes> bytes_;
    const long long pieceSectors_;
    const long long latencyMs_;
};

}  // namespace modeltest

#endif  // CACHE_TESTS_MODEL_REMOTE_H_
