// The composite of boards of the first kinds: one detector of all modules that the settings name.
#include "devices/old/uladdev.h"

#include "devices/common/ladbench.h"
#include "sim/boards/oldboard.h"

#include <atomic>
#include <cmath>
#include <functional>
#include <numeric>
#include <thread>

namespace {

using namespace support;
using Bench = LadBench<HwLatixel::ULadDev, sim::OldBoard, unsigned short>;

const nlohmann::json USB2 = {
    {"kind", "mpx2usb2"}, {"description", "MPX2 USB2 sn: 0112 A"}, {"modules", {{"B04-W0062"}, {"C04-W0062"}}}};
const nlohmann::json FENXEL = {{"kind", "fenxel"},
                               {"description", "Latixel Fenxel sn: 0321 A"},
                               {"timer_mhz", 48},
                               {"modules", {{"D04-W0062"}, {"E04-W0062"}}},
                               {"addresses", {0, 2}}};
const nlohmann::json BOTH = nlohmann::json::array({USB2, FENXEL});
constexpr const char* SECTIONS = "[0112]\nModuleCount=2\nModule0=0\nModule1=1\nDebugLog=1\n"
                                 "[0321]\nModuleCount=2\nModule0=0\nModule1=2\n";

/// The frames that a board has seen since the last call.
Strings commands(std::size_t index)
{
    Strings lines;
    sim::inspect<sim::OldBoard>(index, [&](sim::OldBoard& board) {
        for (const auto& frame : board.frames())
            lines.push_back(hex(frame.bytes(), 6) +
                            (frame.data.empty() ? "" : "+ " + std::to_string(frame.data.size())));
        board.clearFrames();
    });
    return lines;
}

class OldDetector : public SeriesTest<Bench, 2> {
protected:
    OldDetector() : SeriesTest(BOTH, SECTIONS) {}
    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        takeFrames();
    }
};

} // namespace

TEST_F(OldDetector, BringUpOnTheWire)
{
    const Strings first = {
        "55 00 00 00 00 00 ",     "55 00 00 00 00 00 ",     "55 35 00 00 00 35 ",
        "55 36 00 00 00 36 ",                                                     // test, firmware, clocks
        "55 26 00 00 00 26 ",     "55 68 00 00 00 68 ",     "55 13 00 00 00 13 ", // reset, start module's number, chips
        "55 68 00 00 00 68 ",     "55 24 00 00 00 24 + 33", "55 68 01 01 01 69 ",
        "55 24 00 00 00 24 + 33",                       // identifiers
        "55 08 00 02 00 0A ",     "55 07 18 FA FA 1F ", // 10 MHz, lowest bias
        "55 41 00 00 00 41 ",     "55 41 00 00 01 40 ", // power
    };
    EXPECT_EQ(commands(0), first);
    EXPECT_EQ(std::ranges::count(commands(1), "55 43 00 00 02 41 "), 1) << "the second module by its bus value";
    EXPECT_EQ(bench.chipIds(), (Strings{"B04-W0062", "C04-W0062", "D04-W0062", "E04-W0062"}));
    EXPECT_TRUE(bench.logged("Initialized Latixel device MPX2 USB2 sn: 0112 A"));
    EXPECT_NE(bench.folder.read("latixel_0112.log").find("Firmware 23 (date: 14. 9. 2012)"), std::string::npos);
    EXPECT_EQ(bench.param("Version"), "Version 1.0");
    EXPECT_EQ(bench.info().chipTotal, 4U);
    EXPECT_EQ(bench.info().pixelTotal, 4U * 65536);
    EXPECT_EQ(bench.info().biasMax, 0.0);
    EXPECT_EQ(bench->adcCount(), 32);
}

TEST_F(OldDetector, Configuration)
{
    commands(0);
    EXPECT_EQ(bench->setBias(200), 0);
    double clock = 10.0;
    EXPECT_EQ(bench->setTimepixClock(&clock), 0);
    EXPECT_NEAR(clock, 50.0 / 6, 1e-9);
    double volts = -1;
    EXPECT_EQ(bench->analogValue(3, &volts), 0);
    EXPECT_GE(volts, 0.0);
    EXPECT_EQ(bench->analogValue(4, &volts), -1005);
    EXPECT_EQ(bench->adcValue(32), -1005.0);
    EXPECT_EQ(commands(0), (Strings{"55 07 18 01 01 1F ", "55 08 00 02 00 0A "}));
    EXPECT_EQ(bench->adcValue(9), 0.0) << "the first kind has eight channels";
    EXPECT_STREQ(bench->lastError(), "Invalid ADC index.") << "what a member refuses is told in its own log";

    std::vector<unsigned short> dacs(4 * 14);
    std::iota(dacs.begin(), dacs.end(), static_cast<unsigned short>(0));
    EXPECT_EQ(bench.setDacs(dacs), 0);
    for (std::size_t chip = 0; chip < 4; ++chip)
        bench.board(chip / 2, [&](sim::OldBoard& board) { EXPECT_EQ(board.chip(chip % 2).dac(0), chip * 14) << chip; });
    EXPECT_EQ(bench->setDacs(dacs.data(), 14, -1), -1) << "too few for a member, whose result it is";
    EXPECT_EQ(bench.setDacs(dacs, 2), 0);
}

TEST_F(OldDetector, MatricesGoThereAndBack)
{
    worksAtTheEnd = false;
    std::vector<unsigned short> matrix(4 * 65536);
    for (std::size_t i = 0; i < matrix.size(); ++i)
        matrix[i] = static_cast<unsigned short>((i * 7 + i / 65536) % 11810);
    ASSERT_EQ(bench.write(matrix), 0);
    EXPECT_TRUE(bench.frame() == matrix);
    EXPECT_EQ(bench->readMatrix(matrix.data(), matrix.size() - 1, true), -1005);
    EXPECT_EQ(bench->writeMatrix(matrix.data(), matrix.size() - 1, true), -1005);
    EXPECT_EQ(bench.setPixelCfg(std::vector<unsigned char>(65536)), -1005);
}

TEST_F(OldDetector, SeriesOnTheWireAndAtTheHost)
{
    commands(0);
    expectSeries(2, 0.05);
    const Strings wire = {
        "55 04 4C 4B 40 43 ", "55 03 00 00 00 03 ",                                             // 5,000,000 ticks
        "55 68 00 00 00 68 ", "55 27 00 00 00 27 ", "55 68 01 01 01 69 ", "55 27 00 00 00 27 ", // erase
        "55 14 00 00 80 94 ", "55 22 40 00 00 62 ",                                             // settings, start
        "55 68 00 00 00 68 ", "55 20 00 00 00 20 ", "55 68 01 01 01 69 ", "55 20 00 00 00 20 ", // read
        "55 22 40 00 00 62 ",                                                                   // next frame
        "55 68 00 00 00 68 ", "55 20 00 00 00 20 ", "55 68 01 01 01 69 ", "55 20 00 00 00 20 "};
    EXPECT_EQ(commands(0), wire);
    EXPECT_FALSE(bench->isBusy());
    EXPECT_EQ(bench->lastAcqTime(), 0.05);
    expectSeries(1, 0.01);
    EXPECT_EQ(std::ranges::count(commands(0), "55 27 00 00 00 27 "), 0) << "a read leaves the matrix clear";
    expectSeries(0, 0.01);
}

TEST_F(OldDetector, StopEndsALongFrameAndTheNextSeriesWorks)
{
    start(5, 60.0);
    ASSERT_TRUE(soon([] { return std::ranges::count(commands(0), "55 22 40 00 00 62 ") > 0; }));
    sleepMs(200);
    expectStop(1);
    sleepMs(300);
}

TEST_F(OldDetector, BehindAStopNothingIsStarted)
{
    for (int i = 0; i < 20; ++i) {
        commands(0);
        start(5, 60.0);
        sleepMs(i % 5);
        const auto begin = Clock::now();
        EXPECT_EQ(bench->stopAcquisition(), 0);
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0})) << i;
        const Strings lines = commands(0);
        const auto stopped = std::ranges::find(lines, "55 23 00 00 00 23 ");
        EXPECT_NE(stopped, lines.end());
        EXPECT_EQ(std::count(stopped, lines.end(), "55 22 40 00 00 62 "), 0) << i;
    }
}

TEST_F(OldDetector, TurnStaysWithTheFrameEvent)
{
    std::atomic<bool> inHandler = false;
    std::vector<std::jthread> others;
    bench.events->onFrame = [&](long i) {
        inHandler = true;
        if (i == 0)
            others.emplace_back([&] {
                EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
                EXPECT_FALSE(inHandler) << "while the host takes its frame";
            });
        EXPECT_GE(bench->adcValue(0), 0.0) << "on this thread it is answered";
        EXPECT_EQ(bench->startAcquisition(1, 0.02), 1);
        sleepMs(100);
        frames.push_back(bench.frame());
        inHandler = false;
    };
    expectSeries(3, 0.05);
    others.clear();
    // Polls beside a series do not take the answers of its frames.
    takeFrames();
    start(50, 0.02);
    while (bench.events->seen().empty() || bench.events->seen().back() != Seen{FINISHED, 0}) {
        bench->adcValue(1);
        if (bench.events->seen().size() > 60)
            break;
    }
    EXPECT_EQ(bench.events->seen(), readyEvents(50, FINISHED));
    for (const auto& frame : frames)
        expectBlocks(frame, 2, 2, 20);
}

TEST_F(OldDetector, ArgumentsThatNoBoardTakes)
{
    commands(0);
    const Bench::Pixels dacs(4 * 14);
    const std::vector<std::function<int()>> calls = {
        [&] { return bench->setMpx2Dacs(nullptr, 56, -1, 0, 0, 0, 0); },
        [&] { return bench->setPixelCfg(nullptr, 4 * 65536); },
        [&] { return bench->writeMatrix(nullptr, 4 * 65536, false); },
        [&] { return bench->readMatrix(nullptr, 4 * 65536, true); },
        [&] { return bench->setTimepixClock(nullptr); },
        [&] { return bench->startAcquisition(1, -1.0); },
        [&] { return bench->startAcquisition(1, std::nan("")); },
    };
    for (const auto& call : calls)
        EXPECT_EQ(call(), 1) << &call - calls.data();
    EXPECT_EQ(bench.setDacs(dacs, -2), 0) << "no chip has this number";
    EXPECT_EQ(commands(0), Strings{});
    HwLatixel::UMpx2Dev closed("MPX2 USB2 sn: 9 A", &bench.host, bench.folder.path(), "");
    double volts = 0;
    EXPECT_EQ(closed.eraseMatrix(), 1);
    EXPECT_EQ(closed.stopAcquisition(), 1);
    EXPECT_EQ(closed.waitForAcqFinish(), 1);
    EXPECT_EQ(closed.resetDevice(), 1);
    EXPECT_EQ(closed.analogValue(0, &volts), 0);
    EXPECT_EQ(closed.closeDevice(), 0);
}

TEST_F(OldDetector, CloseDuringASeries)
{
    for (const bool mute : {false, true}) {
        SCOPED_TRACE(mute);
        if (mute)
            for (std::size_t m = 0; m < 2; ++m)
                sim::addFault(m, {{"kind", "no_answer"}, {"command", "MEAS BREAK"}});
        bench.events->onFrame = nullptr;
        start(5, 60.0);
        ASSERT_TRUE(soon([] { return std::ranges::count(commands(0), "55 22 40 00 00 62 ") > 0; }));
        const auto begin = Clock::now();
        EXPECT_EQ(bench->closeDevice(), 0) << bench->lastError();
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
        for (std::size_t m = 0; m < 2; ++m)
            sim::clearFaults(m);
        bringUp();
    }
}

TEST_F(OldDetector, FailuresHaveTextAndEvents)
{
    struct Case {
        std::size_t board;
        nlohmann::json fault;
        std::string error;
    };
    const Case cases[] = {
        {0,
         {{"kind", "refuse"}, {"command", "MEAS START"}, {"frames", 1}},
         "Starting acq. failed (Command \"MEAS START\" failed (FF FF FF).)"},
        {1, {{"kind", "no_answer"}, {"command", "Meas Status"}, {"frames", 2}}, "Acquisition timeout ("},
        {0, {{"kind", "wrong_check"}, {"command", "MEAS START"}, {"frames", 1}}, "Starting acq. failed ("},
    };
    for (const auto& [board, fault, error] : cases) {
        SCOPED_TRACE(error);
        sim::addFault(board, fault);
        expectGivenUp(3, 0.02);
        bench.expectError(Bench::failure(bench.names[board], error));
        EXPECT_EQ(bench.errors->take(), Strings{}) << "the host's log callback is not called";
        bench->stopAcquisition();
        sim::clearFaults(board);
    }
    sim::addFault(0, {{"kind", "short_data"}, {"command", "Read Matrix"}, {"bytes", 1000}, {"frames", 1}});
    Bench::Pixels matrix(4 * 65536);
    EXPECT_EQ(bench.read(matrix), 1);
    bench.expectError(Bench::failure(bench.names[0], "Cannot read matrix (Received data too short"));
    sim::addFault(1, {{"kind", "refuse_data"}, {"command", "Write Matrix"}, {"frames", 1}});
    EXPECT_EQ(bench.write(matrix, false), 1);
    bench.expectError(Bench::failure(bench.names[1], "Cannot write matrix (Command (Write Matrix) data not OK"));
    worksAtTheEnd = false;
    sim::unplug(0);
    EXPECT_NE(bench->eraseMatrix(), 0);
}

TEST(OldBringUp, WorksWithThoseThatComeUp)
{
    {
        Bench bench(BOTH, SECTIONS, {"MPX2 USB2 sn: 9 A"});
        sim::addFault(0, {{"kind", "no_answer"}, {"command", "Test"}});
        EXPECT_EQ(bench->initDevice(), 0);
        const std::string failed = "Initialization of Latixel device MPX2 USB2 sn: ";
        EXPECT_TRUE(bench.logged(failed + "9 A failed: "));
        EXPECT_TRUE(bench.logged(failed + "0112 A failed: Device not responding"));
        EXPECT_EQ(bench.frame().size(), 2U * 65536);
    }
    {
        // What the first module has told is not kept where the second one fails.
        Bench bench(BOTH, SECTIONS);
        sim::addFault(0, {{"kind", "refuse_data"},
                          {"command", "Write FSR"},
                          {"frames", 1},
                          {"when", {{"after_written", "55 68 01 01 01 69"}}}});
        EXPECT_EQ(bench->initDevice(), 0);
        EXPECT_EQ(bench.chipIds(), (Strings{"D04-W0062", "E04-W0062"}));
    }
    // Without their sections the boards have no modules, and so no chips.
    Bench bench(nlohmann::json::array({USB2}));
    EXPECT_EQ(bench->initDevice(), -1);
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 1) << "Device not connected or no chip";
}
