// The exported functions: the bindings of the host's logger and job queue.
#include "cache/bindings.h"

namespace cache {

// Definition order is initialisation order: the binding locks first.
std::mutex aql;
std::atomic<IAsyncQueue*> aq{nullptr};
std::mutex ll;
std::atomic<ILog*> logger{nullptr};


}  // namespace cache

using cache::aq;
using cache::aql;
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

}  // extern "C"
