// Medipix3 DAC streams.
#include "chipdata/mpx3dacs.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

using Bytes = std::vector<unsigned char>;

TEST(Mpx3Dacs, RecordGolden)
{
    std::vector<unsigned short> dacs(MPX3_DAC_COUNT, 0);
    dacs[26] = 0x101; // goes first
    dacs[0] = 0x183;  // goes last, in bits 217 to 225
    Bytes record(MPX3_DAC_RECORD_SIZE, 0xEE);
    fillMpx3DacRecord(dacs.data(), record.data());
    Bytes expected{0x00, 0xA0, 0x00, 0x80, 0x80};
    expected.resize(30, 0);
    expected.insert(expected.end(), {0x60, 0xC0});
    EXPECT_EQ(record, expected);
}

TEST(Mpx3Dacs, StreamHoldsEveryBitOfEveryDac)
{
    std::mt19937 random;
    std::vector<unsigned short> dacs(2 * MPX3_DAC_COUNT + 26); // the last chip is not whole and not written
    for (unsigned short& dac : dacs)
        dac = static_cast<unsigned short>(random()); // the bits above a DAC's depth must not show
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
