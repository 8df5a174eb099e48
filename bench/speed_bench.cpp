// speed_bench: the cache library's speed as a host sees it.
//
// A host built only on the public header: it links cache.so, binds a
// thread-pool queue and reads a 256 MiB remote file through ICacheObj::Read.
// Every figure is measured side by side with its reference in the same run
// (library and reference alternate, several rounds, medians), and printed as
// one table: library / reference / ratio / goal. The data of two plots is
// written to the output directory: warm throughput against read size, and
// cold read latency against the remote's latency.
//
// usage: speed_bench [OUTPUT_DIRECTORY]   (default: the current directory)
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cache/cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/read_range.h"
#include "hostkit/scratch.h"
#include "hostkit/thread_pool_queue.h"

namespace {

constexpr long long kKiB = 1024;
constexpr long long kMiB = 1024 * kKiB;
constexpr long long kRemoteSize = 256 * kMiB;
constexpr int kRounds = 9;
constexpr double kRoundSeconds = 0.15;
constexpr int kQueueThreads = 4;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

[[noreturn]] void Fail(const std::string& what) {
    fprintf(stderr, "speed_bench: %s\n", what.c_str());
    exit(1);
}

// Reads of one cache object into a buffer of the host's, as a drive does.
class ObjectReader {
  public:
    ObjectReader(ICacheObj& object, IFetch* fetch, long long maxLength)
        : object_(object), fetch_(fetch), buffer_(static_cast<size_t>(maxLength)) {}

    void Read(long long offset, long long length) {
        _READDATA request{};
        request.buffer = buffer_.data();
        request.offset = offset;
        request.length = length;
        request.handle = handle_;
        request.fileSize = kRemoteSize;
        request.fetch = fetch_;
        if (object_.Read(&request) != AE_OK || request.transferred != length) {
            Fail("a read through the cache failed at " + std::to_string(offset));
        }
    }
    const char* data() const { return buffer_.data(); }

  private:
    ICacheObj& object_;
    IFetch* fetch_;
    std::shared_ptr<_FS_HANDLE> handle_ = hostkit::OpenHandle();
    std::vector<char> buffer_;
};

// pread of the cache file itself: what a read costs without the library.
class FileReader {
  public:
    FileReader(int fd, long long maxLength) : fd_(fd), buffer_(static_cast<size_t>(maxLength)) {}
    void Read(long long offset, long long length) {
        if (pread(fd_, buffer_.data(), static_cast<size_t>(length), offset) != length) {
            Fail("pread of the cache file failed");
        }
    }

  private:
    int fd_;
    std::vector<char> buffer_;
};

// Offsets a run visits: sequential blocks wrapping at the end, or random
// 4 KiB-aligned ones.
std::vector<long long> Offsets(long long block, bool sequential, uint64_t seed) {
    std::vector<long long> offsets;
    std::mt19937_64 random(seed);
    const long long blocks = kRemoteSize / block;
    for (long long i = 0; i < 65536; ++i) {
        offsets.push_back(
            sequential ? (i % blocks) * block
                       : static_cast<long long>(random() % ((kRemoteSize - block) / (4 * kKiB))) *
                             4 * kKiB);
    }
    return offsets;
}

// Bytes per second of `threads` threads each calling `read(thread, offset)`
// over `offsets` for kRoundSeconds.
double Throughput(int threads, long long block, const std::vector<long long>& offsets,
                  const std::function<void(int, long long)>& read) {
    std::atomic<bool> stop{false};
    std::atomic<long long> total{0};
    std::vector<std::thread> workers;
    const auto start = Clock::now();
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            long long count = 0;
            size_t next = static_cast<size_t>(t) * offsets.size() / static_cast<size_t>(threads);
            while (!stop.load(std::memory_order_relaxed)) {
                read(t, offsets[next++ % offsets.size()]);
                ++count;
            }
            total.fetch_add(count);
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(kRoundSeconds));
    stop = true;
    for (std::thread& worker : workers) worker.join();
    return static_cast<double>(total.load() * block) / SecondsSince(start);
}

struct Pair {
    double library;
    double reference;
    double ratio;  // library / reference
};

// Medians over kRounds alternating rounds of two measurements. The ratio is
// the median of each round's ratio, which a machine whose load changes
// between rounds disturbs less than a ratio of medians.
Pair SideBySide(const std::function<double()>& library, const std::function<double()>& reference) {
    std::vector<double> a, b, ratios;
    for (int i = 0; i < kRounds; ++i) {
        a.push_back(library());
        b.push_back(reference());
        ratios.push_back(a.back() / b.back());
    }
    return {Median(a), Median(b), Median(ratios)};
}

struct Row {
    std::string figure;
    std::string library;
    std::string reference;
    double ratio;
    std::string goal;
};

std::string Format(const char* format, double value) {
    char text[64];
    snprintf(text, sizeof text, format, value);
    return text;
}

// The host: a remote file, a fetcher over it, a queue and one cache.
class Host {
  public:
    Host() : scratch_("speed-bench-") {
        remote_ = hostkit::WriteRandomFile(scratch_.Sub("remote.bin"), kRemoteSize);
        Cache_BindAsyncQ(&queue_);
        cachePath_ = scratch_.Sub("cache");
        if (InitCache(cachePath_.c_str(), 64ULL << 30, &cache_) != AE_OK || cache_ == nullptr) {
            Fail("InitCache failed");
        }
    }
    ~Host() {
        ReleaseCache(cachePath_.c_str());
        Cache_UnbindAsyncQ();
    }

    ICache& cache() { return *cache_; }
    hostkit::ThreadPoolQueue& queue() { return queue_; }
    const hostkit::ScratchDir& scratch() const { return scratch_; }
    const std::vector<char>& remote() const { return remote_; }
    std::string RemotePath() const { return scratch_.Sub("remote.bin"); }

    // The cache file of the object opened as `name`: the one file in the
    // cache directory whose name starts with it.
    std::string CacheFileOf(const std::string& name) const {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(cachePath_)) {
            if (entry.is_regular_file() && entry.path().filename().string().rfind(name, 0) == 0) {
                return entry.path().string();
            }
        }
        Fail("no cache file for " + name);
    }

  private:
    hostkit::ScratchDir scratch_;
    std::vector<char> remote_;
    hostkit::ThreadPoolQueue queue_{kQueueThreads};
    std::string cachePath_;
    ICache* cache_ = nullptr;
};

// Median milliseconds of 4 KiB reads that each find nothing cached, over a
// remote of `latencyMs` and 1 GB/s. Reads lie 2 MiB apart so that the
// 1 MiB queued by one never serves the next.
double ColdRandomMedianMs(Host& host, double latencyMs, int reads, const std::string& name) {
    hostkit::FileFetcher fetcher(host.RemotePath(),
                                 {.latencyMs = latencyMs, .bytesPerSecond = 1e9});
    std::shared_ptr<ICacheObj> object = host.cache().Open(name.c_str(), 'r', kRemoteSize, &fetcher);
    ObjectReader reader(*object, &fetcher, 4 * kKiB);
    std::vector<long long> slots;
    for (long long s = 0; s < kRemoteSize / (2 * kMiB); ++s) slots.push_back(s);
    std::mt19937_64 random(7);
    std::shuffle(slots.begin(), slots.end(), random);
    std::vector<double> latencies;
    for (int i = 0; i < reads; ++i) {
        const long long slot = slots[static_cast<size_t>(i) % slots.size()];
        const long long offset =
            slot * 2 * kMiB + static_cast<long long>(random() % (kMiB / (4 * kKiB))) * 4 * kKiB;
        const auto start = Clock::now();
        reader.Read(offset, 4 * kKiB);
        latencies.push_back(SecondsSince(start) * 1000);
        host.queue().WaitIdle();
    }
    host.cache().Close(name.c_str());
    return Median(latencies);
}

// When the first 64 KiB sector of a request is due from the remote.
double FirstSectorDueMs(double latencyMs, double bytesPerSecond) {
    return latencyMs + 65536.0 / bytesPerSecond * 1000;
}

void WriteFile(const std::string& path, const std::string& text) {
    FILE* out = fopen(path.c_str(), "w");
    if (out == nullptr || fputs(text.c_str(), out) < 0 || fclose(out) != 0) {
        Fail("cannot write " + path);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string outDir = argc > 1 ? argv[1] : ".";
    std::filesystem::create_directories(outDir);
    Host host;
    std::vector<Row> rows;

    // A warm object: the whole file fetched, no simulated network. The heap
    // it holds afterwards is what caching costs.
    hostkit::FileFetcher fast(host.RemotePath());
    const size_t heapBefore = mallinfo2().uordblks;
    std::shared_ptr<ICacheObj> warm = host.cache().Open("warm.bin", 'r', kRemoteSize, &fast);
    {
        ObjectReader fill(*warm, &fast, kMiB);
        for (long long offset = 0; offset < kRemoteSize; offset += kMiB) {
            fill.Read(offset, kMiB);
            if (memcmp(fill.data(), host.remote().data() + offset, kMiB) != 0) {
                Fail("the cache returned wrong bytes");
            }
        }
        host.queue().WaitIdle();
    }
    const double heapPerGiB = static_cast<double>(mallinfo2().uordblks - heapBefore) /
                              static_cast<double>(kMiB) *
                              static_cast<double>(1024 * kMiB / kRemoteSize);
    const int cacheFd = open(host.CacheFileOf("warm").c_str(), O_RDONLY | O_CLOEXEC);
    if (cacheFd < 0) Fail("cannot open the cache file");

    auto warmPair = [&](long long block, bool sequential, int threads) {
        const std::vector<long long> offsets = Offsets(block, sequential, 2);
        std::vector<std::unique_ptr<ObjectReader>> viaCache;
        std::vector<std::unique_ptr<FileReader>> viaFile;
        for (int t = 0; t < threads; ++t) {
            viaCache.push_back(std::make_unique<ObjectReader>(*warm, &fast, block));
            viaFile.push_back(std::make_unique<FileReader>(cacheFd, block));
        }
        return SideBySide(
            [&] {
                return Throughput(threads, block, offsets,
                                  [&](int t, long long o) { viaCache[t]->Read(o, block); });
            },
            [&] {
                return Throughput(threads, block, offsets,
                                  [&](int t, long long o) { viaFile[t]->Read(o, block); });
            });
    };

    const Pair seq = warmPair(128 * kKiB, true, 1);
    rows.push_back({"warm 128 KiB sequential reads", Format("%.2f GB/s", seq.library / 1e9),
                    Format("pread %.2f GB/s", seq.reference / 1e9), seq.ratio, ">= 0.95"});
    const Pair rnd = warmPair(4 * kKiB, false, 1);
    rows.push_back({"warm 4 KiB random reads", Format("%.0f k/s", rnd.library / 4096 / 1e3),
                    Format("pread %.0f k/s", rnd.reference / 4096 / 1e3), rnd.ratio, ">= 0.80"});
    for (int threads : {1, 2, 4}) {
        const Pair p = warmPair(128 * kKiB, false, threads);
        rows.push_back({"warm 128 KiB random reads, " + std::to_string(threads) + " thread" +
                            (threads > 1 ? "s" : ""),
                        Format("%.2f GB/s", p.library / 1e9),
                        Format("pread %.2f GB/s", p.reference / 1e9), p.ratio,
                        threads > 1 ? ">= 0.80" : ""});
    }

    // Cold sequential: the remote takes 20 ms to answer and then sends
    // 200 MB/s per request; reads of 128 KiB from start to end.
    {
        std::vector<double> rates;
        for (int round = 0; round < 3; ++round) {
            hostkit::FileFetcher slow(host.RemotePath(), {.latencyMs = 20, .bytesPerSecond = 2e8});
            const std::string name = "coldseq" + std::to_string(round) + ".bin";
            std::shared_ptr<ICacheObj> cold =
                host.cache().Open(name.c_str(), 'r', kRemoteSize, &slow);
            ObjectReader reader(*cold, &slow, 128 * kKiB);
            const auto start = Clock::now();
            for (long long offset = 0; offset < kRemoteSize; offset += 128 * kKiB) {
                reader.Read(offset, 128 * kKiB);
            }
            rates.push_back(static_cast<double>(kRemoteSize) / SecondsSince(start));
            host.cache().Close(name.c_str());
        }
        const double rate = Median(rates);
        rows.push_back({"cold 128 KiB sequential, remote 20 ms + 200 MB/s",
                        Format("%.0f MB/s", rate / 1e6), "remote 200 MB/s", rate / 2e8, ">= 0.90"});
    }

    // Cold random: a remote of 1 ms and 1 GB/s.
    {
        std::vector<double> medians;
        for (int round = 0; round < 3; ++round) {
            medians.push_back(
                ColdRandomMedianMs(host, 1, 41, "coldrnd" + std::to_string(round) + ".bin"));
        }
        const double median = Median(medians);
        const double due = FirstSectorDueMs(1, 1e9);
        rows.push_back({"cold 4 KiB random, remote 1 ms + 1 GB/s (median)",
                        Format("%.2f ms", median), Format("first sector due %.2f ms", due),
                        median / due, "<= 1.3"});
    }

    rows.push_back({"heap per GiB cached", Format("%.2f MiB", heapPerGiB), "", 0, "<= 2 MiB"});

    // ReleaseCache of a cache with four open objects, each with data.
    {
        std::vector<double> times;
        const std::string path = host.scratch().Sub("release");
        for (int i = 0; i < 11; ++i) {
            ICache* cache = nullptr;
            if (InitCache(path.c_str(), 128ULL << 20, &cache) != AE_OK) Fail("InitCache failed");
            for (int o = 0; o < 4; ++o) {
                const std::string name = "file" + std::to_string(o) + ".bin";
                std::shared_ptr<ICacheObj> object =
                    cache->Open(name.c_str(), 'r', kRemoteSize, &fast);
                ObjectReader(*object, &fast, 64 * kKiB).Read(0, 64 * kKiB);
            }
            host.queue().WaitIdle();
            const auto start = Clock::now();
            ReleaseCache(path.c_str());
            times.push_back(SecondsSince(start) * 1000);
        }
        rows.push_back(
            {"ReleaseCache, 4 open objects", Format("%.2f ms", Median(times)), "", 0, "< 50 ms"});
    }

    printf("| figure | library | reference | ratio | goal |\n|---|---|---|---|---|\n");
    for (const Row& row : rows) {
        printf("| %s | %s | %s | %s | %s |\n", row.figure.c_str(), row.library.c_str(),
               row.reference.empty() ? "-" : row.reference.c_str(),
               row.ratio > 0 ? Format("%.2f", row.ratio).c_str() : "-",
               row.goal.empty() ? "-" : row.goal.c_str());
    }
    fflush(stdout);

    // Plot data: warm sequential throughput by read size ...
    std::string warmData = "# read_KiB library_MBps pread_MBps\n";
    for (long long block = 4 * kKiB; block <= kMiB; block *= 2) {
        const Pair p = warmPair(block, true, 1);
        warmData += Format("%.0f", static_cast<double>(block / kKiB)) + " " +
                    Format("%.1f", p.library / 1e6) + " " + Format("%.1f", p.reference / 1e6) +
                    "\n";
    }
    WriteFile(outDir + "/warm_by_size.dat", warmData);
    // ... and cold 4 KiB read latency by the remote's latency.
    std::string coldData = "# remote_latency_ms library_median_ms first_sector_due_ms\n";
    int sweep = 0;
    for (double latency : {0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 20.0}) {
        const double median =
            ColdRandomMedianMs(host, latency, 21, "sweep" + std::to_string(sweep++) + ".bin");
        coldData += Format("%.1f", latency) + " " + Format("%.3f", median) + " " +
                    Format("%.3f", FirstSectorDueMs(latency, 1e9)) + "\n";
    }
    WriteFile(outDir + "/cold_by_latency.dat", coldData);

    close(cacheFd);
    warm.reset();
    return 0;
}
