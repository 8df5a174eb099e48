// What a host must do and know beyond the interfaces' types: reads clipped
// to the file size, objects keyed by the exact name text, the defaults a
// host plans around, and Jansson's memory functions being the library's.
#include <gtest/gtest.h>
#include <jansson.h>

#include <atomic>
#include <cstdlib>

#include "cache/cache_manager.h"
#include "tests/test_host.h"

namespace {

using testhost::ReadRange;
using testhost::ReadResult;
using testhost::Slice;

class HostObligationsTest : public testhost::HostFixture {
  protected:
    HostObligationsTest()
        : HostFixture(
              {&Cache_BindLogger, &Cache_UnbindLogger, &Cache_BindAsyncQ, &Cache_UnbindAsyncQ},
              2 * 65536 + 1000) {}

    void SetUp() override {
        HostFixture::SetUp();
        ASSERT_EQ(InitCache(cachePath.c_str(), 64ULL << 20, &cache), AE_OK);
        ASSERT_NE(cache, nullptr);
    }
    void TearDown() override {
        ReleaseCache(cachePath.c_str());
        HostFixture::TearDown();
    }

    ICache* cache = nullptr;
};

TEST_F(HostObligationsTest, AReadPastTheEndFailsAndAClippedOneDeliversTheTail) {
    std::shared_ptr<ICacheObj> file = cache->Open("tail", 'r', size, &fetcher);
    const long long last = 2 * 65536;
    const ReadResult past = ReadRange(*file, &fetcher, size, last, 65536, 300);
    EXPECT_EQ(past.error, AE_READ_NOT_SERVED);
    const ReadResult clipped = ReadRange(*file, &fetcher, size, last, size - last, 300);
    EXPECT_EQ(clipped.error, AE_OK);
    EXPECT_EQ(clipped.bytes, Slice(remote, last, size - last));
    file->Close();
    cache->Close("tail");
}

TEST_F(HostObligationsTest, ObjectsAreKeyedByTheExactNameText) {
    std::shared_ptr<ICacheObj> a = cache->Open("srv\\share\\a.txt", 'r', size, &fetcher);
    std::shared_ptr<ICacheObj> same = cache->Open("srv\\share\\a.txt", 'r', size, &fetcher);
    std::shared_ptr<ICacheObj> slash = cache->Open("srv/share/a.txt", 'r', size, &fetcher);
    std::shared_ptr<ICacheObj> upper = cache->Open("SRV\\share\\a.txt", 'r', size, &fetcher);
    EXPECT_EQ(a, same);
    EXPECT_NE(a, slash);
    EXPECT_NE(a, upper);
    EXPECT_NE(slash, upper);
    for (const char* name : {"srv\\share\\a.txt", "srv/share/a.txt", "SRV\\share\\a.txt"}) {
        cache->Close(name);
    }
    for (const auto& object : {a, slash, upper}) object->Close();
}

// The README promises these: a read waits a minute at most, and a sector
// that was read is dropped a minute after its read, checked every 30 s.
TEST_F(HostObligationsTest, DefaultsTheReadmePromises) {
    const _CACHECONFIG config = dynamic_cast<ICacheConfig*>(cache)->GetConfig();
    EXPECT_EQ(config.readtimeout, 60000);
    EXPECT_EQ(config.clrused, 60);
    EXPECT_EQ(config.clrperiod, 30000);
}

std::atomic<int> hostAllocations{0};

void* HostMalloc(size_t size) {
    hostAllocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size);
}

void HostFree(void* block) {
    std::free(block);
}

TEST_F(HostObligationsTest, SetConfigurationPutsMallocAndFreeIntoJanssonForTheProcess) {
    json_set_alloc_funcs(HostMalloc, HostFree);
    ASSERT_EQ(cache->SetConfiguration(R"({"cache":{"read":{"timeout":5000}}})"), AE_OK);
    json_malloc_t allocate = nullptr;
    json_free_t release = nullptr;
    json_get_alloc_funcs(&allocate, &release);
    EXPECT_EQ(allocate, &std::malloc);
    EXPECT_EQ(release, &std::free);
    // The host's own JSON work no longer goes through its functions.
    const int before = hostAllocations.load();
    json_decref(json_pack("{s:i}", "key", 1));
    EXPECT_EQ(hostAllocations.load(), before);
}

}  // namespace
