// A stopwatch on the monotonic steady clock.
//
// The library measures its waits with it: how long a read or write has been
// waiting for fetched sectors, and the periods of the quota manager thread.
// Changes of the wall-clock time never shorten or lengthen a measurement.
//
// A Chrono is a plain value owned by one thread; concurrent reset() and
// elapsed() on the same instance need external synchronization.
#ifndef CACHE_COMMON_CHRONO_H_
#define CACHE_COMMON_CHRONO_H_

#include <chrono>

namespace cache {

class Chrono {
  public:
    // Starts measuring at once.
    Chrono();
    Chrono(const Chrono&) = default;
    Chrono& operator=(const Chrono&) = default;
    virtual ~Chrono();

    // Restarts the measurement from now.
    void reset();

    // Whole milliseconds since construction or the last reset(); never
    // negative, and non-decreasing between resets.
    long long elapsed() const;

    // Converts a span to whole milliseconds, truncating toward zero: one
    // nanosecond short of a millisecond is 0.
    static long long Milliseconds(std::chrono::nanoseconds span);

  private:
    std::chrono::steady_clock::time_point start_;
};

}  // namespace cache

#endif  // CACHE_COMMON_CHRONO_H_
