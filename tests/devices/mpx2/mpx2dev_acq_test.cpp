// Series on a Medipix2 or Timepix board: what goes over the wire, what the host is told, and how each of them ends.
#include "devices/mpx2/mpx2bench.h"

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

TEST_F(Mpx2Series, StopWhileItWaitsForTheReader)
{
    startWithoutReader();
    readTooLittle();
    EXPECT_TRUE(soon([&] { return bench.events->seen().size() == 2; }));
    expectStop(2);
}

TEST_F(Mpx2Series, StopIsNeverLost)
{
    std::mt19937 random(5);
    for (int i = 0; i < 40 && !HasFatalFailure(); ++i) {
        start(100000, 0.0002);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        expectStop();
    }
    // Also from the handler of the last frame.
    bench.events->onFrame = [this](long i) {
        bench.frame();
        if (i == 1)
            bench->stopAcquisition();
    };
    run(2, 0.01);
    EXPECT_EQ(bench.events->seen(), readyEvents(2, ABORTED));
}

TEST_F(Mpx2Series, StatusPollsDoNotHangBehindAFrame)
{
    const auto expectStatus = [&](int status, const char* text) {
        EXPECT_EQ(bench->deviceStatus(), status);
        EXPECT_STREQ(bench->deviceStatusText(), text);
    };
    expectStatus(0, "OK");
    startAndExpose(1, 3);
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    for (int poll = 0; poll < 2; ++poll) {
        const auto begin = Clock::now();
        expectStatus(0, "OK");
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
    }
    ASSERT_TRUE(bench.events->waitForEnd());
    expectStatus(1, "warm");
    expectBlocks(frames.at(0), 1, 2, 3000);
}

TEST_F(Mpx2Series, FrameThatTimesOutIsRepeatedBehindARecovery)
{
    bench->setBias(50);
    sim::addFault(0, behind(START, {{"kind", "hang"}}, 2));
    startAndTake(100000, 0.02, 4);
    expectStop();
    EXPECT_EQ(bench.events->seen(), readyEvents(static_cast<long>(frames.size()), ABORTED));
    EXPECT_EQ(bench.errors->take(), Strings{"Acquisition timeout ()"});
    for (const std::size_t i : {0U, 1U, 2U})
        expectBlocks(frames[i], 1, 2, 20);
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

TEST_F(Mpx2Series, CloseDuringASeriesEndsIt)
{
    for (const auto& [mode, time] : {std::pair{0U, 0.01}, {0U, 60.0}, {1U, 0.1}, {4U, 0.1}}) {
        SCOPED_TRACE(mode);
        bench->setAcqMode(mode);
        expectCloseInSeries(time, 100);
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
    }
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
