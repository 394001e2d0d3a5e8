// The Medipix2 and Timepix board from the wire: frames, and what it has against bad ones.
#include "sim/boards/mpx2wire.h"

#include <cmath>

namespace sim {
namespace {

TEST(Mpx2BoardTest, FramesShowTheSceneUprightInAllModulesAtOnce)
{
    struct Case {
        json modules;
        unsigned mask;
        std::uint32_t count, chips, less;
    };
    const std::vector<Case> cases = {{R"([[""], [""], [""], [""], [""]])"_json, 0x1F, 5, 1, 0},
                                     {R"([["", ""], [], ["", ""]])"_json, 5, 2, 2, 2},
                                     {R"([["", "", "", "", ""]])"_json, 1, 1, 5, 0}};
    for (const Case& one : cases) {
        Mpx2Wire wire(mpx2Entry(one.modules));
        wire.timer(500000); // 10 ms
        const auto readOut = [&] { return wire.readModules(one.mask, one.count, one.chips, one.less); };
        EXPECT_GT(countIn(readOut(), chipIn(one.count, 0, one.chips, 0), 9, 9), 11810U) << "as switched on";
        for (const std::uint32_t ticks : {500000U, 500000U, 250000U}) { // each readout clears
            wire.timer(ticks);
            const Bytes packet = wire.frame(11ms);
            ASSERT_EQ(packet.size(), 9U);
            EXPECT_EQ(packetOf(5, packet), ticks);
            const Bytes stream = readOut();
            ASSERT_EQ(stream.size(), one.count * (one.chips * 114721 - one.less) + 9);
            EXPECT_EQ(packetOf(1, stream, stream.size() - 9), stream.size() - 9);
            for (std::size_t m = 0; m < one.count; ++m)
                for (unsigned chip = 0; chip < one.chips; ++chip)
                    expectGradient(stream, chipIn(one.count, m, one.chips, chip), ticks / 500.0);
        }
    }
}

TEST(Mpx2BoardTest, PixelsCountByConfigurationAndFillUp)
{
    Bytes matrix = padded({0xFF}, 114721);
    /// Sets a bit of a row's pixels: in each eight columns those that `columns` has.
    const auto set = [&](std::size_t row, std::size_t bit, std::uint8_t columns) {
        std::fill_n(matrix.begin() + 1 + static_cast<std::ptrdiff_t>((row * 14 + 13 - bit) * 32), 32, columns);
    };
    set(0, 9, 0b10101010);
    set(0, 6, 0b11001100);
    set(0, 7, 0b11110000); // masked
    for (std::size_t row = 1; row < 256; ++row)
        set(row, 8, 0xFF); // one step of adjustment
    const json scene = {{"kind", "flat"}, {"flux", 1000}, {"noise", false}, {"adjust_step", 12}};
    Mpx2Wire wire(mpx2Entry({{""}}, {{"scene", scene}}));
    wire.number(5, 19, 10); // 5 MHz
    Bytes dacs = padded({0xFF}, 33);
    dacs[1 + 31 - 12] = 300 << 4 & 0xFF; // the cutoff, from bit 100 on: half of the photons
    dacs[1 + 31 - 13] = 300 >> 4;
    wire.dacs(1, dacs);
    wire.writeMatrix(1, matrix);
    wire.readChip();
    wire.timer(500000);
    wire.frame(1s);
    const Bytes stream = wire.readChip();
    const auto count = [&](unsigned row, unsigned column) { return countIn(stream, ONLY_CHIP, row, column); };
    EXPECT_EQ(count(0, 0), 5U);
    EXPECT_NEAR(count(0, 1), 5 * 2.5 * 5, 1) << "time over threshold";
    EXPECT_EQ(count(0, 2), 1U) << "first hit";
    EXPECT_EQ(count(0, 3), 11810U) << "time of arrival, beyond what the counter holds";
    EXPECT_EQ(count(0, 4), 0U) << "masked";
    EXPECT_NEAR(count(1, 0), 10 / (1 + std::exp(-1.0)), 0.51);

    // A second frame without a readout adds to the first.
    wire.timer(500000 * 100);
    wire.frame(2s);
    wire.frame(2s);
    EXPECT_EQ(countIn(wire.readChip(), ONLY_CHIP, 0, 8), 1000U);
}

TEST(Mpx2BoardTest, RecordsWhatNoFirmwareUnderstands)
{
    expectRecorded<Mpx2Wire>({
        {"sixth module", ON, {0x55, 0, 1, 2, 0, 0, 0, 0x20, 0xAA}},
        {"DACs of the wrong size", ON | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 34, 0xAA}, 34},
        {"DACs of chips in reset", PWR | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 33, 0xAA}, 33},
        {"matrix of the wrong size", ON | M1, {0x55, 7, 1, 0, 0, 1, 0xC0, 0x20, 0xAA}, 114720},
        {"readout that was not announced", ON | OUTEN, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
        {"start without power", RST | ENIN | ACQOVER, {0x55, 2, 5, 1, 0, 0, 0, 1, 0xAA}},
    });

    Mpx2Wire wire;
    wire.dacs(1, Bytes(33)); // without lead byte
    EXPECT_EQ(wire.readMatrix(1, 114721, 917766).size(), 114721 + 9U) << "more than is clocked";
    EXPECT_EQ(wire.readMatrix(1, 114720, 0xFFFFFFFE).size(), 114721 + 9U) << "bits without end";
    wire.timer(50000000);
    wire.start();
    wire.dacs(1, Bytes(33, 0xFF)); // while the shutter works
    EXPECT_EQ(wire.complaints(), 4U);
    EXPECT_THROW(wire.board.applyFault({{"kind", "module_silent"}, {"module", 5}}), std::runtime_error);
}

} // namespace
} // namespace sim
