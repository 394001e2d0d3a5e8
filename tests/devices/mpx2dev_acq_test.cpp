// Series on a Medipix2 or Timepix board: what goes over the wire, what the host is told, and how each of them ends.
#include "devices/mpx2bench.h"

#include <atomic>
#include <random>

using namespace support;

namespace {

constexpr auto READY = HWEVENT_FRAME_READY;
constexpr auto FINISHED = HWEVENT_ACQ_FINISHED;
constexpr auto FAILED = HWEVENT_ACQ_FAILED;
constexpr auto ABORTED = HWEVENT_ACQ_ABORTED;

constexpr const char* START = "55 02 05 01";

using Clock = std::chrono::steady_clock;
using Events = std::vector<Seen>;

/// Events of a series of so many frames.
Events ready(long frames, unsigned end)
{
    Events events;
    for (long i = 0; i < frames; ++i)
        events.push_back({READY, i});
    events.push_back({end, 0});
    return events;
}

/// Two modules of a chip each under flat light of 1000 counts per second, brought up.
class Mpx2Series : public testing::Test {
protected:
    void SetUp() override { bringUp(); }
    void TearDown() override { bench.expectNoViolations(); }

    void bringUp()
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->chipCount(), 2);
        bench.countAll();
        takeFrames();
        bench.wire();
    }
    void takeFrames()
    {
        bench.events->onFrame = [this](long) { frames.push_back(bench.frame()); };
    }
    void start(unsigned count, double time)
    {
        frames.clear();
        bench.events->clear();
        ASSERT_EQ(bench->startAcquisition(count, time), 0);
    }
    /// Lets a series run to its end.
    void run(unsigned count, double time)
    {
        start(count, time);
        ASSERT_TRUE(bench.events->waitForEnd());
    }
    void expectNextSeriesWorks()
    {
        bench->setAcqMode(0);
        takeFrames();
        run(2, 0.02);
        EXPECT_EQ(bench.events->seen(), ready(2, FINISHED));
        ASSERT_EQ(frames.size(), 2U);
        expectLevel(frames[1], 20);
        EXPECT_FALSE(bench->isBusy());
    }
    static void expectLevel(const std::vector<unsigned short>& frame, unsigned short counts)
    {
        ASSERT_FALSE(frame.empty());
        EXPECT_EQ(std::ranges::count(frame, counts), static_cast<long>(frame.size())) << "first pixel is " << frame[0];
    }
    bool exposing() const
    {
        return soon([&] { return bench.sent(START) > 0; });
    }
    /// Stops the series, which ends without another frame.
    void expectStop()
    {
        const auto begin = Clock::now();
        EXPECT_EQ(bench->stopAcquisition(), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
        // A frame whose trigger never came sends nothing: two silences of the link.
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
        EXPECT_FALSE(bench->isBusy());
    }

    Mpx2Bench bench{mpx2Board({1, 1})};
    std::vector<std::vector<unsigned short>> frames;
};

Mpx2Wire parallelReadout()
{
    Mpx2Wire wire;
    wire.mux(3).alive(OUTEN).readout(2 * 114721 + 9 - 10, 917766);
    return wire;
}

Mpx2Wire serialReadout()
{
    Mpx2Wire wire;
    for (const int mask : {1, 2})
        wire.mux(mask).alive(ENIN | OUTEN).alive(OUTEN).readout(114721 + 7 - 10, 917766);
    return wire;
}

/// A series of 20 ms frames, from its preparation on.
Mpx2Wire seriesWire(const Mpx2Wire& readout, int count)
{
    Mpx2Wire wire;
    wire.cmd(0, 5, 3, 0x00, 0x0F, 0x42, 0x40)
        .cmd(0, 5, 4)
        .cmd(0, 5, 0x10, 0, 0, 0, 100)
        .cmd(0, 5, 0x11, 0, 0, 0, 1)
        .cmd(0, 5, 7, 0, 0, 0, 100)
        .cmd(0, 5, 0x14, 0, 0, 0, 10)
        .cmd(0, 5, 0x15, 0, 0, 0, 100);
    wire += readout;
    wire.cmd(0, 5, 5);
    for (int i = 0; i < count; ++i) {
        wire.alive(ENIN | ACQOVER).cmd(2, 5, 1, 0, 0, 0, 1);
        wire.alive(ENIN).cmd(2, 1, 0);
        wire += readout;
    }
    return wire;
}

} // namespace

TEST_F(Mpx2Series, FramesOnTheWireAndAtTheHost)
{
    double volts = 0;
    bench->setBias(50);
    bench->biasVoltageCurrentSense(&volts, nullptr);
    bench.wire();
    bool busyInHandler = true;
    bench.events->onFrame = [&](long i) {
        frames.push_back(bench.frame());
        bench->biasVoltageCurrentSense(&volts, nullptr);
        if (i == 1)
            busyInHandler = bench->isBusy();
    };
    run(2, 0.02);
    EXPECT_EQ(bench.wire(), seriesWire(parallelReadout(), 2).lines()) << "and no ADC between the frames";
    EXPECT_EQ(bench.events->seen(), ready(2, FINISHED));
    EXPECT_FALSE(busyInHandler);
    ASSERT_EQ(frames.size(), 2U);
    for (const auto& frame : frames)
        expectLevel(frame, 20);
    EXPECT_EQ(bench->lastAcqTime(), 0.02);

    // Outside a series the chips are read afresh, which clears them.
    const std::vector<unsigned short> counts(bench.pixels(), 77);
    ASSERT_EQ(bench->writeMatrix(counts.data(), counts.size(), true), 0);
    const refhost::FramePtr frame = refhost::adopt(bench->lastData());
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(static_cast<int>(frame->type()), 2);
    EXPECT_EQ(frame->width(), 512U);
    EXPECT_EQ(frame->height(), 256U);
    EXPECT_EQ(frame->pixel(131071), 77U);
    ASSERT_EQ(frame->metaData().size(), 2U);
    EXPECT_EQ(frame->metaData()[0].name + frame->metaData()[0].description, "BiasCurrentSenseBias Current Sense [V]");
    EXPECT_EQ(frame->metaData()[1].name + frame->metaData()[1].description, "BiasVoltageSenseBias Voltage Sense [V]");
    EXPECT_EQ(static_cast<int>(frame->metaData()[1].type), 9);
    EXPECT_EQ(frame->metaData()[1].numbers(), std::vector<double>{volts});
    expectLevel(bench.frame(), 0);

    bench.wire();
    run(0, 0.02);
    EXPECT_EQ(bench.events->seen(), ready(0, FINISHED));
    EXPECT_EQ(bench.wire(), seriesWire(parallelReadout(), 0).lines());
}

TEST(Mpx2SeriesShapes, SerialReadoutAndBiasByTheCpu)
{
    for (const auto& shape : {std::vector{1, 1}, {2, 2}, {1, 1, 1, 1, 1}}) {
        Mpx2Bench bench(mpx2Board(shape, biasCpu()), "[Settings]\nReadParallel=0\n");
        ASSERT_EQ(bench->initDevice(), 0);
        bench.countAll();
        bench->setBias(50);
        bench->biasVoltageCurrentSense(nullptr, nullptr);
        std::vector<unsigned short> pixels;
        double temperature = 0;
        bench.events->onFrame = [&](long) {
            const refhost::FramePtr frame = refhost::adopt(bench->lastData());
            const auto* first = static_cast<const unsigned short*>(frame->dataPointer(0.0));
            pixels.assign(first, first + frame->pixelCount());
            temperature = frame->findMetaData("DetectorTemperature")->numbers().at(0);
        };
        bench.wire();
        bench->startAcquisition(1, 0.02);
        ASSERT_TRUE(bench.events->waitForEnd());
        if (shape.size() == 2 && shape[0] == 1) {
            EXPECT_EQ(bench.wire(), seriesWire(serialReadout(), 1).lines());
        }
        EXPECT_EQ(pixels.size(), bench.pixels());
        EXPECT_EQ(std::ranges::count(pixels, 20), static_cast<long>(bench.pixels()));
        EXPECT_EQ(temperature, 25.0);
        bench.expectNoViolations();
    }
}

TEST_F(Mpx2Series, AThousandFramesNoneLost)
{
    std::atomic<long> taken = 0;
    std::atomic<long> wrong = 0;
    bench.events->onFrame = [&](long i) {
        wrong += i == taken ? 0 : 1;
        const auto frame = bench.frame();
        wrong += frame.size() == bench.pixels() && frame.front() == 1 && frame.back() == 1 ? 0 : 1;
        ++taken;
    };
    start(1000, 0.001);
    ASSERT_TRUE(bench.events->waitForEnd()) << taken;
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(bench.events->seen(), ready(1000, FINISHED));
}

TEST_F(Mpx2Series, SoftwareTriggerStartsEachFrame)
{
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    bench.events->onWaitTrigger = [&] { bench->doSoftwareTrigger(0); };
    run(3, 0.01);
    EXPECT_EQ(std::ranges::count(bench.events->seen(), Seen{HWEVENT_WAIT_TRIGGER, 0}), 3);
    EXPECT_EQ(frames.size(), 3U);
    // A stop instead of a trigger: nothing is exposed.
    bench.events->onWaitTrigger = nullptr;
    bench.wire();
    start(5, 30.0);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    expectStop();
    EXPECT_EQ(bench.sent(START), 0);
    EXPECT_EQ(bench.events->seen(), (Events{{HWEVENT_WAIT_TRIGGER, 0}, {ABORTED, 0}}));
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, ExternalTriggerStartsOrEndsTheFrame)
{
    // Mode 3 is mode 1: the timer ends the frame.
    for (const auto& [mode, command] : {std::pair{1U, "55 02 05 01 02 00 00 01 AA "},
                                        {3U, "55 02 05 01 02 00 00 01 AA "},
                                        {2U, "55 02 05 01 04 00 00 01 AA "}}) {
        SCOPED_TRACE(mode);
        bench->setAcqMode(mode);
        bench.wire();
        start(1, 0.02);
        ASSERT_TRUE(exposing());
        EXPECT_EQ(bench.sent(command), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        EXPECT_TRUE(bench.events->seen().empty());
        EXPECT_TRUE(bench->isBusy());
        sim::pulseTrigger(0);
        ASSERT_TRUE(bench.events->waitForEnd());
        ASSERT_EQ(frames.size(), 1U);
        if (mode == 2)
            EXPECT_GE(frames[0][0], 60) << "open until the trigger came";
        else
            expectLevel(frames[0], 20);
        // A stop while the trigger does not come.
        bench.wire();
        start(3, 0.02);
        ASSERT_TRUE(exposing());
        expectStop();
        EXPECT_EQ(bench.events->seen(), ready(0, ABORTED));
    }
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, StopWithoutASeriesOrInALongFrame)
{
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_EQ(bench.wire(), Wire().cmd(2, 5, 2).lines());
    expectNextSeriesWorks();
    bench.wire();
    start(3, 60.0);
    ASSERT_TRUE(exposing());
    expectStop();
    EXPECT_EQ(bench.events->seen(), ready(0, ABORTED));
    EXPECT_EQ(bench->lastAcqTime(), 60.0) << "the time asked for, whatever the board has measured";
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, StopWhileItWaitsForTheReader)
{
    bench.events->onFrame = nullptr;
    bench.wire();
    start(100, 0.01);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}}));
    EXPECT_EQ(bench.sent(START), 2) << "the next frame is exposed, but not read";
    // An array that is too small frees it all the same.
    std::vector<unsigned short> less(65536);
    EXPECT_EQ(bench->readMatrix(less.data(), less.size(), true), 1);
    EXPECT_TRUE(soon([&] { return bench.events->seen().size() == 2; }));
    expectStop();
    EXPECT_EQ(bench.events->seen(), ready(2, ABORTED));
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, StopIsNeverLost)
{
    std::mt19937 random(5);
    for (int i = 0; i < 40; ++i) {
        start(100000, 0.0002);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        expectStop();
        if (HasFatalFailure())
            return;
    }
    // Also from the handler of the last frame.
    bench.events->onFrame = [this](long i) {
        if (i == 1)
            bench->stopAcquisition();
        else
            bench.frame();
    };
    run(2, 0.01);
    EXPECT_EQ(bench.events->seen(), ready(2, ABORTED));
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, StatusPollsDoNotHangBehindAFrame)
{
    EXPECT_EQ(bench->deviceStatus(), 0);
    EXPECT_STREQ(bench->deviceStatusText(), "OK");
    start(1, 0.8);
    ASSERT_TRUE(exposing());
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    for (int poll = 0; poll < 2; ++poll) {
        const auto begin = Clock::now();
        EXPECT_EQ(bench->deviceStatus(), 0);
        EXPECT_STREQ(bench->deviceStatusText(), "OK");
        EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(300));
    }
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench->deviceStatus(), 1);
    EXPECT_STREQ(bench->deviceStatusText(), "warm");
    expectLevel(frames.at(0), 800);
}

TEST_F(Mpx2Series, FrameThatTimesOutIsRepeatedBehindARecovery)
{
    bench->setBias(50);
    bench.wire();
    sim::addFault(0, {{"kind", "hang"}, {"when", {{"after_written", START}, {"occurrence", 2}}}});
    std::atomic<int> taken = 0;
    bench.events->onFrame = [&](long) {
        frames.push_back(bench.frame());
        ++taken;
    };
    start(100000, 0.02);
    ASSERT_TRUE(soon([&] { return taken > 3; }));
    expectStop();
    const auto seen = bench.events->seen();
    EXPECT_EQ(seen, ready(static_cast<long>(seen.size()) - 1, ABORTED));
    EXPECT_EQ(bench.errors, std::vector<std::string>{"Acquisition timeout ()"});
    expectLevel(frames[0], 20);
    // For the rest of the series the host's reads go to the chips, and find them read out.
    expectLevel(frames[1], 0);
    expectLevel(frames[2], 0);
    bench.board([](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(1).dac(0), 9U);
        EXPECT_EQ(board.biasCode(), 141);
    });
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, ReadThatComesShortIsRepeated)
{
    sim::addFault(0, {{"kind", "short_stream"}, {"readouts", 1}, {"when", {{"after_written", START}}}});
    run(2, 0.02);
    EXPECT_EQ(bench.events->seen(), ready(2, FINISHED));
    EXPECT_EQ(bench.sent(START), 3);
    EXPECT_EQ(bench.errors,
              (std::vector<std::string>{"Reading matrix failed - not enough data received (228442 < 229451)",
                                        "Reading matrix from device failed, reattempting acq."}));
    ASSERT_EQ(frames.size(), 2U);
    for (const auto& frame : frames)
        expectLevel(frame, 20);
}

TEST_F(Mpx2Series, RecoveryThatFailsEndsTheSeriesWithoutAnEnd)
{
    sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", START}}}});
    start(3, 0.02);
    ASSERT_TRUE(bench.events->waitFor({FAILED}));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}}));
    EXPECT_STREQ(bench->lastError(), "Could not recover device");
    EXPECT_TRUE(bench->isBusy());
    sim::plug(0);
    bench->closeDevice();
    bringUp();
    EXPECT_FALSE(bench->isBusy());
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, CloseDuringASeriesEndsIt)
{
    for (const auto& [mode, time] : {std::pair{0U, 0.01}, {0U, 60.0}, {1U, 0.1}, {4U, 0.1}}) {
        SCOPED_TRACE(mode);
        bench->setAcqMode(mode);
        bench.events->onFrame = nullptr;
        start(100, time);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        bench->closeDevice();
        EXPECT_FALSE(bench->isConnected());
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
        bringUp();
    }
    expectNextSeriesWorks();
}

TEST_F(Mpx2Series, ExposureInTwoHalves)
{
    ASSERT_EQ(bench->prepareAcquisition(0.3), 0);
    bench.wire();
    ASSERT_EQ(bench->startSingleAcquisition(), 0);
    EXPECT_EQ(bench->waitForAcqFinish(true), 0);
    EXPECT_EQ(
        bench.wire(),
        Mpx2Wire().alive(ENIN | ACQOVER).cmd(2, 5, 1, 0, 0, 0, 1).cmd(0, 1, 1, 0, 0, 0x08, 0xA7).cmd(2, 1, 0).lines());
    expectLevel(bench.frame(), 300);
    ASSERT_EQ(bench->prepareAcquisition(1.6), 0);
    ASSERT_EQ(bench->startSingleAcquisition(), 0);
    EXPECT_EQ(bench->waitForAcqFinish(true), -4) << "too short for it";
    EXPECT_STREQ(bench->lastError(), "Acquisition timeout ()");
    bench.board([](sim::Mpx2Board& board) { EXPECT_NE(board.pins() & ACQOVER, 0); });
    EXPECT_EQ(bench->waitForAcqFinish(false), 0);
    expectLevel(bench.frame(), 1600);
}
