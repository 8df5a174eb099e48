#include "drive/http_fetcher.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "drive/content_range.h"
#include "drive/http_values.h"

namespace drive {

namespace {

constexpr long long kSector = 64 * 1024;

bool HandleClosed(const _FS_HANDLE& handle) {
    return IsClosedState(std::atomic_ref<int32_t>(const_cast<int32_t&>(handle.state))
                             .load(std::memory_order_relaxed));
}

// Hands the pieces of a split fetch to the sink one at a time: a store's
// FetchWrite may not run on two threads at once (a writable store fills its
// gaps with its lock held by the thread that called Fetch).
class OneAtATimeSink final : public IFetchCallback {
  public:
    explicit OneAtATimeSink(IFetchCallback* sink) : sink_(sink) {}

    AERROR FetchWrite(long long offset, const char* data, long length, long* written) override {
        std::lock_guard<std::mutex> guard(lock_);
        return sink_->FetchWrite(offset, data, length, written);
    }

  private:
    IFetchCallback* const sink_;
    std::mutex lock_;
};

}  // namespace

long long PieceLength(long long length, const FetchPolicy& policy) {
    // Whole rounds over the connections, so that no last round runs on a
    // few of them while the rest wait.
    const long long connections = std::max(policy.parallelRanges, 1);
    const long long round = connections * policy.largestPiece;
    const long long rounds = (length + round - 1) / round;
    const long long even = (length + rounds * connections - 1) / (rounds * connections);
    return std::max((even + kSector - 1) / kSector * kSector, policy.splitAbove);
}

RetryVerdict JudgeAttempt(const AttemptEnd& end, int retriesLeft, int retries) {
    RangeOutcome outcome = end.code == CURLE_ABORTED_BY_CALLBACK ? RangeOutcome::kClosed : end.stop;
    if (outcome == RangeOutcome::kRetry && end.complete) outcome = RangeOutcome::kComplete;
    if (outcome == RangeOutcome::kRetry && end.status == 412) outcome = RangeOutcome::kChanged;
    if (outcome == RangeOutcome::kRetry && end.code == CURLE_OK && end.status != 0 &&
        end.status != 200 && end.status != 206 && end.status < 500) {
        outcome = RangeOutcome::kRefused;
    }
    if (outcome != RangeOutcome::kRetry) return {outcome, retriesLeft};
    // A server that sends a part and breaks off gets its full retries again
    // after each good part: the retry after it is free. One that stalls
    // without sending anything is not asked again: each stall costs the
    // whole low-speed time.
    if (end.progressed) return {RangeOutcome::kRetry, retries};
    if (end.code == CURLE_OPERATION_TIMEDOUT || retriesLeft <= 0) {
        return {RangeOutcome::kExhausted, 0};
    }
    return {RangeOutcome::kRetry, retriesLeft - 1};
}

// One range of a file on one connection, with its retries: each attempt
// asks for the bytes not received yet and streams them into the sink.
class HttpFetcher::RangeFetch {
  public:
    RangeFetch(HttpFetcher& fetcher, long long offset, long long length, long long size, bool bulk,
               const _FS_HANDLE& handle, IFetchCallback* sink)
        : fetcher_(fetcher),
          path_(fetcher.Path()),
          size_(size),
          bulk_(bulk),
          handle_(handle),
          sink_(sink),
          end_(offset + length),
          received_(offset),
          delivered_(offset) {
        piece_.reserve(kSector);
    }

    AERROR Run();

  private:
    bool Deliver(const char* data, long long length);
    bool DeliverPiece();
    bool Judge(const HttpResponse& head);
    bool OnBody(const HttpResponse& head, const char* data, size_t size);
    // The result of a range that ended with `outcome` after `response`.
    AERROR Finish(RangeOutcome outcome, const HttpResponse& response);

    HttpFetcher& fetcher_;
    const std::string path_;
    const long long size_;  // of the file
    const bool bulk_;
    const _FS_HANDLE& handle_;
    IFetchCallback* const sink_;
    const long long end_;      // one past the last byte wanted
    long long received_;       // the next byte the stream must bring
    long long delivered_;      // bytes before it are in the sink
    std::vector<char> piece_;  // bytes in [delivered_, received_): part of a sector
    // The attempt under way.
    long long skip_ = 0;                        // bytes of a whole-file body before `received_`
    bool started_ = false;                      // the body's status has been judged
    RangeOutcome stop_ = RangeOutcome::kRetry;  // what the body callbacks decided
    AERROR sinkError_ = AE_OK;
};

HttpFetcher::HttpFetcher(NodeInfo file, HttpClient* client, RemoteTree* tree, DriveLog* log,
                         Stats* stats, FetchPolicy policy, CacheRoom* room)
    : inode_(file.inode),
      firstPath_(file.path),
      client_(client),
      tree_(tree),
      log_(log),
      stats_(stats),
      policy_(policy),
      room_(room),
      version_{file.size, file.etag, file.version} {}

void HttpFetcher::Retarget(const NodeInfo& now) {
    std::lock_guard<std::mutex> guard(lock_);
    version_ = {now.size, now.etag, now.version};
}

bool HttpFetcher::SameVersion(const std::string& etag) {
    if (!IsStrongEtag(etag)) return true;
    uint64_t number = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!version_.etag.empty()) return version_.etag == etag;
        version_.etag = etag;
        number = version_.number;
    }
    tree_->LearnEtag(inode_, number, etag);
    return true;
}

HttpFetcher::Version HttpFetcher::Current() {
    std::lock_guard<std::mutex> guard(lock_);
    return version_;
}

std::string HttpFetcher::Etag() {
    return Current().etag;
}

std::string HttpFetcher::Path() {
    std::string path = tree_->PathOf(inode_);
    return path.empty() ? firstPath_ : path;
}

AERROR HttpFetcher::Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                          IFetchCallback* sink) {
    calls_.fetch_add(1, std::memory_order_relaxed);
    const long long size = Current().size;
    length = std::min(length, size - offset);
    if (length <= 0 || offset < 0) return AE_OK;
    if (handle == nullptr) return AE_HANDLE_CLOSED;
    if (length <= policy_.splitAbove || policy_.parallelRanges < 2) {
        return FetchRange(offset, length, size, false, *handle, sink);
    }
    // Pieces handed out in order to one connection each: the first pieces
    // arrive first, so a reader waiting at the start of a read-ahead goes on
    // long before its last piece is in. Small fetches (a random read's) take
    // the next free connection before the next piece.
    const long long piece = PieceLength(length, policy_);
    OneAtATimeSink serialized(sink);
    const long long pieces = (length + piece - 1) / piece;
    std::atomic<long long> nextPiece{0};
    std::atomic<AERROR> failure{AE_OK};
    const auto fetchPieces = [&] {
        for (long long i = nextPiece++; i < pieces && failure.load() == AE_OK; i = nextPiece++) {
            const long long first = offset + i * piece;
            const AERROR result = FetchRange(first, std::min(piece, offset + length - first), size,
                                             true, *handle, &serialized);
            AERROR none = AE_OK;
            if (result != AE_OK) failure.compare_exchange_strong(none, result);
        }
    };
    std::vector<std::thread> helpers;
    for (long long i = 1; i < std::min<long long>(policy_.parallelRanges, pieces); ++i) {
        helpers.emplace_back(fetchPieces);
    }
    fetchPieces();
    for (std::thread& helper : helpers) helper.join();
    return failure.load();
}

AERROR HttpFetcher::FetchRange(long long offset, long long length, long long size, bool bulk,
                               const _FS_HANDLE& handle, IFetchCallback* sink) {
    return RangeFetch(*this, offset, length, size, bulk, handle, sink).Run();
}

// Hands `length` bytes, the next ones of the range, to the sink; false when
// it refused them.
bool HttpFetcher::RangeFetch::Deliver(const char* data, long long length) {
    CacheRoom* const room = fetcher_.room_;
    if (room != nullptr) room->WaitForRoom([this] { return HandleClosed(handle_); });
    long written = 0;
    if (const AERROR error =
            sink_->FetchWrite(delivered_, data, static_cast<long>(length), &written);
        error != AE_OK) {
        sinkError_ = error;
        stop_ = RangeOutcome::kSinkFailed;
        return false;
    }
    if (room != nullptr) room->Added(length);
    delivered_ += length;
    return true;
}

bool HttpFetcher::RangeFetch::DeliverPiece() {
    if (!Deliver(piece_.data(), static_cast<long long>(piece_.size()))) return false;
    piece_.clear();
    return true;
}

// Judges the response once its headers are in: is this body the bytes that
// were asked for?
bool HttpFetcher::RangeFetch::Judge(const HttpResponse& head) {
    started_ = true;
    if ((head.status == 200 || head.status == 206) && !fetcher_.SameVersion(head.etag)) {
        stop_ = RangeOutcome::kChanged;
        return false;
    }
    if (head.status == 206) {
        const auto range = ParseContentRange(head.contentRange);
        if (range && RangeMatches(*range, received_, end_ - received_, size_)) return true;
        fetcher_.log_->Error("Fetch %s: asked for bytes %lld-%lld, got Content-Range '%s'",
                             path_.c_str(), received_, end_ - 1, head.contentRange.c_str());
        stop_ = range && range->total >= 0 && range->total != size_ ? RangeOutcome::kChanged
                                                                    : RangeOutcome::kFail;
        return false;
    }
    if (head.status == 200) {
        // The server ignores ranges: the body is the whole file.
        if (head.contentLength >= 0 && head.contentLength != size_) {
            stop_ = RangeOutcome::kChanged;
            return false;
        }
        skip_ = received_;
        return true;
    }
    return false;  // judged after the transfer, by its status
}

bool HttpFetcher::RangeFetch::OnBody(const HttpResponse& head, const char* data, size_t size) {
    if (HandleClosed(handle_)) {
        stop_ = RangeOutcome::kClosed;
        return false;
    }
    if (!started_ && !Judge(head)) return false;
    if (skip_ > 0) {
        const long long skipped = std::min<long long>(skip_, size);
        skip_ -= skipped;
        data += skipped;
        size -= skipped;
    }
    const long long useful = std::min<long long>(size, end_ - received_);
    Stats::Add(fetcher_.stats_->bytesFetched, useful);
    // Whole sectors go to the sink straight from curl's buffer; only a
    // sector split between two buffers is gathered in `piece_` first.
    for (long long used = 0; used < useful;) {
        const long long left = useful - used;
        if (piece_.empty() && left >= kSector) {
            const long long whole = left / kSector * kSector;
            if (!Deliver(data + used, whole)) return false;
            used += whole;
            received_ += whole;
            continue;
        }
        const long long gathered = static_cast<long long>(piece_.size());
        const long long take = std::min(kSector - gathered % kSector, left);
        piece_.insert(piece_.end(), data + used, data + used + take);
        used += take;
        received_ += take;
        if (static_cast<long long>(piece_.size()) % kSector == 0 && !DeliverPiece()) return false;
    }
    // A whole-file body goes on past the range: stop it there.
    if (received_ == end_) {
        stop_ = RangeOutcome::kComplete;
        return static_cast<long long>(size) == useful && head.status == 206;
    }
    return true;
}

AERROR HttpFetcher::RangeFetch::Run() {
    const FetchPolicy& policy = fetcher_.policy_;
    const HttpClient::BodySink onBody = [this](const HttpResponse& head, const char* data,
                                               size_t size) { return OnBody(head, data, size); };
    auto backoff = policy.firstBackoff;
    for (int retriesLeft = policy.retries;;) {
        HttpRequest request;
        request.path = path_;
        request.rangeFirst = received_;
        request.rangeLast = end_ - 1;
        request.ifMatch = fetcher_.Current().etag;
        request.keepGoing = [this] { return !HandleClosed(handle_); };
        request.bulk = bulk_;
        started_ = false;
        skip_ = 0;
        stop_ = RangeOutcome::kRetry;
        const long long receivedBefore = received_;
        const HttpResponse response = fetcher_.client_->Send(request, onBody);
        const AttemptEnd attempt{stop_, response.code, response.status, received_ == end_,
                                 received_ - receivedBefore >= kSector};
        const RetryVerdict verdict = JudgeAttempt(attempt, retriesLeft, policy.retries);
        if (verdict.outcome != RangeOutcome::kRetry) return Finish(verdict.outcome, response);
        retriesLeft = verdict.retriesLeft;
        if (attempt.progressed) backoff = policy.firstBackoff;
        std::this_thread::sleep_for(backoff);
        backoff *= 2;
        if (HandleClosed(handle_)) return AE_HANDLE_CLOSED;
    }
}

AERROR HttpFetcher::RangeFetch::Finish(RangeOutcome outcome, const HttpResponse& response) {
    DriveLog* const log = fetcher_.log_;
    switch (outcome) {
        case RangeOutcome::kComplete:
            if (!piece_.empty() && !DeliverPiece()) return sinkError_;
            return AE_OK;
        case RangeOutcome::kClosed:
            return AE_HANDLE_CLOSED;
        case RangeOutcome::kSinkFailed:
            return sinkError_;
        case RangeOutcome::kChanged:
            log->Error("Fetch %s: the file changed on the server", path_.c_str());
            fetcher_.tree_->MarkChanged(fetcher_.inode_);
            return AE_READ_FAILED;
        case RangeOutcome::kRefused:
            log->Error("Fetch %s: HTTP %ld", path_.c_str(), response.status);
            return AE_READ_FAILED;
        case RangeOutcome::kExhausted:
            log->Error("Fetch %s bytes %lld-%lld failed: %s (HTTP %ld)", path_.c_str(), received_,
                       end_ - 1, response.code != CURLE_OK ? response.error.c_str() : "short body",
                       response.status);
            return AE_READ_FAILED;
        case RangeOutcome::kFail:
        case RangeOutcome::kRetry:
            break;
    }
    return AE_READ_FAILED;
}

}  // namespace drive
