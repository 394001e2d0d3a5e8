// Configuration of a Medipix3 board: the bytes that reach it, matrices there and back, bias and ADC.
#include "devices/mpx3/mpx3bench.h"

#include <numeric>

using namespace support;

namespace {

using Up = BroughtUp<Mpx3Bench>;

using Pixels = Mpx3Bench::Pixels;

/// Writes a matrix, and reads that of all chips.
Pixels thereAndBack(const Up& bench, const Pixels& counts, bool convert)
{
    EXPECT_EQ(bench.write(counts, convert), 0);
    Pixels back(bench.pixels(), 99);
    EXPECT_EQ(bench.read(back, convert), 0);
    return back;
}

} // namespace

TEST(Mpx3Config, RegisterImageTimerAndTriggersReachTheBoard)
{
    Up bench(mpx3Board({1, 1}), TWO_CHANNELS);

    // depth 6, columns 9 (a quarter), rows 4 (eight), gain 2, CSM, colour, negative, equalization, discriminator
    EXPECT_EQ(bench->setConfig({1, 9, 4, 1, 2, 0, 1, 1, 0, 1, 1}), 0);
    // The fields go mirrored: CountL 1, PS 2, ColumnBlockSel, RowBlock 3, RowBlockSel, Gain 2, and M 0, 4 or 7.
    BoardWire images;
    images.number(0, MPX, 3, 3).number(0, MPX, 6, 0x30000343).number(0, MPX, 5, 0xBC000800);
    images.number(0, MPX, 8, 0x30002343).number(0, MPX, 7, 0xBC000800);
    images.data(5, MPX, 255, padded({0x30, 0x00, 0xE3, 0x43, 0xBC, 0x00, 0x08}, 12));
    EXPECT_EQ(bench.wire(), images.lines());
    EXPECT_EQ(bench->omr().rowNumber(), 8U);

    EXPECT_EQ(bench->setTimer(86400.0), 0);
    bench.board([](sim::Mpx3Board& board) { EXPECT_EQ(board.timerCount(), 8640000000000ULL); });
    bench.wire();

    bench.set("TriggerStg", 3);
    bench.set("TriggerMaster", 1);
    bench.set("TriggerOutLevel", 1);
    EXPECT_EQ(bench->setTriggerSettings(), 0);
    bench.set("BiasDischarge", 1);
    EXPECT_EQ(bench.wire(), BoardWire().number(0, ACQ, 5, 0x1B).number(0, SPI, 4, 4).lines());

    Bytes ctpr(32);
    std::iota(ctpr.begin(), ctpr.end(), std::uint8_t{0x37});
    EXPECT_EQ(bench->setCTPR(ctpr.data(), ctpr.size()), 0);
    EXPECT_EQ(bench->fastClearMatrix(), 0);
    bench.board([&](sim::Mpx3Board& board) { EXPECT_TRUE(std::ranges::equal(board.chip(1).ctpr(), ctpr)); });
    EXPECT_EQ(bench->setExtDac(0, 1, 0.5), -1);
    EXPECT_STREQ(bench->lastError(), "External DAC not supported.");
}

TEST(Mpx3Config, AnyBlockOfColumnsAndRowsStaysInItsBuffers)
{
    Up bench(mpx3Board({1}), TWO_CHANNELS);
    using Byte = unsigned char;
    Pixels matrix(65536);
    for (const Byte columns : std::initializer_list<Byte>{5, 11, 14, 200, 255})
        for (const Byte rows : std::initializer_list<Byte>{1, 8, 100, 255}) {
            bench->setConfig({Byte(rows % 5), columns, rows, Byte(rows % 4), 1, 0, 0, 0, 1, 0, 0});
            bench->readMatrix(matrix.data(), 256, true);
        }
}

TEST(Mpx3Config, DacsGoToTheirChannel)
{
    Up bench(mpx3Board({2, 2}), TWO_CHANNELS);
    std::vector<unsigned short> dacs(4 * 27);
    std::iota(dacs.begin(), dacs.end(), static_cast<unsigned short>(100));
    ASSERT_EQ(bench.setDacs(dacs), 0);
    bench.board([&](sim::Mpx3Board& board) {
        for (std::size_t chip = 0; chip < 4; ++chip)
            for (std::size_t d = 0; d < 27; ++d)
                EXPECT_EQ(board.chip(chip / 2, chip % 2).dacs()[d], dacs[chip * 27 + d]) << chip << " " << d;
    });
    // A chip selects its whole channel, and the other channel stays.
    sim::clearTraffic();
    ASSERT_EQ(bench.setDacs(std::vector<unsigned short>(4 * 27, 7), 1), 0);
    bench.board([](sim::Mpx3Board& board) {
        EXPECT_EQ(board.chip(0, 0).dacs()[5], 7);
        EXPECT_EQ(board.chip(0, 1).dacs()[5], 7);
        EXPECT_EQ(board.chip(1, 0).dacs()[5], 159);
    });
    const auto lines = bench.wire();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "55 00 01 03 00 00 00 01 AA ");
    EXPECT_TRUE(lines[1].starts_with("55 05 01 FF 00 00 00 18 AA + 24: 30 00 88")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("55 05 01 FF 00 00 00 4A AA + 74: 00 A0 00")) << lines[2];
    EXPECT_EQ(bench->setDacs(dacs.data(), 53, -1), 1) << "an array that ends before the last chip";
    sim::addFault(0, linkError("write", 2));
    EXPECT_NE(bench.setDacs(dacs), 0);
    bench.expectError("Cannot set DACs (chan=0, chip=0): ");
}

TEST(Mpx3Config, MatricesComeBackAsTheyWereWritten)
{
    for (const int chips : {1, 2}) {
        Up bench(mpx3Board({chips, chips}), TWO_CHANNELS);
        const auto counts = randomNumbers<unsigned>(bench.pixels(), 4096);
        for (const int counter : {0, 1}) {
            SCOPED_TRACE(std::to_string(chips) + " chips, counter " + std::to_string(counter));
            ASSERT_EQ(bench->setConfig(plainConfig(counter)), 0);
            auto back = thereAndBack(bench, counts, true);
            // With two chips a channel only the first half is converted.
            const auto converted = static_cast<long>(counts.size()) / chips;
            EXPECT_TRUE(std::equal(counts.begin(), counts.begin() + converted, back.begin()));
            ASSERT_EQ(bench.read(back, false), 0);
            EXPECT_TRUE(back == Pixels(back.size())) << "reading clears the counters";
        }
        ASSERT_EQ(bench->setConfig(plainConfig(2)), 0);
        auto both = counts;
        for (std::size_t i = 0; i < both.size(); ++i)
            both[i] = counts[i] << 16 | counts[counts.size() - 1 - i];
        EXPECT_TRUE(thereAndBack(bench, both, false) == both);
    }
}

TEST(Mpx3Config, ReadingChannelByChannelGivesTheSame)
{
    Up bench(mpx3Board({2, 2}), TWO_CHANNELS + "ReadParallel=0\n");
    ASSERT_EQ(bench->setConfig(plainConfig()), 0);
    auto counts = randomNumbers<unsigned>(bench.pixels(), 4096);
    EXPECT_TRUE(thereAndBack(bench, counts, true) == counts);
    // A caller with less room, or none, gets what fits.
    Pixels half(counts.size() / 2 + 5);
    ASSERT_EQ(bench.write(counts), 0);
    ASSERT_EQ(bench.read(half), 0);
    EXPECT_TRUE(std::equal(half.begin(), half.end(), counts.begin()));
    EXPECT_EQ(bench->readMatrix(nullptr, 0, true), 0);
    // And one who gives too little writes zeros behind it.
    counts.resize(70000);
    const auto back = thereAndBack(bench, counts, true);
    EXPECT_EQ(back[69999], counts[69999]);
    EXPECT_EQ(back[70000], 0U);
}

TEST(Mpx3Config, RefusedMatrixLeavesTheImageInWriteForm)
{
    Up bench(mpx3Board({1}), TWO_CHANNELS);
    ASSERT_EQ(bench->setConfig({1, 9, 4, 2, 1, 0, 0, 0, 1, 0, 0}), 0);
    const Pixels counts(65536, 1U << 24U);
    EXPECT_NE(bench.write(counts), 0);
    EXPECT_STREQ(bench->lastError(), "Cannot write matrix (chan=0, counter=2).");
    // The number of failed pixels is the code, which keeps this line from the host.
    EXPECT_TRUE(bench.logged("[ERR]: Cannot convert counts.\n"));
    EXPECT_EQ(bench->omr().CountL, 2);
    EXPECT_EQ(bench->omr().RowBlock, 7);
    bench->setConfig({1, 9, 4, 0, 1, 0, 0, 0, 1, 0, 0});
    // A transfer that fails gives the image back.
    sim::addFault(0, behind("55 05 01 FF 00 00 C0 37", linkError("write")));
    EXPECT_NE(bench.write(counts, false), 0);
    EXPECT_EQ(bench->omr().CountL, 1);
    EXPECT_EQ(bench->omr().PS, 2);
}

TEST(Mpx3Config, PixelConfigurationReachesTheLatches)
{
    Up bench(mpx3Board({1, 1}), TWO_CHANNELS);
    const auto cfg = randomNumbers<unsigned char>(2 * bench.pixels(), 256);
    EXPECT_EQ(bench->setPixelCfg(cfg.data(), 1), 0) << "half a pixel is none";
    ASSERT_EQ(bench.setPixelCfg(cfg), 0);
    bench.board([&](sim::Mpx3Board& board) {
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < 2 * 65536; ++i) {
            const unsigned word = board.chip(i / 65536).configuration()[i % 65536];
            const unsigned b0 = cfg[2 * i];
            const unsigned b1 = cfg[2 * i + 1];
            wrong += (word & 1U) == (b0 & 1U) || (word >> 11U & 1U) == (b0 >> 1U & 1U) ||
                     (word >> 1U & 0x1FU) != b0 >> 3U || (word >> 6U & 0x1FU) != (b1 & 0x1FU);
        }
        EXPECT_EQ(wrong, 0U);
    });
}

TEST(Mpx3Config, BiasAndAdc)
{
    expectNoBiasWithoutLimits<Mpx3Bench>(mpx3Board({1}));
    Up bench(mpx3Board({1}), TWO_CHANNELS);
    EXPECT_EQ(bench->setBias(50), 0);
    EXPECT_EQ(bench.wire(), BoardWire().bias(141).lines());
    EXPECT_EQ(bench->setBias(std::nan("")), 1) << "and no code, which would be the highest voltage";
    EXPECT_TRUE(bench.wire().empty());

    bench->adcValue(13);
    Wire adc;
    adc.cmd(0, SPI, 1, 0x20, 0, 0, 5);
    for (const int command : {0x18, 0x10, 0x10})
        adc.cmd(2, SPI, 2, 0, 0, 0, 1)
            .data(0, SPI, 0, {static_cast<std::uint8_t>(command | 6), 0xC0})
            .cmd(0, SPI, 3)
            .cmd(0, SPI, 2);
    adc.cmd(2, MPX, 0);
    EXPECT_EQ(bench.wire(), adc.lines());

    double sensed = 0;
    EXPECT_EQ(bench->biasVoltageCurrentSense(&sensed, nullptr), 0);
    EXPECT_NEAR(sensed, 50.0, 3.0);
    double analog = -1;
    ASSERT_EQ(bench->senseDac(0, 3), 0);
    EXPECT_EQ(bench->analogValue(5, &analog), 0);
    bench.board([&](sim::Mpx3Board& board) {
        EXPECT_EQ(board.chip(0).omr().get(sim::OmrField::SenseDac), 4U);
        EXPECT_NEAR(analog, *board.chip(0).senseVolts(), 0.01);
    });
    for (const unsigned dac : {31U, 1000U, 0xFFFFFFFFU})
        EXPECT_NE(bench->senseDac(0, dac), 0);
    // A dead link: words, and no value out of thin air.
    sim::unplug(0);
    EXPECT_NE(bench->setBias(50), 0);
    bench.expectError("Failed sending command (Sending of command failed.");
    EXPECT_EQ(bench->adcValue(3), 0.0);
    EXPECT_EQ(bench->biasVoltageCurrentSense(&sensed, nullptr), -1);
    EXPECT_EQ(sensed, 0.0);
}
