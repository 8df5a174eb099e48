#include "cache/fetch_jobs.h"

#include <algorithm>
#include <mutex>

#include "cache/bindings.h"
#include "cache/readonly_cache.h"
#include "cache/writable_cache.h"

namespace cache {

void QueueAsync(IAsyncObj* job, void* context) {
    {
        std::lock_guard<std::mutex> guard(aql);
        IAsyncQueue* queue = aq.load(std::memory_order_acquire);
        if (queue != nullptr) {
            queue->Queue(job, context);
            return;
        }
    }
    // No queue: run here. The poster holds its store's lock, which the
    // non-null context tells the job.
    job->Process(context != nullptr ? context : reinterpret_cast<void*>(1));
}

std::shared_ptr<_FS_HANDLE> MakeLibraryHandle(long long hostHandle) {
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 2;
    handle->hostHandle = hostHandle;
    return handle;
}

namespace {

// The chunk a superseded or orphaned large fetch still asks for, whatever
// the configured maximum: just under 103 MiB, in whole sectors.
constexpr long long kLargeFetchChunk = WholeSectors(0x6666666);

}  // namespace

// A SyncFetch only exists inside a job run on the thread that posted it,
// which holds the owner's lock (QueueAsync without a queue); the analysis
// cannot see that hold across the host's fetcher.
AERROR SyncFetch::FetchWrite(long long offset, const char* data, long length,
                             long* written) NO_THREAD_SAFETY_ANALYSIS {
    return owner->FetchWriteNoLock(offset, data, length, written);
}

void SyncFetch::ClearReserved(long long offset, long long length) NO_THREAD_SAFETY_ANALYSIS {
    owner->ClearReservedNoLock(offset, length);
}

ReadonlyFetchJob::ReadonlyFetchJob(ReadonlyCache* owner, IFetch* fetch, long long offset,
                                   long long length, std::shared_ptr<_FS_HANDLE> handle)
    : owner(owner), fetch(fetch), offset(offset), length(length), handle(std::move(handle)) {
    owner->readAheadThreads.fetch_add(1, std::memory_order_relaxed);
}

ReadonlyFetchJob::~ReadonlyFetchJob() {
    owner->readAheadThreads.fetch_sub(1, std::memory_order_release);
}

IFetchCallback* ReadonlyFetchJob::Sink(void* context, SyncFetch* direct) const {
    return context != nullptr ? static_cast<IFetchCallback*>(direct) : owner;
}

AsyncFetch::AsyncFetch(ReadonlyCache* owner, IFetch* fetch, long long offset, long long length,
                       std::shared_ptr<_FS_HANDLE> handle)
    : ReadonlyFetchJob(owner, fetch, offset, length, std::move(handle)) {
    owner->Log(LL_INFO, "[%s] Read-ahead : %lld, %d", offset, static_cast<int>(length));
}

void AsyncFetch::Process(void* context) {
    SyncFetch direct(owner);
    const AERROR result = fetch->Fetch(offset, length, handle, Sink(context, &direct));
    // A closed handle explains a failure, so it is not reported.
    if (result != AE_OK && !HandleClosed(handle)) {
        owner->Log(LL_ERROR, "[%s] Read-ahead failed : %lld, %d", offset, static_cast<int>(length));
    }
    // Whatever the fetcher left undelivered, failed or not, is released, so
    // that readers waiting for it stop waiting at once.
    if (context != nullptr) {
        direct.ClearReserved(offset, length);
    } else {
        owner->ClearReserved(offset, length);
    }
    owner->Log(LL_INFO, "[%s] Read-ahead done : %lld, %d", offset, static_cast<int>(length));
    delete this;
}

void AsyncFetch::Canceled(void*) {
    owner->ClearReserved(offset, length);
    delete this;
}

AsyncLargeFetch::AsyncLargeFetch(ReadonlyCache* owner, IFetch* fetch, long long offset,
                                 long long length, std::shared_ptr<_FS_HANDLE> handle,
                                 bool allAtOnce)
    : ReadonlyFetchJob(owner, fetch, offset, length, std::move(handle)), allAtOnce(allAtOnce) {
    owner->Log(LL_INFO, "[%s] Read-ahead large block : %lld, %lld", offset, length);
}

void AsyncLargeFetch::ReleaseLargeFetchSlot() {
    AsyncLargeFetch* self = this;
    owner->largeFetch.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

void AsyncLargeFetch::Process(void* context) {
    owner->Log(LL_DETAIL, "[%s] AsyncLargeFetch : %lld, %lld", offset, length);
    SyncFetch direct(owner);
    IFetchCallback* sink = Sink(context, &direct);
    // The configured maximum chunk in whole sectors, so that every chunk
    // starts on a sector boundary. A negative value means no limit; zero
    // would never advance, so it takes the fixed chunk.
    const long long configured = owner->GetConfig()->GetConfig().readfetchmax;
    const unsigned long long maxFetch =
        configured < 0    ? static_cast<unsigned long long>(configured)
        : configured == 0 ? static_cast<unsigned long long>(kLargeFetchChunk)
                          : static_cast<unsigned long long>(WholeSectors(configured));
    const auto isCurrent = [this] {
        return !HandleClosed(handle) && owner->largeFetch.load(std::memory_order_acquire) == this;
    };
    long long position = offset;
    long long remaining = length;
    // A fetch that fails, or that stops because the handle closed or a newer
    // large fetch replaced this one, leaves the loop with its whole range
    // still reserved: readers waiting on it run into their own time-out or
    // closed handle, which releases their part.
    while (remaining > 0) {
        const long long n = allAtOnce ? remaining
                                      : static_cast<long long>(std::min(
                                            static_cast<unsigned long long>(remaining), maxFetch));
        if (fetch->Fetch(position, n, handle, sink) != AE_OK) break;
        position += n;
        remaining -= n;
        if (isCurrent()) continue;
        // No longer wanted: one more chunk (possibly empty), then stop.
        const long long m = allAtOnce ? remaining : std::min(remaining, kLargeFetchChunk);
        owner->Log(LL_DETAIL, "[%s] Read-ahead large block : fetch %lld, %lld(%s)", position, m,
                   allAtOnce ? "all blocks at once" : "divide blocks");
        if (fetch->Fetch(position, m, handle, sink) != AE_OK) break;
        position += m;
        remaining -= m;
        if (!isCurrent()) break;
    }
    owner->Log(LL_INFO, "[%s] Read-ahead large block done : %lld, %lld", offset, length);
    ReleaseLargeFetchSlot();
    delete this;
}

void AsyncLargeFetch::Canceled(void*) {
    owner->ClearReserved(offset, length);
    ReleaseLargeFetchSlot();
    delete this;
}

SyncFetchForWritableCache::SyncFetchForWritableCache(WritableCache* owner, IFetch* fetch,
                                                     long long offset, long length,
                                                     std::shared_ptr<_FS_HANDLE> handle)
    : owner(owner), fetch(fetch), offset(offset), length(length), handle(std::move(handle)) {
    owner->Log(LL_INFO, "[%s] Read-ahead for writable cache : %lld, %d", offset,
               static_cast<int>(length));
}

int SyncFetchForWritableCache::Process() {
    const AERROR result = fetch->Fetch(offset, length, handle, owner);
    if (result != AE_OK) {
        owner->Log(LL_ERROR, "[%s] Read-ahead for writable cache failed : %lld, %d", offset,
                   static_cast<int>(length));
        return 1;
    }
    owner->Log(LL_DETAIL, "[%s] Read-ahead for writable cache done : %lld, %d", offset,
               static_cast<int>(length));
    return 0;
}

}  // namespace cache
