// The common foundation: the JSON wrapper, the configuration store, the
// stopwatch and the string utilities.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/chrono.h"
#include "common/config.h"
#include "common/json.h"
#include "common/utils.h"
#include "tests/test_host.h"

namespace cache {
namespace {

using testhost::Thrown;

TEST(JsonTest, PathLookupAndParseFailures) {
    Json doc(R"({"a":{"b":5}})");
    for (const char* path : {"/a/b", "a/b", "//a//b"}) {
        EXPECT_EQ(5, static_cast<long long>(doc.GetObject(path))) << path;
    }
    EXPECT_EQ(5, static_cast<long long>(doc.GetObject("/a").GetObject("b")));
    EXPECT_EQ(R"({"b":5})", doc.GetObject("/").GetObject("a").ToText());
    for (const char* path : {"/a/c", "/a/b/c", "/x/a"}) EXPECT_FALSE(doc.HasObject(path)) << path;
    EXPECT_EQ(AE_NOT_FOUND, Thrown([&] { doc.GetObject("/a/c"); }));
    EXPECT_EQ(AE_NOT_FOUND, Thrown([&] { doc.GetObject(nullptr); }));
    EXPECT_FALSE(doc.HasObject(nullptr));

    // Text that does not parse throws 6001, but not from the form with flags.
    const std::string bad = R"({"a":)";
    EXPECT_EQ(AE_INVALID_CONFIG, Thrown([&] { Json parsed(bad.c_str()); }));
    EXPECT_EQ(AE_INVALID_CONFIG, Thrown([&] { Json parsed(bad.c_str(), bad.size()); }));
    Json unparsed(bad.c_str(), bad.size(), 0);
    EXPECT_FALSE(unparsed);
    EXPECT_NE('\0', unparsed.GetError().text[0]);
    EXPECT_FALSE(unparsed.HasObject("/"));
    EXPECT_FALSE(unparsed.Insert("k", 1));
    EXPECT_EQ("{}", Json(nullptr).ToText());
}

TEST(JsonTest, ConversionsBuildingAndArrays) {
    Json doc(R"({"i":5,"r":5.0})");
    EXPECT_EQ(0.0, static_cast<double>(doc.GetObject("i")));  // an integer is no real
    EXPECT_EQ(5.0, static_cast<double>(doc.GetObject("r")));

    // Printed without white space; an inserted object is shared, not copied.
    Json built;
    JsonObject inner;
    EXPECT_TRUE(built.Insert("n", 1));
    EXPECT_TRUE(built.Insert("w", std::wstring(L"\u00e9")));
    EXPECT_TRUE(built.Insert("o", inner));
    EXPECT_TRUE(inner.Insert("k", 2.5));
    EXPECT_EQ("{\"n\":1,\"w\":\"\u00e9\",\"o\":{\"k\":2.5}}", built.ToText());

    // Strings are appended to an array, objects put in front.
    JsonObject strings, a, b, objects;
    EXPECT_TRUE(strings.InsertArrayItem("x"));
    EXPECT_TRUE(strings.InsertArrayItem("y"));
    EXPECT_EQ(R"(["x","y"])", strings.ToText());
    a.Insert("n", 1);
    b.Insert("n", 2);
    EXPECT_TRUE(objects.InsertArrayItem(a));
    EXPECT_TRUE(objects.InsertArrayItem(b));
    ASSERT_EQ(2u, objects.GetArraySize());
    EXPECT_EQ(2, static_cast<int>(objects[0].GetObject("n")));
    EXPECT_EQ(1, static_cast<int>(objects[1].GetObject("n")));
    EXPECT_FALSE(objects[2].HasObject("/"));
}

// Iteration, copies, deletion and string assignment each take or drop
// references of their own; the sanitizers see any that go astray.
TEST(JsonTest, IterationCopiesDeletionAndStringValues) {
    Json doc(R"({"a":1,"b":"x"})");
    const JsonObject root = doc.GetObject("/");
    std::string members;
    for (void* it = root.Iter(); it != nullptr; it = root.IterNext(it)) {
        members += root.IterKey(it) + "=" + root.IterValue(it).ToText(JSON_ENCODE_ANY) + ";";
    }
    EXPECT_EQ(R"(a=1;b="x";)", members);
    JsonObject copy = root.Copy();
    EXPECT_TRUE(copy.Insert("a", 2));
    EXPECT_EQ(0, doc.DeleteObject("b"));
    JsonObject b = copy.GetObject("b");
    b = std::string("y");  // a new value for `b`; the member keeps its own
    EXPECT_EQ("y", static_cast<std::string>(b));
    EXPECT_EQ(R"({"a":1})", doc.ToText());
    EXPECT_EQ(R"({"a":2,"b":"x"})", copy.ToText());

    // Only a value made outside the wrapper can hold bytes that are not UTF-8.
    const JsonObject notUtf8(std::shared_ptr<json_t>(json_string_nocheck("\xff"), json_decref));
    try {
        static_cast<void>(static_cast<std::wstring>(notUtf8));
        ADD_FAILURE() << "converted";
    } catch (const std::range_error& error) {
        EXPECT_STREQ("wstring_convert: from_bytes error", error.what());
    }
}

// A configuration value of the wrong type reads as zero (or empty, or
// false) through every conversion; none of them throws.
TEST(JsonTest, WrongTypesConvertToZeroAndCopiesShareTheValue) {
    const Json doc(R"({"i":-5,"s":"7","t":true,"r":2.5,"n":null,"a":[1]})");
    const struct {
        const char* path;
        long long integer;
        double real;
        bool isTrue;
        const char* text;
    } cases[] = {{"i", -5, 0.0, false, ""}, {"s", 0, 0.0, false, "7"}, {"t", 0, 0.0, true, ""},
                 {"r", 0, 2.5, false, ""},  {"n", 0, 0.0, false, ""},  {"a", 0, 0.0, false, ""}};
    for (const auto& c : cases) {
        const JsonObject value = doc.GetObject(c.path);
        EXPECT_EQ(c.integer, static_cast<long long>(value)) << c.path;
        EXPECT_EQ(c.integer, static_cast<long>(value)) << c.path;
        EXPECT_EQ(c.integer, static_cast<int>(value)) << c.path;
        EXPECT_EQ(static_cast<unsigned long long>(c.integer),
                  static_cast<unsigned long long>(value))
            << c.path;
        EXPECT_EQ(static_cast<AERROR>(c.integer), static_cast<AERROR>(value)) << c.path;
        EXPECT_EQ(c.real, static_cast<double>(value)) << c.path;
        EXPECT_EQ(c.isTrue, static_cast<bool>(value)) << c.path;
        EXPECT_EQ(c.text, static_cast<std::string>(value)) << c.path;
    }

    // Copies and moves refer to the same value, and keep it alive.
    const JsonObject original = doc.GetObject("s");
    JsonObject copy(original);
    JsonObject assigned;
    assigned = copy;
    const JsonObject& self = assigned;
    assigned = self;  // must not drop the value before taking it again
    JsonObject moved(std::move(copy));
    EXPECT_EQ("7", static_cast<std::string>(assigned));
    EXPECT_EQ("7", static_cast<std::string>(moved));
}

// Every value type lands on the root; a wide text that has no UTF-8 form is
// refused instead of throwing.
TEST(JsonTest, InsertsOnTheRootAndRefusals) {
    Json doc;
    EXPECT_TRUE(doc.Insert("s", std::string("x")));
    EXPECT_TRUE(doc.Insert("u", 7ULL));
    EXPECT_TRUE(doc.Insert("l", -3LL));
    EXPECT_TRUE(doc.Insert("d", 0.5));
    EXPECT_EQ(R"({"s":"x","u":7,"l":-3,"d":0.5})", doc.ToText());
    EXPECT_FALSE(doc.Insert("w", std::wstring(1, static_cast<wchar_t>(0x110000))));
    EXPECT_FALSE(doc.HasObject("w"));
}

std::atomic<int> countedAllocations{0};
void* CountingMalloc(size_t size) {
    countedAllocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size);
}

// Parsing puts malloc and free back into Jansson for the whole process, so
// that printed texts are always released with free(), whatever a host set.
TEST(JsonTest, ParsingInstallsMallocAndFreeForTheProcess) {
    json_set_alloc_funcs(CountingMalloc, std::free);
    Json parsed(R"({"k":1})");
    json_malloc_t allocate = nullptr;
    json_free_t release = nullptr;
    json_get_alloc_funcs(&allocate, &release);
    EXPECT_EQ(allocate, &std::malloc);
    EXPECT_EQ(release, &std::free);
    const int before = countedAllocations.load();
    json_decref(json_pack("{s:i}", "key", 1));
    EXPECT_EQ(countedAllocations.load(), before);
}

TEST(ConfigTest, ValuesStayUntilAParsedTextHoldsThem) {
    Config config(R"({"ignored":1})");
    config.AddConfiguration("hit", "/cache/ra/hit", "3");
    config.AddConfiguration("min", "cache/ra/min", "1048576");
    EXPECT_EQ("3", config.GetValue("hit"));
    config.Parse(R"({"cache":{"ra":{"hit":"7","min":"10"}}})");
    config.Parse(R"({"cache":{"ra":{"min":"20"}}})");
    config.Parse("");
    EXPECT_EQ(AE_INVALID_CONFIG, Thrown([&] { config.Parse(R"({"cache":{"ra":{"hit":9)"); }));
    EXPECT_EQ("7", config.GetValue("hit"));
    EXPECT_EQ("20", config.GetValue("min"));
    // Registering again starts over from the new default.
    config.AddConfiguration("hit", "/cache/ra/hit", "4");
    EXPECT_EQ("4", config.GetValue("hit"));

    // A string gives its text, any other value its compact JSON text.
    const std::pair<const char*, const char*> cases[] = {
        {R"("5000")", "5000"}, {"5000", "5000"}, {"2.5", "2.5"},
        {"true", "true"},      {"null", "null"}, {R"({"x": [1]})", R"({"x":[1]})"}};
    for (const auto& [value, text] : cases) {
        config.Parse(std::string(R"({"cache":{"ra":{"hit":)") + value + "}}}");
        EXPECT_EQ(text, config.GetValue("hit")) << value;
    }

    // An unknown name reads empty and takes nothing from parsed JSON.
    EXPECT_EQ("", config.GetValue("unknown"));
    config.Parse(R"({"cache":{}})");
    EXPECT_EQ("", config.GetValue("unknown"));
    EXPECT_EQ(AE_INVALID_CONFIG, Thrown([] { Config broken("{"); }));
}

// Bounded from above by the clock read before the watch started, so no
// assertion depends on how fast the machine is.
TEST(ChronoTest, MeasuresFromConstructionOrReset) {
    using Clock = std::chrono::steady_clock;
    const auto constructed = Clock::now();
    Chrono watch;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const long long slept = watch.elapsed();
    EXPECT_GE(slept, 30);
    EXPECT_LE(slept, Chrono::Milliseconds(Clock::now() - constructed));
    const auto reset = Clock::now();
    watch.reset();
    EXPECT_LE(watch.elapsed(), Chrono::Milliseconds(Clock::now() - reset));
}

TEST(UtilsTest, WildcardMatchNarrowAndWide) {
    // {expression, name, matches, matches ignoring case}. "a?b" ~ "a": '?'
    // steps over the end of the name, and the rest must still fail.
    const struct {
        const char* expr;
        const char* name;
        bool exact;
        bool ignoringCase;
    } cases[] = {{"", "", true, true},         {"", "a", false, false},
                 {"*", "", true, true},        {"*.txt", "a.TXT", false, true},
                 {"*b*", "abc", true, true},   {"*x", "abc", false, false},
                 {"a?c", "abc", true, true},   {"a?", "a", false, false},
                 {"a?b", "a", false, false},   {"<.txt", "a.b.txt", true, true},
                 {"<", "a.txt", false, false}, {"<.*", "a.txt", true, true},
                 {"a<", "abc", true, true},    {"<", "abc", false, false},
                 {"a>", "a", false, false},    {"a>b.c", "a.b.c", true, true},
                 {"a>b", "a.b", false, false}, {"a\"", "a.", true, true},
                 {"a\"", "a", true, true},     {"ABC", "abc", false, true}};
    for (const auto& c : cases) {
        const std::string expr = c.expr, name = c.name;
        const std::wstring wideExpr(expr.begin(), expr.end()), wideName(name.begin(), name.end());
        for (const bool ignoreCase : {false, true}) {
            const bool expected = ignoreCase ? c.ignoringCase : c.exact;
            EXPECT_EQ(expected, IsNameInExpressionA(c.expr, c.name, ignoreCase))
                << c.expr << " ~ " << c.name << " ignoreCase=" << ignoreCase;
            EXPECT_EQ(expected, IsNameInExpression(wideExpr.c_str(), wideName.c_str(), ignoreCase))
                << "wide " << c.expr << " ~ " << c.name << " ignoreCase=" << ignoreCase;
        }
    }
}

TEST(UtilsTest, SplitFormatReplaceAndAscii) {
    const struct {
        const char* text;
        const char* pattern;
        std::vector<std::string> pieces;
    } cases[] = {{"a//b", "/", {"a", "", "b"}},
                 {"/a/b", "/", {"", "a", "b"}},
                 {"a/", "/", {"a"}},
                 {"abc", "/", {"abc"}},
                 {"", "/", {""}},
                 {"a, b,c", ",\\s*", {"a", "b", "c"}}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.pieces, split(c.text, std::regex(c.pattern))) << c.text;
    }
    // Splitting at one character gives what the expression of that
    // character gives.
    for (const char* text : {"a//b", "/a/b", "a/", "/", "//", "abc", "", "a/b/"}) {
        EXPECT_EQ(split(text, std::regex("/")), split(text, '/')) << text;
    }
    EXPECT_EQ((std::vector<std::wstring>{L"x", L"y\u00e9"}),
              split(std::wstring(L"x\\y\u00e9"), std::wregex(L"\\\\")));

    // string_format: far longer than twice the format takes one retry.
    EXPECT_EQ("", string_format(""));
    EXPECT_EQ("7-ab", string_format("%d-%s", 7, "ab"));
    const std::string longText(1000, 'x');
    EXPECT_EQ("[" + longText + "]", string_format("[%s]", longText.c_str()));

    // replace_all leaves every text as it was.
    std::string narrow = "a/b";
    std::wstring wide = L"a/b";
    replace_all(narrow, "/", "\\");
    replace_all(wide, L"/", L"\\");
    EXPECT_TRUE(narrow == "a/b" && wide == L"a/b");

    EXPECT_TRUE(isascii(0) && isascii(127));
    EXPECT_FALSE(isascii(128) || isascii(-1));
}

}  // namespace
}  // namespace cache
