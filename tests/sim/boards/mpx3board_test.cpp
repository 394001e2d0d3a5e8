// The Medipix3 board from the wire: faults of chips and flash, and what it has against bad frames.
#include "sim/boards/mpx3wire.h"

namespace sim {
namespace {

TEST(Mpx3BoardTest, RefusesWhatNoFirmwareUnderstandsAndGoesOn)
{
    const Bytes good = {0x55, 0, 1, 3, 0, 0, 0, 1, 0xAA};
    const std::vector<Bytes> bad = {
        {0x54, 0, 1, 3, 0, 0, 0, 1, 0xAA},                  // no sync
        {0x55, 1, 1, 255, 0x7F, 0, 0, 1, 0xAA},             // more than any memory
        {0x55, 0, 1, 11, 0, 0, 0, 0, 0xAA},                 // command that there is not
        {0x55, 0, 1, 3, 0, 0, 0x20, 0x20, 0xAA},            // sixth channel
        {0x55, 0, 1, 3, 0, 0, 2, 1, 0xAA},                  // data of a channel that is not selected
        {0x55, 2, 5, 1, 1, 0, 0, 0, 0xAA},                  // start without stream parameters
        {0x55, 5, 1, 255, 0, 0, 0, 4, 0xAA, 0x30, 0, 0, 0}, // register image of no size
    };
    Mpx3Wire wire;
    for (const Bytes& bytes : bad) {
        wire.write(good);
        for (const std::uint8_t byte : bytes) // in pieces of any size
            wire.write({byte});
        wire.write(good);
        EXPECT_EQ(wire.complaints(), 1U) << testing::PrintToString(bytes);
        EXPECT_EQ(wire.board.frames().back().head(), good) << testing::PrintToString(bytes);
    }

    wire.write({0x55, 5, 1, 255, 0, 0, 0, 12, 0xAA, 0x30});
    EXPECT_FALSE(wire.board.idle());
    wire.board.powerCycle(wire.now);
    EXPECT_TRUE(wire.board.idle());
    wire.shift(Bytes(12)); // no power yet
    EXPECT_EQ(wire.complaints(), 1U);
}

TEST(Mpx3BoardTest, RefusesStreamsOfTheWrongForm)
{
    struct Case {
        unsigned mode;
        Bytes head;
        std::size_t size;
        int flags = 5;
    };
    const Case cases[] = {{1, {0, 0xA0, 0}, 39}, {1, {0xA0, 0}, 37}, {5, {0, 0xA0}, 36}, {2, {0, 0xA0, 0}, 49155},
                          {6, {0xA0, 0}, 49207}, {7, {0xA1}, 38, 7}, {7, {0xA0}, 76, 7}, {4, {0x30, 0, 0xE8}, 24}};
    Mpx3Wire wire;
    wire.channels(1, 1);
    for (const Case& one : cases) {
        wire.omr(one.mode);
        wire.complaints();
        wire.shift(padded(one.head, one.size), one.flags);
        EXPECT_EQ(wire.complaints(), 1U) << "mode " << one.mode << ", " << one.size << " bytes";
    }
    wire.omr(6);
    wire.shift(padded({0, 0xA0, 0}, 49207));
    wire.pins(0x0F);
    EXPECT_EQ(wire.complaints(), 1U) << "half a matrix";
}

TEST(Mpx3BoardTest, FaultsOfChipsAndFlash)
{
    Mpx3Wire wire(mpx3Entry({{"C07-W0123"}, {"D01-W0124"}}));
    const auto fuses = [&](int channel) {
        const Bytes request = padded({0xA0}, 38);
        wire.channels(channel, channel);
        wire.omr(7);
        wire.shift(request);
        wire.shift(request, 7); // brings what the first has left in the chip
        return wire.read();
    };
    const Bytes good = fuses(1);
    EXPECT_NE(good, Bytes(38));
    wire.fault({{"kind", "stuck_channel"}, {"channel", 0}, {"level", 1}});
    wire.fault({{"kind", "chip_missing"}, {"channel", 1}});
    EXPECT_THROW(wire.board.applyFault({{"kind", "stuck_channel"}, {"channel", 5}}), std::runtime_error);
    EXPECT_EQ(fuses(1), Bytes(38, 0xFF));
    EXPECT_EQ(fuses(2), Bytes(38, 0x00));
    wire.fault(R"({"kind": "flash", "parameters": [], "version": 2})"_json);
    wire.number(4, 1, 4U << 24U | 2);
    wire.select(3, 2);
    wire.payload(4, 0, {3, 0, 0, 4, 0, 0, 0, 0}, 7);
    EXPECT_EQ(wire.read().back(), 2) << "of the flash's layout";
    wire.outputToChips();
    wire.board.clearFaults();
    EXPECT_EQ(fuses(1), good);
}

} // namespace
} // namespace sim
