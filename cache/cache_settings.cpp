#include "cache/cache_settings.h"

#include <bit>

namespace cache {

CacheSettings::CacheSettings(long long limit, const _CACHECONFIG& config) : limit_(limit) {
    SetConfig(config);
}

long long CacheSettings::GetQuota() {
    return limit_.load(std::memory_order_relaxed);
}

void CacheSettings::SetQuota(long long limit) {
    limit_.store(limit, std::memory_order_relaxed);
}

// A reader copies the values between two loads of the version and keeps the
// copy when the version was even and unchanged. The values are read with
// acquire and written with release, so a reader that sees any new value
// also sees the odd version stored before it.
_CACHECONFIG CacheSettings::GetConfig() {
    Values copy;
    for (;;) {
        const unsigned long long before = version_.load(std::memory_order_acquire);
        for (size_t i = 0; i < copy.size(); ++i) {
            copy[i] = values_[i].load(std::memory_order_acquire);
        }
        if (before % 2 == 0 && version_.load(std::memory_order_relaxed) == before) break;
    }
    return std::bit_cast<_CACHECONFIG>(copy);
}

void CacheSettings::SetConfig(const _CACHECONFIG& config) {
    std::lock_guard<std::mutex> guard(writeLock_);
    const Values values = std::bit_cast<Values>(config);
    version_.fetch_add(1, std::memory_order_relaxed);
    for (size_t i = 0; i < values.size(); ++i) {
        values_[i].store(values[i], std::memory_order_release);
    }
    version_.fetch_add(1, std::memory_order_release);
}

}  // namespace cache
