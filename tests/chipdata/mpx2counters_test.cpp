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
}

TEST(Mpx2PixelCfg, MapsEveryByte)
{
    constexpr int PLACES[2][8] = {{0, 9, 7, 6, 8, 12, 10, 11}, {7, 13, 8, 12, 10, 11, 9, 6}}; // the second is inverted
    std::vector<unsigned char> cfg(256);
    std::iota(cfg.begin(), cfg.end(), static_cast<unsigned char>(0));
    for (const bool timepix : {false, true}) {
        Words words(cfg.size(), 0xEEEE);
        pixelCfgToMatrixMpx2(cfg.data(), cfg.size(), timepix, words.data());
        for (const int c : cfg) {
            int expected = 0;
            for (int bit = 0; bit < 8; ++bit)
                expected |= ((c ^ 2) >> bit & 1) << PLACES[timepix][bit];
            EXPECT_EQ(words[static_cast<std::size_t>(c)], expected) << c;
        }
    }
}
