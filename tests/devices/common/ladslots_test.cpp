// Where the operations stand that a composite adds to the host's interface: hosts call them by their position.
#include "devices/mpx2/mpx2laddev.h"
#include "devices/mpx3/mpx3laddev.h"
#include "devices/old/uladdev.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

using namespace HwLatixel;

namespace {

/// Position of a virtual operation in the table of its class: the pointer to it holds the place in bytes, plus one.
template <typename Operation>
std::size_t slot(Operation operation)
{
    std::uintptr_t place = 0;
    std::memcpy(&place, &operation, sizeof(place));
    return (place - 1) / sizeof(void*);
}

template <typename Lad>
void expectMpx2Slots()
{
    constexpr std::size_t DESTRUCTORS = 2;
    const std::size_t behind = slot(&dv::IHwDevMpx2::isTimepix) + 1 + DESTRUCTORS;
    EXPECT_EQ(slot(&Lad::enableDataCompression), behind);
    EXPECT_EQ(slot(&Lad::isDataCompressionEnabled), behind + 1);
    EXPECT_EQ(slot(&Lad::supportsDataCompression), behind + 2);
    EXPECT_EQ(slot(&Lad::acqFunc), behind + 3);
}

} // namespace

TEST(LadSlots, StandBehindTheHostsInterface)
{
    EXPECT_EQ(slot(&Mpx3LadDev::acqFunc), slot(&dv::IHwDevMpx3::setConfig) + 3);
    expectMpx2Slots<Mpx2LadDev>();
    expectMpx2Slots<ULadDev>();
}
