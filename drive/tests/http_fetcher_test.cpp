// The fetcher against a scripted server: the bytes that reach the sink, the
// pieces they come in, and how the fetch ends when the server misbehaves.
#include "drive/http_fetcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>

#include "drive/tests/scripted_server.h"
#include "hostkit/scratch.h"

namespace drive {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::SeenRequest;
using testing::ServeContent;

constexpr long long kSector = 64 * 1024;

std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(generator());
    return bytes;
}

// Keeps what the fetcher delivers and checks the shape of every piece, and
// that no two pieces arrive at once.
class RecordingSink final : public IFetchCallback {
  public:
    explicit RecordingSink(long long fileSize)
        : fileSize_(fileSize), bytes_(fileSize, '\0'), filled_(fileSize, false) {}

    AERROR FetchWrite(long long offset, const char* data, long length, long* written) override {
        if (inside_.exchange(true)) overlapped_ = true;
        // Long enough that a second thread delivering meanwhile is caught.
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        const AERROR result = Store(offset, data, length, written);
        inside_ = false;
        return result;
    }

    // The delivered bytes of [offset, offset + length), or a note of the
    // first byte missing.
    std::string Range(long long offset, long long length) {
        std::lock_guard<std::mutex> guard(lock_);
        for (long long i = offset; i < offset + length; ++i) {
            if (!filled_[i]) return "missing byte " + std::to_string(i);
        }
        return bytes_.substr(offset, length);
    }
    long long Delivered() {
        std::lock_guard<std::mutex> guard(lock_);
        return std::count(filled_.begin(), filled_.end(), true);
    }
    int misshapen() { return misshapen_; }
    bool overlapped() { return overlapped_; }
    int twice() { return twice_; }

  private:
    AERROR Store(long long offset, const char* data, long length, long* written) {
        std::lock_guard<std::mutex> guard(lock_);
        if (offset % kSector != 0 || (length % kSector != 0 && offset + length != fileSize_)) {
            ++misshapen_;
        }
        for (long i = 0; i < length; ++i) {
            if (filled_[offset + i]) ++twice_;
            filled_[offset + i] = true;
            bytes_[offset + i] = data[i];
        }
        if (written != nullptr) *written = length;
        return AE_OK;
    }

    const long long fileSize_;
    std::atomic<bool> inside_{false};
    std::atomic<bool> overlapped_{false};
    std::mutex lock_;
    std::string bytes_;
    std::vector<bool> filled_;
    int misshapen_ = 0;
    int twice_ = 0;
};

// A fetcher of "file.bin" of `content.size()` bytes on `server`, with short
// back-offs and a stall limit of `stallSeconds`, delivering through `room`
// when one is given.
struct FetcherRig {
    FetcherRig(ScriptedServer& server, const std::string& content, long stallSeconds = 1,
               CacheRoom* room = nullptr)
        : log(stderr, -1),
          client(server.Url(), 4, Limits(stallSeconds), &stats),
          tree(&client, &log, std::chrono::seconds(10), 4) {
        NodeInfo file;
        file.inode = 7;
        file.path = "file.bin";
        file.size = static_cast<long long>(content.size());
        FetchPolicy policy;
        policy.firstBackoff = std::chrono::milliseconds(1);
        fetcher = std::make_unique<HttpFetcher>(file, &client, &tree, &log, &stats, policy, room);
        handle->state = 1;
    }
    static HttpLimits Limits(long stallSeconds) {
        HttpLimits limits;
        limits.lowSpeedSeconds = stallSeconds;
        return limits;
    }

    Stats stats;
    DriveLog log;
    HttpClient client;
    RemoteTree tree;
    std::unique_ptr<HttpFetcher> fetcher;
    std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();
};

TEST(HttpFetcherTest, StreamsTheAskedBytesInWholeSectorPieces) {
    const std::string content = RandomBytes(20 * 1048576 + 17, 1);
    ScriptedServer server([&](const SeenRequest& r) { return ServeContent(r, content); });
    // Nothing stalls here: a loose stall limit keeps a busy machine from
    // failing the transfer.
    FetcherRig rig(server, content, 10);

    // A tail that ends at the end of the file, and a large fetch that is
    // split into parallel ranges.
    RecordingSink tail(content.size());
    EXPECT_EQ(rig.fetcher->Fetch(20 * 1048576 - kSector, 2 * kSector, rig.handle, &tail), AE_OK);
    EXPECT_EQ(tail.Range(20 * 1048576 - kSector, kSector + 17),
              content.substr(20 * 1048576 - kSector));
    EXPECT_EQ(tail.Delivered(), kSector + 17);

    RecordingSink whole(content.size());
    const size_t before = server.Requests().size();
    EXPECT_EQ(rig.fetcher->Fetch(0, static_cast<long long>(content.size()), rig.handle, &whole),
              AE_OK);
    EXPECT_TRUE(whole.Range(0, content.size()) == content);
    EXPECT_GT(server.Requests().size() - before, 1u);
    EXPECT_EQ(whole.misshapen() + tail.misshapen(), 0);
    EXPECT_EQ(whole.twice(), 0);
    EXPECT_FALSE(whole.overlapped());
    // The first response's ETag guards every later request.
    EXPECT_EQ(server.Requests().back().headers["if-match"], "\"v1\"");
}

TEST(HttpFetcherTest, ServesAServerThatIgnoresRangesFromItsWholeStream) {
    const std::string content = RandomBytes(3 * 1048576 + 5, 2);
    ScriptedServer server([&](const SeenRequest&) {
        Reply reply;
        reply.body = content;
        return reply;
    });
    FetcherRig rig(server, content);
    RecordingSink sink(content.size());
    EXPECT_EQ(rig.fetcher->Fetch(kSector * 7, 2 * 1048576, rig.handle, &sink), AE_OK);
    EXPECT_TRUE(sink.Range(kSector * 7, 2 * 1048576) == content.substr(kSector * 7, 2 * 1048576));
    EXPECT_EQ(sink.Delivered(), 2 * 1048576);
    EXPECT_EQ(sink.misshapen(), 0);
}

TEST(HttpFetcherTest, ResumesCutBodiesAndRetriesServerErrors) {
    // One range: a fetch of up to 1 MiB is not split.
    const std::string content = RandomBytes(1048576, 3);
    std::atomic<int> served{0};
    ScriptedServer server([&](const SeenRequest& request) {
        const int n = served++;
        if (n % 3 == 2) return Reply{503, {}, "busy"};
        Reply reply = ServeContent(request, content);
        reply.sendBytes = 300000;  // not on a sector boundary
        return reply;
    });
    FetcherRig rig(server, content);
    RecordingSink sink(content.size());
    ASSERT_EQ(rig.fetcher->Fetch(0, static_cast<long long>(content.size()), rig.handle, &sink),
              AE_OK);
    EXPECT_TRUE(sink.Range(0, content.size()) == content);
    EXPECT_EQ(sink.misshapen(), 0);
    EXPECT_EQ(sink.twice(), 0);
    // Every retry asks for the bytes after the last one received.
    const auto requests = server.Requests();
    EXPECT_EQ(requests[1].headers.at("range"), "bytes=300000-1048575");
}

TEST(HttpFetcherTest, FailsWithoutZerosWhenTheServerSendsOtherBytes) {
    const std::string content = RandomBytes(1048576, 4);
    struct Case {
        const char* what;
        std::function<Reply(const SeenRequest&)> reply;
    };
    const std::vector<Case> cases = {
        {"shifted Content-Range",
         [&](const SeenRequest&) {
             Reply reply{206, {{"Content-Range", "bytes 65536-131071/1048576"}}, ""};
             reply.body = content.substr(65536, 65536);
             return reply;
         }},
        {"another total size",
         [&](const SeenRequest&) {
             Reply reply{206, {{"Content-Range", "bytes 0-65535/2000000"}}, ""};
             reply.body = content.substr(0, 65536);
             return reply;
         }},
        {"412 to If-Match",
         [](const SeenRequest&) {
             return Reply{412, {}, "changed"};
         }},
        {"404",
         [](const SeenRequest&) {
             return Reply{404, {}, "gone"};
         }},
        {"503 every time",
         [](const SeenRequest&) {
             return Reply{503, {}, "busy"};
         }},
        {"a whole body of another size",
         [](const SeenRequest&) {
             return Reply{200, {}, std::string(1000, 'x')};
         }},
        {"a stall after the first bytes",
         [&](const SeenRequest& r) {
             Reply reply = ServeContent(r, content);
             reply.sendBytes = 1000;
             reply.stallMs = 5000;
             return reply;
         }},
    };
    for (const Case& c : cases) {
        ScriptedServer server(c.reply);
        FetcherRig rig(server, content);
        RecordingSink sink(content.size());
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(rig.fetcher->Fetch(0, kSector, rig.handle, &sink), AE_READ_FAILED) << c.what;
        EXPECT_EQ(sink.Delivered(), 0) << c.what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << c.what;
        EXPECT_LE(server.Requests().size(), 4u) << c.what;
    }
}

TEST(HttpFetcherTest, RefusesBytesOfAnotherVersionAndStopsForAClosedHandle) {
    const std::string content = RandomBytes(2 * 1048576, 5);
    std::atomic<int> served{0};
    ScriptedServer server([&](const SeenRequest& request) {
        return ServeContent(request, content, served++ == 0 ? "\"v1\"" : "\"v2\"");
    });
    FetcherRig rig(server, content);
    RecordingSink sink(content.size());
    EXPECT_EQ(rig.fetcher->Fetch(0, kSector, rig.handle, &sink), AE_OK);
    EXPECT_EQ(rig.fetcher->Fetch(kSector, kSector, rig.handle, &sink), AE_READ_FAILED);
    EXPECT_EQ(sink.Delivered(), kSector);

    rig.handle->state = 4;
    EXPECT_EQ(rig.fetcher->Fetch(0, 1048576, rig.handle, &sink), AE_HANDLE_CLOSED);
}

TEST(HttpFetcherTest, AClosedHandleEndsAStalledTransfer) {
    const std::string content = RandomBytes(1048576, 6);
    ScriptedServer server([&](const SeenRequest& request) {
        Reply reply = ServeContent(request, content);
        reply.sendBytes = 10;
        reply.stallMs = 5000;
        return reply;
    });
    FetcherRig rig(server, content, 4);
    RecordingSink sink(content.size());
    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        std::atomic_ref<int32_t>(rig.handle->state).store(4);
    });
    // Closed long before the 4 s stall limit would end it as a failure.
    EXPECT_EQ(rig.fetcher->Fetch(0, 1048576, rig.handle, &sink), AE_HANDLE_CLOSED);
    closer.join();
}

TEST(HttpFetcherTest, DeliversOnlyWhenTheCacheHasRoomAndStopsWhenClosedWhileWaiting) {
    const std::string content = RandomBytes(4 * 1048576, 7);
    ScriptedServer server(
        [&](const SeenRequest& request) { return ServeContent(request, content); });
    hostkit::ScratchDir cacheDir("room-");
    DriveLog log(stderr, -1);
    CacheRoom room(cacheDir.path(), 1048576, std::chrono::seconds(30), &log);
    FetcherRig rig(server, content, 5, &room);
    const std::string full = cacheDir.Sub("full");

    // Room made while the fetch waits: every byte arrives, in order.
    hostkit::WriteRandomFile(full, 2 * 1048576);
    RecordingSink sink(content.size());
    AERROR result = AE_READ_FAILED;
    std::thread fetch([&] {
        result = rig.fetcher->Fetch(0, static_cast<long long>(content.size()), rig.handle, &sink);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(sink.Delivered(), 0) << "delivered into a full cache";
    unlink(full.c_str());
    fetch.join();
    EXPECT_EQ(result, AE_OK);
    EXPECT_TRUE(sink.Range(0, content.size()) == content);

    // Closed while waiting: the fetch ends long before the wait's bound.
    hostkit::WriteRandomFile(full, 2 * 1048576);
    RecordingSink closedSink(content.size());
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 1;
    std::thread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        std::atomic_ref<int32_t>(handle->state).store(4);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(rig.fetcher->Fetch(0, static_cast<long long>(content.size()), handle, &closedSink),
              AE_HANDLE_CLOSED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    closer.join();
}

AttemptEnd Ended(CURLcode code, long status, bool progressed = false) {
    AttemptEnd end;
    end.code = code;
    end.status = status;
    end.progressed = progressed;
    return end;
}

TEST(PieceLengthTest, PiecesAreWholeSectorsInFullRoundsOverTheConnections) {
    const FetchPolicy policy;  // 1 MiB to 4 MiB pieces over 8 connections
    for (const long long length :
         {1048576LL + kSector, 4194304LL, 8388608LL + 17, 67108864LL, 107374182LL, 1073741824LL}) {
        SCOPED_TRACE(length);
        const long long piece = PieceLength(length, policy);
        const long long pieces = (length + piece - 1) / piece;
        EXPECT_EQ(piece % kSector, 0);
        EXPECT_GE(piece, policy.splitAbove);
        EXPECT_LE(piece, policy.largestPiece);
        // Every connection is busy to the last round, unless the fetch is
        // too small to give each one a piece of the smallest size.
        if (length >= policy.parallelRanges * policy.splitAbove) {
            EXPECT_EQ(pieces % policy.parallelRanges, 0);
        }
    }
    EXPECT_EQ(PieceLength(67108864, policy), 4194304);
    EXPECT_EQ(PieceLength(2097152, policy), 1048576);
}

TEST(JudgeAttemptTest, TheStreamsDecisionStandsAndAnAbortIsAClosedHandle) {
    for (const RangeOutcome stop : {RangeOutcome::kComplete, RangeOutcome::kFail,
                                    RangeOutcome::kChanged, RangeOutcome::kSinkFailed}) {
        AttemptEnd end = Ended(CURLE_WRITE_ERROR, 206);
        end.stop = stop;
        EXPECT_EQ(JudgeAttempt(end, 3, 3).outcome, stop);
    }
    AttemptEnd aborted = Ended(CURLE_ABORTED_BY_CALLBACK, 206, true);
    aborted.complete = true;
    EXPECT_EQ(JudgeAttempt(aborted, 3, 3).outcome, RangeOutcome::kClosed);
    // Every byte arrived before the connection broke: nothing to retry.
    AttemptEnd broken = Ended(CURLE_RECV_ERROR, 206, true);
    broken.complete = true;
    EXPECT_EQ(JudgeAttempt(broken, 0, 3).outcome, RangeOutcome::kComplete);
}

TEST(JudgeAttemptTest, StatusesOtherThanServerErrorsAreNotRetried) {
    EXPECT_EQ(JudgeAttempt(Ended(CURLE_OK, 412), 3, 3).outcome, RangeOutcome::kChanged);
    for (const long status : {301L, 401L, 403L, 404L, 416L}) {
        EXPECT_EQ(JudgeAttempt(Ended(CURLE_OK, status), 3, 3).outcome, RangeOutcome::kRefused)
            << status;
    }
    // Server errors, short bodies and broken connections are retried.
    for (const AttemptEnd& end :
         {Ended(CURLE_OK, 503), Ended(CURLE_OK, 206), Ended(CURLE_OK, 200),
          Ended(CURLE_COULDNT_CONNECT, 0), Ended(CURLE_PARTIAL_FILE, 206)}) {
        EXPECT_EQ(JudgeAttempt(end, 3, 3).outcome, RangeOutcome::kRetry) << end.status;
    }
}

TEST(JudgeAttemptTest, GivesFullRetriesAfterProgressAndNoneAfterAStall) {
    const AttemptEnd failed = Ended(CURLE_RECV_ERROR, 206);
    int left = 3;
    for (int retry = 0; retry < 3; ++retry) {
        const RetryVerdict verdict = JudgeAttempt(failed, left, 3);
        ASSERT_EQ(verdict.outcome, RangeOutcome::kRetry);
        left = verdict.retriesLeft;
    }
    EXPECT_EQ(left, 0);
    EXPECT_EQ(JudgeAttempt(failed, left, 3).outcome, RangeOutcome::kExhausted);
    // A sector of progress makes the next retry free and restores them all.
    const RetryVerdict afterProgress = JudgeAttempt(Ended(CURLE_RECV_ERROR, 206, true), 0, 3);
    EXPECT_EQ(afterProgress.outcome, RangeOutcome::kRetry);
    EXPECT_EQ(afterProgress.retriesLeft, 3);
    // A stall costs the whole low-speed time: given up at once, unless
    // bytes came before it.
    EXPECT_EQ(JudgeAttempt(Ended(CURLE_OPERATION_TIMEDOUT, 206), 3, 3).outcome,
              RangeOutcome::kExhausted);
    EXPECT_EQ(JudgeAttempt(Ended(CURLE_OPERATION_TIMEDOUT, 206, true), 0, 3).outcome,
              RangeOutcome::kRetry);
}

}  // namespace
}  // namespace drive
