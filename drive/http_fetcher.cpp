#include "drive/http_fetcher.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "drive/content_range.h"

namespace drive {

namespace {

constexpr long long kSector = 64 * 1024;

bool HandleClosed(const _FS_HANDLE& handle) {
    return std::atomic_ref<int32_t>(const_cast<int32_t&>(handle.state))
               .load(std::memory_order_relaxed) > 3;
}

// Why an attempt ended without delivering the whole range.
enum class Outcome { kComplete, kRetry, kFail, kChanged, kClosed, kSinkFailed };

// The state of one range request across its attempts.
struct RangeTransfer {
    long long end;            // one past the last byte wanted
    long long received;       // the next byte the stream must bring
    long long delivered;      // bytes before it are in the sink
    std::vector<char> piece;  // bytes in [delivered, received): part of a sector
    long long skip = 0;       // bytes of a whole-file body before `received`
    bool started = false;     // the body's status has been judged
    Outcome verdict = Outcome::kRetry;
    AERROR sinkError = AE_OK;
};

}  // namespace

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
    if (etag.empty() || etag.rfind("W/", 0) == 0) return true;
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
    // Ranges of whole sectors, one per connection, each streaming on its
    // own. They let small fetches (a random read's) take the next free
    // connection before them.
    const long long parts = std::min<long long>(policy_.parallelRanges, length / kSector);
    const long long share = (length / parts + kSector - 1) / kSector * kSector;
    std::vector<AERROR> results(parts, AE_OK);
    std::vector<std::thread> workers;
    for (long long i = 0; i < parts; ++i) {
        const long long first = offset + i * share;
        const long long part = std::min(share, offset + length - first);
        if (part <= 0) break;
        workers.emplace_back([this, i, first, part, size, &handle, sink, &results] {
            results[i] = FetchRange(first, part, size, true, *handle, sink);
        });
    }
    for (std::thread& worker : workers) worker.join();
    for (const AERROR result : results) {
        if (result != AE_OK) return result;
    }
    return AE_OK;
}

AERROR HttpFetcher::FetchRange(long long offset, long long length, long long size, bool bulk,
                               const _FS_HANDLE& handle, IFetchCallback* sink) {
    const std::string path = Path();
    RangeTransfer transfer{offset + length, offset, offset, {}};
    transfer.piece.reserve(kSector);

    // Hands `length` bytes, the next ones of the range, to the sink; false
    // when it refused them.
    auto deliver = [&](const char* data, long long length) {
        if (room_ != nullptr) room_->WaitForRoom([&handle] { return HandleClosed(handle); });
        long written = 0;
        const AERROR error =
            sink->FetchWrite(transfer.delivered, data, static_cast<long>(length), &written);
        if (error != AE_OK) {
            transfer.sinkError = error;
            transfer.verdict = Outcome::kSinkFailed;
            return false;
        }
        if (room_ != nullptr) room_->Added(length);
        transfer.delivered += length;
        return true;
    };
    auto deliverPiece = [&]() {
        if (!deliver(transfer.piece.data(), static_cast<long long>(transfer.piece.size()))) {
            return false;
        }
        transfer.piece.clear();
        return true;
    };

    // Judges the response once its headers are in: is this body the bytes
    // that were asked for?
    auto judge = [&](const HttpResponse& head) {
        transfer.started = true;
        if ((head.status == 200 || head.status == 206) && !SameVersion(head.etag)) {
            transfer.verdict = Outcome::kChanged;
            return false;
        }
        const long long wanted = transfer.end - transfer.received;
        if (head.status == 206) {
            const auto range = ParseContentRange(head.contentRange);
            if (range && RangeMatches(*range, transfer.received, wanted, size)) return true;
            log_->Error("Fetch %s: asked for bytes %lld-%lld, got Content-Range '%s'", path.c_str(),
                        transfer.received, transfer.end - 1, head.contentRange.c_str());
            transfer.verdict = range && range->total >= 0 && range->total != size
                                   ? Outcome::kChanged
                                   : Outcome::kFail;
            return false;
        }
        if (head.status == 200) {
            // The server ignores ranges: the body is the whole file.
            if (head.contentLength >= 0 && head.contentLength != size) {
                transfer.verdict = Outcome::kChanged;
                return false;
            }
            transfer.skip = transfer.received;
            return true;
        }
        return false;  // judged after the transfer, by its status
    };

    auto onBody = [&](const HttpResponse& head, const char* data, size_t size) {
        if (HandleClosed(handle)) {
            transfer.verdict = Outcome::kClosed;
            return false;
        }
        if (!transfer.started && !judge(head)) return false;
        if (transfer.skip > 0) {
            const long long skipped = std::min<long long>(transfer.skip, size);
            transfer.skip -= skipped;
            data += skipped;
            size -= skipped;
        }
        const long long useful = std::min<long long>(size, transfer.end - transfer.received);
        Stats::Add(stats_->bytesFetched, useful);
        // Whole sectors go to the sink straight from curl's buffer; only a
        // sector split between two buffers is gathered in `piece` first.
        for (long long used = 0; used < useful;) {
            const long long left = useful - used;
            if (transfer.piece.empty() && left >= kSector) {
                const long long whole = left / kSector * kSector;
                if (!deliver(data + used, whole)) return false;
                used += whole;
                transfer.received += whole;
                continue;
            }
            const long long gathered = static_cast<long long>(transfer.piece.size());
            const long long take = std::min(kSector - gathered % kSector, left);
            transfer.piece.insert(transfer.piece.end(), data + used, data + used + take);
            used += take;
            transfer.received += take;
            if (static_cast<long long>(transfer.piece.size()) % kSector == 0 && !deliverPiece()) {
                return false;
            }
        }
        // A whole-file body goes on past the range: stop it there.
        if (transfer.received == transfer.end) {
            transfer.verdict = Outcome::kComplete;
            return static_cast<long long>(size) == useful && head.status == 206;
        }
        return true;
    };

    auto backoff = policy_.firstBackoff;
    for (int attempt = 0;; ++attempt) {
        HttpRequest request;
        request.path = path;
        request.rangeFirst = transfer.received;
        request.rangeLast = transfer.end - 1;
        request.ifMatch = Current().etag;
        request.keepGoing = [&handle] { return !HandleClosed(handle); };
        request.bulk = bulk;
        transfer.started = false;
        transfer.skip = 0;
        transfer.verdict = Outcome::kRetry;
        const long long receivedBefore = transfer.received;
        const HttpResponse response = client_->Send(request, onBody);
        const bool progressed = transfer.received - receivedBefore >= kSector;
        if (response.code == CURLE_ABORTED_BY_CALLBACK) transfer.verdict = Outcome::kClosed;

        if (transfer.verdict == Outcome::kRetry && transfer.received == transfer.end) {
            transfer.verdict = Outcome::kComplete;
        }
        if (transfer.verdict == Outcome::kComplete) {
            if (!transfer.piece.empty() && !deliverPiece()) return transfer.sinkError;
            return AE_OK;
        }
        if (transfer.verdict == Outcome::kRetry && response.status == 412) {
            transfer.verdict = Outcome::kChanged;
        }
        if (transfer.verdict == Outcome::kRetry && response.code == CURLE_OK &&
            response.status != 0 && response.status != 200 && response.status != 206 &&
            response.status < 500) {
            log_->Error("Fetch %s: HTTP %ld", path.c_str(), response.status);
            transfer.verdict = Outcome::kFail;
        }
        switch (transfer.verdict) {
            case Outcome::kClosed:
                return AE_HANDLE_CLOSED;
            case Outcome::kSinkFailed:
                return transfer.sinkError;
            case Outcome::kChanged:
                log_->Error("Fetch %s: the file changed on the server", path.c_str());
                tree_->MarkChanged(inode_);
                return AE_READ_FAILED;
            case Outcome::kFail:
                return AE_READ_FAILED;
            default:
                break;
        }
        // A server that stalls without sending anything is not asked again:
        // each stall costs the whole low-speed time. One that sends a part
        // and breaks off gets its full retries again after each good part.
        if (progressed) {
            attempt = -1;
            backoff = policy_.firstBackoff;
        } else if (response.code == CURLE_OPERATION_TIMEDOUT) {
            attempt = policy_.retries;
        }
        if (attempt >= policy_.retries) {
            log_->Error("Fetch %s bytes %lld-%lld failed: %s (HTTP %ld)", path.c_str(),
                        transfer.received, transfer.end - 1,
                        response.code != CURLE_OK ? response.error.c_str() : "short body",
                        response.status);
            return AE_READ_FAILED;
        }
        std::this_thread::sleep_for(backoff);
        backoff *= 2;
        if (HandleClosed(handle)) return AE_HANDLE_CLOSED;
    }
}

}  // namespace drive
