#include "drive/content_range.h"

#include <gtest/gtest.h>

namespace drive {
namespace {

TEST(ContentRangeTest, ParsesByteRangesWithAndWithoutTotal) {
    const auto known = ParseContentRange("bytes 65536-131071/1000000");
    ASSERT_TRUE(known);
    EXPECT_EQ(known->first, 65536);
    EXPECT_EQ(known->last, 131071);
    EXPECT_EQ(known->total, 1000000);

    const auto unknown = ParseContentRange("  bytes 0-0/*\r\n");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->total, -1);
}

TEST(ContentRangeTest, RejectsMalformedValues) {
    for (const char* value :
         {"", "bytes", "bytes */1000", "items 0-9/10", "bytes 10-5/100", "bytes 0-100/100",
          "bytes -1-5/10", "bytes 0-5/x", "bytes 0-5", "bytes 0x10-20/30", "bytes 1-2/3 junk"}) {
        EXPECT_FALSE(ParseContentRange(value)) << value;
    }
}

TEST(ContentRangeTest, MatchesOnlyTheRangeAsked) {
    const long long size = 8 * 1048576 + 17;
    const ContentRange exact{1048576, 2097151, size};
    EXPECT_TRUE(RangeMatches(exact, 1048576, 1048576, size));
    // Shifted, shorter, longer, or from a file of another size.
    EXPECT_FALSE(RangeMatches(exact, 1048576 - 65536, 1048576, size));
    EXPECT_FALSE(RangeMatches(exact, 1048576, 1048576 + 65536, size));
    EXPECT_FALSE(RangeMatches(exact, 1048576, 65536, size));
    EXPECT_FALSE(RangeMatches(exact, 1048576, 1048576, size + 1));
    // The tail of the file, with the total unknown.
    EXPECT_TRUE(RangeMatches({8 * 1048576, size - 1, -1}, 8 * 1048576, 17, size));
    EXPECT_FALSE(RangeMatches(exact, 1048576, 0, size));
}

}  // namespace
}  // namespace drive
