// What the fuzz targets share: a reader of the fuzzer's bytes, and a host
// (quiet logger, thread-pool queue, cache directory) made once per process.
#ifndef CACHE_FUZZ_FUZZ_HOST_H_
#define CACHE_FUZZ_FUZZ_HOST_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "cache/cache.h"
#include "hostkit/line_logger.h"
#include "hostkit/read_range.h"
#include "hostkit/scratch.h"
#include "hostkit/thread_pool_queue.h"

namespace fuzzhost {

// Takes values from the front of the input; past its end every value is 0.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Empty() const { return position_ >= size_; }
    uint8_t Byte() { return Empty() ? 0 : data_[position_++]; }
    template <class T>
    T Value() {
        T value{};
        const size_t count = std::min(sizeof(T), size_ - std::min(size_, position_));
        std::memcpy(&value, data_ + position_, count);
        position_ += count;
        return value;
    }
    // Bytes up to the next `separator` (consumed) or the end.
    std::string Text(char separator) {
        std::string text;
        while (!Empty() && static_cast<char>(data_[position_]) != separator) {
            text += static_cast<char>(data_[position_++]);
        }
        if (!Empty()) ++position_;
        return text;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

// A host bound for the whole process, with a scratch directory in `parent`
// (the temporary directory when empty) whose subdirectory "cache" is the
// cache directory.
struct Host {
    explicit Host(const std::string& parent) : dir("cache-fuzz-", parent) {
        Cache_BindLogger(&log);
        Cache_BindAsyncQ(&queue);
        if (InitCache(cachePath.c_str(), 1ULL << 30, &cache) != AE_OK) std::abort();
    }
    hostkit::ScratchDir dir;
    const std::string cachePath = dir.Sub("cache");
    hostkit::LineLogger log{nullptr, false};
    hostkit::ThreadPoolQueue queue{2};
    ICache* cache = nullptr;
};

// The process's host, made in `parent` by the first call; never destroyed,
// so that no job outlives its queue.
inline Host& TheHost(const std::string& parent = "") {
    static Host* host = new Host(parent);
    return *host;
}

}  // namespace fuzzhost

#endif  // CACHE_FUZZ_FUZZ_HOST_H_
