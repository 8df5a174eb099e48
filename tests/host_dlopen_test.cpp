// A host that knows the library only through its public header: it loads
// the built shared library with dlopen, finds the exported functions with
// dlsym and drives caches and cache objects the way a drive client does.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/test_host.h"

namespace {

using testhost::ReadRange;
using testhost::Thrown;
using testhost::WriteText;

constexpr unsigned long long kMiB = 1 << 20;

// The library's exported functions, resolved once per process.
struct Library {
    void* handle = nullptr;
    AERROR (*InitCache)(const char*, unsigned long long, ICache**) = nullptr;
    AERROR (*ReleaseCache)(const char*) = nullptr;
    testhost::Bindings bindings{};
};

Library lib;

template <class Function>
void Resolve(Function& target, const char* name) {
    target = reinterpret_cast<Function>(dlsym(lib.handle, name));
    ASSERT_NE(target, nullptr) << name << ": " << dlerror();
}

class HostTest : public testhost::HostFixture {
  protected:
    HostTest() : HostFixture(lib.bindings, 5 * 65536 + 1234) {}

    static void SetUpTestSuite() {
        lib.handle = dlopen(CACHE_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib.handle, nullptr) << dlerror();
        Resolve(lib.InitCache, "InitCache");
        Resolve(lib.ReleaseCache, "ReleaseCache");
        Resolve(lib.bindings.bindLogger, "Cache_BindLogger");
        Resolve(lib.bindings.unbindLogger, "Cache_UnbindLogger");
        Resolve(lib.bindings.bindAsyncQ, "Cache_BindAsyncQ");
        Resolve(lib.bindings.unbindAsyncQ, "Cache_UnbindAsyncQ");
    }

    static void TearDownTestSuite() {
        // Every test releases its caches, so unloading ends nothing of theirs.
        if (lib.handle != nullptr) dlclose(lib.handle);
        lib = Library{};
    }

    void SetUp() override {
        ASSERT_NE(lib.handle, nullptr);
        HostFixture::SetUp();
    }

    // Exactly one line was logged with `format` (by default `text` itself);
    // it reads `text` at `severity`. Returns its index among all lines.
    long ExpectLine(LOGLEVEL severity, const std::string& text, std::string format = "") const {
        const std::vector<hostkit::LogLine> lines = log.Lines();
        long found = -1;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].format != (format.empty() ? text : format)) continue;
            EXPECT_EQ(found, -1) << "logged again: " << text;
            EXPECT_EQ(lines[i].text, text);
            EXPECT_EQ(lines[i].level, severity | LL_CACHE) << text;
            found = static_cast<long>(i);
        }
        EXPECT_GE(found, 0) << "not logged: " << text;
        return found;
    }

    // The free space the library saw in its last "Cache path" line.
    long long LastReportedSpace() const {
        long long space = -1;
        for (const hostkit::LogLine& line : log.Lines()) {
            if (line.text.rfind("Cache path ", 0) != 0) continue;
            space = std::stoll(line.text.substr(line.text.rfind(", ") + 2));
        }
        return space;
    }
};

TEST_F(HostTest, WholeLifeCycleThroughTheLoadedLibrary) {
    ICache* cache = nullptr;
    ASSERT_EQ(lib.InitCache(cachePath.c_str(), 100 * kMiB, &cache), AE_OK);
    ASSERT_NE(cache, nullptr);
    ExpectLine(LL_INFO, "Cache initialized : " + cachePath +
                            "/, Storage limit : " + std::to_string(cache->GetLimit()) + " bytes");
    EXPECT_EQ(cache->SetConfiguration(R"({"cache":{"read":{"timeout":5000}}})"), AE_OK);

    // Read in unaligned pieces; a second Open of the name, whatever it asks,
    // hands back the same object.
    const std::string name = "\\\\server\\share\\data.bin";
    std::shared_ptr<ICacheObj> object = cache->Open(name.c_str(), 'r', size, &fetcher);
    ASSERT_TRUE(object);
    EXPECT_TRUE(std::filesystem::exists(cachePath + "/data.bin"));
    for (long long offset = 0; offset < size; offset += 150000) {
        EXPECT_TRUE(ReadsRemote(*object, &fetcher, offset, std::min(150000LL, size - offset)));
    }
    EXPECT_EQ(cache->Open(name.c_str(), 'w', 1, nullptr), object);
    // An unknown mode changes nothing: the cached bytes are still served.
    EXPECT_EQ(object->SetMode('x', size, &fetcher), AE_INVALID_MODE);
    EXPECT_TRUE(ReadsRemote(*object, nullptr, 0, size));

    // Writable: the read-only cache file is gone, and a partial write lands
    // between remote bytes.
    ASSERT_EQ(object->SetMode('w', size, &fetcher), AE_OK);
    EXPECT_EQ(testhost::UsageOf(cachePath).files, 1);
    const testhost::WriteResult written = WriteText(*object, &fetcher, 70000, "0123456789");
    ASSERT_EQ(written.error, AE_OK);
    EXPECT_EQ(written.transferred, 10);
    EXPECT_GE(written.fileSize, 70010);
    std::copy_n("0123456789", 10, remote.begin() + 70000);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 69990, 40));

    // Back to read-only after filling: everything is served without the
    // remote. Asking for read-only again keeps the store.
    ASSERT_EQ(object->FillEmptySectors(&fetcher), AE_OK);
    ASSERT_EQ(object->SetMode('r', size, &fetcher), AE_OK);
    ASSERT_EQ(object->SetMode('r', 1, nullptr), AE_OK);
    const long long callsBefore = fetcher.Calls();
    EXPECT_TRUE(ReadsRemote(*object, nullptr, 0, size));
    EXPECT_EQ(fetcher.Calls(), callsBefore);

    // Rehash moves the object to its new key, taking over from the object
    // open there (keys are case-sensitive), and renames its log lines.
    const std::string moved = "\\\\SERVER\\share\\DATA.BIN";
    std::shared_ptr<ICacheObj> displaced = cache->Open(moved.c_str(), 'r', size, &fetcher);
    EXPECT_NE(displaced, object);
    const long owners = displaced.use_count();
    ASSERT_EQ(cache->Rehash(name.c_str(), moved.c_str(), "moved.bin"), AE_OK);
    EXPECT_EQ(displaced.use_count(), owners - 1);
    displaced.reset();
    ExpectLine(LL_INFO, "Rehash cache : " + name + " to " + moved, "Rehash cache : %s to %s");
    EXPECT_STREQ(object->GetHashIndex(), moved.c_str());
    EXPECT_EQ(cache->Open(moved.c_str(), 'r', size, &fetcher), object);
    EXPECT_EQ(cache->Rehash(name.c_str(), "x", "x"), AE_INVALID_HANDLE);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 0, 10));
    EXPECT_TRUE(log.HasTextContaining("[moved.bin] Read"));

    // Close drops the table's reference once; an unknown name logs nothing.
    // Opening the name again builds a new object; the host's old one lives on.
    EXPECT_EQ(cache->Close(moved.c_str()), AE_OK);
    EXPECT_EQ(cache->Close(moved.c_str()), AE_OK);
    ExpectLine(LL_INFO, "Close cache : " + moved, "Close cache : %s");
    EXPECT_NE(cache->Open(moved.c_str(), 'r', size, &fetcher), object);
    EXPECT_TRUE(ReadsRemote(*object, nullptr, 0, size));
    object->Close();
    EXPECT_EQ(ReadRange(*object, &fetcher, size, 0, 10).error, AE_NOT_FOUND);
    object.reset();
    EXPECT_EQ(testhost::UsageOf(cachePath).files, 1);  // the new object's

    ASSERT_EQ(lib.ReleaseCache(cachePath.c_str()), AE_OK);
    EXPECT_EQ(testhost::UsageOf(cachePath).files, 0);
    ExpectLine(LL_DETAIL, "Cache quota manager started");
    const long uninitialize = ExpectLine(LL_INFO, "Uninitialize cache...");
    const long stopped = ExpectLine(LL_DETAIL, "Cache quota manager stopped");
    EXPECT_LT(uninitialize, stopped);
    EXPECT_LT(stopped, ExpectLine(LL_INFO, "Cache uninitialized"));

    // Every line carries the module bit and exactly one severity.
    for (const hostkit::LogLine& line : log.Lines()) {
        const int severity = static_cast<int>(line.level) & ~static_cast<int>(LL_CACHE);
        EXPECT_TRUE(static_cast<int>(line.level) & LL_CACHE) << line.text;
        EXPECT_TRUE(severity == LL_DETAIL || severity == LL_INFO || severity == LL_ERROR)
            << line.text;
    }
}

TEST_F(HostTest, RegistryKeysCachesByTheExactPathText) {
    ICache* first = nullptr;
    ICache* other = nullptr;
    ASSERT_EQ(lib.InitCache(cachePath.c_str(), 100 * kMiB, &first), AE_OK);
    const long long limit = first->GetLimit();
    ASSERT_EQ(lib.InitCache(cachePath.c_str(), 300 * kMiB, &other), AE_OK);
    EXPECT_EQ(other, first);
    EXPECT_EQ(first->GetLimit(), limit);
    // Another spelling of the same directory is another cache.
    ASSERT_EQ(lib.InitCache((cachePath + "/").c_str(), 100 * kMiB, &other), AE_OK);
    EXPECT_NE(other, first);
    const std::string initialized = "Cache initialized : " + cachePath +
                                    "/, Storage limit : " + std::to_string(limit) + " bytes";
    EXPECT_EQ(log.WithFormat(initialized).size(), 2u);
    EXPECT_EQ(lib.ReleaseCache(cachePath.c_str()), AE_OK);
    EXPECT_EQ(lib.ReleaseCache((cachePath + "/").c_str()), AE_OK);
    EXPECT_EQ(lib.ReleaseCache(cachePath.c_str()), AE_OK);  // unknown by now
    EXPECT_EQ(log.WithFormat("Cache uninitialized").size(), 2u);

    // A relative path is read from the root; a name like a format is logged as it is.
    const std::pair<std::string, std::string> spellings[] = {
        {cachePath.substr(1) + "//rel", cachePath + "/rel/"},
        {dir.Sub("100%s%n"), dir.Sub("100%s%n/")}};
    for (const auto& [given, directory] : spellings) {
        ASSERT_EQ(lib.InitCache(given.c_str(), 100 * kMiB, &other), AE_OK);
        EXPECT_TRUE(std::filesystem::is_directory(directory));
        EXPECT_TRUE(log.HasTextContaining("Cache initialized : " + directory + ", Storage limit"));
        EXPECT_EQ(lib.ReleaseCache(given.c_str()), AE_OK);
    }
    EXPECT_EQ(lib.InitCache(nullptr, 100 * kMiB, &other), AE_NOT_FOUND);

    // A failed InitCache leaves an empty entry: AE_OK and a null cache until
    // the path is released.
    testhost::WriteRandomFile(dir.Sub("plain"), 10);
    const std::string underFile = dir.Sub("plain/cache");
    ICache* out = reinterpret_cast<ICache*>(&out);  // a value the library must not touch
    ICache* const untouched = out;
    EXPECT_EQ(lib.InitCache(underFile.c_str(), 100 * kMiB, &out), AE_CREATE_DIRECTORY_FAILED);
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(lib.InitCache(underFile.c_str(), 100 * kMiB, &out), AE_OK);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(lib.InitCache("", 100 * kMiB, &out), AE_CREATE_DIRECTORY_FAILED);
    EXPECT_EQ(lib.ReleaseCache(underFile.c_str()), AE_OK);
    EXPECT_EQ(lib.ReleaseCache(""), AE_OK);
    EXPECT_EQ(lib.InitCache(underFile.c_str(), 100 * kMiB, &out), AE_CREATE_DIRECTORY_FAILED);
    EXPECT_EQ(lib.ReleaseCache(underFile.c_str()), AE_OK);
    EXPECT_FALSE(log.HasTextContaining(underFile));
}

TEST_F(HostTest, LimitsOpenFailuresAndAnObjectOutlivingItsCache) {
    ICache* cache = nullptr;
    ASSERT_EQ(lib.InitCache(cachePath.c_str(), 1000, &cache), AE_OK);
    long long space = LastReportedSpace();
    ASSERT_GT(space, 0);
    const long long floor = 64 * static_cast<long long>(kMiB);
    EXPECT_EQ(cache->GetLimit(), floor <= space ? floor : space / 2);
    ExpectLine(LL_DETAIL,
               "Cache path " + cachePath + "/, " + std::to_string(space) + " bytes left");

    // Too small: refused, and the message names the limit in force.
    const long long before = cache->GetLimit();
    EXPECT_EQ(cache->SetLimit(kMiB), AE_LIMIT_TOO_SMALL);
    EXPECT_EQ(cache->GetLimit(), before);
    ExpectLine(LL_ERROR,
               "Change cache storage limit requested but too small : Requested " +
                   std::to_string(before) + " bytes",
               "%s");
    // More than the disk holds: half the free space. A limit that fits is
    // kept. The limit is a signed count: ~0ULL passes the unsigned floor
    // check and is kept as -1, which fits any disk.
    log.Clear();
    EXPECT_EQ(cache->SetLimit(1ULL << 62), AE_OK);
    space = LastReportedSpace();
    EXPECT_EQ(cache->GetLimit(), space / 2);
    ExpectLine(LL_INFO, "Storage limit changed : " + std::to_string(space / 2) + " bytes", "%s");
    log.Clear();
    EXPECT_EQ(cache->SetLimit(~0ULL), AE_OK);
    EXPECT_EQ(cache->GetLimit(), -1);
    ExpectLine(LL_INFO, "Storage limit changed : -1 bytes", "%s");
    const long long fits = std::max(floor, (space / 4) & ~0xFFFLL);
    EXPECT_EQ(cache->SetLimit(static_cast<unsigned long long>(fits)), AE_OK);
    EXPECT_EQ(cache->GetLimit(), fits);

    // Open throws what keeps it from building an object. The entry it left
    // answers null until the name is closed.
    EXPECT_EQ(Thrown([&] { cache->Open("bad", 'x', size, &fetcher); }), AE_INVALID_MODE);
    EXPECT_FALSE(cache->Open("bad", 'r', size, &fetcher));
    EXPECT_EQ(cache->Rehash("bad", "good", "good"), AE_INVALID_HANDLE);
    EXPECT_EQ(cache->Close("bad"), AE_OK);
    EXPECT_EQ(Thrown([&] { cache->Open(nullptr, 'r', size, &fetcher); }), AE_NOT_FOUND);
    std::shared_ptr<ICacheObj> object = cache->Open("bad", 'r', size, &fetcher);
    ASSERT_TRUE(object);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 0, 1000));
    // A read reaching past the end fails; clipped to the size, it delivers.
    EXPECT_EQ(ReadRange(*object, &fetcher, size, size - 100, 65536, 300).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, size - 100, 100));

    // The host's object outlives the cache: it reads, writes and closes.
    ASSERT_EQ(lib.ReleaseCache(cachePath.c_str()), AE_OK);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 0, size));
    ASSERT_EQ(object->SetMode('w', size, &fetcher), AE_OK);
    ASSERT_EQ(WriteText(*object, &fetcher, 65530, "after release").error, AE_OK);
    std::copy_n("after release", 13, remote.begin() + 65530);
    EXPECT_TRUE(ReadsRemote(*object, &fetcher, 65500, 100));
    object->Close();
}

}  // namespace
