// A host's fetcher over a local file standing in for the remote one.
//
// It delivers the requested range in sector-aligned pieces (each piece ends
// on a multiple of 64 KiB or at the end of the file), clips requests at the
// end of the file, and can simulate a network: a fixed latency per request
// and a bandwidth per request, paced against the request's start so that
// sleep granularity does not slow it down. It counts calls and bytes
// delivered.
//
// Thread-safe: Fetch may run on many threads at once.
#ifndef HOSTKIT_FILE_FETCHER_H_
#define HOSTKIT_FILE_FETCHER_H_

#include <atomic>
#include <chrono>
#include <string>

#include "cache/cache.h"

namespace hostkit {

struct FetcherOptions {
    double latencyMs = 0;           // before a Fetch call's first byte
    double bytesPerSecond = 0;      // 0: unlimited
    long long hostHandle = 0x5eed;  // returned by GetHostHandle
    // When set and true, Fetch gives up with AE_HANDLE_CLOSED: its waits
    // end within 50 ms and no further piece is delivered. A signal handler
    // may set it.
    const std::atomic<bool>* stop = nullptr;
};

class FileFetcher final : public IFetch {
  public:
    // Opens `path` read-only; throws std::runtime_error when it cannot.
    explicit FileFetcher(const std::string& path, FetcherOptions options = {});
    FileFetcher(const FileFetcher&) = delete;
    FileFetcher& operator=(const FileFetcher&) = delete;
    virtual ~FileFetcher();

    // Delivers [offset, offset + length) clipped to the file. Returns the
    // sink's first failure, AE_HANDLE_CLOSED when the handle is closed or
    // `stop` is set, or AE_READ_FAILED when the file cannot be read.
    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override;
    long long GetHostHandle() override;

    long long Size() const { return size_; }
    long long Calls() const { return calls_.load(); }
    long long BytesDelivered() const { return bytes_.load(); }
    void ResetCounters();

  private:
    // Sleeps until `due` in short steps; false as soon as `stop` is set.
    bool WaitUntil(std::chrono::steady_clock::time_point due) const;
    bool Stopped() const;

    int fd_;
    long long size_;
    FetcherOptions options_;
    std::atomic<long long> calls_{0};
    std::atomic<long long> bytes_{0};
};

}  // namespace hostkit

#endif  // HOSTKIT_FILE_FETCHER_H_
