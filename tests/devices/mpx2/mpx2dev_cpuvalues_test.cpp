// The values that the CPU of a Medipix2 or Timepix board publishes, over more than one bring-up.
#include "devices/mpx2/mpx2bench.h"

using namespace support;

TEST(Mpx2CpuValues, ASecondBringUpSendsNoneOfThemBack)
{
    Mpx2Bench bench(mpx2Board({1}));
    const auto exchangesOfBringUp = [&bench] {
        bench->closeDevice();
        bench.wire();
        EXPECT_EQ(bench->initDevice(), 0);
        return bench.sent("55 02 04 02 00 00 00 07");
    };
    const long first = exchangesOfBringUp();
    EXPECT_GT(first, 0);
    EXPECT_EQ(exchangesOfBringUp(), first);
    bench.wire();
    bench->parameters()->get("*Fan")->setString("2");
    EXPECT_EQ(bench.wire(), Mpx2Wire().cpu({0x80, 1, 0x40, 0, 0, 0}, 6).lines()) << "the host's own goes out";
}
