// Medipix3 DAC streams.
#include "chipdata/mpx3dacs.h"
#include "chipdata/randomvalues.h"

#include <gtest/gtest.h>

TEST(Mpx3Dacs, StreamHoldsEveryBitOfEveryDac)
{
    // The last chip is not whole and not written; the bits above a DAC's depth must not show.
    const auto dacs = randomValues<unsigned short>(std::size_t{2} * MPX3_DAC_COUNT + 26);
    Bytes expected(2 * 39, 0);
    for (std::size_t chip = 0; chip < 2; ++chip) {
        expected[chip * 39 + 1] = 0xA0;
        std::size_t position = (chip * 39 + 3) * 8;
        for (std::size_t dac = MPX3_DAC_COUNT; dac-- > 0;)
            for (int bit = dac <= 7 || dac >= 25 ? 8 : 7; bit >= 0; --bit, ++position)
                if (dacs[chip * MPX3_DAC_COUNT + dac] >> bit & 1)
                    expected[position / 8] |= static_cast<unsigned char>(0x80 >> position % 8);
    }
    Bytes out(2 * MPX3_DAC_STREAM_1CHIP_SIZE, 0xEE);
    fillMpx3DacStream(dacs.data(), dacs.size(), out.data());
    EXPECT_EQ(out, expected);
}
