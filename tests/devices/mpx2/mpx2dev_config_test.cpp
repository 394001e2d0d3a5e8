// Configuration of a Medipix2 or Timepix board: the bytes that reach it, matrices there and back, bias, ADC, CPU.
#include "devices/mpx2/mpx2bench.h"

#include "chipdata/mpx2matrix.h"
#include "chipdata/mpx2pixelcfg.h"

#include <cmath>

using namespace support;

namespace {

using Up = BroughtUp<Mpx2Bench>;
using Pixels = Mpx2Bench::Pixels;

const std::string SERIAL = "[Settings]\nReadParallel=0\n";
const std::string PARALLEL = "[Settings]\nReadParallel=1\n";

/// The configuration words of all chips, chip after chip.
Pixels configuration(const Mpx2Bench& bench)
{
    Pixels words;
    bench.board([&](sim::Mpx2Board& board) {
        for (std::size_t m = 0; m < HwLatixel::Mpx2Dev::MODULES; ++m)
            for (std::size_t k = 0; k < board.module(m).size(); ++k) {
                const auto& chip = board.chip(m, k).configuration();
                words.insert(words.end(), chip.begin(), chip.end());
            }
    });
    return words;
}

/// Whether `all` begins with `first`, and has only zeros behind it.
bool beginsAndEnds(const Pixels& all, const Pixels& first)
{
    const auto rest = std::ranges::mismatch(all, first);
    return rest.in2 == first.end() && std::all_of(rest.in1, all.end(), [](auto v) { return v == 0; });
}

} // namespace

TEST(Mpx2Config, ClocksTimerAndTriggersReachTheBoard)
{
    Up bench(mpx2Board({1}));
    EXPECT_EQ(bench->setTimer(86400.0), 0);
    bench.board([](sim::Mpx2Board& board) { EXPECT_EQ(board.timerCount(), 4320000000000ULL); });
    bench.wire();

    for (const auto& [wanted, divider, got] :
         {std::tuple{7.0, 7U, 50.0 / 7}, {12.5, 4U, 12.5}, {1e9, 1U, 50.0}, {1e-12, ~0U, 50.0 / ~0U}}) {
        double mhz = wanted;
        EXPECT_EQ(bench->setTimepixClock(&mhz), 0);
        EXPECT_DOUBLE_EQ(mhz, got);
        EXPECT_EQ(bench.wire(), BoardWire().number(0, ACQ, 0x13, divider).lines());
    }
    double bad = 0;
    EXPECT_EQ(bench->setTimepixClock(&bad), 1);

    bench.set("PreShutterClockCount", 0x00123456);
    bench.set("PreShutterClockDivider", 0x0789ABCD);
    bench.set("PreShutterDelayClockCount", 0x0001EF01);
    EXPECT_EQ(bench->setAcqClocks(), 0);
    EXPECT_EQ(bench.wire(), Mpx2Wire().clocks(0x123456, 0x0789ABCD, 0xEF01).lines());
    bench.set("TriggerWaitForReady", 1);
    bench->setTriggerSettings(3);
    bench.set("TriggerMaster", 1);
    bench.set("TriggerOutLevel", 2);
    bench->setTriggerSettings(0);
    EXPECT_EQ(bench.wire(), BoardWire().number(0, ACQ, 5, 0x07).number(0, ACQ, 5, 0x1C).lines());

    for (const auto& [dac, value, result] : {std::tuple{4, 1.0, 0}, {9, -1.0, 0}, {5, 1.0, 1}})
        EXPECT_EQ(bench->setInterfaceDac(static_cast<char>(dac), value), result);
    EXPECT_STREQ(bench->lastError(), "Invalid interface DAC (5). Range is only 0-3.");
    EXPECT_TRUE(bench.wire().empty());
}

TEST(Mpx2Config, DacsGoToTheirChips)
{
    for (const bool timepix : {true, false}) {
        SCOPED_TRACE(timepix);
        Up bench(mpx2Board({2, 1}, chipKind(timepix)));
        const std::size_t count = timepix ? 14 : 15;
        Pixels dacs = randomNumbers<unsigned short>(3 * count, 16);
        for (std::size_t chip = 0; chip < 3; ++chip)
            dacs[chip * count + 6] = static_cast<unsigned short>(1023 - chip); // a DAC of ten bits
        ASSERT_EQ(bench->setMpx2Dacs(dacs.data(), dacs.size(), 2, 1, 5, 2, 0x89ABCDEF), 0);
        // Timepix chips are loaded behind ones.
        const std::string ones = " AA + 66: " + hex(Bytes(16, 0xFF), 16);
        EXPECT_EQ(bench.sent("55 07 01 00 00 00 00 42" + ones), timepix ? 1 : 0);
        EXPECT_EQ(bench.sent("55 07 01 00 00 00 00 42"), timepix ? 2 : 1);
        EXPECT_EQ(bench.sent("55 07 01 00 00 00 00 21"), timepix ? 2 : 1);
        bench.board([&](sim::Mpx2Board& board) {
            for (std::size_t chip = 0; chip < 3; ++chip) {
                const sim::Mpx2Chip& c = board.chip(chip / 2, chip % 2);
                for (std::size_t d = 0; d < count; ++d)
                    EXPECT_EQ(c.dac(d), dacs[chip * count + d]) << chip << " " << d;
                EXPECT_EQ(c.ctpr(), 0x89ABCDEF);
                // The sense position counts modules.
                EXPECT_EQ(c.senseDac(), chip == 2 ? 5U : 0U);
                EXPECT_EQ(c.extDac(), chip == 2 ? 2U : 0U);
            }
        });
        double volts = 0;
        EXPECT_EQ(bench->analogValue(9, &volts), 0);
        bench.board([&](sim::Mpx2Board& board) { EXPECT_NEAR(volts, *board.chip(1).senseVolts(), 0.01); });

        bench.wire();
        EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size() - 1, -1), -1);
        EXPECT_TRUE(bench.wire().empty());
        sim::addFault(0, linkError("read"));
        EXPECT_EQ(bench.setDacs(dacs), -9);
        bench.expectError("Cannot not set DACs (");
    }
}

TEST(Mpx2Config, MatricesComeBackAsTheyWereWritten)
{
    const std::vector<int> shapes[] = {{1}, {2, 2}, {1, 1, 1, 1, 1}, {3, 3}, {7}, {0, 4, 0, 4}};
    for (const auto& shape : shapes)
        for (const auto& settings : {SERIAL, PARALLEL}) {
            SCOPED_TRACE(settings + std::to_string(shape.size()) + " of " + std::to_string(shape[0]));
            const bool timepix = shape[0] != 2;
            Up bench(mpx2Board(shape, chipKind(timepix)), settings);
            const auto counts = randomNumbers<unsigned short>(bench.pixels(), 11811);
            ASSERT_EQ(bench.write(counts), 0);
            EXPECT_TRUE(bench.frame() == counts);
            EXPECT_TRUE(beginsAndEnds(bench.frame(), {})) << "reading clears";
            const auto raw = randomNumbers<unsigned short>(bench.pixels(), 16384);
            ASSERT_EQ(bench.write(raw, false), 0);
            EXPECT_TRUE(configuration(bench) == raw);
            Pixels words(raw.size());
            ASSERT_EQ(bench.read(words, false), 0);
            EXPECT_TRUE(words == raw);

            const std::vector<unsigned char> cfg(raw.begin(), raw.end());
            pixelCfgToMatrixMpx2(cfg.data(), cfg.size(), timepix, words.data());
            ASSERT_EQ(bench.setPixelCfg(cfg), 0);
            EXPECT_TRUE(configuration(bench) == words);
        }
}

TEST(Mpx2Config, MatrixOnTheWire)
{
    Up bench(mpx2Board({0, 1}), SERIAL);
    const auto matrix = randomNumbers<unsigned short>(65536, 16384);
    ASSERT_EQ(bench.write(matrix, false), 0);
    Bytes stream(114721);
    serializeMpx2(matrix.data(), matrix.size(), stream.data(), stream.size(), true);
    EXPECT_EQ(bench.wire(), Mpx2Wire().mux(2).alive(M1).stream(stream).alive(M1 | ENIN).alive(ENIN).lines());
    sim::addFault(0, behind("55 07 01 00 00 01 C0 21", linkError("write")));
    EXPECT_EQ(bench.write(matrix, false), 1);
    bench.expectError("Cannot write matrix (");
}

TEST(Mpx2Config, ArraysThatAreTooSmall)
{
    Up bench(mpx2Board({1, 1}), PARALLEL);
    Pixels back(2 * 65536);
    EXPECT_EQ(bench->readMatrix(back.data(), back.size() - 1, true), 1);
    EXPECT_STREQ(bench->lastError(), "Invalid size for matrix (131071 < 131072)");
    bench->readMatrix(nullptr, back.size(), true);
    EXPECT_STREQ(bench->lastError(), "Read matrix: matrix cannot be NULL.");
    // What a matrix does not hold is written as zeros; the recovery knows no more of it either.
    for (const std::size_t size : {70000UL, 0UL}) {
        const auto counts = randomNumbers<unsigned short>(size, 11811);
        ASSERT_EQ(bench.write(counts), 0);
        ASSERT_EQ(bench.read(back), 0);
        EXPECT_TRUE(beginsAndEnds(back, counts));
        EXPECT_EQ(bench->recoverDevice(), 0);
    }
}

TEST(Mpx2Config, ReadoutsThatGoWrong)
{
    struct Case {
        nlohmann::json fault;
        int serial, parallel; ///< results
        const char* words;
    };
    const Case cases[] = {
        {{{"kind", "tail_out_of_step"}, {"readouts", 1}}, 0, 0, ""},
        {{{"kind", "short_stream"}, {"readouts", 1}}, 1, -1, "Reading matrix failed - not enough data received (2284"},
        {behind("55 02 01 04", {{"kind", "silence"}}), 1, -1, "Reading matrix failed - not enough data received (0 < "},
        // What is left of the readout before looks like a whole one.
        {linkError("read"), 1, 1, "Reading matrix failed -9 ("},
    };
    for (const bool serial : {true, false}) {
        Up bench(mpx2Board({2}), serial ? SERIAL : PARALLEL);
        const auto counts = randomNumbers<unsigned short>(bench.pixels(), 11811);
        Pixels back(counts.size());
        for (const auto& c : cases) {
            SCOPED_TRACE((serial ? "serial " : "parallel ") + c.fault.dump());
            ASSERT_EQ(bench.write(counts), 0);
            sim::addFault(0, c.fault);
            const int result = serial ? c.serial : c.parallel;
            EXPECT_EQ(bench.read(back), result);
            if (result == 0) {
                EXPECT_TRUE(back == counts);
                EXPECT_EQ(bench.errors->take(), serial ? Strings{"Reading more data"} : Strings{});
                continue;
            }
            bench.expectError(c.words);
            sim::clearFaults(0);
            bench->resetDevice();
            ASSERT_EQ(bench.write(counts), 0);
            EXPECT_EQ(bench.read(back), 0);
            EXPECT_TRUE(back == counts);
        }
    }
}

TEST(Mpx2Config, BiasAndAdc)
{
    expectNoBiasWithoutLimits<Mpx2Bench>(mpx2Board({1}));
    Up bench(mpx2Board({1}));
    EXPECT_EQ(bench->setBias(50.0), 0);
    EXPECT_EQ(bench.wire(), BoardWire().bias(141, true).lines());
    bench.board([](sim::Mpx2Board& board) { EXPECT_EQ(board.biasCode(), 141); });
    EXPECT_EQ(bench->setBias(std::nan("")), 1) << "and no code, which would be the highest voltage";
    EXPECT_TRUE(bench.wire().empty());

    unsigned short code = 0;
    EXPECT_EQ(bench->getADC(13, &code, true), 0);
    EXPECT_EQ(bench.sent("55 02 01 00"), 0) << "the output comes back by the end of the selection";
    EXPECT_EQ(bench.wire().back(), Wire().cmd(0, SPI, 2).lines()[0]);
    EXPECT_NEAR(bench->adcValue(13), code * 5.0 / 4096, 0.01);

    double volts = 0;
    double current = 0;
    EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, &current), 0);
    EXPECT_NEAR(volts, 50.0, 1.0);
    bench.wire();
    bench->biasVoltageCurrentSense(&volts, nullptr);
    EXPECT_EQ(bench.sent("55 00 04 01 20"), 1) << "one reading of two";

    sim::unplug(0);
    EXPECT_NE(bench->setBias(40), 0);
    bench.expectError("Failed sending command (Sending of command failed.");
    EXPECT_EQ(bench->adcValue(3), 0.0);
}

TEST(Mpx2Config, BiasThatTheCpuMakes)
{
    nlohmann::json byFlash = biasCpu();
    byFlash["cpu"]["version"] = "CPU 3";
    byFlash["flash"] = {{"parameters", {{{"name", "BiasInCpu"}, {"type", "byte"}, {"value", 1}}}}};
    for (const auto& more : {biasCpu(), byFlash}) {
        Up bench(mpx2Board({1}, more));
        const auto expectCpuBias = [&](const char* volts) {
            bench.board([&](sim::Mpx2Board& board) { EXPECT_EQ(board.cpu().values()[1].second, volts); });
        };
        EXPECT_EQ(bench->setBias(-50), 0);
        EXPECT_EQ(bench.wire(), BoardWire().cpu({0x80, 1, 0x42, 0x48, 0, 0}, 6).lines());
        expectCpuBias("50");
        double volts = 0;
        EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, nullptr), 0);
        EXPECT_EQ(volts, 50.0);
        bench.wire();
        EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, nullptr), 0);
        EXPECT_TRUE(bench.wire().empty()) << "all of it was read a moment ago";

        // The host writes the CPU's value as a parameter; what is no number goes nowhere.
        dv::IParam* param = bench->parameters()->get("*BiasSet");
        param->setString("12.5");
        EXPECT_EQ(bench.wire(), BoardWire().cpu({0x80, 1, 0x41, 0x48, 0, 0}, 6).lines());
        param->setString("much");
        EXPECT_TRUE(bench.wire().empty());
        expectCpuBias("12.5");
        // Reading one refreshes all of them, but not again at once.
        sleepMs(510);
        EXPECT_EQ(bench->parameters()->get("BiasVolt")->getString(), "12.5");
        EXPECT_EQ(bench.wire(), BoardWire().cpu({4}, 4096).lines()) << "and nothing is written back";
        EXPECT_EQ(param->getString(), "12.5");
        EXPECT_TRUE(bench.wire().empty());
        EXPECT_EQ(bench->recoverDevice(), 0);
        expectCpuBias("50");
    }
}

TEST(Mpx2Config, RecoveryBringsBackWhatTheHostHadSet)
{
    for (const bool timepix : {true, false}) {
        SCOPED_TRACE(timepix);
        Up bench(mpx2Board({1, 1}, chipKind(timepix)));
        const auto dacs = randomNumbers<unsigned short>(2 * (timepix ? 14 : 15), 16);
        const auto words = randomNumbers<unsigned short>(bench.pixels(), 16384);
        double mhz = 25;
        ASSERT_EQ(bench.setDacs(dacs), 0);
        ASSERT_EQ(bench.write(words, false), 0);
        ASSERT_EQ(bench->setBias(50), 0);
        ASSERT_EQ(bench->setTimepixClock(&mhz), 0);
        sim::unplug(0);
        EXPECT_NE(bench->setTimepixClock(&mhz), 0);
        sim::plug(0);
        EXPECT_EQ(bench->recoverDevice(), 0);
        EXPECT_TRUE(configuration(bench) == words);
        bench.board([&](sim::Mpx2Board& board) {
            EXPECT_EQ(board.biasCode(), 141);
            EXPECT_EQ(board.timepixClockMhz(), 25.0);
            for (std::size_t i = 0; i < dacs.size(); ++i)
                EXPECT_EQ(board.chip(i / (dacs.size() / 2)).dac(i % (dacs.size() / 2)), dacs[i]) << i;
        });

        // A board that does not tell a firmware's name is left as it is.
        sim::addFault(0, {{"kind", "firmware"}, {"text", "Bootloader"}});
        bench.wire();
        EXPECT_EQ(bench->recoverDevice(), -1);
        EXPECT_STREQ(bench->lastError(), "Could not recover device");
        EXPECT_EQ(bench.wire(), Wire().cmd(2, INF, 1).lines());
    }
}

TEST(Mpx2Config, RawAccess)
{
    Up bench(mpx2Board({1}));
    unsigned char command[] = {2, 1, 0, 0, 0, 0};
    unsigned char payload[] = {4, 0, 0xA1, 0xA2};
    unsigned char frame[] = {0x55, 0, 5, 0x14, 0, 0, 0, 7, 0xAA};
    std::vector<unsigned char> answer(100);
    EXPECT_EQ(bench->sendRawData(command, 6, 0, 2, 0), 0);
    EXPECT_EQ(bench->receiveRawData(answer.data(), answer.size(), 0, 0, 0), 29);
    EXPECT_STREQ(reinterpret_cast<const char*>(answer.data()), "Firmware 1.7 TLA (18.10.2016)");
    EXPECT_EQ(bench->receiveRawData(answer.data(), answer.size(), 1, 0, 0), -1);
    EXPECT_EQ(bench->sendRawData(payload, 4, 1, 0, 0), 0);
    EXPECT_EQ(bench->sendRawData(frame, 9, 2, 0, 0), 0);
    EXPECT_EQ(bench.wire(), Wire().cmd(2, 2, 1).data(0, 4, 0, {0xA1, 0xA2}).cmd(0, 5, 0x14, 0, 0, 0, 7).lines());
    for (const auto& [size, kind] : {std::pair{5UL, 0UL}, {1UL, 1UL}, {6UL, 3UL}})
        EXPECT_EQ(bench->sendRawData(command, size, kind, 2, 0), -1);
    EXPECT_TRUE(bench.wire().empty());
}
