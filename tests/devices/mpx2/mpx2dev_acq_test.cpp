// Series on a Medipix2 or Timepix board: what goes over the wire, what the host is told, and how each of them ends.
#include "devices/mpx2/mpx2bench.h"

#include <atomic>
#include <future>

using namespace support;

namespace {

/// Two modules of a chip each.
class Mpx2Series : public TpxSeries<Mpx2Bench> {
protected:
    Mpx2Series() : TpxSeries(mpx2Board({1, 1})) {}
};

/// A series of 20 ms frames, from its preparation on.
Mpx2Wire seriesWire(const Mpx2Wire& readout, int count)
{
    Mpx2Wire wire;
    wire.timer(1000000).clocks(100, 1, 100);
    wire += readout;
    wire.cmd(0, ACQ, 5);
    for (int i = 0; i < count; ++i) {
        wire.exposure(1);
        wire += readout;
    }
    return wire;
}

} // namespace

TEST_F(Mpx2Series, FramesOnTheWireAndAtTheHost)
{
    worksAtTheEnd = false;
    const Mpx2Wire readout = Mpx2Wire().mux(3).alive(OUTEN).readout(2 * 114721 + 9 - 10, 917766);
    double volts = 0;
    bench->setBias(50);
    bench->biasVoltageCurrentSense(&volts, nullptr);
    bool busyInHandler = true;
    bench.events->onFrame = [&](long i) {
        frames.push_back(bench.frame());
        bench->biasVoltageCurrentSense(&volts, nullptr);
        if (i == 1)
            busyInHandler = bench->isBusy();
    };
    expectSeries(2, 0.02);
    EXPECT_EQ(bench.wire(), seriesWire(readout, 2).lines()) << "and no ADC between the frames";
    EXPECT_FALSE(busyInHandler);
    EXPECT_EQ(bench->lastAcqTime(), 0.02);

    // Outside a series the chips are read afresh, which clears them.
    ASSERT_EQ(bench.write(Mpx2Bench::Pixels(bench.pixels(), 77)), 0);
    const refhost::FramePtr frame = refhost::adopt(bench->lastData());
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->width(), 512U);
    EXPECT_EQ(frame->height(), 256U);
    EXPECT_EQ(frame->pixel(131071), 77U);
    ASSERT_EQ(frame->metaData().size(), 2U);
    EXPECT_EQ(frame->metaData()[0].name + frame->metaData()[0].description, "BiasCurrentSenseBias Current Sense [V]");
    EXPECT_EQ(frame->metaData()[1].name + frame->metaData()[1].description, "BiasVoltageSenseBias Voltage Sense [V]");
    EXPECT_EQ(frame->metaData()[1].numbers(), std::vector<double>{volts});
    expectBlocks(bench.frame(), 1, 2, 0);
    expectSeries(0, 0.02);
    EXPECT_EQ(bench.wire(), seriesWire(readout, 0).lines());
}

TEST(Mpx2SeriesShapes, SerialReadoutAndBiasByTheCpu)
{
    Mpx2Wire readout;
    for (const int mask : {1, 2})
        readout.mux(mask).alive(ENIN | OUTEN).alive(OUTEN).readout(114721 + 7 - 10, 917766);
    BroughtUp<Mpx2Bench> bench(mpx2Board({1, 1}, biasCpu()), "[Settings]\nReadParallel=0\n");
    countAll(bench);
    bench->setBias(50);
    bench->biasVoltageCurrentSense(nullptr, nullptr);
    bench.wire();
    expectBlocks(bench.series(1, 0.02).at(0), 1, 2, 20);
    EXPECT_EQ(bench.wire(), seriesWire(readout, 1).lines());
    const refhost::FramePtr frame = refhost::adopt(bench->lastData());
    EXPECT_EQ(frame->findMetaData("DetectorTemperature")->numbers(), std::vector<double>{25.0});
}

TEST_F(Mpx2Series, HundredsOfFramesNoneLost)
{
    expectSeries(500, 0.001);
}

TEST_F(Mpx2Series, SoftwareTriggerStartsEachFrame)
{
    expectSoftwareTriggers();
}

TEST_F(Mpx2Series, ExternalTriggerStartsOrEndsTheFrame)
{
    // Mode 3 is mode 1: the timer ends the frame.
    for (const auto& [mode, command] : {std::pair{1U, "55 02 05 01 02 00 00 01 AA "},
                                        {3U, "55 02 05 01 02 00 00 01 AA "},
                                        {2U, "55 02 05 01 04 00 00 01 AA "}}) {
        SCOPED_TRACE(mode);
        bench->setAcqMode(mode);
        startAndExpose(1, 0.02);
        EXPECT_EQ(bench.sent(command), 1);
        sleepMs(60);
        EXPECT_TRUE(bench.events->seen().empty());
        EXPECT_TRUE(bench->isBusy());
        sim::pulseTrigger(0);
        ASSERT_TRUE(bench.events->waitForEnd());
        ASSERT_EQ(frames.size(), 1U);
        if (mode == 2)
            EXPECT_GE(frames[0][0], 60) << "open until the trigger came";
        else
            expectBlocks(frames[0], 1, 2, 20);
        // A stop while the trigger does not come.
        startAndExpose(3, 0.02);
        expectStop(0);
    }
}

TEST_F(Mpx2Series, StopWithoutASeriesOrInALongFrame)
{
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_EQ(bench.wire(), Wire().cmd(2, 5, 2).lines());
    expectNextSeriesWorks();
    startAndExpose(3, 60.0);
    expectStop(0);
    EXPECT_EQ(bench->lastAcqTime(), 60.0) << "the time asked for, whatever the board has measured";
}

TEST_F(Mpx2Series, ReaderIsWaitedForWhichKeepsNobodyFromTheLink)
{
    for (const bool takes : {true, false}) {
        startWithoutReader();
        EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
        if (takes)
            expectBlocks(bench.frame(), 1, 2, 20);
        else
            readTooLittle();
        EXPECT_TRUE(soon([&] { return bench.events->seen().size() == 2; }));
        expectStop(2);
    }
}

TEST_F(Mpx2Series, FrameThatTimesOutIsRepeatedBehindARecoveryAndOneTrigger)
{
    bench->setBias(50);
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    bench.events->onWaitTrigger = [&] { bench->doSoftwareTrigger(0); };
    sim::addFault(0, behind(START, {{"kind", "hang"}}, 2));
    run(4, 0.02);
    EXPECT_EQ(std::ranges::count(bench.events->seen(), Seen{HWEVENT_WAIT_TRIGGER, 0}), 4);
    EXPECT_EQ(bench.errors->take(), Strings{"Acquisition timeout ()"});
    ASSERT_EQ(frames.size(), 4U);
    for (const auto& frame : frames)
        expectBlocks(frame, 1, 2, 20);
    bench.board([](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(1).dac(0), 9U);
        EXPECT_EQ(board.biasCode(), 141);
    });
}

TEST_F(Mpx2Series, ReadThatComesShortIsRepeated)
{
    sim::addFault(0, behind(START, {{"kind", "short_stream"}, {"readouts", 1}}));
    expectSeries(2, 0.02);
    EXPECT_EQ(bench.sent(START), 3);
    EXPECT_EQ(bench.errors->take(), (Strings{"Reading matrix failed - not enough data received (228442 < 229451)",
                                             "Reading matrix from device failed, reattempting acq."}));
}

TEST_F(Mpx2Series, RecoveryThatFailsEndsTheSeriesWithoutAnEnd)
{
    loseBoard();
    EXPECT_TRUE(bench->isBusy());
    sim::plug(0);
    reconnect();
    EXPECT_FALSE(bench->isBusy());
}

TEST_F(Mpx2Series, ExposureInTwoHalves)
{
    ASSERT_EQ(bench->prepareAcquisition(0.3), 0);
    bench.wire();
    ASSERT_EQ(bench->startSingleAcquisition(), 0);
    EXPECT_EQ(bench->waitForAcqFinish(true), 0);
    EXPECT_EQ(bench.wire(), Mpx2Wire().exposure(1).lines());
    expectBlocks(bench.frame(), 1, 2, 300);
    ASSERT_EQ(bench->prepareAcquisition(1.6), 0);
    ASSERT_EQ(bench->startSingleAcquisition(), 0);
    EXPECT_EQ(bench->waitForAcqFinish(true), -4) << "too short for it";
    bench.board([](sim::Mpx2Board& board) { EXPECT_NE(board.pins() & ACQOVER, 0); });
    EXPECT_EQ(bench->waitForAcqFinish(false), 0);
    expectBlocks(bench.frame(), 1, 2, 1600);
}

TEST_F(Mpx2Series, PollsAreServedBetweenFramesAndHeatEndsTheSeries)
{
    const auto expectStatus = [&](int status, const char* text) {
        EXPECT_EQ(bench->deviceStatus(), status);
        EXPECT_STREQ(bench->deviceStatusText(), text);
    };
    expectStatus(0, "OK");
    startAndExpose(1, 3);
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    const auto begin = Clock::now();
    expectStatus(0, "OK");
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1)) << "does not wait for the frame";
    bench->inDeviceConfigParameters()->get("Table")->getString();
    EXPECT_STREQ(bench->lastError(), "Acquisition is running");
    ASSERT_TRUE(bench.events->waitForEnd());
    expectStatus(1, "warm");
    expectBlocks(frames.at(0), 1, 2, 3000);
    sim::clearFaults(0);
    start(100000, 0.02);
    EXPECT_TRUE(soon([&] { return bench->deviceStatus() == 0 && bench->adcValue(1) > 0; }));
    sim::addFault(0, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
    ASSERT_TRUE(bench.events->waitForEnd());
    const Events seen = bench.events->seen();
    EXPECT_EQ(Events(seen.end() - 2, seen.end()), (Events{{FAILED, -1037}, {ABORTED, 0}}));
    EXPECT_FALSE(bench->isBusy());
    sim::clearFaults(0);
    reconnect();
}

TEST_F(Mpx2Series, LastEventStartsTheNextOneWhichHasTheModeOfItsStart)
{
    bench.events->onEvent = [&, left = 2](unsigned event) mutable {
        bench->setAcqMode(event == FINISHED ? 0U : unsigned{dv::ACQMODE_EXT_TRIGGER_START});
        if (event == FINISHED && left-- > 0) {
            EXPECT_EQ(bench->startAcquisition(1, 0.02), 0) << bench->lastError();
        }
    };
    start(1, 0.02);
    EXPECT_TRUE(soon([&] { return std::ranges::count(bench.events->seen(), Seen{FINISHED, 0}) == 3; }));
    bench.events->onEvent = nullptr;
}

TEST_F(Mpx2Series, RecoveryThatAStopCutsIsMadeUpFor)
{
    sim::addFault(0, behind(START, {{"kind", "hang"}}));
    start(3, 0.02);
    ASSERT_TRUE(soon([&] { return std::string(bench->lastError()) == "Acquisition timeout ()"; }));
    expectStop(0);
    sim::clearFaults(0);
}

TEST_F(Mpx2Series, ArgumentsThatNoDeviceTakes)
{
    for (const double time : {0.0, 1e6}) {
        EXPECT_EQ(bench->startAcquisition(1, time), 1);
        bench.expectError("Invalid acquisition time");
    }
    expectArgumentsRefused(bench);
    unsigned short one = 0;
    for (const int result :
         {bench->setTimer(-1), bench->setTimer(std::nan("")), bench->analogValue(0, nullptr),
          bench->writeMatrix(&one, ~std::size_t{0} / 4, false), bench->devInfo(nullptr), bench->devMpxInfo(nullptr),
          bench->devMpx2Info(nullptr), bench->chipIDList(nullptr), bench->sendRawData(nullptr, 6, 0, 0, 0)})
        EXPECT_EQ(result, 1);
    EXPECT_NE(bench->setDacs(&one, ~std::size_t{0} / 4, -1), 0);
    EXPECT_NE(bench->receiveRawData(nullptr, 6, 0, 0, 0), 0);
}

TEST(Mpx2SeriesWithoutChips, EndsWithAStop)
{
    BroughtUp<Mpx2Bench> bench(mpx2Board({}));
    ASSERT_EQ(bench->startAcquisition(100, 0.02), 0);
    sleepMs(300);
    EXPECT_EQ(bench->stopAcquisition(), 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
    EXPECT_TRUE(bench.events->waitFor({HWEVENT_ACQ_ABORTED, HWEVENT_ACQ_FAILED}));
    const long starts = bench.sent("55 02 05 01");
    sleepMs(300);
    EXPECT_EQ(bench.sent("55 02 05 01"), starts);
}

TEST(Mpx2SeriesDestroyed, LeavesTheObjectToTheThreadThatStillNeedsIt)
{
    struct Handler {
        std::atomic<bool> entered{false};
        std::promise<void> letGo{};
        static void take(unsigned event, long, void* user)
        {
            auto& self = *static_cast<Handler*>(user);
            if (event == HWEVENT_FRAME_READY && !self.entered.exchange(true))
                self.letGo.get_future().wait();
        }
    } handler;
    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    const nlohmann::json board = mpx2Board({1, 1});
    sim::loadBench({{"boards", {board}}, {"scene", flatScene(1000)}});
    auto* device =
        new HwLatixel::Mpx2Dev(board.at("description"), &host, folder.path(), folder / "latixel.ini", "A", false);
    ASSERT_EQ(device->initDevice(), 0);
    device->setEventFunc(&Handler::take, &handler);
    ASSERT_EQ(device->startAcquisition(1, 0.02), 0);
    ASSERT_TRUE(soon([&] { return handler.entered.load(); }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(device->closeDevice(), 1) << "waits for no handler longer than its limit";
    device->destroy();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
    EXPECT_EQ(sim::openSessions(), 1) << "the handler still runs on the device's thread";
    handler.letGo.set_value();
    EXPECT_TRUE(soon([&] { return sim::liveContexts() == 0; }));
    sleepMs(100);
    host.complainOfLeftovers();
    EXPECT_EQ(host.complaints(), Strings{});
    sim::clearBus();
}
