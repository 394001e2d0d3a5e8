// Series on a Medipix3 board: what goes over the wire, what the host is told, and how each of them ends.
#include "devices/mpx3bench.h"

#include <atomic>
#include <cmath>
#include <thread>

using support::Mpx3Bench;
using support::mpx3Board;
using support::Seen;
using support::soon;
using support::Wire;

namespace {

constexpr int MPX = 1;
constexpr int ACQ = 5;
constexpr auto READY = HWEVENT_FRAME_READY;
constexpr auto FINISHED = HWEVENT_ACQ_FINISHED;
constexpr auto FAILED = HWEVENT_ACQ_FAILED;
constexpr auto ABORTED = HWEVENT_ACQ_ABORTED;

const std::string TWO_CHANNELS = "[Settings]\nModule2=0\nModule3=0\nModule4=0\n";
const dv::_Mpx3Config CRW = {2, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0};

using Events = std::vector<Seen>;
using Frames = std::vector<std::vector<unsigned>>;

/// A board of two chips under flat light of 1000 counts per second, brought up.
class Mpx3Series : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(bench.dev().initDevice(), 0);
        ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
        bench->deviceStatus(); // the log goes to MSG, as in a host that polls
        bench.events->onFrame = [this](long) { frames.push_back(bench.frame()); };
        bench.wire();
    }
    void TearDown() override { bench.expectNoViolations(); }

    /// Lets a series run to its end.
    void run(unsigned count, double time)
    {
        frames.clear();
        bench.events->clear();
        ASSERT_EQ(bench->startAcquisition(count, time), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
    }
    /// Checks that a series of one kind works after whatever was done before.
    void expectNextSeriesWorks()
    {
        // The final event comes before the drain of a continuous series.
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        run(2, 0.02);
        EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {READY, 1}, {FINISHED, 0}}));
        ASSERT_EQ(frames.size(), 2U);
        expectLevel(frames[1], 20);
    }
    static void expectLevel(const std::vector<unsigned>& frame, unsigned counts)
    {
        ASSERT_EQ(frame.size(), 2U * 65536);
        EXPECT_EQ(std::ranges::count(frame, counts), static_cast<long>(frame.size())) << "first pixel is " << frame[0];
    }
    bool started() const
    {
        bool exposing = false;
        bench.board([&](sim::Mpx3Board& board) {
            exposing = std::ranges::any_of(board.frames(),
                                           [](const sim::Frame& f) { return f.peripheral == ACQ && f.command == 1; });
        });
        return exposing;
    }

    /// Whether the board is in continuous mode; switching it off is the last thing that such a series does.
    bool continuous() const
    {
        bool on = false;
        bench.board([&](sim::Mpx3Board& board) { on = board.continuousReadWrite(); });
        return on;
    }

    Mpx3Bench bench{mpx3Board(2), TWO_CHANNELS};
    Frames frames;
};

Wire preparation(int count32, int d0)
{
    return Wire()
        .cmd(0, ACQ, 3, count32 >> 24, count32 >> 16, count32 >> 8, count32)
        .cmd(0, ACQ, 4)
        // erase: readout images of all rows, data disabled, both counters out
        .cmd(0, MPX, 6, 0x30, 0x00, 0x08, 0x20)
        .cmd(0, MPX, 5, 0x00, 0x00, 0x10, 0x00)
        .cmd(0, MPX, 8, 0x30, 0x00, 0x28, 0x20)
        .cmd(0, MPX, 7, 0x00, 0x00, 0x10, 0x00)
        .cmd(0, MPX, 3, 0, 0, 0, 3)
        .cmd(2, MPX, 2, 3, 0x0C, 0x00, 0x22)
        // the series' own readout
        .cmd(0, MPX, 4, d0, 0x0C, 0x00, 0x22)
        .cmd(0, MPX, 6, 0x30, 0x00, 0x08, 0x20)
        .cmd(0, MPX, 5, 0x00, 0x00, 0x10, 0x00)
        .cmd(0, MPX, 8, 0x30, 0x00, 0x28, 0x20)
        .cmd(0, MPX, 7, 0x00, 0x00, 0x10, 0x00)
        .data(5, MPX, 255, support::padded({0x30, 0x00, 0x28, 0x20, 0x00, 0x00, 0x10}, 12))
        .cmd(0, ACQ, 5)
        .cmd(0, MPX, 3, 0, 0, 3, 3);
}

} // namespace

TEST_F(Mpx3Series, NormalSeriesOnTheWireAndAtTheHost)
{
    run(2, 0.15);
    Wire wire = preparation(15000000, 0);
    wire.cmd(2, ACQ, 1, 1).cmd(2, ACQ, 1, 1);
    EXPECT_EQ(bench.wire(), wire.lines());
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {READY, 1}, {FINISHED, 0}}));
    ASSERT_EQ(frames.size(), 2U);
    expectLevel(frames[0], 150);
    expectLevel(frames[1], 150);
    EXPECT_NEAR(bench->lastAcqTime(), 0.15, 1e-6);
    EXPECT_FALSE(bench->isBusy());
}

TEST_F(Mpx3Series, EveryDepthAndCounter)
{
    struct Case {
        unsigned char depth, counter;
        double time;
        unsigned expected;
    };
    const Case cases[] = {{0, 0, 0.05, 1},
                          {1, 0, 0.05, 50},
                          {2, 0, 0.05, 50},
                          {2, 1, 0.05, 50},
                          {2, 2, 0.05, 50U << 16 | 50},
                          {3, 0, 0.05, 50},
                          {1, 2, 0.02, 20U << 16 | 20}};
    for (const auto& c : cases) {
        SCOPED_TRACE("depth " + std::to_string(c.depth) + " counter " + std::to_string(c.counter));
        ASSERT_EQ(bench->setConfig({c.depth, 0, 0, c.counter, 1, 0, 0, 0, 1, 0, 0}), 0);
        run(1, c.time);
        ASSERT_EQ(frames.size(), 1U);
        expectLevel(frames[0], c.expected);
    }
    // Rows and columns: what is not read is 0.
    ASSERT_EQ(bench->setConfig({2, 13, 4, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    run(1, 0.05);
    EXPECT_EQ(std::ranges::count(frames.at(0), 50U), 2 * 8 * 128);
    EXPECT_EQ(frames[0][8 * 256], 0U);
}

TEST_F(Mpx3Series, BurstLetsTheBoardGoOnWhileTheHostReads)
{
    std::atomic<int> slow = 0;
    bench.events->onFrame = [&](long) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ++slow;
        frames.push_back(bench.frame());
    };
    run(20, 0.0999);
    EXPECT_EQ(frames.size(), 20U);
    EXPECT_EQ(bench.events->seen().back(), (Seen{FINISHED, 0}));
    std::vector<unsigned short> dacs(54, 5);
    EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size(), -1), 0) << "allowed again behind the series";
}

TEST_F(Mpx3Series, DacsDuringASeries)
{
    std::vector<unsigned short> dacs(54, 5);
    int inBurst = -1;
    bench.events->onFrame = [&](long i) {
        if (i == 0)
            inBurst = bench->setDacs(dacs.data(), dacs.size(), -1);
        frames.push_back(bench.frame());
    };
    run(2, 0.01);
    EXPECT_EQ(inBurst, 1);
    EXPECT_STREQ(bench->lastError(), "Cannot set DACs while acquisition is running in burst mode (AcqTime < 0.100000)");
    // With longer frames they are loaded between two frames, and the data path comes back.
    run(2, 0.1);
    EXPECT_EQ(inBurst, 0);
    EXPECT_EQ(frames.size(), 2U);
    bench.board([](sim::Mpx3Board& board) { EXPECT_EQ(board.dataMask(), 3); });
}

TEST_F(Mpx3Series, ContinuousReadWrite)
{
    ASSERT_EQ(bench->setConfig(CRW), 0);
    bench.wire();
    run(5, 0.12);
    EXPECT_EQ(bench.events->seen(),
              (Events{{READY, 0}, {READY, 1}, {READY, 2}, {READY, 3}, {READY, 4}, {FINISHED, 0}}));
    for (const auto& frame : frames)
        expectLevel(frame, 120);
    ASSERT_TRUE(soon([&] { return !continuous(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto image = [](int m) {
        return support::padded({0x30, 0x00, static_cast<std::uint8_t>(m), 0x20, 0, 0, 0x10}, 12);
    };
    Wire wire = preparation(12000000, 0);
    wire.cmd(0, MPX, 3, 0, 0, 0, 3)
        .cmd(0, MPX, 9, 0, 0, 0, 1)
        .data(5, MPX, 255, image(0x18)) // M 0, CRW_SRW
        .cmd(0, MPX, 4, 0, 0x0C, 0x00, 0x22)
        .cmd(0, MPX, 3, 0, 0, 3, 3)
        .cmd(2, ACQ, 1, 9, 0, 0, 4)
        .data(5, MPX, 255, image(0x28)) // M 4 again
        .cmd(0, MPX, 9);
    EXPECT_EQ(bench.wire(), wire.lines());
    // Short frames: the board does not wait for the host.
    run(30, 0.005);
    EXPECT_EQ(frames.size(), 30U);
    ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, TdiTakesOneStartForAllRows)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    bench.wire();
    run(3, 0.256);
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {READY, 1}, {READY, 2}, {FINISHED, 0}}));
    EXPECT_EQ(frames.size(), 3U);
    const auto lines = bench.wire();
    const auto start = std::ranges::find_if(lines, [](const std::string& l) { return l.starts_with("55 02 05 01"); });
    ASSERT_NE(start, lines.end());
    EXPECT_EQ(*start, "55 02 05 01 01 00 02 FF AA ") << "768 rows, the last is number 767";
    EXPECT_EQ(*(start - 1), "55 00 01 04 00 00 0C 22 AA ") << "one row of 256 columns and 12 bits";
    EXPECT_EQ(bench->omr().RowBlockSel, 0);
    bench->setAcqMode(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, TdiFramesCarryTheirRowTimes)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    std::vector<std::vector<double>> times;
    bench.events->onFrame = [&](long) {
        dv::IMpxFrame* frame = bench->lastData();
        ASSERT_NE(frame, nullptr);
        for (const auto& block : static_cast<refhost::Frame&>(*frame).metaData())
            times.push_back(block.numbers());
        frame->destroy();
    };
    run(2, 0.512);
    ASSERT_EQ(times.size(), 4U);
    ASSERT_EQ(times[0].size(), 256U);
    EXPECT_NEAR(times[0][0], 0.002, 1e-9);
    EXPECT_NEAR(times[0][255], 0.512, 1e-9);
    EXPECT_NEAR(times[2][7], 0.512, 1e-9);
    EXPECT_NEAR(times[3][0], 0.512, 1e-9);
}

TEST_F(Mpx3Series, CountZeroEndsAtOnce)
{
    run(0, 0.1);
    EXPECT_EQ(bench.events->seen(), (Events{{FINISHED, 0}}));
    bench.wire();
    bench->setAcqMode(dv::ACQMODE_TDI);
    run(0, 0.1);
    EXPECT_EQ(bench.events->seen(), (Events{{FINISHED, 0}}));
    const auto lines = bench.wire();
    EXPECT_EQ(std::ranges::count(lines, "55 02 05 01 01 FF FF FF AA "), 1) << "the board is started all the same";
}

TEST_F(Mpx3Series, SoftwareTriggerStartsEachFrame)
{
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    bench.events->onWaitTrigger = [&] { bench->doSoftwareTrigger(0); };
    run(2, 0.01);
    const Events events = bench.events->seen();
    EXPECT_EQ(std::ranges::count(events, Seen{HWEVENT_WAIT_TRIGGER, 0}), 2);
    EXPECT_EQ(frames.size(), 2U);
    // A stop while it waits.
    bench.events->onWaitTrigger = nullptr;
    bench.events->clear();
    ASSERT_EQ(bench->startAcquisition(5, 30.0), 0);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), (Events{{HWEVENT_WAIT_TRIGGER, 0}, {ABORTED, 0}}));
    bench->setAcqMode(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, ExternalTriggerStartsTheFrame)
{
    bench->setAcqMode(3); // with both bits the start bit wins
    bench.events->clear();
    ASSERT_EQ(bench->startAcquisition(1, 0.02), 0);
    ASSERT_TRUE(soon([&] { return started(); }));
    EXPECT_TRUE(bench.events->seen().empty());
    EXPECT_TRUE(bench->isBusy());
    sim::pulseTrigger(0);
    ASSERT_TRUE(bench.events->waitForEnd());
    expectLevel(frames.at(0), 20);
    const auto lines = bench.wire();
    EXPECT_EQ(std::ranges::count(lines, "55 02 05 01 03 00 00 00 AA "), 1);
}

TEST_F(Mpx3Series, StopCutsALongFrame)
{
    bench.events->clear();
    ASSERT_EQ(bench->startAcquisition(3, 60.0), 0);
    ASSERT_TRUE(soon([&] { return started(); }));
    EXPECT_EQ(bench->deviceStatus(), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    EXPECT_EQ(bench.events->seen(), (Events{{ABORTED, 0}}));
    EXPECT_LT(bench->lastAcqTime(), 10.0) << "the board's measure of the cut frame";
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, StopWithoutASeriesSendsNothing)
{
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_TRUE(bench.wire().empty());
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, StopInAContinuousSeries)
{
    ASSERT_EQ(bench->setConfig(CRW), 0);
    std::atomic<int> count = 0;
    bench.events->onFrame = [&](long) {
        bench.frame();
        ++count;
    };
    ASSERT_EQ(bench->startAcquisition(10000, 0.01), 0);
    ASSERT_TRUE(soon([&] { return count > 3; }));
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
    ASSERT_TRUE(soon([&] { return !continuous(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    bench.events->onFrame = [this](long) { frames.push_back(bench.frame()); };
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, StopInATdiSeries)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    ASSERT_EQ(bench->startAcquisition(1000, 0.2), 0);
    ASSERT_TRUE(bench.events->waitFor({READY}));
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
    bench->setAcqMode(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, HostThatTakesNoFrameHoldsABurstUntilItStops)
{
    bench.events->onFrame = nullptr;
    ASSERT_EQ(bench->startAcquisition(100, 0.01), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const Events events = bench.events->seen();
    EXPECT_LE(std::ranges::count(events, READY, &Seen::event), 1)
        << "the second frame waits for the first one's reader";
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
    bench.events->onFrame = [this](long) { frames.push_back(bench.frame()); };
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, SilentBoardEndsTheSeriesWithAnError)
{
    sim::addFault(0, {{"kind", "silence"}, {"when", {{"after_written", "55 02 05 01"}}}, {"seconds", 3.5}});
    run(3, 0.05);
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}, {FINISHED, 0}}));
    EXPECT_STREQ(bench->lastError(), "Acquisition timeout (Timeout. Not received packet)");
    sim::clearFaults(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, LinkThatDiesInAFrameEndsTheSeries)
{
    sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", "55 02 05 01"}}}});
    run(3, 0.05);
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}, {FINISHED, 0}}));
    // A host that reconnects the device goes on.
    sim::plug(0);
    bench->closeDevice();
    ASSERT_EQ(bench->initDevice(), 0);
    ASSERT_EQ(bench->chipCount(), 2);
    ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, LinkErrorInAStreamIsToldWithItsCode)
{
    // The first read behind the start is the packet, the second the stream.
    ASSERT_EQ(bench->startAcquisition(2, 0.3), 0);
    ASSERT_TRUE(soon([&] { return started(); }));
    sim::addFault(0, {{"kind", "error"},
                      {"on", "read"},
                      {"result", -9},
                      {"text", "overflow"},
                      {"times", 1},
                      {"when", {{"after_reads", 1}}}});
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -9}, {FINISHED, 0}}));
    EXPECT_TRUE(std::string(bench->lastError()).starts_with("Cannot read matrix ")) << bench->lastError();
    sim::clearFaults(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, ShortAndGarbledStreamsAreDecodedAsTheyCame)
{
    ASSERT_EQ(bench->startAcquisition(1, 0.3), 0);
    ASSERT_TRUE(soon([&] { return started(); }));
    sim::addFault(0, {{"kind", "short_read"}, {"bytes", 5000}, {"when", {{"after_reads", 1}}}});
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {FINISHED, 0}}));
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0][0], 300U);
    EXPECT_EQ(frames[0][65535], 0U) << "rows that did not come are 0";
    sim::clearFaults(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    frames.clear();
    bench.events->clear();
    ASSERT_EQ(bench->startAcquisition(1, 0.3), 0);
    ASSERT_TRUE(soon([&] { return started(); }));
    sim::addFault(0, {{"kind", "garbage"}, {"when", {{"after_reads", 1}}}, {"times", 20}});
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen().back().event, FINISHED);
    sim::clearFaults(0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, StartCommandThatFailsInSingleStartSeries)
{
    ASSERT_EQ(bench->setConfig(CRW), 0);
    sim::addFault(0, {{"kind", "error"},
                      {"on", "write"},
                      {"result", -1},
                      {"text", "usb bulk write failed"},
                      {"when", {{"after_written", "55 00 01 04"}, {"occurrence", 2}}}});
    ASSERT_EQ(bench->startAcquisition(3, 0.05), 0);
    ASSERT_TRUE(bench.events->waitFor({FAILED}));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}}));
    sim::clearFaults(0);
    bench->closeDevice();
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->omr().CRW_SRW, 0) << "bring-up forgets the series";
    ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Series, CloseDuringASeriesEndsIt)
{
    for (const unsigned mode : {0U, static_cast<unsigned>(dv::ACQMODE_TDI)}) {
        bench.events->onFrame = nullptr; // a TDI series then waits for its reader
        bench->setAcqMode(mode);
        ASSERT_EQ(bench->startAcquisition(100, 0.2), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        bench->closeDevice();
        EXPECT_FALSE(bench->isConnected());
        ASSERT_EQ(bench->initDevice(), 0);
    }
    bench->setAcqMode(0);
    bench.events->onFrame = [this](long) { frames.push_back(bench.frame()); };
    ASSERT_EQ(bench->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    expectNextSeriesWorks();
}

TEST(Mpx3SeriesShapes, TwoChipsOnAChannelAndFiveChannels)
{
    for (const int chips : {1, 2}) {
        SCOPED_TRACE(chips);
        Mpx3Bench bench(mpx3Board(5, chips));
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->chipCount(), 5 * chips);
        std::vector<unsigned> frame;
        bench.events->onFrame = [&](long) { frame = bench.frame(); };
        for (const auto depth : {1, 2, 3}) {
            ASSERT_EQ(bench->setConfig({static_cast<unsigned char>(depth), 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
            bench.events->clear();
            ASSERT_EQ(bench->startAcquisition(1, 0.04), 0);
            ASSERT_TRUE(bench.events->waitForEnd());
            ASSERT_EQ(frame.size(), 5U * 65536 * static_cast<unsigned>(chips));
            EXPECT_EQ(std::ranges::count(frame, 40U), static_cast<long>(frame.size())) << depth;
        }
        bench.expectNoViolations();
    }
}

TEST(Mpx3SeriesShapes, TdiOfFiveChannelsIntegratesWhileRowsMove)
{
    // The layout of the row records fits five channels alone.
    Mpx3Bench bench(mpx3Board(5));
    ASSERT_EQ(bench->initDevice(), 0);
    bench->setAcqMode(dv::ACQMODE_TDI);
    for (const bool both : {false, true}) {
        SCOPED_TRACE(both);
        ASSERT_EQ(bench->setConfig({2, 0, 0, static_cast<unsigned char>(both ? 2 : 0), 1, 0, 0, 0, 1, 0, 0}), 0);
        std::vector<std::vector<unsigned>> frames;
        bench.events->onFrame = [&](long) { frames.push_back(bench.frame()); };
        bench.events->clear();
        ASSERT_EQ(bench->startAcquisition(3, 0.256), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
        ASSERT_EQ(frames.size(), 3U);
        // One count in each of up to 256 rows: the first frame's rows have come a shorter way.
        const unsigned unit = both ? 0x10001 : 1;
        EXPECT_EQ(frames[0][0], unit);
        EXPECT_EQ(frames[0][4 * 65536 + 255 * 256 + 3], 256 * unit);
        for (const std::size_t i : {1U, 2U})
            EXPECT_EQ(std::ranges::count(frames[i], 256 * unit), 5 * 65536);
    }
    bench.expectNoViolations();
}
