#include "cache/cache_settings.h"

namespace cache {

CacheSettings::CacheSettings(long long limit, const _CACHECONFIG& config)
    : limit_(limit), config_(config) {}

long long CacheSettings::GetQuota() { return limit_.load(std::memory_order_relaxed); }

void CacheSettings::SetQuota(long long limit) { limit_.store(limit, std::memory_order_relaxed); }

_CACHECONFIG CacheSettings::GetConfig() {
    std::lock_guard<std::mutex> guard(lock_);
    return config_;
}

void CacheSettings::SetConfig(const _CACHECONFIG& config) {
    std::lock_guard<std::mutex> guard(lock_);
    config_ = config;
}

}  // namespace cache
