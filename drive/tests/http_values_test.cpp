#include "drive/http_values.h"

#include <gtest/gtest.h>

namespace drive {
namespace {

TEST(HttpValuesTest, TrimsOnlyTheWhiteSpaceAround) {
    EXPECT_EQ(TrimHttpSpace(" \t\"v1\" \r\n"), "\"v1\"");
    EXPECT_EQ(TrimHttpSpace("a b"), "a b");
    EXPECT_EQ(TrimHttpSpace(" \r\n"), "");
}

TEST(HttpValuesTest, ParsesHttpDatesAndRefusesOtherText) {
    EXPECT_EQ(ParseHttpDate("Sun, 01 Jan 2017 00:00:00 GMT"), 1483228800);
    EXPECT_EQ(ParseHttpDate("Sunday, 01-Jan-17 00:00:00 GMT"), 1483228800);
    // Unknown times must not read as 1970.
    EXPECT_EQ(ParseHttpDate("yesterday-ish"), -1);
    EXPECT_EQ(ParseHttpDate(""), -1);
}

TEST(HttpValuesTest, OnlyStrongEtagsNameOneContent) {
    EXPECT_TRUE(IsStrongEtag("\"5f-1a\""));
    EXPECT_FALSE(IsStrongEtag("W/\"5f-1a\""));
    EXPECT_FALSE(IsStrongEtag(""));
}

}  // namespace
}  // namespace drive
