// The storage limit and applied configuration of one cache, shared by the
// manager, its cache objects and their stores.
//
// The manager writes it; stores read it on any thread. It is held in shared
// ownership so that an object the host keeps after its manager is gone goes
// on serving with the last configuration and limit in force.
#ifndef CACHE_CACHE_SETTINGS_H_
#define CACHE_CACHE_SETTINGS_H_

#include <array>
#include <atomic>
#include <mutex>

#include "cache/cache.h"

namespace cache {

// The configuration a cache starts with. The manager registers these values
// as the defaults of its configuration keys.
inline constexpr _CACHECONFIG kDefaultConfig = {
    3,          // rahit
    1048576,    // ramin
    67108864,   // ramax
    60000,      // readtimeout
    107374182,  // readfetchmax
    30000,      // clrperiod
    60,         // clrused
    3600,       // clrunused
    30,         // clroverused
    60,         // clroverunused
};

class CacheSettings final : public ICacheConfig {
  public:
    explicit CacheSettings(long long limit, const _CACHECONFIG& config = kDefaultConfig);
    CacheSettings(const CacheSettings&) = delete;
    CacheSettings& operator=(const CacheSettings&) = delete;
    virtual ~CacheSettings() = default;

    // The storage limit in bytes. Read and written without a lock: a change
    // racing a reader makes it see either value.
    long long GetQuota() override;
    void SetQuota(long long limit);

    // A consistent copy of the applied configuration; never half-applied.
    // Takes no lock: every read of a file asks for it, from any thread.
    _CACHECONFIG GetConfig() override;
    // Writers take a leaf lock among themselves.
    void SetConfig(const _CACHECONFIG& config);

  private:
    // The record's ten values, in its field order.
    using Values = std::array<long long, sizeof(_CACHECONFIG) / sizeof(long long)>;

    std::atomic<long long> limit_;
    std::mutex writeLock_;  // serialises SetConfig; a leaf lock
    // A sequence lock: odd while SetConfig changes `values_`, so a reader
    // that saw it odd, or saw it change during its copy, copies again.
    std::atomic<unsigned long long> version_{0};
    std::array<std::atomic<long long>, std::tuple_size_v<Values>> values_;
};

}  // namespace cache

#endif  // CACHE_CACHE_SETTINGS_H_
