// Configuration of a Medipix2 or Timepix board: the bytes that reach it, matrices there and back, bias, ADC, CPU.
#include "devices/mpx2bench.h"

#include "chipdata/mpx2dacs.h"

#include <cmath>
#include <random>

using namespace support;

namespace {

const nlohmann::json MEDIPIX2 = {{"chip", "medipix2"}};
const std::string SERIAL = "[Settings]\nReadParallel=0\n";
const std::string PARALLEL = "[Settings]\nReadParallel=1\n";

std::vector<unsigned short> randomWords(std::size_t size, int limit)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> word(0, limit - 1);
    std::vector<unsigned short> words(size);
    std::ranges::generate(words, [&] { return static_cast<unsigned short>(word(random)); });
    return words;
}

/// The configuration words of all chips, chip after chip.
std::vector<unsigned short> configuration(const Mpx2Bench& bench, const std::vector<int>& chipsOfModules)
{
    std::vector<unsigned short> words;
    bench.board([&](sim::Mpx2Board& board) {
        for (std::size_t m = 0; m < chipsOfModules.size(); ++m)
            for (int k = 0; k < chipsOfModules[m]; ++k) {
                const auto& chip = board.chip(m, static_cast<std::size_t>(k)).configuration();
                words.insert(words.end(), chip.begin(), chip.end());
            }
    });
    return words;
}

const nlohmann::json READ_ERROR = {
    {"kind", "error"}, {"on", "read"}, {"result", -9}, {"text", "overflow"}, {"times", 1}};

} // namespace

TEST(Mpx2Config, ClocksTimerAndTriggersReachTheBoard)
{
    Mpx2Bench bench(mpx2Board({1}));
    ASSERT_EQ(bench->initDevice(), 0);
    bench.wire();
    EXPECT_EQ(bench->setTimer(1.0), 0);
    EXPECT_EQ(bench.wire(), Wire().cmd(0, 5, 3, 0x02, 0xFA, 0xF0, 0x80).cmd(0, 5, 4).lines());
    EXPECT_EQ(bench->setTimer(86400.0), 0);
    bench.board([](sim::Mpx2Board& board) { EXPECT_EQ(board.timerCount(), 4320000000000ULL); });
    bench.wire();

    for (const auto& [wanted, divider, got] : {std::tuple{10.0, 5U, 10.0},
                                               {7.0, 7U, 50.0 / 7},
                                               {12.5, 4U, 12.5},
                                               {1e9, 1U, 50.0},
                                               {1e-12, ~0U, 50.0 / ~0U}}) {
        double mhz = wanted;
        EXPECT_EQ(bench->setTimepixClock(&mhz), 0);
        EXPECT_DOUBLE_EQ(mhz, got);
        EXPECT_EQ(bench.wire(), Mpx2Wire().number(0, 5, 0x13, divider).lines());
    }
    for (double bad : {0.0, -1.0, std::nan("")})
        EXPECT_EQ(bench->setTimepixClock(&bad), 1);

    bench->parameters()->get("PreShutterClockCount")->setInt32(0x00123456);
    bench->parameters()->get("PreShutterClockDivider")->setInt32(0x0789ABCD);
    bench->parameters()->get("PreShutterDelayClockCount")->setInt32(0x0001EF01);
    EXPECT_EQ(bench->setAcqClocks(), 0);
    EXPECT_EQ(bench.wire(), Wire()
                                .cmd(0, 5, 0x10, 0, 0x12, 0x34, 0x56)
                                .cmd(0, 5, 0x11, 0x07, 0x89, 0xAB, 0xCD)
                                .cmd(0, 5, 7, 0, 0, 0xEF, 0x01)
                                .cmd(0, 5, 0x14, 0, 0, 0, 10)
                                .cmd(0, 5, 0x15, 0, 0, 0, 100)
                                .lines());
    bench->parameters()->get("TriggerWaitForReady")->setBool(true);
    bench->setTriggerSettings(3);
    bench->parameters()->get("TriggerMaster")->setBool(true);
    bench->parameters()->get("TriggerOutLevel")->setByte(2);
    bench->setTriggerSettings(0);
    EXPECT_EQ(bench.wire(), Wire().cmd(0, 5, 5, 0, 0, 0, 0x07).cmd(0, 5, 5, 0, 0, 0, 0x1C).lines());

    for (const auto& [dac, value, result] : {std::tuple{4, 1.0, 0}, {9, -1.0, 0}, {5, 1.0, 1}})
        EXPECT_EQ(bench->setInterfaceDac(static_cast<char>(dac), value), result);
    EXPECT_STREQ(bench->lastError(), "Invalid interface DAC (5). Range is only 0-3.");
    EXPECT_TRUE(bench.wire().empty());
    bench.expectNoViolations();
}

TEST(Mpx2Config, DacsGoToTheirChips)
{
    for (const bool timepix : {true, false}) {
        SCOPED_TRACE(timepix);
        Mpx2Bench bench(mpx2Board({2, 1}, timepix ? nlohmann::json() : MEDIPIX2));
        ASSERT_EQ(bench->initDevice(), 0);
        const std::size_t count = timepix ? 14 : 15;
        std::vector<unsigned short> dacs = randomWords(3 * count, 1024);
        for (std::size_t i = 0; i < dacs.size(); ++i) {
            const std::size_t d = i % count;
            const bool tenBits = d == 6 || (!timepix && d == 8);
            const bool fourBits = d == 7 || (!timepix && d == 9);
            dacs[i] = static_cast<unsigned short>(dacs[i] & (tenBits ? 0x3FFU : fourBits ? 0xFU : 0xFFU));
        }
        bench.wire();
        ASSERT_EQ(bench->setMpx2Dacs(dacs.data(), dacs.size(), 2, 1, 5, 2, 0x89ABCDEF), 0);
        Bytes first(66);
        Bytes second(33);
        dacsToStreamMPX2(dacs.data(), first.data(), 2, timepix, 1, 0, 0, 0x89ABCDEF);
        dacsToStreamMPX2(dacs.data() + 2 * count, second.data(), 1, timepix, 0, 5, 2, 0x89ABCDEF);
        // Timepix chips are loaded behind ones.
        EXPECT_EQ(
            bench.wire(),
            timepix
                ? Mpx2Wire().mux(1).dacs(Bytes(66, 0xFF)).dacs(first).mux(2).dacs(Bytes(33, 0xFF)).dacs(second).lines()
                : Mpx2Wire().mux(1).dacs(first).mux(2).dacs(second).lines());
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
        const std::vector<unsigned short> few(dacs.begin(), dacs.end() - 1);
        EXPECT_EQ(bench->setDacs(few.data(), few.size(), -1), -1);
        EXPECT_EQ(bench->setDacs(nullptr, 0, -1), -1);
        EXPECT_TRUE(bench.wire().empty());
        bench.expectNoViolations();
        sim::addFault(0, READ_ERROR);
        EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size(), -1), -9);
        EXPECT_TRUE(std::string(bench->lastError()).starts_with("Cannot not set DACs (")) << bench->lastError();
    }
}

TEST(Mpx2Config, MatricesComeBackAsTheyWereWritten)
{
    const std::vector<int> shapes[] = {{1}, {2, 2}, {1, 1, 1, 1, 1}, {3, 3}, {7}, {0, 4, 0, 4}};
    for (const auto& shape : shapes)
        for (const auto& settings : {SERIAL, PARALLEL}) {
            SCOPED_TRACE(settings + std::to_string(shape.size()) + " of " + std::to_string(shape[0]));
            Mpx2Bench bench(mpx2Board(shape, shape[0] == 2 ? MEDIPIX2 : nlohmann::json()), settings);
            ASSERT_EQ(bench->initDevice(), 0);
            const std::size_t size = bench.pixels();
            const auto counts = randomWords(size, 11811);
            std::vector<unsigned short> back(size, 99);
            ASSERT_EQ(bench->writeMatrix(counts.data(), size, true), 0);
            ASSERT_EQ(bench->readMatrix(back.data(), size, true), 0);
            EXPECT_TRUE(back == counts);
            ASSERT_EQ(bench->readMatrix(back.data(), size, true), 0);
            EXPECT_TRUE(std::ranges::all_of(back, [](auto v) { return v == 0; })) << "reading clears";
            const auto raw = randomWords(size, 16384);
            ASSERT_EQ(bench->writeMatrix(raw.data(), size, false), 0);
            EXPECT_TRUE(configuration(bench, shape) == raw);
            ASSERT_EQ(bench->readMatrix(back.data(), size, false), 0);
            EXPECT_TRUE(back == raw);
            bench.expectNoViolations();
        }
}

TEST(Mpx2Config, MatrixOnTheWire)
{
    Mpx2Bench bench(mpx2Board({0, 1}), SERIAL);
    ASSERT_EQ(bench->initDevice(), 0);
    bench.wire();
    const std::vector<unsigned short> matrix(65536, 0x2001); // highest and lowest plane
    ASSERT_EQ(bench->writeMatrix(matrix.data(), matrix.size(), false), 0);
    Bytes stream(114721);
    stream[0] = 0xFF;
    for (std::size_t row = 0; row < 256; ++row) {
        std::fill_n(stream.begin() + static_cast<long>(1 + row * 448), 32, std::uint8_t{0xFF});
        std::fill_n(stream.begin() + static_cast<long>(1 + row * 448 + 416), 32, std::uint8_t{0xFF});
    }
    EXPECT_EQ(bench.wire(), Mpx2Wire().mux(2).alive(M1).stream(stream).alive(M1 | ENIN).alive(ENIN).lines());
    sim::addFault(
        0,
        {{"kind", "error"}, {"on", "write"}, {"times", 1}, {"when", {{"after_written", "55 07 01 00 00 01 C0 21"}}}});
    EXPECT_EQ(bench->writeMatrix(matrix.data(), matrix.size(), false), 1);
    EXPECT_TRUE(std::string(bench->lastError()).starts_with("Cannot write matrix (")) << bench->lastError();
}

TEST(Mpx2Config, PixelConfigurationReachesTheLatches)
{
    constexpr std::array<unsigned, 8> TIMEPIX_BITS = {7, 13, 8, 12, 10, 11, 9, 6};
    constexpr std::array<unsigned, 8> MEDIPIX2_BITS = {0, 9, 7, 6, 8, 12, 10, 11};
    for (const bool timepix : {true, false}) {
        Mpx2Bench bench(mpx2Board({1, 1}, timepix ? nlohmann::json() : MEDIPIX2));
        ASSERT_EQ(bench->initDevice(), 0);
        std::vector<unsigned char> cfg(bench.pixels());
        std::vector<unsigned short> expected(cfg.size());
        for (std::size_t i = 0; i < cfg.size(); ++i) {
            cfg[i] = static_cast<unsigned char>(i * 7 + i / 256);
            for (unsigned bit = 0; bit < 8; ++bit) {
                const unsigned level = (cfg[i] >> bit & 1U) ^ (bit == 1 ? 1U : 0U);
                const unsigned place = (timepix ? TIMEPIX_BITS : MEDIPIX2_BITS)[bit];
                expected[i] = static_cast<unsigned short>(expected[i] | level << place);
            }
        }
        ASSERT_EQ(bench->setPixelCfg(cfg.data(), cfg.size()), 0);
        EXPECT_TRUE(configuration(bench, {1, 1}) == expected);
        bench.expectNoViolations();
    }
}

TEST(Mpx2Config, ArraysThatAreTooSmall)
{
    for (const auto& settings : {SERIAL, PARALLEL}) {
        Mpx2Bench bench(mpx2Board({1, 1}), settings);
        ASSERT_EQ(bench->initDevice(), 0);
        std::vector<unsigned short> less(2 * 65536 - 1);
        EXPECT_EQ(bench->readMatrix(less.data(), less.size(), true), 1);
        EXPECT_STREQ(bench->lastError(), "Invalid size for matrix (131071 < 131072)");
        EXPECT_EQ(bench->readMatrix(nullptr, 0, true), 1);
        bench->readMatrix(nullptr, 2 * 65536, true);
        EXPECT_STREQ(bench->lastError(), "Read matrix: matrix cannot be NULL.");
        // What a matrix does not hold is written as zeros; the recovery knows no more of it either.
        for (const std::size_t size : {70000UL, 1000UL, 0UL}) {
            const auto counts = randomWords(size, 11811);
            for (const bool convert : {true, false}) {
                ASSERT_EQ(bench->writeMatrix(counts.data(), size, convert), 0);
                std::vector<unsigned short> back(2 * 65536, 99);
                ASSERT_EQ(bench->readMatrix(back.data(), back.size(), convert), 0);
                EXPECT_TRUE(std::equal(counts.begin(), counts.end(), back.begin()));
                EXPECT_TRUE(
                    std::all_of(back.begin() + static_cast<long>(size), back.end(), [](auto v) { return v == 0; }));
            }
            EXPECT_EQ(bench->recoverDevice(), 0);
        }
        bench.expectNoViolations();
    }
}

TEST(Mpx2Config, ReadoutsThatGoWrong)
{
    struct Case {
        nlohmann::json fault;
        int serial, parallel; ///< results
        bool moreData;        ///< told by the serial readout
        const char* words;
    };
    const Case cases[] = {
        {{{"kind", "tail_out_of_step"}, {"readouts", 1}}, 0, 0, true, nullptr},
        {{{"kind", "short_stream"}, {"readouts", 1}},
         1,
         -1,
         true,
         "Reading matrix failed - not enough data received (2284"},
        {{{"kind", "silence"}, {"when", {{"after_written", "55 02 01 04"}}}},
         1,
         -1,
         false,
         "Reading matrix failed - not enough data received (0 < "},
        // What is left of the readout before looks like a whole one.
        {READ_ERROR, 1, 1, false, "Reading matrix failed -9 ("},
    };
    for (const bool serial : {true, false}) {
        Mpx2Bench bench(mpx2Board({2}), serial ? SERIAL : PARALLEL);
        ASSERT_EQ(bench->initDevice(), 0);
        const auto counts = randomWords(bench.pixels(), 11811);
        std::vector<unsigned short> back(counts.size());
        for (const auto& c : cases) {
            SCOPED_TRACE((serial ? "serial " : "parallel ") + c.fault.dump());
            bench.errors.clear();
            ASSERT_EQ(bench->writeMatrix(counts.data(), counts.size(), true), 0);
            sim::addFault(0, c.fault);
            EXPECT_EQ(bench->readMatrix(back.data(), back.size(), true), serial ? c.serial : c.parallel);
            EXPECT_EQ(std::ranges::count(bench.errors, "Reading more data"), serial && c.moreData ? 1 : 0);
            if (c.words != nullptr) {
                ASSERT_FALSE(bench.errors.empty());
                EXPECT_TRUE(bench.errors.back().starts_with(c.words)) << bench.errors.back();
                sim::clearFaults(0);
                bench->resetDevice();
                ASSERT_EQ(bench->writeMatrix(counts.data(), counts.size(), true), 0);
                EXPECT_EQ(bench->readMatrix(back.data(), back.size(), true), 0);
            }
            EXPECT_TRUE(back == counts);
        }
        bench.expectNoViolations();
    }
}

TEST(Mpx2Config, BiasAndAdc)
{
    // A board without bias limits refuses without a word.
    nlohmann::json noLimits = mpx2Board({1});
    noLimits["flash"]["parameters"][0]["value"] = 0.0;
    {
        Mpx2Bench unlimited(noLimits);
        ASSERT_EQ(unlimited->initDevice(), 0);
        unlimited.wire();
        EXPECT_EQ(unlimited->setBias(20), -1);
        EXPECT_TRUE(unlimited.errors.empty() && unlimited.wire().empty());
    }
    Mpx2Bench bench(mpx2Board({1}));
    ASSERT_EQ(bench->initDevice(), 0);
    bench.wire();
    EXPECT_EQ(bench->setBias(50.0), 0);
    EXPECT_EQ(bench.wire(), Wire()
                                .cmd(0, 4, 1, 0x10, 0, 0, 5)
                                .cmd(2, 1, 0)
                                .data(0, 4, 0, {141})
                                .cmd(0, 4, 2, 0, 0, 0, 4)
                                .cmd(0, 4, 3)
                                .cmd(0, 4, 2)
                                .lines());
    bench.board([](sim::Mpx2Board& board) { EXPECT_EQ(board.biasCode(), 141); });
    EXPECT_EQ(bench->setBias(std::nan("")), 1) << "and no code, which would be the highest voltage";
    EXPECT_TRUE(bench.wire().empty());

    Wire adc;
    adc.cmd(0, 4, 1, 0x20, 0, 0, 5);
    for (const int command : {0x18, 0x10, 0x10})
        adc.cmd(2, 4, 2, 0, 0, 0, 1)
            .data(0, 4, 0, {static_cast<std::uint8_t>(command | 6), 0xC0})
            .cmd(0, 4, 3)
            .cmd(0, 4, 2);
    adc.cmd(0, 4, 2);
    unsigned short code = 0;
    EXPECT_EQ(bench->getADC(13, &code, true), 0);
    EXPECT_EQ(bench.wire(), adc.lines());
    EXPECT_NEAR(bench->adcValue(13), code * 5.0 / 4096, 0.01);

    double volts = 0;
    double current = 0;
    EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, &current), 0);
    EXPECT_NEAR(volts, 50.0, 1.0);
    for (const auto& [v, c, readings] :
         {std::tuple{&volts, static_cast<double*>(nullptr), 1L}, {nullptr, &current, 1L}, {nullptr, nullptr, 2L}}) {
        bench.wire();
        bench->biasVoltageCurrentSense(v, c);
        EXPECT_EQ(bench.sent("55 00 04 01 20"), readings);
    }
    bench.expectNoViolations();

    sim::unplug(0);
    bench.errors.clear();
    EXPECT_NE(bench->setBias(40), 0);
    EXPECT_NE(bench->getADC(3, &code, true), 0);
    ASSERT_EQ(bench.errors.size(), 2U);
    for (const auto& error : bench.errors)
        EXPECT_TRUE(error.starts_with("Failed sending command (Sending of command failed.")) << error;
    EXPECT_EQ(bench->adcValue(3), 0.0);
}

TEST(Mpx2Config, BiasThatTheCpuMakes)
{
    nlohmann::json byFlash = biasCpu();
    byFlash["cpu"]["version"] = "CPU 3";
    byFlash["flash"] = {{"parameters", {{{"name", "BiasInCpu"}, {"type", "byte"}, {"value", 1}}}}};
    for (const auto& more : {biasCpu(), byFlash}) {
        Mpx2Bench bench(mpx2Board({1}, more));
        ASSERT_EQ(bench->initDevice(), 0);
        const auto expectCpuBias = [&](const char* volts) {
            bench.board([&](sim::Mpx2Board& board) { EXPECT_EQ(board.cpu().values()[1].second, volts); });
        };
        bench.wire();
        EXPECT_EQ(bench->setBias(-50), 0);
        EXPECT_EQ(bench.wire(), Mpx2Wire().cpu({0x80, 1, 0x42, 0x48, 0, 0}, 6).lines());
        expectCpuBias("50");
        double volts = 0;
        double current = 0;
        EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, &current), 0);
        EXPECT_EQ(volts, 50.0);
        EXPECT_GT(current, 0.0);
        bench.wire();
        EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, &current), 0);
        EXPECT_TRUE(bench.wire().empty()) << "all of it was read a moment ago";

        // The host writes the CPU's value as a parameter; what is no number goes nowhere.
        dv::IParam* param = bench->parameters()->get("*BiasSet");
        param->setString("12.5");
        EXPECT_EQ(bench.wire(), Mpx2Wire().cpu({0x80, 1, 0x41, 0x48, 0, 0}, 6).lines());
        param->setString("much");
        EXPECT_TRUE(bench.wire().empty());
        expectCpuBias("12.5");
        // Reading one refreshes all of them, but not again at once.
        std::this_thread::sleep_for(std::chrono::milliseconds(510));
        EXPECT_EQ(bench->parameters()->get("BiasVolt")->getString(), "12.5");
        EXPECT_EQ(bench.wire(), Mpx2Wire().cpu({4}, 4096).lines()) << "and nothing is written back";
        EXPECT_EQ(param->getString(), "12.5");
        EXPECT_TRUE(bench.wire().empty());

        EXPECT_EQ(bench->recoverDevice(), 0);
        expectCpuBias("50");
        bench.expectNoViolations();
    }
}

TEST(Mpx2Config, RecoveryBringsBackWhatTheHostHadSet)
{
    for (const bool timepix : {true, false}) {
        SCOPED_TRACE(timepix);
        Mpx2Bench bench(mpx2Board({1, 1}, timepix ? nlohmann::json() : MEDIPIX2));
        ASSERT_EQ(bench->initDevice(), 0);
        const auto dacs = randomWords(2 * (timepix ? 14 : 15), 16);
        const auto words = randomWords(bench.pixels(), 16384);
        double mhz = 25;
        ASSERT_EQ(bench->setDacs(dacs.data(), dacs.size(), -1), 0);
        ASSERT_EQ(bench->writeMatrix(words.data(), words.size(), false), 0);
        ASSERT_EQ(bench->setBias(50), 0);
        ASSERT_EQ(bench->setTimepixClock(&mhz), 0);
        sim::unplug(0);
        EXPECT_NE(bench->setTimepixClock(&mhz), 0);
        sim::plug(0);
        EXPECT_EQ(bench->recoverDevice(), 0);
        EXPECT_TRUE(configuration(bench, {1, 1}) == words);
        bench.board([&](sim::Mpx2Board& board) {
            EXPECT_EQ(board.biasCode(), 141);
            EXPECT_EQ(board.timepixClockMhz(), 25.0);
            for (std::size_t i = 0; i < dacs.size(); ++i)
                EXPECT_EQ(board.chip(i / (dacs.size() / 2)).dac(i % (dacs.size() / 2)), dacs[i]) << i;
        });
        bench.expectNoViolations();

        // A board that does not tell a firmware's name is left as it is.
        sim::addFault(0, {{"kind", "firmware"}, {"text", "Bootloader"}});
        bench.wire();
        EXPECT_EQ(bench->recoverDevice(), -1);
        EXPECT_STREQ(bench->lastError(), "Could not recover device");
        EXPECT_EQ(bench.wire(), Wire().cmd(2, 2, 1).lines());
        sim::clearFaults(0);
        nlohmann::json fault = READ_ERROR;
        fault["when"] = {{"after_written", "55 07 01 00 00 00 00 21"}};
        sim::addFault(0, fault);
        EXPECT_EQ(bench->recoverDevice(), -2);
    }
}

TEST(Mpx2Config, RawAccess)
{
    Mpx2Bench bench(mpx2Board({1}));
    ASSERT_EQ(bench->initDevice(), 0);
    bench.wire();
    unsigned char command[] = {2, 1, 0, 0, 0, 0};
    std::vector<unsigned char> answer(100);
    EXPECT_EQ(bench->sendRawData(command, 6, 0, 2, 0), 0);
    EXPECT_EQ(bench->receiveRawData(answer.data(), answer.size(), 0, 0, 0), 29);
    EXPECT_STREQ(reinterpret_cast<const char*>(answer.data()), "Firmware 1.7 TLA (18.10.2016)");
    EXPECT_EQ(bench->receiveRawData(answer.data(), answer.size(), 0, 0, 0), 0);
    EXPECT_EQ(bench->receiveRawData(answer.data(), answer.size(), 1, 0, 0), -1);
    unsigned char payload[] = {4, 0, 0xA1, 0xA2};
    EXPECT_EQ(bench->sendRawData(payload, 4, 1, 0, 0), 0);
    unsigned char frame[] = {0x55, 0, 5, 0x14, 0, 0, 0, 7, 0xAA};
    EXPECT_EQ(bench->sendRawData(frame, 9, 2, 0, 0), 0);
    EXPECT_EQ(bench.wire(), Wire().cmd(2, 2, 1).data(0, 4, 0, {0xA1, 0xA2}).cmd(0, 5, 0x14, 0, 0, 0, 7).lines());
    EXPECT_EQ(bench->sendRawData(command, 5, 0, 2, 0), -1);
    EXPECT_EQ(bench->sendRawData(command, 1, 1, 2, 0), -1);
    EXPECT_EQ(bench->sendRawData(command, 6, 3, 2, 0), -1);
    EXPECT_TRUE(bench.wire().empty());
    sim::unplug(0);
    EXPECT_LT(bench->sendRawData(command, 6, 0, 2, 0), 0);
    EXPECT_LT(bench->receiveRawData(answer.data(), answer.size(), 0, 0, 0), 0);
}
