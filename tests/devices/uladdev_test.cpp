#include "devices/uladdev.h"

#include "devices/ladbench.h"
#include "sim/oldboard.h"

#include <gtest/gtest.h>

namespace {

using namespace support;
using Bench = LadBench<HwLatixel::ULadDev, sim::OldBoard, unsigned short>;
using Events = std::vector<Seen>;

constexpr unsigned READY = HWEVENT_FRAME_READY;
constexpr unsigned FINISHED = HWEVENT_ACQ_FINISHED;
constexpr unsigned ABORTED = HWEVENT_ACQ_ABORTED;
constexpr unsigned FAILED = HWEVENT_ACQ_FAILED;

nlohmann::json usb2()
{
    return {{"kind", "mpx2usb2"}, {"description", "MPX2 USB2 sn: 0112 A"}, {"modules", {{"B04-W0062"}, {"C04-W0062"}}}};
}
nlohmann::json fenxel()
{
    return {{"kind", "fenxel"},
            {"description", "Latixel Fenxel sn: 0321 A"},
            {"timer_mhz", 48},
            {"modules", {{"D04-W0062"}, {"E04-W0062"}}},
            {"addresses", {0, 2}}};
}
constexpr const char* SECTIONS = "[0112]\nModuleCount=2\nModule0=0\nModule1=1\nDebugLog=1\n"
                                 "[0321]\nModuleCount=2\nModule0=0\nModule1=2\n";

std::string hexFrame(const sim::OldFrame& frame)
{
    return hex(frame.bytes(), 6) + (frame.data.empty() ? "" : "+ " + std::to_string(frame.data.size()));
}

/// The frames that a board has seen since the last call.
std::vector<std::string> frames(std::size_t index)
{
    std::vector<std::string> lines;
    sim::inspect<sim::OldBoard>(index, [&](sim::OldBoard& board) {
        for (const auto& frame : board.frames())
            lines.push_back(hexFrame(frame));
        board.clearFrames();
    });
    return lines;
}

class OldDetector : public testing::Test {
protected:
    OldDetector()
    {
        EXPECT_EQ(bench->initDevice(), 0);
        bench.events->onFrame = [this](long) { taken.push_back(bench.frame()); };
    }
    ~OldDetector() override { Bench::expectNoViolations(); }

    void run(unsigned count, double seconds)
    {
        taken.clear();
        bench.events->clear();
        ASSERT_EQ(bench->startAcquisition(count, seconds), 0);
        ASSERT_TRUE(bench.events->waitFor({FINISHED, ABORTED, FAILED}));
    }

    Bench bench{nlohmann::json::array({usb2(), fenxel()}), SECTIONS};
    std::vector<Bench::Pixels> taken;
};

} // namespace

TEST_F(OldDetector, BringUpOnTheWire)
{
    const std::vector<std::string> first = {
        "55 00 00 00 00 00 ", // test
        "55 00 00 00 00 00 ", // firmware
        "55 35 00 00 00 35 ", // frequencies
        "55 36 00 00 00 36 ",
        "55 26 00 00 00 26 ", // reset
        "55 68 00 00 00 68 ", // start module, by its number
        "55 13 00 00 00 13 ", // chips of a module
        "55 68 00 00 00 68 ",
        "55 24 00 00 00 24 + 33", // identifiers
        "55 68 01 01 01 69 ",     "55 24 00 00 00 24 + 33",
        "55 08 00 02 00 0A ", // 10 MHz
        "55 07 18 FA FA 1F ", // lowest bias
        "55 41 00 00 00 41 ", // power
        "55 41 00 00 01 40 ",
    };
    EXPECT_EQ(frames(0), first);
    const auto second = frames(1);
    EXPECT_EQ(std::ranges::count(second, "55 43 00 00 02 41 "), 1) << "the second module by its bus value";
    dv::StrList ids;
    bench->chipIDList(&ids);
    EXPECT_EQ(ids.vect(), (std::vector<std::string>{"B04-W0062", "C04-W0062", "D04-W0062", "E04-W0062"}));
    EXPECT_TRUE(bench.logged("Initialized Latixel device MPX2 USB2 sn: 0112 A"));
    EXPECT_NE(bench.folder.read("latixel_0112.log").find("Firmware 23 (date: 14. 9. 2012)"), std::string::npos);
    EXPECT_EQ(bench.param("Version"), "Version 1.0");
    dv::_DevMpxInfo info;
    bench->devMpxInfo(&info);
    EXPECT_EQ(info.chipTotal, 4U);
    EXPECT_EQ(info.pixelTotal, 4U * 65536);
    EXPECT_EQ(info.biasMax, 0.0);
    EXPECT_EQ(bench->adcCount(), 32);
}

TEST_F(OldDetector, Configuration)
{
    frames(0);
    EXPECT_EQ(bench->setBias(200), 0);
    double clock = 10.0;
    EXPECT_EQ(bench->setTimepixClock(&clock), 0);
    EXPECT_NEAR(clock, 50.0 / 6, 1e-9);
    double volts = -1;
    EXPECT_EQ(bench->analogValue(3, &volts), 0);
    EXPECT_GE(volts, 0.0);
    EXPECT_EQ(bench->analogValue(4, &volts), -1005);
    EXPECT_EQ(bench->adcValue(32), -1005.0);
    EXPECT_EQ(frames(0), (std::vector<std::string>{"55 07 18 01 01 1F ", "55 08 00 02 00 0A "}));
    EXPECT_EQ(bench->adcValue(9), 0.0) << "the first kind has eight channels";
    EXPECT_STREQ(bench->lastError(), "Invalid ADC index.") << "what a member refuses is told in its own log";

    std::vector<unsigned short> dacs(4 * 14, 100);
    for (std::size_t i = 0; i < dacs.size(); ++i)
        dacs[i] = static_cast<unsigned short>(i);
    EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size(), -1), 0);
    for (std::size_t chip = 0; chip < 4; ++chip)
        bench.board(chip / 2, [&](sim::OldBoard& board) { EXPECT_EQ(board.chip(chip % 2).dac(0), chip * 14) << chip; });
    EXPECT_EQ(bench->setDacs(dacs.data(), 14, -1), -1) << "too few for a member, whose result it is";
    EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size(), 2), 0);
}

TEST_F(OldDetector, MatricesGoThereAndBack)
{
    std::vector<unsigned short> matrix(4 * 65536);
    for (std::size_t i = 0; i < matrix.size(); ++i)
        matrix[i] = static_cast<unsigned short>((i * 7 + i / 65536) % 11810);
    ASSERT_EQ(bench->writeMatrix(matrix.data(), matrix.size(), true), 0);
    std::vector<unsigned short> back(matrix.size());
    ASSERT_EQ(bench->readMatrix(back.data(), back.size(), true), 0);
    EXPECT_EQ(back, matrix);
    EXPECT_EQ(bench->readMatrix(back.data(), back.size() - 1, true), -1005);
    EXPECT_EQ(bench->writeMatrix(back.data(), back.size() - 1, true), -1005);
    const std::vector<unsigned char> cfg(65536, 0);
    EXPECT_EQ(bench->setPixelCfg(cfg.data(), cfg.size()), -1005);
}

TEST_F(OldDetector, SeriesOnTheWireAndAtTheHost)
{
    frames(0);
    run(2, 0.05);
    EXPECT_EQ(bench.events->seen(), readyEvents(2, FINISHED));
    ASSERT_EQ(taken.size(), 2U);
    expectBlocks(taken[0], 2, 2, 50);
    expectBlocks(taken[1], 2, 2, 50);
    const std::vector<std::string> wire = {
        "55 04 4B 4B 40 44 ", "55 03 00 00 00 03 ",                                             // 5,000,000 ticks
        "55 68 00 00 00 68 ", "55 27 00 00 00 27 ", "55 68 01 01 01 69 ", "55 27 00 00 00 27 ", // erase
        "55 14 00 00 80 94 ", "55 22 40 00 00 62 ",                                             // settings, start
        "55 68 00 00 00 68 ", "55 20 00 00 00 20 ", "55 68 01 01 01 69 ", "55 20 00 00 00 20 ", // read
        "55 22 40 00 00 62 ",                                                                   // next frame
        "55 68 00 00 00 68 ", "55 20 00 00 00 20 ", "55 68 01 01 01 69 ", "55 20 00 00 00 20 "};
    std::vector<std::string> expected = wire;
    expected[0] = "55 04 4C 4B 40 43 ";
    EXPECT_EQ(frames(0), expected);
    EXPECT_FALSE(bench->isBusy());
    EXPECT_EQ(bench->lastAcqTime(), 0.05);
    run(1, 0.01);
    EXPECT_EQ(std::ranges::count(frames(0), "55 27 00 00 00 27 "), 0) << "a read leaves the matrix clear";
    run(0, 0.01);
    EXPECT_EQ(bench.events->seen(), (Events{{FINISHED, 0}}));
}

TEST_F(OldDetector, StopEndsALongFrameAndTheNextSeriesWorks)
{
    ASSERT_EQ(bench->startAcquisition(5, 60.0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {ABORTED, 0}}));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    run(1, 0.05);
    EXPECT_EQ(bench.events->seen(), readyEvents(1, FINISHED));
    expectBlocks(taken.at(0), 2, 2, 50);
}

TEST_F(OldDetector, FailuresHaveTextAndEvents)
{
    struct Case {
        std::size_t board;
        nlohmann::json fault;
        std::string error;
    };
    const std::vector<Case> cases = {
        {0,
         {{"kind", "refuse"}, {"command", "MEAS START"}, {"frames", 1}},
         "Starting acq. failed (Command \"MEAS START\" failed (FF FF FF).)"},
        {1, {{"kind", "no_answer"}, {"command", "Meas Status"}, {"frames", 2}}, "Acquisition timeout ("},
        {0, {{"kind", "wrong_check"}, {"command", "MEAS START"}, {"frames", 1}}, "Starting acq. failed ("},
    };
    for (const auto& one : cases) {
        sim::addFault(one.board, one.fault);
        run(3, 0.02);
        EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}})) << one.error;
        const std::string text = "Device " + bench.names[one.board] + " reported error: " + one.error;
        EXPECT_EQ(std::string(bench->lastError()).substr(0, text.size()), text);
        EXPECT_EQ(bench.errors.take(), std::vector<std::string>{}) << "the host's log callback is not called";
        bench->stopAcquisition();
        sim::clearFaults(one.board);
    }
    sim::addFault(0, {{"kind", "short_data"}, {"command", "Read Matrix"}, {"bytes", 1000}, {"frames", 1}});
    std::vector<unsigned short> matrix(4 * 65536);
    EXPECT_EQ(bench->readMatrix(matrix.data(), matrix.size(), true), 1);
    EXPECT_NE(std::string(bench->lastError()).find("Cannot read matrix (Received data too short"), std::string::npos);
    sim::addFault(1, {{"kind", "refuse_data"}, {"command", "Write Matrix"}, {"frames", 1}});
    EXPECT_EQ(bench->writeMatrix(matrix.data(), matrix.size(), false), 1);
    EXPECT_NE(std::string(bench->lastError()).find("Cannot write matrix (Command (Write Matrix) data not OK"),
              std::string::npos);
    sim::unplug(0);
    EXPECT_NE(bench->eraseMatrix(), 0);
}

TEST(OldBringUp, WorksWithThoseThatComeUp)
{
    {
        Bench bench(nlohmann::json::array({usb2(), fenxel()}), SECTIONS, {"MPX2 USB2 sn: 9 A"});
        sim::addFault(0, {{"kind", "no_answer"}, {"command", "Test"}});
        EXPECT_EQ(bench->initDevice(), 0);
        EXPECT_TRUE(bench.logged("Initialization of Latixel device MPX2 USB2 sn: 9 A failed: "));
        EXPECT_TRUE(
            bench.logged("Initialization of Latixel device MPX2 USB2 sn: 0112 A failed: Device not responding"));
        bench.events->onFrame = [&](long) { EXPECT_EQ(bench.frame().size(), 2U * 65536); };
        ASSERT_EQ(bench->startAcquisition(1, 0.01), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
    }
    // Without their sections the boards have no modules, and so no chips.
    Bench bench(nlohmann::json::array({usb2()}));
    EXPECT_EQ(bench->initDevice(), -1);
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 1) << "Device not connected or no chip";
}
