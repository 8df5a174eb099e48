// The storage limit of a cache and its quota manager thread.
// statfs lives in <sys/mount.h> on macOS and in <sys/vfs.h> on Linux.
#if defined(__APPLE__)
#include <sys/mount.h>
#else
#include <sys/vfs.h>
#endif

#include <algorithm>
#include <chrono>
#include <climits>
#include <string>

#include "cache/bindings.h"
#include "cache/cache_manager.h"
#include "cache/cache_obj.h"
#include "cache/file_io.h"
#include "common/chrono.h"

namespace cache {

long long Cache::GetLimit() {
    return settings->GetQuota();
}

long long Cache::GetQuota() {
    return settings->GetQuota();
}

void Cache::AdjustLimit() {
    struct statfs disk;
    if (statfs(directory.c_str(), &disk) != 0) return;
    // Free blocks include those kept for the superuser; the cache's own
    // files count as space it may use.
    unsigned long long freeBytes = 0;
    if (__builtin_mul_overflow(static_cast<unsigned long long>(disk.f_bsize),
                               static_cast<unsigned long long>(disk.f_bfree), &freeBytes)) {
        freeBytes = LLONG_MAX;
    }
    const long long space =
        SaturatingAdd(static_cast<long long>(std::min<unsigned long long>(freeBytes, LLONG_MAX)),
                      ReadonlyBytes(CopyObjects()));
    LogText(LL_DETAIL | LL_CACHE,
            "Cache path " + directory + ", " + std::to_string(space) + " bytes left");
    // A limit that does not fit claims half of what is there, which may be
    // less than the minimum the other paths enforce.
    if (GetLimit() > space) settings->SetQuota(space / 2);
}

AERROR Cache::SetLimit(unsigned long long limit) {
    if (limit < static_cast<unsigned long long>(kMinimumLimit)) {
        // The number is the limit in force, not the rejected request.
        const std::string text = "Change cache storage limit requested but too small : Requested " +
                                 std::to_string(GetLimit()) + " bytes";
        __LOG__A(CurrentLogger(), LL_ERROR | LL_CACHE, "%s", text.c_str());
        return AE_LIMIT_TOO_SMALL;
    }
    settings->SetQuota(static_cast<long long>(limit));
    AdjustLimit();
    const std::string text = "Storage limit changed : " + std::to_string(GetLimit()) + " bytes";
    __LOG__A(CurrentLogger(), LL_INFO | LL_CACHE, "%s", text.c_str());
    return AE_OK;
}

void Cache::RunQuotaManager(std::string quotaDirectory) {
    __LOG__A(CurrentLogger(), LL_DETAIL | LL_CACHE, "Cache quota manager started");
    Chrono sinceLastPass;
    while (!stopRequest.load(std::memory_order_relaxed)) {
        // Unsigned, so a negative period never comes round.
        const _CACHECONFIG current = GetConfig();
        if (static_cast<unsigned long long>(sinceLastPass.elapsed()) >
            static_cast<unsigned long long>(current.clrperiod)) {
            ClearOldCaches(quotaDirectory);
            // The next pass is one full period after this one ends.
            sinceLastPass.reset();
        }
        std::unique_lock<std::mutex> guard(quotaLock);
        quotaWake.wait_for(guard, std::chrono::milliseconds(kQuotaCycleMs),
                           [this] { return stopRequest.load(std::memory_order_relaxed); });
    }
    __LOG__A(CurrentLogger(), LL_DETAIL | LL_CACHE, "Cache quota manager stopped");
}

void Cache::ClearOldCaches(const std::string& quotaDirectory) {
    const std::vector<std::shared_ptr<CacheObj>> objects = CopyObjects();
    const long long total = ReadonlyBytes(objects);
    const long long limit = GetLimit();
    LogText(LL_DETAIL | LL_CACHE, "[CACHE] [" + quotaDirectory +
                                      "] Total cache : " + std::to_string(total) +
                                      "(limits : " + std::to_string(limit) + ")");
    const bool overLimit = total > limit;
    for (const std::shared_ptr<CacheObj>& object : objects) object->ClearOldCache(overLimit);
}

}  // namespace cache
