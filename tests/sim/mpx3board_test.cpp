// The Medipix3 board from the wire: bring-up, chips, SPI slaves, and what it has against bad frames.
#include "mpx3wire.h"

#include "sim/latixelsim.h"

#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

namespace sim {
namespace {

using namespace std::chrono_literals;

/// Identifier text of three bytes as they come off the wire.
std::string idAt(const Bytes& answer, std::size_t at)
{
    const unsigned b0 = reversed(answer.at(at));
    const unsigned wafer = reversed(answer.at(at + 1)) + 256U * (reversed(answer.at(at + 2)) & 0xFU);
    char text[32];
    std::snprintf(text, sizeof text, "%c%02u-W%04u", 0x40 + static_cast<int>(b0 >> 4U), b0 & 0xFU, wafer);
    return text;
}

Bytes readFuses(Mpx3Wire& wire, int mask, std::size_t records)
{
    wire.channels(0, mask);
    wire.omr(7);
    Bytes request(38 * records);
    for (std::size_t i = 0; i < records; ++i)
        request[38 * i] = 0xA0;
    wire.channels(mask, mask);
    wire.payload(1, 255, request, 7);
    return wire.read();
}

TEST(Mpx3BoardTest, TellsItsFirmwareAndItsChips)
{
    Mpx3Wire wire(mpx3Entry({{"C07-W0123"}, json::array(), {"O15-W4095"}}, {{"firmware", "FW 3.1"}}));
    wire.bare(2, 1, 0, 0, 0, 0, 2);
    const Bytes text = wire.read();
    EXPECT_EQ(text.size(), 29U);
    EXPECT_EQ(textAt(text, 0), "FW 3.1");
    wire.bare(1, 0, 0, 0, 0, 0, 2);

    const Bytes before = readFuses(wire, 1, 1);
    EXPECT_EQ(before, Bytes(38)); // what the chip held before the first pass
    const Bytes first = readFuses(wire, 1, 1);
    EXPECT_NE(first.at(1), 0x50);
    EXPECT_EQ(idAt(first, 23), "C07-W0123");
    readFuses(wire, 4, 1);
    EXPECT_EQ(idAt(readFuses(wire, 4, 1), 23), "O15-W4095");
    readFuses(wire, 2, 1);
    EXPECT_EQ(readFuses(wire, 2, 1), Bytes(38));
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3BoardTest, ChainOfTwoShowsItselfAndBothIdentifiers)
{
    Mpx3Wire wire(mpx3Entry(R"([["A01-W0001", "B02-W0300"]])"_json));
    readFuses(wire, 1, 1);
    EXPECT_EQ(readFuses(wire, 1, 1).at(1), 0x50);
    wire.bare(1, 10, 0, 0, 0, 1);
    readFuses(wire, 1, 2);
    const Bytes both = readFuses(wire, 1, 2);
    ASSERT_EQ(both.size(), 76U);
    EXPECT_EQ(idAt(both, 24), "A01-W0001");
    EXPECT_EQ(idAt(both, 62), "B02-W0300");
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3BoardTest, LoadsDacsCtprAndPixels)
{
    Mpx3Wire wire(mpx3Entry({{"C07-W0123"}, {"D01-W0124"}}));
    wire.channels(0, 2);
    std::array<unsigned, 27> codes{};
    Bytes dacs = {0x00, 0xA0, 0x00};
    std::string bits;
    for (std::size_t i = codes.size(); i-- > 0;) {
        const unsigned width = i < 8 || i > 24 ? 9 : 8;
        codes[i] = (37 * static_cast<unsigned>(i) + 129) & ((1U << width) - 1);
        for (unsigned bit = width; bit-- > 0;)
            bits += (codes[i] >> bit & 1U) != 0 ? '1' : '0';
    }
    bits.resize(std::size_t{34} * 8, '0');
    for (std::size_t at = 0; at < bits.size(); at += 8)
        dacs.push_back(static_cast<std::uint8_t>(std::stoul(bits.substr(at, 8), nullptr, 2)));
    wire.omr(1);
    wire.payload(1, 255, dacs, 5);
    EXPECT_TRUE(std::ranges::equal(wire.board.chip(1).dacs(), codes));
    EXPECT_EQ(wire.board.chip(0).dacs()[3], 0);

    Bytes ctpr(36);
    std::iota(ctpr.begin() + 2, ctpr.begin() + 34, std::uint8_t{7});
    ctpr[0] = 0xA0;
    wire.omr(5);
    wire.payload(1, 255, ctpr, 5);
    EXPECT_EQ(wire.board.chip(1).ctpr()[31], 38);

    // Random registers go in as two halves and come out again, on the same places.
    std::minstd_rand random(5);
    std::vector<unsigned> pixels(65536);
    for (unsigned& pixel : pixels)
        pixel = random() & 0xFFFU;
    wire.channels(0, 1);
    wire.omr(6);
    for (std::size_t half = 0; half < 2; ++half) {
        Bytes stream(49207);
        stream[1] = 0xA0;
        for (std::size_t i = 0; i < std::size_t{128} * 256 * 12; ++i) {
            const std::size_t row = half * 128 + i / 3072;
            const std::size_t plane = 11 - i % 3072 / 256;
            const unsigned bit = pixels[row * 256 + 255 - i % 256] >> plane & 1U;
            stream[3 + i / 8] = static_cast<std::uint8_t>(stream[3 + i / 8] | bit << (7 - i % 8));
        }
        stream[49156] = 0x5A; // what falls out at the end may hold anything
        wire.payload(1, 255, stream, 5);
    }
    wire.bare(1, 1, 0, 0, 0, 0x0F);
    EXPECT_TRUE(std::ranges::equal(wire.board.chip(0).configuration(), pixels));
    EXPECT_TRUE(std::ranges::equal(wire.board.chip(0).registers(1), pixels));

    wire.channels(1, 1);
    wire.bits(1, 2, 1, 786466, 2);
    const Bytes stream = wire.read();
    ASSERT_EQ(stream.size(), 98317U);
    for (std::size_t i = 0; i < pixels.size(); i += 13)
        ASSERT_EQ(registerIn(stream, {}, static_cast<unsigned>(i / 256), i % 256), pixels[i]) << i;
    wire.bits(1, 2, 1, 786466, 2);
    EXPECT_EQ(registerIn(wire.read(), {}, 0, 0), 0U); // reading has cleared it
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3BoardTest, FlashHoldsItsStore)
{
    const json flash = {{"parameters",
                         {{{"name", "BiasSetA"}, {"type", "double"}, {"value", -2.25}},
                          {{"name", "BiasVoltChannel"}, {"type", "byte"}, {"value", 13}},
                          {{"name", "Map"}, {"type", "u16"}, {"value", {1, 2, 3, 4, 5, 0xABCD}}}}}};
    Mpx3Wire wire(mpx3Entry({{""}}, {{"flash", flash}}));
    const auto read = [&wire](std::uint8_t address, std::size_t size) {
        Bytes request(size + 4);
        request[0] = 3;
        request[3] = address;
        const Bytes answer = spi(wire, 4, 2, 3, request);
        EXPECT_EQ(answer.size(), request.size());
        return Bytes(answer.begin() + 4, answer.end());
    };
    const Bytes store = read(0, 1020);
    EXPECT_EQ(Bytes(store.begin(), store.begin() + 16),
              (Bytes{'I', 'B', 'M', 'D', 0, 0, 0, 1, 0, 0, 0, 115, 0, 0, 0, 103}));
    EXPECT_EQ(textAt(store, 16), "BiasSetA");
    EXPECT_EQ(store[16 + 25], 9);
    EXPECT_EQ(store[16 + 29], 8);
    double value = 0;
    std::memcpy(&value, &store[16 + 30], 8);
    EXPECT_EQ(value, -2.25);
    EXPECT_EQ(store[16 + 38 + 30], 13);
    EXPECT_EQ(Bytes(&store[16 + 38 + 31 + 26], &store[16 + 38 + 31 + 34]), (Bytes{0, 0, 0, 12, 0, 0, 0, 0}));
    EXPECT_EQ(read(16 + 103 + 10, 4), (Bytes{0xCD, 0xAB, 0xFF, 0xFF})) << "big values, then blank cells";
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3BoardTest, CpuTellsValuesAndObeys)
{
    const json entry =
        R"({"cpu": {"version": "CPU 1.7", "values": [["Temp", 31.5], ["*Fan", 2], ["State", "on"]]}})"_json;
    Mpx3Wire wire(mpx3Entry({{""}}, entry));
    EXPECT_EQ(textAt(cpu(wire, 100, {5}), 2), "CPU 1.7");
    EXPECT_EQ(textAt(cpu(wire, 4096, {3}), 2), "Temp;*Fan;State");
    EXPECT_EQ(textAt(cpu(wire, 4096, {4}), 2), "31.5;2;on");
    cpu(wire, 6, {0x80, 1, 0x40, 0x20}); // 2.5
    EXPECT_EQ(textAt(cpu(wire, 4096, {4}), 2), "31.5;2.5;on");
    cpu(wire, 6, {0x80, 3});
    EXPECT_TRUE(wire.board.cpu().power());

    wire.channels(1, 1);
    wire.omr(7);
    ASSERT_TRUE(wire.board.applyFault({{"kind", "cpu_overheated"}, {"text", "hot"}}));
    EXPECT_EQ(cpu(wire, 4, {2}), (Bytes{0, 0, 4, 0}));
    EXPECT_EQ(textAt(cpu(wire, 100, {6}), 2), "hot");
    EXPECT_FALSE(wire.board.chipsPowered());
    EXPECT_EQ(wire.board.chip(0).omr().mode(), 0U) << "chips that were off have forgotten";
    cpu(wire, 6, {0x80, 0});
    EXPECT_TRUE(wire.board.chipsPowered());
    EXPECT_EQ(cpu(wire, 4, {2}).at(2), 0);
    EXPECT_TRUE(wire.board.violations().empty());

    Mpx3Wire without(mpx3Entry({{""}}));
    EXPECT_EQ(cpu(without, 100, {5}), Bytes(100));
}

TEST(Mpx3BoardTest, AdcMeasuresBiasTemperatureAndSenseOutput)
{
    Mpx3Wire wire(mpx3Entry({{""}, {""}}, R"({"temperature": 25, "adc": {"3": 1.25}})"_json));
    EXPECT_EQ(adc(wire, 1), 614); // 25 degrees
    EXPECT_EQ(adc(wire, 3), 1024);
    EXPECT_EQ(adc(wire, 15), 0);
    setBias(wire, 141); // 50.07 V
    EXPECT_EQ(wire.read(), Bytes()) << "the DAC's answer stays behind while the output is not given to SPI";
    EXPECT_NEAR(adc(wire, 15) / 4096.0 * 5 * 34, 50.07, 0.03);
    wire.bare(4, 4, 0, 0, 0, 4);
    EXPECT_EQ(adc(wire, 15), 0);

    // Channel 1 senses its DAC 0: the full code, of nine bits.
    Bytes dacs(37);
    dacs[1] = 0xA0;
    std::fill_n(dacs.begin() + 3, 28, std::uint8_t{0xFF});
    dacs[31] = 0xC0;
    wire.channels(0, 2);
    wire.omr(1, {0x20, 0, 0, 0x10 | 0x04});
    wire.payload(1, 255, dacs, 5);
    EXPECT_EQ(wire.board.chip(1).omr().get(OmrField::senseDac), 1U);
    EXPECT_NEAR(adc(wire, 0), (0.05 + 1.4 * 511 / 512) / 5 * 4096, 1);
    wire.omr(1);
    EXPECT_EQ(adc(wire, 0), 0);

    const json calibrated = {{"set_a", 2.0},    {"set_b", 5.0},  {"volt_a", 25.0}, {"volt_b", -1.0}, {"curr_a", 10.0},
                             {"curr_b", -20.0}, {"curr_c", 0.5}, {"curr_d", 0.01}, {"leakage", 0.1}};
    Mpx3Wire other(mpx3Entry({{""}}, {{"bias", calibrated}}));
    setBias(other, 85); // 40 V, 4 microamperes
    EXPECT_NEAR(adc(other, 15) / 4096.0 * 5 * 25 - 1, 40, 0.03);
    const double c = adc(other, 14) / 4096.0 * 5 * 10 - 20;
    EXPECT_NEAR(0.5 * c * std::exp(0.01 * std::abs(c)), 4, 0.02);
    EXPECT_TRUE(wire.board.violations().empty() && other.board.violations().empty());
}

TEST(Mpx3BoardTest, TakesFramesInPiecesOfAnySize)
{
    Mpx3Wire wire(mpx3Entry({{""}}));
    Bytes stream;
    for (int i = 0; i < 40; ++i)
        stream.insert(stream.end(), {0x55, 0,    1,    3,   0, 0, 0, static_cast<std::uint8_t>(i & 0x1F),
                                     0xAA, //
                                     0x55, 1,    4,    0,   0, 0, 0, 3,
                                     0xAA, 0x55, 0xAA, 0x55});
    std::minstd_rand random(3);
    wire.board.clearFrames();
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t part = std::min<std::size_t>(1 + random() % 23, stream.size() - at);
        wire.write({stream.begin() + static_cast<std::ptrdiff_t>(at),
                    stream.begin() + static_cast<std::ptrdiff_t>(at + part)});
        at += part;
    }
    EXPECT_EQ(wire.board.frames().size(), 80U);
    EXPECT_EQ(wire.board.frames().back().payload, (Bytes{0x55, 0xAA, 0x55}));
    EXPECT_TRUE(wire.board.idle() && wire.board.violations().empty());
}

TEST(Mpx3BoardTest, RefusesWhatNoFirmwareUnderstandsAndGoesOn)
{
    const Bytes good = {0x55, 0, 1, 3, 0, 0, 0, 1, 0xAA};
    const std::vector<Bytes> bad = {
        {0x54, 0, 1, 3, 0, 0, 0, 1, 0xAA},                  // no sync
        {0x55, 0, 1, 3, 0, 0, 0, 1, 0xAB},                  // no end
        {0x55, 8, 1, 3, 0, 0, 0, 1, 0xAA},                  // undefined flag
        {0x55, 1, 1, 255, 0x7F, 0, 0, 1, 0xAA},             // more than any memory
        {0x55, 1, 1, 255, 0, 0, 0, 0, 0xAA},                // payload of nothing
        {0x55, 0, 3, 0, 0, 0, 0, 0, 0xAA},                  // peripheral that there is not
        {0x55, 0, 1, 11, 0, 0, 0, 0, 0xAA},                 // command that there is not
        {0x55, 0, 5, 1, 1, 0, 0, 0, 0xAA},                  // start that takes no output
        {0x55, 0, 1, 3, 0, 0, 0x20, 0x20, 0xAA},            // sixth channel
        {0x55, 0, 1, 3, 0, 0, 2, 1, 0xAA},                  // data of a channel that is not selected
        {0x55, 2, 5, 1, 1, 0, 0, 0, 0xAA},                  // start without stream parameters
        {0x55, 2, 1, 2, 2, 0, 0, 8, 0xAA},                  // counter selection that there is not
        {0x55, 0, 4, 3, 0, 0, 0, 0, 0xAA},                  // SPI send of nothing
        {0x55, 7, 4, 0, 0, 0, 0, 1, 0xAA, 0x02},            // SPI with no slave selected
        {0x55, 5, 1, 255, 0, 0, 0, 4, 0xAA, 0x30, 0, 0, 0}, // register image of no size
        {0x55, 5, 1, 255, 0, 0, 0, 4, 0xAA, 0xA0, 0, 0, 0}, // data while the register says readout
        {0x55, 5, 1, 0, 0, 0, 0, 2, 0xAA, 0, 0},            // fast clear with its pin high
        {0x55, 0, 1, 8, 0x30, 0, 0xE8, 0, 0xAA},            // readout image that reads nothing
    };
    Mpx3Wire wire(mpx3Entry({{""}}));
    for (const Bytes& bytes : bad) {
        wire.write(good);
        wire.board.clearViolations();
        wire.write(bytes);
        wire.write(good);
        EXPECT_EQ(wire.board.violations().size(), 1U) << testing::PrintToString(bytes);
        EXPECT_EQ(wire.board.frames().back().head(), good) << testing::PrintToString(bytes);
    }

    wire.board.clearViolations();
    wire.write({0x55, 5, 1, 255, 0, 0, 0, 12, 0xAA, 0x30});
    EXPECT_FALSE(wire.board.idle());
    wire.board.powerCycle(wire.now);
    EXPECT_TRUE(wire.board.idle());
    wire.payload(1, 255, Bytes(12), 5); // no power yet
    EXPECT_EQ(wire.board.violations().size(), 1U);
}

TEST(Mpx3BoardTest, RefusesStreamsOfTheWrongForm)
{
    const auto stream = [](std::size_t size, Bytes head, std::size_t tailAt = 0) {
        head.resize(size);
        if (tailAt > 0)
            head[tailAt] = 1;
        return head;
    };
    struct Case {
        unsigned mode;
        Bytes bytes;
        int flags = 5;
    };
    const std::vector<Case> cases = {
        {1, stream(39, {0, 0xA0, 0})},    {1, stream(37, {0xA0, 0})},    {1, stream(37, {0, 0xA0, 0}, 36)},
        {1, stream(74, {0, 0xA0, 0})},    {5, stream(36, {0, 0xA0})},    {5, stream(34, {0xA0})},
        {2, stream(49155, {0, 0xA0, 0})}, {6, stream(49207, {0xA0, 0})}, {7, stream(37, {0xA0}), 7},
        {7, stream(38, {0xA1}), 7},       {7, stream(76, {0xA0}), 7},    {4, stream(12, {0x30, 0, 0xE8}, 9)},
        {4, stream(24, {0x30, 0, 0xE8})}, {4, stream(37, {0, 0xA0, 0})}};
    Mpx3Wire wire(mpx3Entry({{""}}));
    wire.channels(1, 1);
    for (const Case& one : cases) {
        wire.omr(one.mode);
        wire.board.clearViolations();
        wire.payload(1, 255, one.bytes, one.flags);
        EXPECT_EQ(wire.board.violations().size(), 1U) << "mode " << one.mode << ", " << one.bytes.size() << " bytes";
    }
    wire.board.clearViolations();
    wire.omr(6);
    wire.payload(1, 255, stream(49207, {0, 0xA0, 0}), 5);
    wire.bare(1, 1, 0, 0, 0, 0x0F);
    EXPECT_EQ(wire.board.violations().size(), 1U) << "half a matrix";
    wire.omr(6, {0x40, 0, 0, 0x10, 0});
    wire.payload(1, 255, stream(49207, {0, 0xA0, 0}), 5);
    EXPECT_EQ(wire.board.violations().size(), 2U) << "matrix in 6-bit depth";
    wire.read();
    EXPECT_EQ(spi(wire, 4, 50, 3, Bytes(8)), Bytes(8, 0xFF)) << "flash clocked as the CPU is";
    EXPECT_EQ(wire.board.violations().size(), 3U);
}

TEST(Mpx3BoardTest, FaultsOfChipsAndFlash)
{
    const json flash = {{"parameters", {{{"name", "A"}, {"type", "byte"}, {"value", 1}}}}};
    Mpx3Wire wire(mpx3Entry({{"C07-W0123"}, {"D01-W0124"}}, {{"flash", flash}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "stuck_channel"}, {"channel", 0}, {"level", 1}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "chip_missing"}, {"channel", 1}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "flash"}, {"version", 2}}));
    EXPECT_FALSE(wire.board.applyFault({{"kind", "short_read"}}));
    EXPECT_THROW(wire.board.applyFault({{"kind", "stuck_channel"}, {"channel", 5}}), std::runtime_error);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(readFuses(wire, 1, 1), Bytes(38, 0xFF));
        EXPECT_EQ(readFuses(wire, 2, 1), Bytes(38, 0x00));
    }
    EXPECT_EQ(spi(wire, 4, 2, 3, {3, 0, 0, 4, 0, 0, 0, 0}).back(), 2);
    wire.board.clearFaults();
    readFuses(wire, 1, 1);
    EXPECT_EQ(idAt(readFuses(wire, 1, 1), 23), "C07-W0123");
    EXPECT_EQ(spi(wire, 4, 2, 3, {3, 0, 0, 4, 0, 0, 0, 0}).back(), 1);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3BoardTest, ShippedBenchesLoad)
{
    for (const char* name :
         {"mpx3-quad", "mpx3-single", "mpx3-two-per-channel", "mpx3-five", "mpx3-no-chip", "mpx3-bench", "mpx3-lad"})
        EXPECT_EQ(latixelsimLoadBench(name), 0) << latixelsimError();
    clearBus();
}

TEST(Mpx3BoardTest, BadEntriesAreRefused)
{
    EXPECT_THROW(Mpx3Board(mpx3Entry({{"X99"}}), json::object()), std::runtime_error);
    EXPECT_THROW(Mpx3Board(mpx3Entry({{"", "", ""}}), json::object()), std::runtime_error);
    for (const char* more : {R"({"scene": {"kind": "nothing"}})", R"({"scene": {"fluxx": 1}})", R"({"adc": {"16": 1}})",
                             R"({"flash": {"parameters": [{"name": "A", "type": "int", "value": 1}]}})",
                             R"({"firmware": "A text that goes on for more than it may"})"})
        EXPECT_THROW(Mpx3Board(mpx3Entry({{""}}, json::parse(more)), json::object()), std::runtime_error) << more;
}

} // namespace
} // namespace sim
