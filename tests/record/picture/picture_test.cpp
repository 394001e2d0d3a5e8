// What a frame becomes before it is written: chips side by side, counters apart, contrast and colours.
#include "record/picture/colormap.h"
#include "record/picture/contrast.h"
#include "tests/record/frames.h"

#include <gmock/gmock.h>

namespace {

using record::Counting;
using record::Layout;
using record::Picture;
using record::PictureMaker;

std::uint32_t at(const Picture& picture, unsigned x, unsigned y)
{
    return picture.pixels.at(std::size_t{y} * picture.width + x);
}

TEST(Pictures, ChipsLieWhereTheLayoutPutsThem)
{
    refhost::Host host("", "");
    const auto frame = support::frame<std::uint32_t>(
        host, 3, [](unsigned chip, unsigned x, unsigned y) { return chip * 1000000 + y * 1000 + x; });

    const Picture row = PictureMaker(3, Layout::sideBySide(3), Counting::Single).make(*frame).at(0);
    EXPECT_EQ(row.width, 768u);
    EXPECT_EQ(at(row, 256, 7), 1007000u);
    EXPECT_EQ(at(row, 767, 255), 2255255u);

    const Picture grid = PictureMaker(3, {2, 2}, Counting::Single).make(*frame).at(0);
    EXPECT_EQ(at(grid, 511, 0), 1000255u);
    EXPECT_EQ(at(grid, 3, 256), 2000003u);
    EXPECT_EQ(at(grid, 300, 300), 0u) << "a place without a chip";

    EXPECT_TRUE(PictureMaker(4, {2, 2}, Counting::Single).make(*frame).empty());
    EXPECT_TRUE(PictureMaker(3, {3, 1}, Counting::Short).make(*frame).empty());
}

TEST(Pictures, TwoCountersComeApartWithTheirOwnBadPixels)
{
    refhost::Host host("", "");
    const std::uint32_t words[] = {0x0FFF0000, 0x00010FFF, 0xFFFFFFFF, 0xFFFFF123};
    const auto frame = support::frame<std::uint32_t>(
        host, 1, [&](unsigned, unsigned x, unsigned y) { return y == 0 && x < 4 ? words[x] : 0x00020001; });
    const auto pictures = PictureMaker(1, {1, 1}, Counting::Double).make(*frame);
    ASSERT_EQ(pictures.size(), 2u);
    const std::uint32_t low[] = {0, 0xFFF, Picture::BAD, 0x123, 1};
    const std::uint32_t high[] = {0xFFF, 1, Picture::BAD, Picture::BAD, 2};
    for (unsigned x = 0; x < 5; ++x) {
        EXPECT_EQ(at(pictures[0], x, 0), low[x]) << x;
        EXPECT_EQ(at(pictures[1], x, 0), high[x]) << x;
    }
}

TEST(Layout, TakesColumnsTimesRowsAndNothingElse)
{
    ASSERT_TRUE(Layout::parse("4x1"));
    EXPECT_EQ(Layout::parse("3x2")->rows, 2u);
    for (const char* bad : {"", "2", "x", "2x", "x2", "0x4", "2x2x2", "-1x2", "2 x2", "65x1", "16x16", "4294967297x1"})
        EXPECT_FALSE(Layout::parse(bad)) << bad;
}

TEST(Contrast, BadPixelsDoNotStretchIt)
{
    Picture picture{100, 100, std::vector<std::uint32_t>(10000)};
    for (std::uint32_t i = 0; i < 10000; ++i)
        picture.pixels[i] = i % 200;
    const auto clean = record::automaticRange(picture);
    EXPECT_NEAR(clean.low, 2, 1);
    EXPECT_NEAR(clean.high, 199, 1);
    for (std::size_t i = 0; i < 10000; i += 10)
        picture.pixels[i] = Picture::BAD;
    const auto spoilt = record::automaticRange(picture);
    EXPECT_NEAR(spoilt.low, clean.low, 2);
    EXPECT_NEAR(spoilt.high, clean.high, 2);

    const auto indexes = record::colourIndexes(picture, {50, 150});
    EXPECT_EQ(indexes[10], record::Colormap::BAD_INDEX);
    EXPECT_EQ(indexes[49], 0);
    EXPECT_EQ(indexes[151], 254);
    EXPECT_NEAR(indexes[101], 129, 1);
}

TEST(Contrast, FlatAndHopelessPicturesHaveARangeToo)
{
    const Picture flat{2, 1, {7, 7}};
    EXPECT_EQ(record::automaticRange(flat).low, 7);
    EXPECT_EQ(record::automaticRange(flat).high, 8);
    const Picture hopeless{2, 1, {Picture::BAD, Picture::BAD}};
    EXPECT_LT(record::automaticRange(hopeless).low, record::automaticRange(hopeless).high);
    EXPECT_EQ(record::parseRange("0.5:20")->high, 20);
    for (const char* bad : {"", ":", "1", "1:", "2:1", "1:1", "nan:1", "1:inf", "1:2:3"})
        EXPECT_FALSE(record::parseRange(bad)) << bad;
}

} // namespace
