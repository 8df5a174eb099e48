// How long ReleaseCache keeps the host waiting when the cache still has a
// few open objects: the quota thread must stop at once instead of finishing
// its pause, and objects whose last owner is the cache close their stores.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cache/cache.h"
#include "hostkit/file_fetcher.h"
#include "hostkit/read_range.h"
#include "hostkit/scratch.h"
#include "hostkit/thread_pool_queue.h"

namespace {

constexpr long long kRemoteSize = 1 << 20;

// Arguments: the number of open objects, and whether the host still holds
// them (1) or the cache holds their last reference (0).
void BM_ReleaseCache(benchmark::State& state) {
    const int objects = static_cast<int>(state.range(0));
    const bool hostHolds = state.range(1) != 0;
    hostkit::ScratchDir scratch("release-");
    hostkit::WriteRandomFile(scratch.Sub("remote.bin"), kRemoteSize);
    hostkit::ThreadPoolQueue queue(4);
    Cache_BindAsyncQ(&queue);
    hostkit::FileFetcher fetcher(scratch.Sub("remote.bin"));
    const std::string path = scratch.Sub("cache");

    for (auto _ : state) {
        ICache* cache = nullptr;
        if (InitCache(path.c_str(), 128ULL << 20, &cache) != AE_OK || cache == nullptr) {
            state.SkipWithError("InitCache failed");
            break;
        }
        std::vector<std::shared_ptr<ICacheObj>> held;
        for (int i = 0; i < objects; ++i) {
            const std::string name = "file" + std::to_string(i) + ".bin";
            held.push_back(cache->Open(name.c_str(), 'r', kRemoteSize, &fetcher));
            if (hostkit::ReadRange(*held.back(), &fetcher, kRemoteSize, 0, 65536).error != AE_OK) {
                state.SkipWithError("read failed");
            }
        }
        queue.WaitIdle();
        if (!hostHolds) held.clear();

        const auto start = std::chrono::steady_clock::now();
        ReleaseCache(path.c_str());
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        held.clear();
    }
    Cache_UnbindAsyncQ();
}

BENCHMARK(BM_ReleaseCache)
    ->ArgNames({"objects", "host_holds"})
    ->ArgsProduct({{1, 4, 16}, {0, 1}})
    ->UseManualTime()
    ->Iterations(40)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
