// Arbitrary configuration texts: each is applied or rejected with 6001,
// never anything else, whatever the nesting, numbers or bytes.
#include <cstdlib>

#include "cache/cache_manager.h"
#include "fuzz/fuzz_host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& cache = *static_cast<cache::Cache*>(fuzzhost::TheHost().cache);
    const std::string text(reinterpret_cast<const char*>(data), size);
    const AERROR result = cache.SetConfiguration(text.c_str());
    if (result != AE_OK && result != AE_INVALID_CONFIG) std::abort();
    cache.GetConfig();
    return 0;
}
