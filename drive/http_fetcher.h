// The fetcher of one version of one remote file: it answers the library's
// fetches with ranged GETs and streams each body into the sink in
// sector-aligned pieces as it arrives.
//
// A fetch retries connection errors, 5xx answers, stalls and short bodies a
// bounded number of times, resuming after the last byte received. It fails
// without retrying when the server sends other bytes than those asked for
// (a Content-Range that differs) or says the file changed (412 to If-Match,
// another size): then the tree is told, so the next open sees the new file.
// A large fetch is split into parallel range requests. With a CacheRoom,
// each piece waits for room in the cache directory before it is delivered.
//
// Thread-safe: the library calls Fetch from many queue threads at once.
#ifndef DRIVE_HTTP_FETCHER_H_
#define DRIVE_HTTP_FETCHER_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "cache/cache.h"
#include "drive/cache_room.h"
#include "drive/http_client.h"
#include "drive/remote_tree.h"
#include "drive/stats.h"

namespace drive {

struct FetchPolicy {
    int retries = 3;                              // after the first attempt
    std::chrono::milliseconds firstBackoff{100};  // doubled after each retry
    long long splitAbove = 1LL << 20;             // fetches larger than this are split
    long long largestPiece = 4LL << 20;           // into pieces no larger than this
    int parallelRanges = 8;                       // at most this many ranges at once
};

// The length of the pieces a fetch of `length` bytes (more than
// `splitAbove`) is cut into: whole sectors, no fewer than `splitAbove` bytes,
// no more than `largestPiece` unless `splitAbove` is more, and as many as
// fill whole rounds over the `parallelRanges` connections where they can.
long long PieceLength(long long length, const FetchPolicy& policy);

// How a range request ends, or goes on.
enum class RangeOutcome {
    kComplete,    // every byte is in the sink
    kRetry,       // asked again for the bytes not received yet
    kFail,        // the server sent other bytes than those asked for
    kRefused,     // the server answered with a status other than 2xx or 5xx
    kExhausted,   // the retries are used up
    kChanged,     // the server holds another version of the file
    kClosed,      // the handle was closed meanwhile
    kSinkFailed,  // the sink refused the bytes
};

// How one attempt of a range request ended.
struct AttemptEnd {
    RangeOutcome stop = RangeOutcome::kRetry;  // decided while the body streamed
    CURLcode code = CURLE_OK;
    long status = 0;          // HTTP status; 0 when no response arrived
    bool complete = false;    // every byte of the range has arrived
    bool progressed = false;  // at least a sector arrived in this attempt
};

struct RetryVerdict {
    RangeOutcome outcome;
    int retriesLeft;  // after the retry this verdict asks for, if any
};

// What follows an attempt that ended as `end`, with `retriesLeft` of the
// policy's `retries` left before it: the outcome the body's stream decided,
// or the transfer's (an abort is a closed handle, 412 a changed file, a
// status below 500 but 200 and 206 a refusal); else a retry, free after a
// sector's progress, none after a stall.
RetryVerdict JudgeAttempt(const AttemptEnd& end, int retriesLeft, int retries);

class HttpFetcher final : public IFetch {
  public:
    // Fetches version `file.version` of `file` from the path the tree gives
    // for its inode at each request (`file.path` when the tree has none);
    // all pointers are not owned and outlive the fetcher; `room` may be null.
    HttpFetcher(NodeInfo file, HttpClient* client, RemoteTree* tree, DriveLog* log, Stats* stats,
                FetchPolicy policy, CacheRoom* room = nullptr);
    HttpFetcher(const HttpFetcher&) = delete;
    HttpFetcher& operator=(const HttpFetcher&) = delete;
    virtual ~HttpFetcher() = default;

    // Delivers [offset, offset + length), clipped to the file size, to
    // `sink`. Returns 0, the sink's error, AE_HANDLE_CLOSED when `handle`
    // was closed meanwhile, or AE_READ_FAILED when the server could not
    // deliver the bytes.
    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override;
    long long GetHostHandle() override { return static_cast<long long>(inode_); }

    // Fetches version `now.version` from here on: the drive uploaded it.
    void Retarget(const NodeInfo& now);
    // The ETag of the version fetched; empty when unknown.
    std::string Etag();

    // Number of Fetch calls begun so far.
    long long Calls() const { return calls_.load(std::memory_order_relaxed); }

  private:
    // The version fetched, as far as the fetcher knows it.
    struct Version {
        long long size = 0;
        std::string etag;  // learned from the first response when unknown
        uint64_t number = 0;
    };

    class RangeFetch;

    // One range of a file of `size` bytes, on one connection, with retries;
    // `bulk` for a part of a split fetch.
    AERROR FetchRange(long long offset, long long length, long long size, bool bulk,
                      const _FS_HANDLE& handle, IFetchCallback* sink);
    Version Current();
    std::string Path();
    // True unless `etag` (a response's) shows another version than the one
    // fetched so far; the first strong ETag seen becomes the version's.
    bool SameVersion(const std::string& etag);

    const Inode inode_;
    const std::string firstPath_;
    HttpClient* const client_;
    RemoteTree* const tree_;
    DriveLog* const log_;
    Stats* const stats_;
    const FetchPolicy policy_;
    CacheRoom* const room_;
    std::atomic<long long> calls_{0};

    std::mutex lock_;
    Version version_;  // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_HTTP_FETCHER_H_
