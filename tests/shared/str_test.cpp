// Text functions.
#include "shared/str.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

TEST(Str, FormatsAtAnyLength)
{
    for (const std::size_t length : {0UL, 511UL, 512UL, 5000UL})
        EXPECT_EQ(str::format("%s", std::string(length, 'x').c_str()), std::string(length, 'x'));
    EXPECT_EQ(str::format("no such character: %lc", 0x7FFFFFFFU), "no such character: %lc");
}

TEST(Str, SplitsAtAnySeparator)
{
    EXPECT_THAT(str::split("a=b=c", "=", false, 2), ElementsAre("a", "b=c"));
    EXPECT_THAT(str::split("a  b", " ", false, 0), ElementsAre("a", "", "b"));
    EXPECT_THAT(str::split("  a  b c", " ", true, 2), ElementsAre("a", " b c"));
    EXPECT_THAT(str::split("", "=", true, 0), ElementsAre());
    EXPECT_THAT(str::split("a,xb;", ",;", false, 0), ElementsAre("a", "b", "")); // steps over two characters
}

TEST(Str, CutsAndComparesTexts)
{
    EXPECT_EQ(str::trim(" \r a b\t \n", "\r \n"), "a b\t");
    EXPECT_EQ(str::range("[abc]", 1, -1), "abc");
    EXPECT_EQ(str::range("[", 1, -1) + str::range("ab", 5, 2) + str::range("ab", 1, -5), "");
    EXPECT_TRUE(str::isNumber("") && str::isNumber("--.") && str::isNumber("-1.5"));
    EXPECT_FALSE(str::isNumber("1e5") || str::isNumber(" 1"));
}

TEST(Str, ReadsAndWritesNumbers)
{
    EXPECT_EQ(str::toNumDef<int>("99999999999", 7), 7);
    EXPECT_EQ(str::fromHexDef<unsigned>("0x1F", 0) + str::fromHexDef<unsigned>("1f", 0), 62U);
    int err = -1;
    EXPECT_EQ(str::toDouble(" -2.5V", &err), -2.5);
    EXPECT_EQ(str::toDouble("V", &err), 0);
    EXPECT_EQ(err, 1);
}

} // namespace
