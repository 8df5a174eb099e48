// Cache: the manager of one cache directory.
//
// The registry creates one per directory path and hands it to the host as an
// ICache. It makes sure the directory exists, keeps the storage limit within
// what the disk can give, turns JSON configuration texts into the applied
// configuration record, keeps the table of opened cache objects by name, and
// runs the quota manager thread, which periodically asks every object to
// evict old sectors.
//
// The storage limit and the applied configuration live in a CacheSettings
// that every cache object and store shares, so an object the host still
// holds after the manager is gone keeps working with the last settings in
// force. The manager's ICacheConfig face forwards to it.
//
// Threads: host threads call the ICache operations; the quota thread reads
// the table and the settings. Locks, outermost first: `tableLock` or
// `configLock` (never both), then a cache object's lock. The registry lock is
// held around construction and destruction.
#ifndef CACHE_CACHE_MANAGER_H_
#define CACHE_CACHE_MANAGER_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "cache/cache.h"
#include "cache/cache_directory.h"
#include "cache/cache_settings.h"
#include "common/config.h"

namespace cache {

class CacheObj;

// A cache never works with less than this storage limit, in bytes (64 MiB).
inline constexpr long long kMinimumLimit = 67108864;

// How long the quota thread pauses between two looks at the clock.
inline constexpr long long kQuotaCycleMs = 300;

// mkdir(path, 0755). True when the directory was made or already exists;
// otherwise false with errno set to ENOTDIR. `attributes` is ignored.
bool CreateDirectory(const char* path, void* attributes);

class Cache : public ICache, public ICacheConfig {
  public:
    // Creates every directory of `path` (a relative path is taken from the
    // root) and holds the last one open, takes `limit` as a signed count
    // (so ~0ULL is -1), raises it to at least 64 MiB and fits it to the
    // disk, registers and applies the configuration defaults and starts the
    // quota thread. Throws AE_CREATE_DIRECTORY_FAILED when a directory
    // cannot be made or opened (also for an empty path, and when the last
    // component is a symbolic link); a failure to start the thread is the
    // platform's exception.
    Cache(const char* path, unsigned long long limit);
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    // The storage limit in bytes.
    long long GetLimit() override;
    // Always 0.
    long long GetUsedBytes() override;
    // AE_LIMIT_TOO_SMALL below 64 MiB (compared unsigned), with the limit
    // unchanged; otherwise stores the limit as a signed count, fits it to
    // the disk and returns 0. Values beyond the largest signed one are
    // stored negative (~0ULL as -1): such a cache counts as always over its
    // limit.
    AERROR SetLimit(unsigned long long limit) override;
    // The object of `name` (exact text), created with `mode`, `fileSize` and
    // `fetch` when the name is not open yet; for an open name those are
    // ignored. A new object's cache file goes to the cache directory, made
    // again first if it has been removed. An AERROR from the object's
    // construction is thrown, leaving an empty entry under `name`, so later
    // Opens of it return null until Close(name). AE_NOT_FOUND is thrown for
    // a null name.
    std::shared_ptr<ICacheObj> Open(const char* name, char mode, long long fileSize,
                                    IFetch* fetch) override;
    // Drops the table's reference to `name`'s object (it is not closed: it
    // ends with its last owner). 0 also for an unknown name; AE_NOT_FOUND for
    // null.
    AERROR Close(const char* name) override;
    // Moves the object of `name` to key `newName`, replacing any object
    // there, makes `newName` its hash index and `newFileName` its stores'
    // display name. AE_INVALID_HANDLE when `name` holds no object;
    // AE_NOT_FOUND when an argument is null.
    AERROR Rehash(const char* name, const char* newName, const char* newFileName) override;
    // Parses `jsonText` and applies it: 0; AE_NOT_FOUND for null;
    // AE_INVALID_CONFIG when parsing or applying fails, and when parsing
    // failed the applied record is unchanged.
    AERROR SetConfiguration(const char* jsonText) override;

    // Same as GetLimit.
    long long GetQuota() override;
    // A copy of the applied configuration, never half-applied.
    _CACHECONFIG GetConfig() override;

    // Stops and joins the quota thread, then drops the table's references.
    virtual ~Cache();

  private:
    // Logs `text` as it is, at `level`. The text is the line's format, with
    // any '%' doubled (a directory may hold one) so that the logger prints
    // it unchanged instead of reading arguments that were never passed.
    static void LogText(LOGLEVEL level, const std::string& text);
    // Makes every directory of `path` and returns the normalised text.
    static std::string MakeDirectories(const std::string& path);
    // The directory new objects go to: the one held, or, once that has been
    // removed, the path opened again (made as the constructor makes it; the
    // last component never a symbolic link). When that fails the removed
    // one stays, and creating files in it fails.
    // REQUIRES: `tableLock` held.
    const std::shared_ptr<const CacheDirectory>& CurrentDirectoryNoLock();
    // Lowers the limit to half the free space when it does not fit.
    void AdjustLimit();
    // Refreshes the applied record from the configuration store.
    void ApplyConfig();
    // A snapshot of the table's objects (empty entries left out), in table
    // order. Takes `tableLock` only to copy.
    std::vector<std::shared_ptr<CacheObj>> CopyObjects();
    // Bytes in the cache files of the read-only objects of `objects`.
    static long long ReadonlyBytes(const std::vector<std::shared_ptr<CacheObj>>& objects);
    // The quota manager thread's body.
    void RunQuotaManager(std::string quotaDirectory);
    // One eviction pass over every open object.
    void ClearOldCaches(const std::string& quotaDirectory);

    // Declared first so it outlives everything below; the objects and their
    // stores hold their own references.
    const std::shared_ptr<CacheSettings> settings;
    std::string directory;  // absolute, beginning and ending with '/'
    // The directory held open; every store creates and deletes its file
    // through it, and keeps it as long as it lives. Replaced by
    // CurrentDirectoryNoLock once removed. Guarded by `tableLock`.
    std::shared_ptr<const CacheDirectory> directoryHandle;
    std::atomic<long long> usedBytes{0};

    std::mutex tableLock;  // guards table
    std::unordered_map<std::string, std::shared_ptr<CacheObj>> table;

    std::mutex configLock;  // serialises ApplyConfig
    Config config{std::string()};

    // The quota thread waits on `quotaWake` between cycles so that the
    // destructor can end a pause early.
    std::mutex quotaLock;
    std::condition_variable quotaWake;
    std::atomic<bool> stopRequest{false};
    std::thread quotaThread;
};

}  // namespace cache

#endif  // CACHE_CACHE_MANAGER_H_
