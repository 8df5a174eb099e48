// Warm reads through ReadonlyCache::Read against pread of the same bytes
// from a plain file, and the heap the sector map costs per GiB cached.
//
// READONLY_BENCH_MIB sets the remote file's size in MiB (default 256).
// No logger is bound: a host's logger formats every line it receives.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cache/cache_settings.h"
#include "cache/file_io.h"
#include "cache/readonly_cache.h"
#include "hostkit/file_fetcher.h"

namespace {

using cache::kSectorSize;
using cache::ReadonlyCache;

constexpr long long kMiB = 1048576;

// The remote file, a fetcher over it, and a store holding all of it.
class WarmCache {
  public:
    static WarmCache& Get() {
        static WarmCache instance;
        return instance;
    }

    long long size() const { return size_; }
    int plain() const { return plain_; }
    ReadonlyCache& store() { return *store_; }
    IFetch* fetcher() { return fetcher_.get(); }
    const std::string& directory() const { return directory_; }

  private:
    WarmCache() {
        const char* mib = getenv("READONLY_BENCH_MIB");
        size_ = (mib != nullptr ? atoll(mib) : 256) * kMiB;
        std::string pattern = (std::filesystem::temp_directory_path() / "readonly-bench-XXXXXX");
        directory_ = mkdtemp(pattern.data());
        const std::string remote = directory_ + "/remote.bin";
        plain_ = open(remote.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        config_ = std::make_shared<cache::CacheSettings>(1LL << 40);
        store_ = std::make_unique<ReadonlyCache>(cache::CacheDirectory::Open(directory_ + "/"),
                                                 "remote.bin", size_, config_);
        // Both files get the same bytes in the same 64 KiB pieces at the same
        // time, so that their page-cache layouts match and the comparison
        // measures the store, not where the kernel put the pages.
        std::vector<uint64_t> piece(static_cast<size_t>(kSectorSize / 8));
        std::mt19937_64 random(1);
        for (long long offset = 0; offset < size_; offset += kSectorSize) {
            for (uint64_t& word : piece) word = random();
            long done = 0;
            if (pwrite(plain_, piece.data(), kSectorSize, offset) != kSectorSize ||
                store_->FetchWrite(offset, reinterpret_cast<const char*>(piece.data()), kSectorSize,
                                   &done) != AE_OK) {
                abort();
            }
        }
        fetcher_ = std::make_unique<hostkit::FileFetcher>(remote);
    }
    ~WarmCache() {
        store_.reset();
        close(plain_);
        std::filesystem::remove_all(directory_);
    }

    long long size_ = 0;
    int plain_ = -1;
    std::string directory_;
    std::unique_ptr<hostkit::FileFetcher> fetcher_;
    std::shared_ptr<cache::CacheSettings> config_;
    std::unique_ptr<ReadonlyCache> store_;
};

// The offsets a run visits: sequential blocks, or random ones.
std::vector<long long> Offsets(long long size, long long block, bool sequential) {
    std::vector<long long> offsets;
    std::mt19937_64 random(2);
    for (long long i = 0; i < 65536; ++i) {
        offsets.push_back(sequential ? (i * block) % (size - size % block)
                                     : static_cast<long long>(random() % (size - block)));
    }
    return offsets;
}

void ReadThroughCache(benchmark::State& state, long long block, bool sequential) {
    WarmCache& warm = WarmCache::Get();
    const std::vector<long long> offsets = Offsets(warm.size(), block, sequential);
    std::vector<char> buffer(static_cast<size_t>(block));
    auto handle = std::make_shared<_FS_HANDLE>();
    size_t next = 0;
    for (auto _ : state) {
        _READDATA request{};
        request.buffer = buffer.data();
        request.offset = offsets[next++ % offsets.size()];
        request.length = block;
        request.handle = handle;
        request.fileSize = warm.size();
        request.fetch = warm.fetcher();
        if (warm.store().Read(&request) != AE_OK || request.transferred != block) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * block);
}

void ReadPlainFile(benchmark::State& state, long long block, bool sequential) {
    WarmCache& warm = WarmCache::Get();
    const std::vector<long long> offsets = Offsets(warm.size(), block, sequential);
    std::vector<char> buffer(static_cast<size_t>(block));
    size_t next = 0;
    for (auto _ : state) {
        if (pread(warm.plain(), buffer.data(), block, offsets[next++ % offsets.size()]) != block) {
            state.SkipWithError("pread failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * block);
}

void BM_SequentialPread128K(benchmark::State& state) {
    ReadPlainFile(state, 128 * 1024, true);
}
void BM_SequentialCache128K(benchmark::State& state) {
    ReadThroughCache(state, 128 * 1024, true);
}
void BM_RandomPread4K(benchmark::State& state) {
    ReadPlainFile(state, 4096, false);
}
void BM_RandomCache4K(benchmark::State& state) {
    ReadThroughCache(state, 4096, false);
}

BENCHMARK(BM_SequentialPread128K);
BENCHMARK(BM_SequentialCache128K);
BENCHMARK(BM_RandomPread4K);
BENCHMARK(BM_RandomCache4K);

// Heap held by the sector map and its index for 1 GiB (16384 sectors):
// contiguous, as fetches leave it, and in the worst case for the index,
// every other sector (one run per sector).
void SectorMapHeap(benchmark::State& state, bool fragmented) {
    const auto directory = cache::CacheDirectory::Open(WarmCache::Get().directory() + "/");
    auto config = std::make_shared<cache::CacheSettings>(1LL << 40);
    const long long sectors = 16384;
    const std::vector<char> data(static_cast<size_t>(kSectorSize), 'x');
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        auto store = std::make_unique<ReadonlyCache>(
            directory, fragmented ? "fragmented.bin" : "contiguous.bin", 2 * sectors * kSectorSize,
            config);
        for (long long i = 0; i < sectors; ++i) {
            long done = 0;
            store->FetchWrite((fragmented ? 2 * i : i) * kSectorSize, data.data(), kSectorSize,
                              &done);
        }
        state.counters["heap_MiB_per_GiB"] =
            static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(kMiB);
    }
}

void BM_SectorMapHeapContiguous(benchmark::State& state) {
    SectorMapHeap(state, false);
}
void BM_SectorMapHeapFragmented(benchmark::State& state) {
    SectorMapHeap(state, true);
}

BENCHMARK(BM_SectorMapHeapContiguous)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SectorMapHeapFragmented)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
