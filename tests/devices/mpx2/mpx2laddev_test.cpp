// Composites of Medipix2 and Timepix boards: one detector of several members, whose frames the composite drives itself.
#include "devices/common/ladbench.h"
#include "devices/mpx2/mpx2bench.h"

#include "devices/mpx2/mpx2laddev.h"

#include <atomic>
#include <limits>

using namespace support;

namespace {

using Lad = LadBench<HwLatixel::Mpx2LadDev, sim::Mpx2Board, unsigned short>;

constexpr std::size_t DACS = 14;
const std::string REATTEMPT = "Reading matrix from devices failed, reattempting acq.";

nlohmann::json boards(std::size_t members, const std::vector<int>& modules)
{
    return ladBoards(members, mpx2Board(modules, {{"link", {{"rate_mb_s", 40}}}}));
}

/// The members have two modules with a chip each.
class Mpx2Lad : public LadTest<Lad> {
protected:
    Mpx2Lad() : LadTest(boards(2, {1, 1}), "RecoverAttemptCount=2\n") {}

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        countAll(bench);
        takeFrames();
        sim::clearTraffic();
    }
    std::string reconnecting(std::size_t member) const { return "Reconnecting device " + bench.names[member] + " ..."; }
    static nlohmann::json readsFail(int times)
    {
        return behind(START, {{"kind", "short_stream"}, {"readouts", times}});
    }
};

} // namespace

TEST(Mpx2LadBringUp, MembersThatComeUpAreOneDetector)
{
    expectOneDetector<Lad>(boards(2, {1, 1}), 2, 0);
    BroughtUp<Lad> lad(boards(1, {1}), "", Strings{"Latixel Latixel TLWB 0 sn: 99 A"});
    EXPECT_EQ(lad.info().biasMax, 200.0) << "by the names alone, also that of the member that is not there";
    double volts = 7;
    EXPECT_EQ(lad->biasVoltageCurrentSense(&volts, nullptr), -1026);
    EXPECT_EQ(volts, 0.0);
}

TEST_F(Mpx2Lad, DacsClocksAndStatusGoToTheirMembers)
{
    std::vector<unsigned short> dacs(4 * DACS);
    for (std::size_t i = 0; i < dacs.size(); ++i)
        dacs[i] = static_cast<unsigned short>(i / DACS + 1);
    const auto expectChips = [&](std::array<unsigned, 4> values, std::array<unsigned, 4> sense) {
        for (std::size_t chip = 0; chip < 4; ++chip)
            bench.board(chip / 2, [&](sim::Mpx2Board& board) {
                EXPECT_EQ(board.chip(chip % 2).dac(0), values[chip]) << chip;
                EXPECT_EQ(board.chip(chip % 2).senseDac(), sense[chip]) << chip;
            });
    };
    ASSERT_EQ(bench->setMpx2Dacs(dacs.data(), dacs.size(), -1, 0, 5, 0, 0), 0);
    expectChips({1, 2, 3, 4}, {5, 0, 5, 0});
    std::ranges::reverse(dacs);
    ASSERT_EQ(bench->setMpx2Dacs(dacs.data(), dacs.size(), 3, 3, 6, 0, 0), 0);
    expectChips({1, 2, 2, 1}, {5, 0, 0, 6}); // a member loads all of its chips
    sim::clearTraffic();
    for (const int chip : {9, -2, std::numeric_limits<int>::min()})
        EXPECT_EQ(bench->setMpx2Dacs(dacs.data(), dacs.size(), chip, 0, 0, 0, 0), 0);
    EXPECT_TRUE(sim::written(0).empty() && sim::written(1).empty()) << "there are no such chips";
    EXPECT_EQ(bench.setDacs(Lad::Pixels(2 * DACS), 2), 0) << "a single chip fails silently";
    EXPECT_EQ(bench.errors->take(), Strings{});

    bench.set("PreShutterClockCount", 77);
    double mhz = 40;
    ASSERT_EQ(bench->setTimepixClock(&mhz), 0);
    run(1, 0.001);
    for (std::size_t m = 0; m < 2; ++m)
        bench.board(m, [&](sim::Mpx2Board& board) {
            EXPECT_DOUBLE_EQ(board.timepixClockMhz(), mhz);
            EXPECT_EQ(board.acquisitionRegister(16), 100U) << "the member's own parameter";
        });
    expectAdcAndStatus();
}

TEST_F(Mpx2Lad, ArgumentsThatNoDeviceTakes)
{
    expectArgumentsRefused(bench);
    EXPECT_EQ(bench->devMpx2Info(nullptr), 1);
    EXPECT_EQ(bench->analogValue(0, nullptr), 1);
    EXPECT_EQ(bench->startAcquisition(1, 1e9), 1);
    const std::vector<unsigned char> cfg(4 * CHIP);
    EXPECT_EQ(bench->setPixelCfg(cfg.data(), std::size_t{1} << 60), 0) << "as much as there are pixels";
}

TEST(Mpx2LadBringUp, ChipsOfAllMembersDecideTheKind)
{
    nlohmann::json both = boards(2, {1});
    both[1].update(nlohmann::json{{"chip", "medipix2"}});
    {
        BroughtUp<Lad> lad(both);
        EXPECT_TRUE(lad->isTimepix());
        EXPECT_TRUE(lad.logged("Members with Medipix2 and with Timepix chips"));
    }
    both[0].update(nlohmann::json{{"chip", "medipix2"}});
    BroughtUp<Lad> lad(both);
    EXPECT_FALSE(lad->isTimepix());
    // 15 DACs for each chip, and the other pixel map.
    std::vector<unsigned short> dacs(30, 3);
    dacs[15] = 7;
    EXPECT_EQ(lad.setDacs(dacs), 0);
    EXPECT_EQ(lad.setPixelCfg(std::vector<unsigned char>(2 * Lad::CHIP, 3)), 0);
    lad.board(1, [](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(0).dac(0), 7);
        EXPECT_EQ(board.chip(0).configuration().back(), 0x0001);
    });
}

TEST_F(Mpx2Lad, MatricesOfAllMembers)
{
    worksAtTheEnd = false;
    expectMatricesComeBack(11811);
    std::vector<unsigned char> cfg(4 * CHIP);
    cfg.back() = 3;
    ASSERT_EQ(bench.setPixelCfg(cfg), 0);
    bench.board(1, [](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(0).configuration().back(), 0x2000);
        EXPECT_EQ(board.chip(1).configuration().back(), 0x0080);
    });
    EXPECT_EQ(bench->setPixelCfg(cfg.data(), CHIP), 1);
    sim::addFault(1, {{"kind", "short_stream"}, {"readouts", 1}});
    EXPECT_EQ(bench->lastData(), nullptr);
    expectFailure(1, 1, "Reading matrix failed");
}

TEST_F(Mpx2Lad, FramesInSequenceAndInParallel)
{
    for (const int parallel : {0, 1}) {
        bench.set("ParallelReadout", parallel);
        expectSeries(0, 0.02);
        expectSeries(1, 0.03);
        takeFrames(50); // one frame is decoded while the next is exposed
        expectSeries(4, 0.001);
    }
    EXPECT_DOUBLE_EQ(bench->lastAcqTime(), 0.001);
}

TEST_F(Mpx2Lad, BusyEndsForTheDeliveryOfEachFrame)
{
    constexpr auto BUSY = HWEVENT_BUSY_CHANGED;
    expectSeries(1, 0.02);
    EXPECT_EQ(bench.events->all(), (Events{{BUSY, 1}, {BUSY, 0}, {READY, 0}, {BUSY, 1}, {BUSY, 0}, {FINISHED, 0}}));
}

TEST_F(Mpx2Lad, ReadThatFailsIsRepeatedBehindARecovery)
{
    const std::string tooShort = "Reading matrix failed - not enough data received (228442 < 229451)";
    sim::addFault(1, readsFail(1));
    expectNextSeriesWorks();
    EXPECT_EQ(Lad::sent(START), 4);
    EXPECT_EQ(bench.errors->take(), (Strings{Lad::failure(bench.names[1], tooShort), reconnecting(1), REATTEMPT}));
    // In parallel the text names the member behind the one that failed, if there is one.
    bench.set("ParallelReadout", 1);
    for (std::size_t m = 0; m < 2; ++m) {
        sim::addFault(m, readsFail(1));
        expectNextSeriesWorks();
        EXPECT_EQ(bench.errors->take(), (Strings{Lad::failure(bench.names[1], tooShort), reconnecting(m), REATTEMPT}));
    }
}

TEST_F(Mpx2Lad, ExposureThatFailsIsRepeatedBehindARecovery)
{
    sim::addFault(1, behind(START, {{"kind", "hang"}}, 2));
    startAndExpose(3, 0.02, 2);
    ASSERT_TRUE(soon([&] { return bench.events->seen().size() == 1; }));
    sim::clearFaults(1); // the frame of a hung board never ends
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    for (const auto& frame : frames)
        expectBlocks(frame, 2, 2, 20);
    // The start command itself.
    sim::addFault(0, behind("55 00 01 01 00 00 0C A7", linkError("write")));
    expectSeries(2, 0.02);
}

TEST_F(Mpx2Lad, RecoveryThatFailsEndsTheSeriesWithoutAnEnd)
{
    sim::addFault(1, behind(START, {{"kind", "unplug"}}, 2));
    expectGivenUp(5, 0.02, 1);
    EXPECT_EQ(std::ranges::count(bench.errors->take(), reconnecting(1)), 1);
    EXPECT_EQ(bench->setBias(10), 1) << "and does not hang";
    sim::plug(1);
    bench->closeDevice();
    EXPECT_TRUE(bench->isBusy());
    bringUp();
    EXPECT_FALSE(bench->isBusy());
}

TEST_F(Mpx2Lad, StopInEachState)
{
    for (const int parallel : {0, 1}) {
        bench.set("ParallelReadout", parallel);
        expectStops();
    }
}

TEST_F(Mpx2Lad, HostPacesTheSeries)
{
    for (const int parallel : {0, 1}) {
        bench.set("ParallelReadout", parallel);
        startWithoutReader();
        readTooLittle();
        ASSERT_TRUE(soon([&] { return bench.events->seen().size() == 2; }));
        bench->stopAcquisition(); // the next frame is exposed, and nobody takes this one
        // A start right behind a stop waits for what is left of the series.
        takeFrames();
        ASSERT_EQ(bench->startAcquisition(2, 0.02), 0) << bench->lastError();
        ASSERT_TRUE(bench.events->waitFor({FINISHED}));
        EXPECT_EQ(bench.events->seen(),
                  (Events{{READY, 0}, {READY, 1}, {ABORTED, 0}, {READY, 0}, {READY, 1}, {FINISHED, 0}}));
    }
}

TEST_F(Mpx2Lad, OperationsBeforeTheFrameIsTakenOrBesideDoNotHarmTheFrames)
{
    double mhz = 10;
    const std::vector<std::function<bool()>> operations = {
        [&] { return bench->adcValue(17) >= 0; },          [&] { return bench->setBias(20) == 0; },
        [&] { return bench->eraseMatrix() == 0; },         [&] { return bench->resetMedipix() == 0; },
        [&] { return bench->setTimepixClock(&mhz) == 0; }, [&] { return bench.setDacs(Lad::Pixels(4 * DACS, 9)) == 0; },
        [&] { return bench->deviceStatus() == 0; },
    };
    for (const int parallel : {0, 1}) {
        SCOPED_TRACE(parallel);
        bench.set("ParallelReadout", parallel);
        std::atomic<std::size_t> calls = 0;
        const auto operate = [&] { EXPECT_TRUE(operations[calls++ % operations.size()]()) << bench->lastError(); };
        bench.events->onFrame = [&](long) {
            operate();
            frames.push_back(bench.frame());
            sleepMs(30); // the next frame is on its way
            EXPECT_TRUE(bench.frame() == frames.back()) << "a second read is of the same frame";
        };
        start(20, 0.02);
        while (bench.events->seen().empty() || bench.events->seen().back() != Seen{FINISHED, 0})
            operate();
        ASSERT_EQ(frames.size(), 20U);
        for (const auto& frame : frames)
            expectBlocks(frame, 2, 2, 20);
        EXPECT_GT(calls, 30U);
    }
}

TEST_F(Mpx2Lad, PollsAreServedBetweenFramesAndHeatEndsTheSeries)
{
    start(100000, 0.02);
    ASSERT_TRUE(bench.events->waitFor({READY}));
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    EXPECT_TRUE(soon([&] {
        return bench->deviceStatus() == 1 && bench->deviceStatusText() == std::string("warm") &&
               bench->adcValue(17) > 0;
    }));
    sim::clearFaults(0);
    sim::addFault(1, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
    ASSERT_TRUE(bench.events->waitForEnd());
    const auto seen = bench.events->seen();
    EXPECT_EQ((Events{seen.end() - 2, seen.end()}), (Events{{FAILED, -1037}, {ABORTED, 0}}));
    EXPECT_TRUE(bench.errors->take().at(0).starts_with("Maximal allowed temperature exceeded !"));
    sim::clearFaults(1);
    bringUp();
}

TEST_F(Mpx2Lad, StopInARecoveryEndsTheSeriesAndTheNextOneMakesUpForIt)
{
    start(100, 0.02);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_FRAME_READY}));
    sim::addFault(1, {{"kind", "silence"}, {"seconds", 1000.0}});
    // The host's callback gets the line when the recovery is over.
    ASSERT_TRUE(soon([&] { return bench->lastError() == reconnecting(1); }));
    expectStop();
    sim::clearFaults(1);
    sim::unplug(1);
    EXPECT_EQ(bench->startAcquisition(1, 0.02), 1);
    EXPECT_FALSE(bench->isBusy());
    sim::plug(1); // without power and DACs
    expectNextSeriesWorks();
}

TEST_F(Mpx2Lad, CloseDuringASeries)
{
    expectCloseInSeries(0.02, 300);
    worksAtTheEnd = false; // the bench closes it
    start(100, 30);
}
