// Bit and byte order helpers.
#include "chipdata/bits.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

TEST(Bits, DoubleToInt48)
{
    using Bytes = std::array<unsigned char, 6>;
    const auto split = [](double value) {
        Bytes bytes;
        HwLatixel::doubleToInt48(value, bytes.data());
        return bytes;
    };
    EXPECT_EQ(split(0.1 * 1e8), (Bytes{0x80, 0x96, 0x98, 0, 0, 0})); // 0.1 s in 10 ns
    EXPECT_EQ(split(258.99), (Bytes{2, 1, 0, 0, 0, 0}));
    EXPECT_EQ(split(0x7010203040506), (Bytes{6, 5, 4, 3, 2, 1})) << "what is above 48 bits is cut off";
    EXPECT_EQ(split(-1), (Bytes{255, 255, 255, 255, 255, 255}));
    for (const double odd : {1e300, HUGE_VAL, std::nan("")})
        EXPECT_EQ(split(odd), Bytes{}) << odd;
}
