// The exported functions: host bindings and the registry of caches by
// directory.
#include <memory>
#include <string>
#include <unordered_map>

#include "cache/bindings.h"
#include "cache/cache_manager.h"

namespace cache {

// Definition order is initialisation order: the binding locks first.
std::mutex aql;
std::atomic<IAsyncQueue*> aq{nullptr};
std::mutex ll;
std::atomic<ILog*> logger{nullptr};

// The registry of caches by directory path, exactly as the host passed it.
// It holds the only owner of each Cache, so erasing an entry destroys the
// manager. `cl` is held across whole registry calls, construction and
// destruction of a Cache included; no other lock of the library is held
// when it is taken. Defined after `cl`, so it is destroyed first at unload,
// ending every cache still registered.
std::mutex cl;
std::unordered_map<std::string, std::shared_ptr<Cache>> caches;

}  // namespace cache

using cache::aq;
using cache::aql;
using cache::caches;
using cache::cl;
using cache::ll;
using cache::logger;

extern "C" {

bool Cache_BindLogger(ILog* log) {
    if (log == nullptr) return false;
    std::lock_guard<std::mutex> guard(ll);
    logger.store(log, std::memory_order_release);
    return true;
}

void Cache_UnbindLogger() {
    std::lock_guard<std::mutex> guard(ll);
    logger.store(nullptr, std::memory_order_release);
}

bool Cache_BindAsyncQ(IAsyncQueue* queue) {
    if (queue == nullptr) return false;
    std::lock_guard<std::mutex> guard(aql);
    aq.store(queue, std::memory_order_release);
    return true;
}

void Cache_UnbindAsyncQ() {
    std::lock_guard<std::mutex> guard(aql);
    aq.store(nullptr, std::memory_order_release);
}

AERROR InitCache(const char* path, unsigned long long limit, ICache** out) {
    if (path == nullptr || out == nullptr) {
        __LOG__A(cache::CurrentLogger(), LL_ERROR | LL_CACHE, "Init cache failed : %s",
                 "null argument");
        return AE_NOT_FOUND;
    }
    std::lock_guard<std::mutex> guard(cl);
    const std::string key(path);
    if (auto found = caches.find(key); found != caches.end()) {
        // Null when an earlier InitCache of this path failed: its entry stays
        // until ReleaseCache removes it.
        *out = found->second.get();
        return AE_OK;
    }
    std::shared_ptr<cache::Cache>& entry = caches[key];
    try {
        entry = std::make_shared<cache::Cache>(path, limit);
    } catch (AERROR error) {
        return error;
    }
    *out = entry.get();
    return AE_OK;
}

AERROR ReleaseCache(const char* path) {
    if (path == nullptr) return AE_NOT_FOUND;
    std::lock_guard<std::mutex> guard(cl);
    caches.erase(path);
    return AE_OK;
}

}  // extern "C"
