// The Medipix2 counter code and pixel configuration, over all values.
#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2pixelcfg.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using Words = std::vector<unsigned short>;

TEST(Mpx2Counters, ConvertsAllValuesBothWays)
{
    Words values(65536);
    std::iota(values.begin(), values.end(), static_cast<unsigned short>(0));
    Words toCount(65536, 0);
    Words toPseudo(65536, 0);
    for (unsigned count = 0, state = 16383; count < 11811; ++count) {
        toCount[state] = static_cast<unsigned short>(count);
        toPseudo[count] = static_cast<unsigned short>(state);
        state = ((state >> 13) ^ (state & 1)) | (state * 2 & 16382);
    }
    for (const bool pseudoToCount : {true, false}) {
        Words expected = pseudoToCount ? toCount : toPseudo;
        for (std::size_t value = 0; value < expected.size(); ++value)
            if (value > 16383 || (expected[value] == 0 && value != 16383))
                expected[value] = 11811;
        Words converted = values;
        EXPECT_EQ(convertCountsMpx2(converted.data(), converted.size(), pseudoToCount), 65536 - 16384);
        EXPECT_EQ(converted, expected);
    }
    EXPECT_EQ(toPseudo[1], 16382);
    EXPECT_EQ(convertCountsMpx2(nullptr, 0, true), 0);
}

TEST(Mpx2PixelCfg, MapsEveryByte)
{
    std::vector<unsigned char> cfg(256);
    std::iota(cfg.begin(), cfg.end(), static_cast<unsigned char>(0));
    for (const bool timepix : {false, true}) {
        Words words(cfg.size(), 0xEEEE);
        pixelCfgToMatrixMpx2(cfg.data(), cfg.size(), timepix, words.data());
        for (int c = 0; c < 256; ++c) {
            const auto bit = [c](int from, int to) { return (c >> from & 1) << to; };
            const int mxr = bit(0, 0) | (bit(1, 9) ^ 1 << 9) | bit(2, 7) | bit(3, 6) | bit(4, 8) | bit(5, 12) |
                            bit(6, 10) | bit(7, 11);
            const int tpx = bit(0, 7) | (bit(1, 13) ^ 1 << 13) | bit(2, 8) | bit(3, 12) | bit(4, 10) | bit(5, 11) |
                            bit(6, 9) | bit(7, 6);
            EXPECT_EQ(words[static_cast<std::size_t>(c)], timepix ? tpx : mxr) << c;
        }
    }
}
