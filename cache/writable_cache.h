// WritableCache: the dense store of a remote file that the host is writing.
//
// Byte n of the remote file lives at byte n of the cache file. Sectors not
// yet fetched are listed as missing; reads and partial writes fetch the
// missing sectors they touch synchronously, under the store's lock, through
// the host's fetcher.
//
// Threads: any host thread may call any operation. `lock` serialises fills
// and the bookkeeping; the file itself is read and written with positioned
// I/O outside `lock`, so concurrent requests on disjoint ranges never disturb
// each other. A transfer holds `streamLock` shared, which keeps the stream
// open under it; closing or handing over the stream takes it exclusively.
// Lock order: `lock` before `streamLock`; nothing that holds `streamLock`
// takes `lock`.
#ifndef CACHE_WRITABLE_CACHE_H_
#define CACHE_WRITABLE_CACHE_H_

#include <atomic>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

#include "cache/cache.h"
#include "cache/cache_directory.h"
#include "cache/display_name.h"

namespace cache {

class WritableCache : public ICacheFile, public IFetchCallback {
  public:
    // Creates the cache file in `directory`, which the store keeps until it
    // ends, and lists every sector below `fileSize` as missing. Throws
    // AE_CREATE_FILE_FAILED (3004) when the file cannot be created. `fetch`
    // is not kept. REQUIRES: `directory` and `config` are non-null.
    WritableCache(std::shared_ptr<const CacheDirectory> directory, const std::string& name,
                  long long fileSize, IFetch* fetch, std::shared_ptr<ICacheConfig> config);
    WritableCache(const WritableCache&) = delete;
    WritableCache& operator=(const WritableCache&) = delete;

    // Fetches the missing sectors of the range first when the request has a
    // fetcher; without one, unfetched parts read as zero bytes and the count
    // stops at the end of the cache file. 0, 3005 when closed, 8 when a
    // fetch failed and left a sector of the range missing, 3008 for an
    // invalid request or a failing read.
    AERROR Read(_READDATA* request) override;
    // Fetches the partly covered, missing head and tail sectors first (when
    // the request has a fetcher and does not cover the whole file), then
    // writes. 0, 3005 when closed, 3007 for an invalid request or a failing
    // write.
    AERROR Write(_WRITEDATA* request) override;
    // A writable store has no reservations: both return 0.
    AERROR Reserve(long long offset, long long length) override;
    AERROR ClearReserved(long long offset, long long length) override;
    // Waits for running transfers, then closes the file; 3005 when closed.
    AERROR Close() override;
    // Sets the cache file's size. Growing lists the new sectors (and the old
    // partial last one) as missing; shrinking unlists those past the end.
    // The recorded remote size is left alone. 3005 when closed, 3007 when
    // the file cannot be resized.
    AERROR Truncate(long long size) override;
    bool IsReadonly() override;
    // Always null: there is no conversion to the same kind.
    ICacheFile* RebuildToWritableCache(IFetch* fetch, ICacheConfig* config) override;
    // A ReadonlyCache that takes over this store's stream (and this store's
    // shared configuration; the arguments are not used); the caller owns it.
    // Nothing is fetched. Throws AE_CREATE_FILE_FAILED when this store is
    // closed.
    ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) override;
    // Does nothing: a writable store never evicts.
    void ClearOldCache(bool overLimit) override;
    // Size of the cache file; 0 when closed. Takes no part of `lock`.
    long long GetFileSize() override;
    // Always -1.
    long long GetLargestEmptyOffset(long long offset) override;
    // Fetches every missing sector with a handle of its own; always 0.
    AERROR FillEmptySectors(IFetch* fetch) override;
    // Renames the store in log lines; the cache file keeps its name. Takes
    // no lock of the store; safe while other threads log.
    void ChangeFileName(std::string newName) override;

    // Deletes the cache file this store created (also after the stream was
    // taken over), unless something else has replaced its entry.
    virtual ~WritableCache();

    // The sink of fills: writes the piece at its own offset and unlists the
    // sectors it starts in. 0, 3005 when closed, 3007 for a negative length,
    // null data or a failing write. REQUIRES: `lock` held (fills run inside
    // Read, Write and FillEmptySectors).
    AERROR FetchWrite(long long offset, const char* data, long length, long* written) override;

    // Fetches the listed sectors, merged into runs in list order: a sector
    // extends the run that ends at it, or starts a run of its own. Repeated
    // entries are fetched once. Failed runs stay missing. True when every
    // fetch succeeded. REQUIRES: `lock` held.
    bool FetchEmptySectors(std::deque<long long>& sectors, IFetch* fetch,
                           std::shared_ptr<_FS_HANDLE> handle);

    // Hand-over to a ReadonlyCache built from this store: the stream leaves
    // this store, which is closed from then on, and *size receives the
    // file's size as it is at the hand-over (0 when already closed). Waits
    // for running transfers; no write can slip in between the two.
    FILE* TakeStream(long long* size);
    std::shared_ptr<const std::string> GetFileName() const { return displayName.Get(); }

    // Writes one log line about this store; `format` starts with "[%s]",
    // which receives the display name, and `args` fill the rest.
    template <typename... Args>
    void Log(LOGLEVEL level, const char* format, Args... args) const {
        displayName.Log(level, format, args...);
    }

  private:
    // Missing sectors as sorted, disjoint, non-adjacent runs: start -> end,
    // both multiples of the sector size. A run per gap keeps a huge sparse
    // file cheap, and lookups logarithmic.
    using MissingRuns = std::map<long long, long long>;

    // Lists every sector that starts in [first, end). REQUIRES: `lock` held.
    void AddMissingNoLock(long long first, long long end);
    // Unlists every sector that starts in [first, end). REQUIRES: `lock` held.
    void RemoveMissingNoLock(long long first, long long end);
    // Whether `sector` is listed as missing. REQUIRES: `lock` held.
    bool IsMissingNoLock(long long sector) const;
    // The missing sectors that start in [first, end), ascending.
    // REQUIRES: `lock` held.
    std::deque<long long> MissingInNoLock(long long first, long long end) const;
    // Read-modify-write: fetches the head and tail sectors of the request's
    // range that it covers only partly and that are still missing, unless
    // it has no fetcher or covers the whole file. REQUIRES: `lock` held.
    void FetchPartialSectorsNoLock(const _WRITEDATA* request);
    // Runs SyncFetchForWritableCache for each run (start -> length) in
    // ascending order, regardless of failures; true when none failed.
    // REQUIRES: `lock` held.
    bool FetchRunsNoLock(const std::map<long long, long long>& runs, IFetch* fetch,
                         const std::shared_ptr<_FS_HANDLE>& handle);
    // Raises the recorded remote size to `size` if that is larger.
    void RaiseFileSize(long long size);

    DisplayName displayName;
    std::shared_ptr<const CacheDirectory> directory;
    CacheFileName cacheFile;
    std::mutex lock;                     // guards missing and fills; see the class comment
    std::shared_mutex streamLock;        // held shared by transfers; see the class comment
    FILE* file = nullptr;                // written holding both locks; read holding either
    std::atomic<long long> fileSize{0};  // largest remote size known; only grows
    MissingRuns missing;                 // guarded by `lock`
    std::shared_ptr<ICacheConfig> config;
};

}  // namespace cache

#endif  // CACHE_WRITABLE_CACHE_H_
