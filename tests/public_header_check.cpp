// Compiled as C++17 with warnings as errors: a host that includes only the
// public header must build with an older standard than the library's own.
#include "cache/cache.h"

static_assert(__cplusplus == 201703L, "this unit checks the header as C++17");

int PublicHeaderCheck() {
    _READDATA read{};
    read.flags = RD_FETCH_ALL & RD_FETCH_ALL;
    return static_cast<int>(LL_INFO | LL_CACHE) + static_cast<int>(read.flags);
}
