// The host objects bound to the library, and the log bridge.
//
// `logger` and `aq` are read on every thread without a lock; the locks only
// serialise binding and unbinding (and, for `aql`, the hand-over of a job to
// the queue). The host keeps a bound object alive until it unbinds it and no
// thread is still using it.
#ifndef CACHE_BINDINGS_H_
#define CACHE_BINDINGS_H_

#include <atomic>
#include <mutex>

#include "cache/cache.h"

namespace cache {

extern std::mutex aql;                  // guards binding of `aq`
extern std::atomic<IAsyncQueue*> aq;    // the host's job queue, or null
extern std::mutex ll;                   // guards binding of `logger`
extern std::atomic<ILog*> logger;       // the host's logger, or null

// The logger bound right now, or null. Acquire pairs with the release of
// Cache_BindLogger, so the host's object is seen fully built.
inline ILog* CurrentLogger() { return logger.load(std::memory_order_acquire); }

}  // namespace cache

// Hands level, format and arguments to the host's LogV; formatting is the
// host's job. Does nothing when `log` is null. Takes no lock.
static inline void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
    if (log == nullptr) return;
    va_list args;
    va_start(args, format);
    log->LogV(level, format, args);
    va_end(args);
}

#endif  // CACHE_BINDINGS_H_
