// The Medipix3 counter code.
#include "chipdata/mpx3counters.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Table = std::vector<unsigned short>;

constexpr unsigned char DEPTHS[] = {6, 12};

struct Tables {
    Table toPseudo = Table(4096), toCount = Table(4096);

    explicit Tables(unsigned char depth)
    {
        (depth == 6 ? generate6BitMpx3RxTable : generate12BitMpx3RxTable)(toPseudo.data(), toCount.data());
    }
};

unsigned convertOne(unsigned pixel, unsigned char depth, bool lowCounter, bool pseudoToCount, int failures = 0)
{
    EXPECT_EQ(convertCountsMpx3(&pixel, 1, depth, lowCounter, pseudoToCount), failures);
    return pixel;
}

} // namespace

TEST(Mpx3Counters, TablesFollowTheRegister)
{
    for (const unsigned char depth : DEPTHS) {
        const Tables tables(depth);
        const unsigned last = (1U << depth) - 1;
        for (unsigned count = 0, s = 0; count <= last; ++count) {
            ASSERT_EQ(tables.toPseudo[count], s);
            ASSERT_EQ(tables.toCount[s], count);
            const unsigned feedback = (depth == 6 ? s >> 5 ^ s : s >> 11 ^ s >> 5 ^ s >> 3 ^ s) & 1;
            s = (s << 1 | (feedback ^ ((s & last >> 1) == 0))) & last;
        }
    }
}

TEST(Mpx3Counters, ConvertsTheCounterAndKeepsTheRest)
{
    for (const unsigned char depth : DEPTHS) {
        const Tables codes(depth);
        for (unsigned value = 0; value < 1U << depth; value += depth) {
            EXPECT_EQ(convertOne(0xABCDE000 | value, depth, true, true), 0xABCDE000 | codes.toCount[value]);
            EXPECT_EQ(convertOne(0xABCDE000 | value, depth, true, false), 0xABCDE000 | codes.toPseudo[value]);
            EXPECT_EQ(convertOne(value << 16 | 0xFEDC, depth, false, true), codes.toCount[value] << 16 | 0xFEDCU);
        }
    }
    const Tables tables(12);
    for (const unsigned value : {0U, 4095U, 4096U, 4097U, 0x123456U, 0xFFFFFFU}) {
        const unsigned expected = tables.toCount[value & 0xFFF] + unsigned{tables.toCount[value >> 12]} * 4096;
        EXPECT_EQ(convertOne(value, 24, true, true), expected) << value;
        EXPECT_EQ(convertOne(value, 24, false, true), expected) << "depth 24 comes before the choice of the counter";
        EXPECT_EQ(convertOne(expected, 24, true, false), value);
    }
}

TEST(Mpx3Counters, FailingPixelsAreMarkedAndCounted)
{
    std::vector<unsigned> pixels{63, 64, 0x0FFF, 1, 0xFFFFF040};
    EXPECT_EQ(convertCountsMpx3(pixels.data(), pixels.size(), 6, true, true), 3);
    EXPECT_EQ(pixels, (std::vector<unsigned>{6, MPX3_FAILED_PIXEL, MPX3_FAILED_PIXEL, 1, MPX3_FAILED_PIXEL}));
    EXPECT_EQ(convertOne(16777216, 24, true, true, 1), MPX3_FAILED_PIXEL);
    for (const int depth : {1, 6, 12, 200}) // and no depth leads out of the table
        EXPECT_EQ(convertOne(0x10000000, static_cast<unsigned char>(depth), false, true, 1), MPX3_FAILED_PIXEL);
    EXPECT_EQ(convertOne(0x12345678, 1, true, true), 0x12345678U) << "the low counter of depth 1 is left alone";
}
