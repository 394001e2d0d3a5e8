// The Medipix2 and Timepix board from the wire: bring-up, chips, readouts, frames, and what it has against bad frames.
#include "mpx2wire.h"

#include "sim/latixelsim.h"

#include <cmath>
#include <random>

namespace sim {
namespace {

using namespace std::chrono_literals;

/// Expected counts of the gradient scene, with the threshold so low that all is counted.
double gradientCount(unsigned row, unsigned column, double seconds)
{
    return 100000 * seconds * (0.1 + 0.6 * (column + 0.5) / 256 + 0.3 * (row + 0.5) / 256);
}

/// A matrix stream of chips whose pixels all have a word that `word(chip, row, column)` gives.
template <typename Word>
Bytes matrixStream(std::size_t chips, Word word)
{
    Bytes stream(chips * 114721);
    stream[0] = 0xFF;
    for (std::size_t chip = 0; chip < chips; ++chip)
        for (std::size_t i = 0; i < std::size_t{65536} * 14; ++i) {
            const std::size_t at = i % 256;
            const unsigned bit = word(chip, i / 3584, 255 - at) >> (13 - i % 3584 / 256) & 1U;
            std::uint8_t& byte = stream[1 + chip * 114720 + i / 8];
            byte = static_cast<std::uint8_t>(byte | bit << (7 - at % 8));
        }
    return stream;
}

/// Identifier in the answer of a DAC transfer through `chips` chips, with a mark for Timepix.
std::string idIn(const Bytes& answer, std::size_t chips, std::size_t chip)
{
    const std::size_t record = 1 + chips + chip * 32;
    const unsigned b0 = reversed(answer.at(record + 5));
    const unsigned b1 = reversed(answer.at(record + 6));
    const unsigned b2 = reversed(answer.at(record + 7));
    char text[32];
    std::snprintf(text, sizeof text, "%c%02d-W%04u%s", 0x40 + static_cast<int>(b0 & 0xFU),
                  12 - static_cast<int>(b0 >> 4U), (b2 << 8U & 0x700U) | b1, (b2 & 8U) != 0 ? "t" : "");
    return text;
}

/// Puts a code into a record, most significant byte first, from bit `first` on.
void putBits(Bytes& record, unsigned first, unsigned bits, unsigned code)
{
    for (unsigned i = 0; i < bits; ++i)
        if ((code >> i & 1U) != 0)
            record.at(31 - (first + i) / 8) |= static_cast<std::uint8_t>(1U << (first + i) % 8);
}

TEST(Mpx2BoardTest, BringUpFindsModulesChipsAndIdentifiers)
{
    Mpx2Wire wire(mpx2Entry(R"([["D08-W0231"], [], ["A00-W2047", "O12-W0000", ""]])"_json));
    wire.bare(2, 1, 0, 0, 0, 0, 2);
    EXPECT_EQ(textAt(wire.read(), 0), "Firmware 1.7 TLA (18.10.2016)");

    for (int pass = 0; pass < 2; ++pass) {
        const Bytes pattern = wire.pattern();
        ASSERT_EQ(pattern.size(), 15U);
        for (std::size_t k = 0; k < 14; ++k)
            EXPECT_EQ(pattern[k + 1], k % 2 == 0 ? 0 : 0b101);
    }
    for (const auto& [mask, chips] : {std::pair{1, 1}, {2, 0}, {4, 3}}) {
        const Bytes block = wire.countBlock(mask);
        ASSERT_EQ(block.size(), 14U);
        EXPECT_EQ(std::count(block.begin() + 1, block.end(), 0xFF), chips);
    }
    EXPECT_EQ(idIn(wire.dacs(1, Bytes(33, 0xFF)), 1, 0), "D08-W0231t");
    const Bytes three = wire.dacs(4, Bytes(99, 0xFF));
    ASSERT_EQ(three.size(), 99U);
    EXPECT_EQ(idIn(three, 3, 0), "A00-W2047t");
    EXPECT_EQ(idIn(three, 3, 1), "O12-W0000t");
    EXPECT_EQ(Bytes(three.begin() + 73, three.begin() + 76), Bytes(3)) << "fuses that were never blown";

    Mpx2Wire medipix(mpx2Entry({{"E03-W0034"}}, {{"chip", "medipix2"}}));
    EXPECT_EQ(idIn(medipix.dacs(1, Bytes(33, 0xFF)), 1, 0), "E03-W0034");
    EXPECT_TRUE(wire.board.violations().empty() && medipix.board.violations().empty());
}

TEST(Mpx2BoardTest, DacsStandWhereTheChipHasThemAndComeOutAgain)
{
    // A Timepix record is a Medipix2 record moved up by one bit, and ends otherwise.
    struct Place {
        unsigned first, bits;
    };
    const std::vector<Place> common = {{3, 8}, {11, 8}, {19, 8}, {}, {59, 8}, {85, 8}, {99, 10}, {109, 4}};
    const auto check = [&](const char* kind, unsigned moved, std::vector<Place> places) {
        places.insert(places.begin(), common.begin(), common.end());
        Mpx2Wire wire(mpx2Entry(R"([["D08-W0231", ""]])"_json, {{"chip", kind}}));
        Bytes record(32);
        std::vector<unsigned> codes;
        for (unsigned dac = 0; dac < places.size(); ++dac) {
            codes.push_back((37 * dac + 179) & ((1U << (dac == 3 ? 8 : places[dac].bits)) - 1));
            putBits(record, places[dac].first + moved, places[dac].bits, codes[dac]);
        }
        putBits(record, 45 + moved, 4, codes[3] & 0xFU);
        putBits(record, 55 + moved, 4, codes[3] >> 4U);
        putBits(record, 143 + moved, 32, 0x80C0FFEE);
        putBits(record, 40 + moved, 1, 1); // sense DAC 4
        Bytes stream(66);
        stream[0] = 0xFF;
        std::ranges::copy(record, stream.begin() + 33);
        wire.dacs(1, stream);
        Mpx2Chip& chip = wire.board.chip(0, 1);
        ASSERT_EQ(chip.dacCount(), codes.size());
        for (std::size_t dac = 0; dac < codes.size(); ++dac)
            EXPECT_EQ(chip.dac(dac), codes[dac]) << kind << " DAC " << dac;
        EXPECT_EQ(chip.ctpr(), 0x80C0FFEE);
        EXPECT_EQ(chip.senseDac(), 4U);
        EXPECT_EQ(wire.board.chip(0, 0).dac(0), 0U);
        EXPECT_NEAR(adc(wire, 0), (0.05 + 2.1 / 256 * codes[3]) / 5 * 4096, 1);

        const Bytes old = wire.dacs(1, Bytes(66, 0xFF));
        for (std::size_t i = 0; i + 1 < 32; ++i) // the last byte of all stays in the chain
            EXPECT_EQ(old.at(35 + i), i >= 5 && i < 8 ? 0 : record[i]) << i;
        wire.pins(PWR);
        EXPECT_EQ(chip.dac(0), 0U) << "reset";
        EXPECT_TRUE(wire.board.violations().empty());
    };
    check("timepix", 1, {{119, 8}, {127, 8}, {135, 8}, {180, 8}, {226, 8}, {234, 8}});
    check("medipix2", 0, {{113, 10}, {123, 4}, {127, 8}, {135, 8}, {180, 8}, {226, 8}, {234, 8}});
}

TEST(Mpx2BoardTest, MatrixGoesInAndComesOutBitByBit)
{
    Mpx2Wire wire(mpx2Entry(R"([["", "", ""], [""]])"_json));
    std::minstd_rand random(5);
    std::vector<unsigned> words(std::size_t{3} * 65536);
    for (unsigned& word : words)
        word = random() >> 3U & 0x3FFFU;
    const auto word = [&](std::size_t chip, std::size_t row, std::size_t column) {
        return words[chip * 65536 + row * 256 + column];
    };
    wire.writeMatrix(1, matrixStream(3, word));
    EXPECT_EQ(wire.read(), Bytes());
    EXPECT_EQ(wire.board.chip(0, 2).configuration()[256 * 7 + 3], word(2, 7, 3));

    // One module: the count that the host expects, and a packet at its end.
    const Bytes stream = wire.readModules(1, 1, 3, 2);
    ASSERT_EQ(stream.size(), 3 * 114721 + 7U);
    EXPECT_EQ(packetNumber(stream, stream.size() - 9, 1), stream.size() - 9);
    for (unsigned i = 0; i < words.size(); i += 29)
        ASSERT_EQ(registerIn(stream, 3, i / 65536, i / 256 % 256, i % 256), words[i]) << i;
    EXPECT_EQ(registerIn(wire.readModules(1, 1, 3, 2), 3, 2, 255, 0), 16383U) << "reading clears the counters";
    EXPECT_EQ(wire.board.chip(0, 2).configuration()[0], word(2, 0, 0)) << "and leaves the configuration";
    EXPECT_EQ(registerIn(wire.readModules(2, 1, 1, 2), 1, 0, 9, 9), 0U) << "as switched on";
    wire.pins(0);
    EXPECT_EQ(wire.board.chip(0, 2).configuration()[0], 0);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx2BoardTest, FramesShowTheSceneUprightInAllModulesAtOnce)
{
    struct Case {
        json modules;
        int mask;
        std::uint32_t count, chips, less;
    };
    const std::vector<Case> cases = {{R"([[""], [""], [""], [""], [""]])"_json, 0x1F, 5, 1, 0},
                                     {R"([["", ""], [], ["", ""]])"_json, 5, 2, 2, 2},
                                     {R"([["", "", "", "", ""]])"_json, 1, 1, 5, 0}};
    for (const Case& one : cases) {
        Mpx2Wire wire(mpx2Entry(one.modules));
        wire.timer(500000); // 10 ms
        wire.readModules(one.mask, one.count, one.chips, one.less);
        for (int round = 0; round < 3; ++round) {
            const double seconds = round == 2 ? 0.005 : 0.01;
            wire.timer(static_cast<std::uint32_t>(std::lround(seconds * 5e7)));
            const Bytes packet = wire.frame(11ms);
            ASSERT_EQ(packet.size(), 9U);
            EXPECT_EQ(packetNumber(packet, 0, 5), std::lround(seconds * 5e7));
            const Bytes stream = wire.readModules(one.mask, one.count, one.chips, one.less);
            ASSERT_EQ(stream.size(), one.count * (one.chips * 114721 - one.less) + 9);
            EXPECT_EQ(packetNumber(stream, stream.size() - 9, 1), stream.size() - 9);
            for (std::size_t m = 0; m < one.count; ++m)
                for (unsigned chip = 0; chip < one.chips; ++chip)
                    for (const auto& [row, column] : {std::pair{0U, 0U}, {0U, 255U}, {255U, 0U}, {255U, 255U}})
                        EXPECT_NEAR(countIn(lane(stream, one.count, m), one.chips, chip, row, column),
                                    gradientCount(row, column, seconds), 0.51);
        }
        EXPECT_TRUE(wire.board.violations().empty());
    }
}

TEST(Mpx2BoardTest, PixelsCountByConfigurationAndFillUp)
{
    const auto modeOf = [](unsigned column) { return column % 8; };
    const auto word = [&](std::size_t /*chip*/, std::size_t row, std::size_t column) {
        const unsigned mode = modeOf(static_cast<unsigned>(column));
        const unsigned bits = (mode & 1U) << 9U | (mode >> 1U & 1U) << 6U | (mode >> 2U) << 7U; // the last one masks
        return row == 0 ? bits : 1U << 8U; // one step of adjustment
    };
    const json scene = {{"kind", "flat"}, {"flux", 1000}, {"noise", false}, {"adjust_step", 12}};
    Mpx2Wire wire(mpx2Entry({{""}}, {{"scene", scene}}));
    wire.number(5, 19, 10, 0); // 5 MHz
    Bytes dacs(33);
    dacs[0] = 0xFF;
    Bytes record(32);
    putBits(record, 100, 10, 300); // the cutoff: half of the photons
    std::ranges::copy(record, dacs.begin() + 1);
    wire.dacs(1, dacs);
    wire.writeMatrix(1, matrixStream(1, word));
    wire.readModules(1, 1, 1, 2);
    wire.timer(500000);
    const Bytes packet = wire.frame(1s);
    const Bytes stream = wire.readModules(1, 1, 1, 2);
    EXPECT_EQ(countIn(stream, 1, 0, 0, 0), 5U);
    EXPECT_NEAR(countIn(stream, 1, 0, 0, 1), 5 * 2.5 * 5, 1) << "time over threshold";
    EXPECT_EQ(countIn(stream, 1, 0, 0, 2), 1U) << "first hit";
    EXPECT_EQ(countIn(stream, 1, 0, 0, 3), 11810U) << "time of arrival, beyond what the counter holds";
    EXPECT_EQ(countIn(stream, 1, 0, 0, 4), 0U) << "masked";
    EXPECT_NEAR(countIn(stream, 1, 0, 1, 0), 10 / (1 + std::exp(-1.0)), 0.51);

    // A full counter stays full, and a second frame without a readout adds to the first.
    wire.timer(500000 * 100);
    wire.frame(2s);
    wire.frame(2s);
    EXPECT_EQ(countIn(wire.readModules(1, 1, 1, 2), 1, 0, 0, 8), 1000U);
    wire.timer(500000 * 8000U);
    wire.frame(81s);
    EXPECT_EQ(countIn(wire.readModules(1, 1, 1, 2), 1, 0, 5, 8), 11810U);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx2BoardTest, ShutterObeysTimerTriggersAndStop)
{
    Mpx2Wire wire(mpx2Entry({{""}}));
    wire.number(5, 4, 1, 0);
    wire.timer(5);
    EXPECT_EQ(wire.board.timerCount(), (1ULL << 32U) + 5);
    wire.number(5, 4, 0, 0);
    wire.timer(500000);
    wire.number(5, 16, 1000, 0); // clocks before the shutter opens: 0.1 ms, and 0.1 ms of rest
    wire.number(5, 17, 5, 0);
    wire.number(5, 7, 5000, 0);
    EXPECT_EQ(wire.frame(10100us), Bytes());
    wire.wait(100us);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 500000U);

    wire.start(2);
    wire.wait(1h);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.externalTrigger(wire.now);
    wire.wait(10ms);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 500000U);
    wire.start(6);
    wire.wait(1s);
    wire.board.externalTrigger(wire.now);
    wire.wait(1s);
    wire.board.externalTrigger(wire.now);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 50000000U);

    wire.start(4);
    wire.wait(2500us);
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    EXPECT_NEAR(static_cast<double>(packetNumber(wire.read(), 0, 5)), (2500 - 200) * 50, 1) << "cut by a stop";
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    wire.start(2);
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    EXPECT_EQ(wire.read(), Bytes()) << "a stop while it waits leaves no packet";
    wire.bare(5, 5, 0, 0, 0, 1);
    wire.start(2);
    wire.wait(1s);
    EXPECT_EQ(wire.read().size(), 9U) << "the input rests at the level that starts";

    // The packet waits while SPI has the output.
    wire.start();
    wire.bare(4, 2, 0, 0, 0, 1, 2);
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes());
    wire.bare(1, 0, 0, 0, 0, 0, 2);
    EXPECT_EQ(wire.read().size(), 9U);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx2BoardTest, BiasBySupplyOrByCpu)
{
    Mpx2Wire wire(mpx2Entry({{""}}));
    EXPECT_NEAR(adc(wire, 14), 2048, 1);
    setBias(wire, 141); // 50.07 V
    EXPECT_EQ(wire.read(), Bytes());
    EXPECT_NEAR((adc(wire, 14) / 4096.0 * 5 - 2.5) * 100 / 1.3, 50.07, 0.1);

    const json entry = R"({"cpu": {"version": "LTX5x5 1.0", "values": [["*BiasSet", 0], ["BiasVolt", 0],
        ["BiasCurr", 0], ["TempDet", 27], ["Other", 3]]}, "bias": {"leakage": 0.1}})"_json;
    Mpx2Wire other(mpx2Entry({{""}}, entry));
    EXPECT_EQ(textAt(cpu(other, 100, {5}), 2), "LTX5x5 1.0");
    EXPECT_EQ(textAt(cpu(other, 4096, {4}), 2), "0;0;0;27;3");
    cpu(other, 6, {0x80, 0, 0x42, 0x48}); // 50
    EXPECT_EQ(textAt(cpu(other, 4096, {4}), 2), "50;50;5;28;3");
    other.board.powerCycle(other.now);
    EXPECT_EQ(textAt(cpu(other, 4096, {4}), 2), "0;0;0;27;3");
    EXPECT_TRUE(wire.board.violations().empty() && other.board.violations().empty());
}

TEST(Mpx2BoardTest, FaultsShowOnTheWire)
{
    Mpx2Wire wire(mpx2Entry(R"([["A01-W0001"], ["A02-W0001", "A03-W0001"], ["A04-W0001"]])"_json));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "module_silent"}, {"module", 0}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "chip_missing"}, {"module", 1}, {"position", 0}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "stuck_line"}, {"module", 2}, {"level", 1}}));
    EXPECT_EQ(wire.pattern().at(1), 0b100);
    EXPECT_EQ(wire.pattern().at(2), 0b110);
    const std::array<std::pair<int, int>, 3> ones = {{{1, 0}, {2, 1}, {4, 13}}};
    for (const auto& [mask, count] : ones) {
        const Bytes block = wire.countBlock(mask);
        EXPECT_EQ(std::count(block.begin() + 1, block.end(), 0xFF), count) << mask;
    }
    EXPECT_EQ(idIn(wire.dacs(2, Bytes(33, 0xFF)), 1, 0), "A03-W0001t");
    wire.dacs(2, Bytes(66, 0xFF)); // from a host that has counted before
    EXPECT_EQ(wire.readModules(4, 1, 1, 2).at(50000), 0xFF);

    ASSERT_TRUE(wire.board.applyFault({{"kind", "short_stream"}, {"bytes", 500}, {"readouts", 1}}));
    EXPECT_EQ(wire.readModules(1, 1, 1, 2).size(), 114719U - 500);
    ASSERT_TRUE(wire.board.applyFault({{"kind", "tail_out_of_step"}, {"readouts", 1}}));
    const Bytes late = wire.readModules(1, 1, 1, 2);
    EXPECT_EQ(late.size(), 114728U + 64);
    EXPECT_NE(late[114728 - 9], 0x55);
    EXPECT_NE(late[114728 - 8], 0x01);
    EXPECT_EQ(wire.readModules(1, 1, 1, 2).size(), 114728U);

    // A board that hangs forgets the frame, and is back after the reset that a host makes.
    wire.timer(50000);
    wire.start();
    ASSERT_TRUE(wire.board.applyFault({{"kind", "hang"}}));
    wire.wait(1s);
    wire.bare(2, 1, 0, 0, 0, 0, 2);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.setBitMode(0xFF, 1, wire.now);
    wire.board.setBitMode(0xFF, 0x40, wire.now);
    EXPECT_EQ(wire.read(), Bytes());
    ASSERT_TRUE(wire.board.applyFault({{"kind", "firmware"}, {"text", "Firmware 2.0 TLA"}}));
    wire.bare(2, 1, 0, 0, 0, 0, 2);
    EXPECT_EQ(textAt(wire.read(), 0), "Firmware 2.0 TLA");

    // Chips that were switched off by the heat have forgotten, and nothing is the host's fault.
    ASSERT_TRUE(wire.board.applyFault({{"kind", "cpu_overheated"}}));
    EXPECT_EQ(wire.frame(2ms).size(), 9U);
    wire.board.clearFaults();
    EXPECT_EQ(wire.pattern().at(2), 0b111);
    EXPECT_EQ(registerIn(wire.readModules(1, 1, 1, 2), 1, 0, 3, 3), 0U);
    EXPECT_FALSE(wire.board.applyFault({{"kind", "short_read"}}));
    EXPECT_THROW(wire.board.applyFault({{"kind", "module_silent"}, {"module", 5}}), std::runtime_error);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx2BoardTest, RecordsWhatNoFirmwareUnderstands)
{
    struct Case {
        const char* name;
        unsigned pins;
        Bytes frame;
        std::size_t payload = 0; ///< bytes FF behind the frame
    };
    constexpr unsigned on = PWR | RST;
    const std::vector<Case> cases = {
        {"no sync", on, {0x54, 0, 1, 2, 0, 0, 0, 1, 0xAA}},
        {"unknown command", on, {0x55, 0, 1, 6, 0, 0, 0, 0, 0xAA}},
        {"command of another generation", on, {0x55, 5, 1, 255, 0, 0, 0, 12, 0xAA}, 12},
        {"pattern that nobody takes", on | M0 | ENIN, {0x55, 0, 1, 3, 0, 0, 0, 0, 0xAA}},
        {"sixth module", on, {0x55, 0, 1, 2, 0, 0, 0, 0x20, 0xAA}},
        {"clock divided by 0", on, {0x55, 0, 5, 19, 0, 0, 0, 0, 0xAA}},
        {"DACs of the wrong size", on | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 34, 0xAA}, 34},
        {"DACs of two chips", on | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 66, 0xAA}, 66},
        {"DACs with the pins of a matrix read", on | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 33, 0xAA}, 33},
        {"DACs of chips in reset", PWR | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 33, 0xAA}, 33},
        {"matrix of the wrong size", on | M1, {0x55, 7, 1, 0, 0, 1, 0xC0, 0x20, 0xAA}, 114720},
        {"pattern with the wrong pins", on | M0 | ENIN | OUTEN, {0x55, 2, 1, 3, 0, 0, 0, 0, 0xAA}},
        {"readout with PS", on | OUTEN | PS, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
        {"readout that was not announced", on | OUTEN, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
        {"start without power", RST | ENIN | ACQOVER, {0x55, 2, 5, 1, 0, 0, 0, 1, 0xAA}},
        {"start while chips are shifted", on | OUTEN | ACQOVER, {0x55, 2, 5, 1, 0, 0, 0, 1, 0xAA}},
        {"start of two frames", on | ENIN | ACQOVER, {0x55, 2, 5, 1, 0, 0, 0, 2, 0xAA}},
        {"continuous series", on | ENIN | ACQOVER, {0x55, 2, 5, 1, 1, 0, 0, 1, 0xAA}},
    };
    for (Case one : cases) {
        Mpx2Wire wire(mpx2Entry({{""}}));
        wire.mux(1);
        wire.pins(one.pins);
        one.frame.resize(one.frame.size() + one.payload, 0xFF);
        wire.write(one.frame);
        EXPECT_EQ(wire.board.violations().size(), 1U) << one.name;
    }

    Mpx2Wire wire(mpx2Entry({{""}}));
    wire.dacs(0, Bytes(33, 0xFF)); // to no module
    wire.dacs(1, Bytes(33));       // without lead byte
    EXPECT_EQ(wire.readMatrix(1, 114721, 917766).size(), 114721 + 9U) << "more than is clocked";
    EXPECT_EQ(wire.readMatrix(1, 114720, 0xFFFFFFFE).size(), 114721 + 9U) << "bits without end";
    wire.timer(50000000);
    wire.start();
    wire.dacs(1, Bytes(33, 0xFF)); // while the shutter works
    EXPECT_EQ(wire.board.violations().size(), 5U);
}

TEST(Mpx2BoardTest, ShippedBenchesLoadAndBadEntriesAreRefused)
{
    for (const char* name :
         {"timepix-five", "timepix-single", "timepix-modules", "mpx2-quad", "timepix-cpu", "timepix-bench"})
        EXPECT_EQ(latixelsimLoadBench(name), 0) << name << ": " << latixelsimError();
    clearBus();
    for (const char* more : {R"({"modules": [["X99"]]})", R"({"modules": [["A13-W0001"]]})", R"({"chip": "medipix9"})",
                             R"({"modules": [[], [], [], [], [], []]})", R"({"modules": ["A01-W0001"]})"})
        EXPECT_THROW(Mpx2Board(mpx2Entry({{""}}, json::parse(more)), json::object()), std::runtime_error) << more;
}

} // namespace
} // namespace sim
