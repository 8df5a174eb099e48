// Fetch jobs: the objects that call the host's fetcher and deliver what
// arrives into a store, and the hand-over of asynchronous jobs to the host's
// queue.
//
// Ownership: an AsyncFetch or AsyncLargeFetch is created with new by its
// store and handed to QueueAsync; from then on it owns itself and deletes
// itself at the end of Process or Canceled (exactly one of them runs). Each
// counts itself in its store's readAheadThreads for its whole life, and the
// store's Close waits for that count to reach zero, which keeps the raw owner
// pointer valid. SyncFetch and SyncFetchForWritableCache are locals of the
// function that uses them.
//
// Context: the library always posts with a null context. A non-null context
// in Process means the job runs at once inside its poster, which holds the
// store's lock, so the job must deliver through the no-lock operations.
#ifndef CACHE_FETCH_JOBS_H_
#define CACHE_FETCH_JOBS_H_

#include <memory>

#include "cache/cache.h"

namespace cache {

class ReadonlyCache;
class WritableCache;

// Posts `job` to the bound queue; with none bound, runs job->Process at
// once on this thread with context 1 (when `context` is null).
void QueueAsync(IAsyncObj* job, void* context);

// A handle of the library's own, for a fetch that no host request owns: open
// (state 2), never closed, and carrying the host's handle of the remote file.
std::shared_ptr<_FS_HANDLE> MakeLibraryHandle(long long hostHandle);

// A sink that forwards into a ReadonlyCache whose lock this thread holds.
class SyncFetch final : public IFetchCallback {
  public:
    explicit SyncFetch(ReadonlyCache* owner) : owner(owner) {}
    SyncFetch(const SyncFetch&) = delete;
    SyncFetch& operator=(const SyncFetch&) = delete;
    virtual ~SyncFetch() = default;

    AERROR FetchWrite(long long offset, const char* data, long length, long* written) override;
    void ClearReserved(long long offset, long long length);

  private:
    ReadonlyCache* owner;
};

// What both asynchronous jobs of a ReadonlyCache share: the range, the
// host's handle, and the count in the store's readAheadThreads that lasts
// from construction to destruction.
class ReadonlyFetchJob : public IAsyncObj {
  public:
    ReadonlyFetchJob(const ReadonlyFetchJob&) = delete;
    ReadonlyFetchJob& operator=(const ReadonlyFetchJob&) = delete;

  protected:
    ReadonlyFetchJob(ReadonlyCache* owner, IFetch* fetch, long long offset, long long length,
                     std::shared_ptr<_FS_HANDLE> handle);
    // The job's last touch of its owner: once the count drops, the owner's
    // Close may return and the owner may go.
    virtual ~ReadonlyFetchJob();

    // Where fetched bytes go: `direct` (the no-lock path) when the job runs
    // inside its poster, which holds the store's lock, else the store.
    IFetchCallback* Sink(void* context, SyncFetch* direct) const;

    ReadonlyCache* const owner;
    IFetch* const fetch;
    const long long offset;
    const long long length;
    const std::shared_ptr<_FS_HANDLE> handle;
};

// Fetches one range of a ReadonlyCache; a failure releases the range.
class AsyncFetch final : public ReadonlyFetchJob {
  public:
    AsyncFetch(ReadonlyCache* owner, IFetch* fetch, long long offset, long long length,
               std::shared_ptr<_FS_HANDLE> handle);

    void Process(void* context) override;
    void Canceled(void* context) override;

  private:
    ~AsyncFetch() override = default;  // the job deletes itself
};

// Fetches a large range (up to the whole file) of a ReadonlyCache, in one
// call or in chunks; the store's largeFetch points to it while it is current.
class AsyncLargeFetch final : public ReadonlyFetchJob {
  public:
    AsyncLargeFetch(ReadonlyCache* owner, IFetch* fetch, long long offset, long long length,
                    std::shared_ptr<_FS_HANDLE> handle, bool allAtOnce);

    void Process(void* context) override;
    void Canceled(void* context) override;

  private:
    ~AsyncLargeFetch() override = default;  // the job deletes itself
    // Clears the store's largeFetch when it still points to this job.
    void ReleaseLargeFetchSlot();

    const bool allAtOnce;
};

// Fetches one range of a WritableCache synchronously, with the store itself
// as the sink. Run by the store's fill with its lock held.
class SyncFetchForWritableCache {
  public:
    SyncFetchForWritableCache(WritableCache* owner, IFetch* fetch, long long offset, long length,
                              std::shared_ptr<_FS_HANDLE> handle);
    SyncFetchForWritableCache(const SyncFetchForWritableCache&) = delete;
    SyncFetchForWritableCache& operator=(const SyncFetchForWritableCache&) = delete;
    virtual ~SyncFetchForWritableCache() = default;

    // 0 when the fetch delivered everything, 1 when it failed.
    int Process();

  private:
    WritableCache* owner;
    IFetch* fetch;
    long long offset;
    long length;
    std::shared_ptr<_FS_HANDLE> handle;
};

}  // namespace cache

#endif  // CACHE_FETCH_JOBS_H_
