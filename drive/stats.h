// Counters of what the drive did, printed on exit and on SIGUSR1.
//
// Thread-safe: every counter is a relaxed atomic, bumped by FUSE and fetch
// threads; a printout is a snapshot that may mix moments.
#ifndef DRIVE_STATS_H_
#define DRIVE_STATS_H_

#include <atomic>
#include <cstdio>

namespace drive {

struct Stats {
    std::atomic<long long> requests{0};      // HTTP requests sent
    std::atomic<long long> bytesFetched{0};  // body bytes received for file content
    std::atomic<long long> reads{0};         // read requests answered with data
    std::atomic<long long> bytesServed{0};   // bytes those reads returned
    std::atomic<long long> cacheHits{0};     // reads during which no fetch of their file ran
    std::atomic<long long> readErrors{0};    // reads answered with an error

    static void Add(std::atomic<long long>& counter, long long amount) {
        counter.fetch_add(amount, std::memory_order_relaxed);
    }

    // One line "cachedrive stats: requests N, bytes fetched N, ..." to `out`.
    void Print(FILE* out) const;
};

}  // namespace drive

#endif  // DRIVE_STATS_H_
