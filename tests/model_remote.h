// A remote file held in memory, with the host's fetcher over it, for tests
// that compare every byte read with what the remote holds.
//
// The bytes can be replaced at any time (a host that uploaded a written
// copy); a fetch delivers from the version it started with. Pieces are
// whole sectors (the last one may end at the end of the file), `pieceSectors`
// at a time, so a fetcher can deliver in odd sector-aligned pieces. Faults a
// test chooses: a latency per call and a stall until released.
//
// Thread-safe: Fetch may run on many threads at once while a test changes
// the bytes or the faults.
#ifndef CACHE_TESTS_MODEL_REMOTE_H_
#define CACHE_TESTS_MODEL_REMOTE_H_

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
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
    virtual ~ModelRemote() { Release(); }

    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        calls_.fetch_add(1, std::memory_order_relaxed);
        if (latencyMs_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(latencyMs_));
        WaitWhileStalled();
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

    // Later calls wait (10 s at most) until Release.
    void Stall() {
        std::lock_guard<std::mutex> guard(lock_);
        stalled_ = true;
    }
    void Release() {
        std::lock_guard<std::mutex> guard(lock_);
        stalled_ = false;
        wake_.notify_all();
    }
    // True once `count` calls wait at the stall (10 s at most).
    bool WaitForStalled(int count) {
        std::unique_lock<std::mutex> guard(lock_);
        return wake_.wait_for(guard, std::chrono::seconds(10), [&] { return waiting_ >= count; });
    }
    long long Calls() const { return calls_.load(std::memory_order_relaxed); }

  private:
    void WaitWhileStalled() {
        std::unique_lock<std::mutex> guard(lock_);
        ++waiting_;
        wake_.notify_all();
        wake_.wait_for(guard, std::chrono::seconds(10), [&] { return !stalled_; });
        --waiting_;
    }

    mutable std::mutex lock_;  // guards bytes_, stalled_, waiting_
    std::condition_variable wake_;
    std::shared_ptr<const Bytes> bytes_;
    bool stalled_ = false;
    int waiting_ = 0;
    const long long pieceSectors_;
    const long long latencyMs_;
    std::atomic<long long> calls_{0};
};

}  // namespace modeltest

#endif  // CACHE_TESTS_MODEL_REMOTE_H_
