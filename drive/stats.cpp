#include "drive/stats.h"

namespace drive {

void Stats::Print(FILE* out) const {
    constexpr auto kRelaxed = std::memory_order_relaxed;
    fprintf(out,
            "cachedrive stats: requests %lld, bytes fetched %lld, reads %lld, bytes served %lld, "
            "cache hits %lld, read errors %lld\n",
            requests.load(kRelaxed), bytesFetched.load(kRelaxed), reads.load(kRelaxed),
            bytesServed.load(kRelaxed), cacheHits.load(kRelaxed), readErrors.load(kRelaxed));
    fflush(out);
}

}  // namespace drive
