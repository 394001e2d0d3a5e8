// The Medipix3 fuses.
#include "chipdata/mpx3fuses.h"

#include <gtest/gtest.h>

#include <vector>

TEST(Mpx3Fuses, IdentifierOfAnAnswer)
{
    std::vector<unsigned char> answer(2 * MPX3_FUSE_RECORD_SIZE, 0);
    EXPECT_FALSE(mpx3FuseIdValid(mpx3FuseId(answer.data(), 0)));
    answer[23] = 0xA2; // mirrored 0x45: letter D, position 5
    answer[24] = 0x80; // mirrored 0x01
    answer[25] = 0x4F; // mirrored 0xF2: its high nibble is not of the wafer number
    answer[62] = 0x80;
    const Mpx3FuseId id = mpx3FuseId(answer.data(), 0);
    EXPECT_TRUE(mpx3FuseIdValid(id));
    EXPECT_EQ(mpx3FuseId(answer.data(), 1)[1], 0x01);
    EXPECT_EQ(getFuseText(id.data()), "D05-W0513");
    EXPECT_FALSE(mpx3FuseIdValid({0xFF, 0xFF, 0xFF, 0xFF, 0x12}));
}
