// Frames of the Medipix3 board: layout and size of every readout, and what the pixels have counted.
#include "sim/boards/mpx3wire.h"

namespace sim {
namespace {

constexpr std::size_t CHIP_BYTES = 98308; ///< of a counter of 12 bits, with its share of the header

TEST(Mpx3FramesTest, DepthsBlocksAndCounters)
{
    struct Case {
        int columns, depthAndBlock, rows;
        unsigned selection;
        StreamPlace place;
    };
    const Case cases[] = {
        {0, 0x40, 0x00, 1, {.depth = 6}},
        {6, 0x36, 0x00, 0, {.columns = 32, .firstColumn = 160}},
        {2, 0x2B, 0xA0, 0, {.columns = 64, .firstColumn = 64, .rows = 8}},
        {4, 0x26, 0x20, 3, {.columns = 128, .firstColumn = 128, .rows = 1}},
    };
    for (auto [columns, depthAndBlock, rows, selection, place] : cases) {
        ReadyWire wire;
        const unsigned bits = bitsOf(place.rows, place.columns, place.depth);
        wire.images(columns, depthAndBlock, rows);
        wire.order(selection, bits);
        const Bytes frame = wire.frame();
        const std::size_t half = bits / 8 + 9;
        ASSERT_EQ(frame.size(), 9 + half * (selection == 3 ? 2 : 1)) << bits;
        for (place.start = 12; place.start < frame.size(); place.start += half)
            expectGradient(frame, place, 1000);
    }
}

TEST(Mpx3FramesTest, EraseClearsAndSendsPacketsAlone)
{
    ReadyWire wire;
    wire.start();
    wire.channels(0, 1); // the frame's data stay on the board
    EXPECT_EQ(wire.readAfter(10ms).size(), 18U);
    wire.frame();
    EXPECT_EQ(wire.readCounters(3, FRAME_BITS).size(), 18U);
    wire.channels(1, 1);
    const Bytes cleared = wire.readCounters(3, FRAME_BITS);
    ASSERT_EQ(cleared.size(), 2 * (CHIP_BYTES + 9));
    expectGradient(cleared, {}, 0);
    expectGradient(cleared, {.start = 3 + CHIP_BYTES + 9}, 0);

    wire.frame();
    expectGradient(wire.readCounters(1, FRAME_BITS), {}, 1000); // the counter that was not read still holds it

    wire.frame();
    wire.pins(3);
    wire.payload(1, 0, Bytes(80), 5); // fast clear
    wire.pins(7);
    expectGradient(wire.readCounters(1, FRAME_BITS), {}, 0);
}

TEST(Mpx3FramesTest, ContinuousSeriesIsCutByAStop)
{
    ReadyWire wire;
    wire.number(1, 9, 1);
    wire.start(8, 4);
    EXPECT_EQ(wire.readAfter(35ms).size(), 3 * (9 + CHIP_BYTES + 9));
    wire.stop();
    const Bytes cut = wire.read();
    EXPECT_EQ(packetNumber(cut), TEN_MS / 2);
    expectGradient(cut, {.start = 12}, 500);
}

} // namespace
} // namespace sim
