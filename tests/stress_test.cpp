// Many host threads over several remote files of awkward sizes, through a
// cache made with InitCache and a real thread-pool queue, while eviction
// drops sectors throughout. Every byte read is compared with a model of the
// remote. Write sessions change a file through mode 'w' and hand the written
// copy on as the remote's new version, as a host that uploads it would.
//
// The short form runs a few seconds per configuration; `--soak[=SECONDS]`
// runs each configuration for SECONDS (default 60) for hand runs.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache_obj.h"
#include "tests/model_remote.h"
#include "tests/test_host.h"

namespace {

using modeltest::Bytes;
using modeltest::FirstDifference;
using modeltest::kSector;
using modeltest::ModelRemote;
using modeltest::SliceOf;

double g_seconds = 2.0;  // per configuration; --soak changes it

constexpr long long kMiB = 1048576;
constexpr long long kTimeoutMs = 20000;  // far above any wait a correct cache needs

// One remote file, its fetcher and the object the host holds for it. Reads
// hold `gate` shared; a write session or a close and re-open holds it
// exclusively, so every read knows which version of the bytes it must see.
struct StressFile {
    std::string name;
    std::unique_ptr<ModelRemote> remote;
    std::shared_mutex gate;
    std::shared_ptr<ICacheObj> object;  // guarded by gate
    long long size = 0;                 // guarded by gate
};

struct Counters {
    std::atomic<long long> operations{0};
    std::atomic<long long> bytesVerified{0};
    std::atomic<long long> writeSessions{0};
    std::atomic<long long> reopens{0};
    std::atomic<long long> evictionPasses{0};
    // Reads answered 8 because eviction with ages of 0 s took sectors the
    // read had already waited for: a correct answer, but one that must stay
    // rare.
    std::atomic<long long> notServed{0};
    std::atomic<bool> failed{false};
    std::mutex lock;
    std::string firstFailure;  // guarded by lock

    void Fail(const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        if (!failed.exchange(true)) firstFailure = what;
    }
};

class StressRun {
  public:
    StressRun(ICache* cache, const std::vector<long long>& sizes) : cache_(cache) {
        for (size_t i = 0; i < sizes.size(); ++i) {
            auto file = std::make_unique<StressFile>();
            file->name = "stress-" + std::to_string(i) + ".bin";
            // Pieces of 1, 3 or 7 sectors; every other fetcher has latency.
            static constexpr long long kPieceSectors[] = {1, 3, 7};
            file->remote = std::make_unique<ModelRemote>(modeltest::RandomBytes(sizes[i], 100 + i),
                                                         kPieceSectors[i % 3], i % 2);
            file->size = sizes[i];
            file->object = cache_->Open(file->name.c_str(), 'r', file->size, file->remote.get());
            files_.push_back(std::move(file));
        }
    }

    // Runs `threads` host threads and one eviction thread for `seconds`.
    void Run(int threads, double seconds) {
        std::atomic<bool> stop{false};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([this, t, &stop] { Work(1000 + t, stop); });
        }
        std::thread evictor([this, &stop] { Evict(stop); });
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end && !counters.failed.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        stop = true;
        for (std::thread& worker : workers) worker.join();
        evictor.join();
    }

    void CloseAll() {
        for (auto& file : files_) {
            file->object->Close();
            cache_->Close(file->name.c_str());
        }
    }

    Counters counters;

  private:
    void Work(uint64_t seed, const std::atomic<bool>& stop) {
        std::mt19937_64 random(seed);
        while (!stop.load() && !counters.failed.load()) {
            StressFile& file = *files_[random() % files_.size()];
            const int pick = static_cast<int>(random() % 100);
            if (pick < 55) {
                RandomRead(file, random);
            } else if (pick < 80) {
                SequentialStreak(file, random);
            } else if (pick < 88) {
                WholeFileRead(file);
            } else if (pick < 95) {
                WriteSession(file, random);
            } else {
                Reopen(file);
            }
            counters.operations.fetch_add(1);
        }
    }

    // Reads one range with the state of `file` that the caller's gate fixes.
    void CheckRead(StressFile& file, long long offset, long long length, RD_FLAGS flags,
                   const char* what) {
        // A host clips its reads to the file size: past it a read fails.
        length = std::clamp(file.size - offset, 0LL, length);
        const std::shared_ptr<const Bytes> want = file.remote->Current();
        Bytes got(static_cast<size_t>(length));
        _READDATA request{
            got.data(),        offset,     length, 0, testhost::OpenHandle(), file.size,
            file.remote.get(), kTimeoutMs, flags};
        const AERROR error = file.object->Read(&request);
        const Bytes expected = SliceOf(*want, offset, length);
        got.resize(static_cast<size_t>(std::clamp(request.transferred, 0LL, length)));
        std::ostringstream where;
        where << what << " of " << file.name << " (" << file.size << " bytes) at " << offset
              << " length " << length;
        if (error == AE_READ_NOT_SERVED) {
            counters.notServed.fetch_add(1);
            return;
        }
        if (error != AE_OK) {
            where << ": result " << error;
            counters.Fail(where.str());
            return;
        }
        const long long bad = FirstDifference(got, expected);
        if (bad >= 0) {
            where << ": " << got.size() << " bytes delivered, " << expected.size()
                  << " expected, first wrong byte at " << offset + bad;
            counters.Fail(where.str());
            return;
        }
        counters.bytesVerified.fetch_add(static_cast<long long>(got.size()));
    }

    static long long PickLength(std::mt19937_64& random) {
        static constexpr long long kLengths[] = {1,       100,         kSector - 1,
                                                 kSector, kSector + 1, 3 * kSector + 17};
        if (random() % 3 == 0) return 1 + static_cast<long long>(random() % (3 * kMiB));
        return kLengths[random() % std::size(kLengths)];
    }

    void RandomRead(StressFile& file, std::mt19937_64& random) {
        std::shared_lock<std::shared_mutex> gate(file.gate);
        const long long offset = static_cast<long long>(random() % (file.size + 1));
        CheckRead(file, offset, PickLength(random), RD_NONE, "read");
    }

    // Consecutive reads, so that read-ahead starts.
    void SequentialStreak(StressFile& file, std::mt19937_64& random) {
        std::shared_lock<std::shared_mutex> gate(file.gate);
        const long long length = 4096 + static_cast<long long>(random() % (512 * 1024));
        long long offset = file.size == 0 ? 0 : static_cast<long long>(random() % file.size);
        for (int i = 0; i < 8 && offset < file.size; ++i, offset += length) {
            CheckRead(file, offset, length, RD_NONE, "sequential read");
        }
    }

    void WholeFileRead(StressFile& file) {
        std::shared_lock<std::shared_mutex> gate(file.gate);
        CheckRead(file, 0, std::max(1LL, file.size), RD_FETCH_ALL, "whole-file read");
    }

    // Writes a few ranges in mode 'w', checks them, fills the rest, switches
    // back to 'r' and makes the written copy the remote's new version.
    void WriteSession(StressFile& file, std::mt19937_64& random) {
        std::unique_lock<std::shared_mutex> gate(file.gate);
        Bytes image = *file.remote->Current();
        AERROR error = file.object->SetMode('w', file.size, file.remote.get());
        if (error != AE_OK)
            return counters.Fail(file.name + ": SetMode('w') " + std::to_string(error));
        const int writes = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < writes; ++i) {
            // Inside the file or appended at its end, never leaving a gap.
            const long long size = static_cast<long long>(image.size());
            const long long offset = static_cast<long long>(random() % (size + 1));
            const Bytes piece = modeltest::RandomBytes(
                1 + static_cast<long long>(random() % (2 * kSector + 3)), random());
            _WRITEDATA request{piece.data(),           offset, std::ssize(piece), 0,
                               testhost::OpenHandle(), size,   file.remote.get(), kTimeoutMs};
            error = file.object->Write(&request);
            if (error != AE_OK || request.transferred != std::ssize(piece)) {
                return counters.Fail(file.name + ": write at " + std::to_string(offset) +
                                     " result " + std::to_string(error));
            }
            modeltest::Overlay(image, offset, piece);
        }
        error = file.object->FillEmptySectors(file.remote.get());
        if (error != AE_OK) return counters.Fail(file.name + ": fill " + std::to_string(error));
        file.remote->Replace(image);
        file.size = static_cast<long long>(image.size());
        // The complete writable copy reads as the new version, also without a
        // fetcher.
        CheckRead(file, 0, std::max(1LL, file.size), RD_NONE, "read in mode 'w'");
        error = file.object->SetMode('r', file.size, file.remote.get());
        if (error != AE_OK)
            return counters.Fail(file.name + ": SetMode('r') " + std::to_string(error));
        counters.writeSessions.fetch_add(1);
    }

    void Reopen(StressFile& file) {
        std::unique_lock<std::shared_mutex> gate(file.gate);
        file.object->Close();
        cache_->Close(file.name.c_str());
        file.object = cache_->Open(file.name.c_str(), 'r', file.size, file.remote.get());
        counters.reopens.fetch_add(1);
    }

    // Evicts every sector old enough on every object, over and over, on top
    // of the cache's own passes.
    void Evict(const std::atomic<bool>& stop) {
        for (long long pass = 0; !stop.load(); ++pass) {
            for (auto& file : files_) {
                std::shared_lock<std::shared_mutex> gate(file->gate);
                std::static_pointer_cast<cache::CacheObj>(file->object)
                    ->ClearOldCache(pass % 2 == 0);
            }
            counters.evictionPasses.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    ICache* cache_;
    std::vector<std::unique_ptr<StressFile>> files_;
};

class StressTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(Cache_BindLogger(&log));
        ASSERT_TRUE(Cache_BindAsyncQ(&queue));
        ASSERT_EQ(InitCache(cachePath.c_str(), 1ULL << 30, &cache), AE_OK);
    }
    void TearDown() override {
        queue.WaitIdle();
        EXPECT_EQ(ReleaseCache(cachePath.c_str()), AE_OK);
        Cache_UnbindAsyncQ();
        Cache_UnbindLogger();
    }

    // Runs the stress with the configuration `json` and checks its outcome.
    void RunWith(const std::string& json) {
        ASSERT_EQ(cache->SetConfiguration(json.c_str()), AE_OK);
        StressRun run(cache, {0, 1, kSector - 1, kSector, kSector + 1, 3 * kSector + 100, kMiB + 5,
                              7 * kMiB + 4321});
        run.Run(8, g_seconds);
        run.CloseAll();
        const Counters& c = run.counters;
        std::printf(
            "%lld operations, %lld bytes verified, %lld write sessions, %lld re-opens, "
            "%lld eviction passes, %lld reads not served\n",
            c.operations.load(), c.bytesVerified.load(), c.writeSessions.load(), c.reopens.load(),
            c.evictionPasses.load(), c.notServed.load());
        EXPECT_FALSE(c.failed.load()) << c.firstFailure << ErrorLines();
        EXPECT_LT(c.notServed.load() * 20, c.operations.load()) << ErrorLines();
        EXPECT_GT(c.bytesVerified.load(), 0);
    }

    // The first error lines the library logged, to explain a failure.
    std::string ErrorLines() const {
        std::string text;
        int count = 0;
        for (const hostkit::LogLine& line : log.Lines()) {
            if ((line.level & LL_ERROR) == 0 || ++count > 20) continue;
            text += "\n  " + line.text;
        }
        return text;
    }

    testhost::TempDir dir;
    const std::string cachePath = dir.Sub("cache");
    hostkit::LineLogger log;
    hostkit::ThreadPoolQueue queue{4};
    ICache* cache = nullptr;
};

// Ages of 0 s and a period of 0 ms: every pass may drop every sector that is
// not being fetched.
constexpr const char* kEvictAll =
    R"("clear":{"period":0,"usedblock":0,"unusedblock":0,
        "over":{"usedblock":0,"unusedblock":0}})";

TEST_F(StressTest, SectorMultipleSizes) {
    RunWith(std::string(R"({"cache":{"ra":{"hit":1,"min":131072,"max":2097152},)") + kEvictAll +
            "}}");
}

// Fetch chunks and read-ahead sizes that end inside a sector.
TEST_F(StressTest, SizesInsideSectors) {
    RunWith(std::string(R"({"cache":{"ra":{"hit":1,"min":196609,"max":3145729},)") +
            R"("read":{"maxfetch":1048583},)" + kEvictAll + "}}");
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--soak") == 0) {
            g_seconds = 60;
        } else if (std::strncmp(argv[i], "--soak=", 7) == 0) {
            g_seconds = std::atof(argv[i] + 7);
        }
    }
    return RUN_ALL_TESTS();
}
