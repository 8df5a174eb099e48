#include "cache/cache_manager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

#include "cache/bindings.h"
#include "cache/cache_obj.h"
#include "cache/file_io.h"
#include "common/utils.h"

namespace cache {

namespace {

// The configuration keys in the order they are registered, with their JSON
// paths and the field of the applied record each one fills. A key's default
// is that field of kDefaultConfig.
struct ConfigKey {
    const char* key;
    const char* path;
    long long _CACHECONFIG::*field;
};

constexpr ConfigKey kConfigKeys[] = {
    {"rahit", "/cache/ra/hit", &_CACHECONFIG::rahit},
    {"ramin", "/cache/ra/min", &_CACHECONFIG::ramin},
    {"ramax", "/cache/ra/max", &_CACHECONFIG::ramax},
    {"readtimeout", "/cache/read/timeout", &_CACHECONFIG::readtimeout},
    {"readfetchmax", "/cache/read/maxfetch", &_CACHECONFIG::readfetchmax},
    {"clrperiod", "/cache/clear/period", &_CACHECONFIG::clrperiod},
    {"clrused", "/cache/clear/usedblock", &_CACHECONFIG::clrused},
    {"clrunused", "/cache/clear/unusedblock", &_CACHECONFIG::clrunused},
    {"clroverused", "/cache/clear/over/usedblock", &_CACHECONFIG::clroverused},
    {"clroverunused", "/cache/clear/over/unusedblock", &_CACHECONFIG::clroverunused},
};

}  // namespace

void Cache::LogText(LOGLEVEL level, const std::string& text) {
    std::string format;
    format.reserve(text.size());
    for (char c : text) {
        format += c;
        if (c == '%') format += '%';
    }
    __LOG__A(CurrentLogger(), level, format.c_str());
}

bool CreateDirectory(const char* path, void* /*attributes*/) {
    if (mkdir(path, 0755) == 0 || errno == EEXIST) return true;
    errno = ENOTDIR;
    return false;
}

Cache::Cache(const char* path, unsigned long long limit)
    : settings(
          std::make_shared<CacheSettings>(std::max(static_cast<long long>(limit), kMinimumLimit))),
      directory(MakeDirectories(path)),
      directoryHandle(CacheDirectory::Open(directory)) {
    if (!directoryHandle) throw AE_CREATE_DIRECTORY_FAILED;
    usedBytes.store(0);
    AdjustLimit();
    LogText(LL_INFO | LL_CACHE, "Cache initialized : " + directory +
                                    ", Storage limit : " + std::to_string(GetLimit()) + " bytes");
    for (const ConfigKey& key : kConfigKeys) {
        config.AddConfiguration(key.key, key.path, std::to_string(kDefaultConfig.*key.field));
    }
    ApplyConfig();
    quotaThread = std::thread(&Cache::RunQuotaManager, this, directory);
}

Cache::~Cache() {
    __LOG__A(CurrentLogger(), LL_INFO | LL_CACHE, "Uninitialize cache...");
    {
        // Set under the lock the thread waits with, so the wake-up cannot
        // fall between its check and its wait.
        std::lock_guard<std::mutex> guard(quotaLock);
        stopRequest.store(true, std::memory_order_relaxed);
    }
    quotaWake.notify_all();
    if (quotaThread.joinable()) quotaThread.join();
    __LOG__A(CurrentLogger(), LL_INFO | LL_CACHE, "Cache uninitialized");
}

std::string Cache::MakeDirectories(const std::string& path) {
    // An empty text names no directory, as mkdir("") would report.
    if (path.empty()) throw AE_CREATE_DIRECTORY_FAILED;
    std::string built = "/";
    for (const std::string& piece : split(path, '/')) {
        if (piece.empty()) continue;
        built += piece;
        built += '/';
        if (!CreateDirectory(built.c_str(), nullptr)) throw AE_CREATE_DIRECTORY_FAILED;
    }
    return built;
}

long long Cache::GetUsedBytes() {
    return usedBytes.load();
}

std::shared_ptr<ICacheObj> Cache::Open(const char* name, char mode, long long fileSize,
                                       IFetch* fetch) {
    if (name == nullptr) {
        __LOG__A(CurrentLogger(), LL_ERROR | LL_CACHE, "Open cache failed : %s", "null name");
        throw AE_NOT_FOUND;
    }
    std::lock_guard<std::mutex> guard(tableLock);
    const std::string key(name);
    if (auto found = table.find(key); found != table.end()) return found->second;

    // The entry goes in before the object is built and stays empty when the
    // construction throws.
    std::shared_ptr<CacheObj>& entry = table[key];
    const std::string baseName = split(key, '\\').back();
    entry = std::make_shared<CacheObj>(CurrentDirectoryNoLock(), baseName, mode, fileSize, fetch,
                                       settings, key);
    return entry;
}

const std::shared_ptr<const CacheDirectory>& Cache::CurrentDirectoryNoLock() {
    if (!directoryHandle->IsRemoved()) return directoryHandle;
    try {
        MakeDirectories(directory);
    } catch (AERROR) {
        return directoryHandle;
    }
    if (auto reopened = CacheDirectory::Open(directory)) {
        directoryHandle = std::move(reopened);
        LogText(LL_INFO | LL_CACHE, "Cache directory made again : " + directory);
    }
    return directoryHandle;
}

AERROR Cache::Close(const char* name) {
    if (name == nullptr) return AE_NOT_FOUND;
    // Released after `tableLock`: the last owner's destructor closes the
    // store, which may wait for fetch jobs, and must not hold up the table.
    std::shared_ptr<CacheObj> dropped;
    std::lock_guard<std::mutex> guard(tableLock);
    if (auto found = table.find(name); found != table.end()) {
        dropped = std::move(found->second);
        table.erase(found);
        __LOG__A(CurrentLogger(), LL_INFO | LL_CACHE, "Close cache : %s", name);
    }
    return AE_OK;
}

AERROR Cache::Rehash(const char* name, const char* newName, const char* newFileName) {
    if (name == nullptr || newName == nullptr || newFileName == nullptr) return AE_NOT_FOUND;
    std::shared_ptr<CacheObj> displaced;  // released after `tableLock`, as in Close
    std::lock_guard<std::mutex> guard(tableLock);
    auto found = table.find(name);
    // An entry left empty by a failed Open holds no object to rename.
    if (found == table.end() || !found->second) return AE_INVALID_HANDLE;
    std::shared_ptr<CacheObj> object = std::move(found->second);
    table.erase(found);
    object->SetHashIndex(newName);
    displaced = std::exchange(table[newName], object);
    __LOG__A(CurrentLogger(), LL_INFO | LL_CACHE, "Rehash cache : %s to %s", name, newName);
    object->ChangeFileName(newFileName);
    return AE_OK;
}

void Cache::ApplyConfig() {
    std::lock_guard<std::mutex> guard(configLock);
    _CACHECONFIG record{};
    for (const ConfigKey& key : kConfigKeys) {
        // atol's reading of the text (leading blanks, sign, digits, 0 for
        // anything else), saturating instead of overflowing.
        record.*key.field = std::strtol(config.GetValue(key.key).c_str(), nullptr, 10);
    }
    settings->SetConfig(record);
}

AERROR Cache::SetConfiguration(const char* jsonText) {
    if (jsonText == nullptr) return AE_NOT_FOUND;
    try {
        config.Parse(jsonText);
        ApplyConfig();
    } catch (...) {
        __LOG__A(CurrentLogger(), LL_ERROR | LL_CACHE, "Configuration rejected : %s",
                 "not a valid JSON document");
        return AE_INVALID_CONFIG;
    }
    return AE_OK;
}

_CACHECONFIG Cache::GetConfig() {
    return settings->GetConfig();
}

std::vector<std::shared_ptr<CacheObj>> Cache::CopyObjects() {
    std::lock_guard<std::mutex> guard(tableLock);
    std::vector<std::shared_ptr<CacheObj>> objects;
    objects.reserve(table.size());
    for (const auto& [key, object] : table) {
        if (object) objects.push_back(object);
    }
    return objects;
}

long long Cache::ReadonlyBytes(const std::vector<std::shared_ptr<CacheObj>>& objects) {
    long long total = 0;
    for (const std::shared_ptr<CacheObj>& object : objects) {
        // Sparse cache files may each come near the largest count.
        if (object->IsReadOnly()) total = SaturatingAdd(total, object->GetFileSize());
    }
    return total;
}

}  // namespace cache
