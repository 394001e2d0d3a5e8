// Series on a Medipix3 board: what goes over the wire, what the host is told, and how each of them ends.
#include "devices/mpx3/mpx3bench.h"

using namespace support;

namespace {

const dv::_Mpx3Config CRW = {2, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0};

class Mpx3Series : public SeriesTest<Mpx3Bench, 1> {
protected:
    Mpx3Series() : SeriesTest(mpx3Board({1, 1}), TWO_CHANNELS) {}

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->setConfig(plainConfig()), 0);
        bench->deviceStatus(); // the log goes to MSG, as in a host that polls
        takeFrames();
        bench.wire();
    }
    void expectNextSeriesWorks() override
    {
        sleepMs(600); // The final event comes before the drain of a continuous series.
        ASSERT_EQ(bench->setConfig(plainConfig()), 0);
        SeriesTest::expectNextSeriesWorks();
    }
    /// Lets a series run to its end with a fault that begins in the first exposure.
    void runWithFault(unsigned count, const nlohmann::json& fault)
    {
        startAndExpose(count, 0.3);
        sim::addFault(0, fault);
        ASSERT_TRUE(bench.events->waitForEnd());
        sim::clearFaults(0);
    }
    /// Waits until continuous mode is off, which is the last thing that a continuous series does.
    bool soonDrained() const
    {
        return soon([this] {
            bool on = true;
            bench.board([&](sim::Mpx3Board& board) { on = board.continuousReadWrite(); });
            return !on;
        });
    }
};

BoardWire preparation(std::uint32_t ticks)
{
    BoardWire images;
    images.number(0, MPX, 6, 0x30000820).number(0, MPX, 5, 0x1000);
    images.number(0, MPX, 8, 0x30002820).number(0, MPX, 7, 0x1000);
    BoardWire wire;
    wire.number(0, ACQ, 3, ticks).cmd(0, ACQ, 4);
    // erase: readout images of all rows, data disabled, both counters out
    wire += images;
    wire.number(0, MPX, 3, 3).cmd(2, MPX, 2, 3, 0x0C, 0x00, 0x22);
    // the series' own readout
    wire.number(0, MPX, 4, 0x0C0022);
    wire += images;
    wire.data(5, MPX, 255, padded({0x30, 0x00, 0x28, 0x20, 0x00, 0x00, 0x10}, 12)).cmd(0, ACQ, 5);
    return wire.number(0, MPX, 3, 0x303);
}

} // namespace

TEST_F(Mpx3Series, NormalSeriesOnTheWireAndAtTheHost)
{
    expectSeries(2, 0.15);
    BoardWire wire = preparation(15000000);
    wire.cmd(2, ACQ, 1, 1).cmd(2, ACQ, 1, 1);
    EXPECT_EQ(bench.wire(), wire.lines());
    EXPECT_NEAR(bench->lastAcqTime(), 0.15, 1e-6);
    constexpr auto BUSY = HWEVENT_BUSY_CHANGED;
    EXPECT_EQ(bench.events->all(),
              (Events{{BUSY, 1}, {BUSY, 0}, {READY, 0}, {BUSY, 1}, {BUSY, 0}, {READY, 1}, {FINISHED, 0}}));
    // Rows and columns: what is not read is 0.
    ASSERT_EQ(bench->setConfig({2, 13, 4, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    run(1, 0.05);
    EXPECT_EQ(std::ranges::count(frames.at(0), 50U), 2 * 8 * 128);
    EXPECT_EQ(frames[0][8 * 256], 0U);
}

TEST_F(Mpx3Series, BurstLetsTheBoardGoOnWhileTheHostReadsButNoDacs)
{
    takeFrames(15);
    expectSeries(20, 0.01);
    const std::vector<unsigned short> dacs(54, 5);
    int inSeries = -1;
    bench.events->onFrame = [&](long i) {
        if (i == 0)
            inSeries = bench.setDacs(dacs);
        frames.push_back(bench.frame());
    };
    run(2, 0.0999);
    EXPECT_EQ(inSeries, 1);
    EXPECT_STREQ(bench->lastError(), "Cannot set DACs while acquisition is running in burst mode (AcqTime < 0.100000)");
    EXPECT_EQ(bench.setDacs(dacs), 0) << "allowed again behind the series";
    // With longer frames they are loaded between two frames, and the data path comes back.
    run(2, 0.1);
    EXPECT_EQ(inSeries, 0);
    EXPECT_EQ(frames.size(), 2U);
    bench.board([](sim::Mpx3Board& board) { EXPECT_EQ(board.dataMask(), 3); });
}

TEST_F(Mpx3Series, ContinuousReadWrite)
{
    ASSERT_EQ(bench->setConfig(CRW), 0);
    expectSeries(5, 0.12);
    ASSERT_TRUE(soonDrained());
    sleepMs(50);
    const auto image = [](std::uint8_t m) { return padded({0x30, 0x00, m, 0x20, 0, 0, 0x10}, 12); };
    BoardWire wire = preparation(12000000);
    wire.number(0, MPX, 3, 3).number(0, MPX, 9, 1);
    wire.data(5, MPX, 255, image(0x18)); // M 0, CRW_SRW
    wire.number(0, MPX, 4, 0x0C0022).number(0, MPX, 3, 0x303).number(2, ACQ, 1, 0x09000004);
    wire.data(5, MPX, 255, image(0x28)).cmd(0, MPX, 9); // M 4 again
    EXPECT_EQ(bench.wire(), wire.lines());
    // Short frames: the board does not wait for the host.
    expectSeries(30, 0.005);
}

TEST_F(Mpx3Series, TdiTakesOneStartForAllRowsAndTellsTheirTimes)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    std::vector<std::vector<double>> times;
    bench.events->onFrame = [&](long) {
        const refhost::FramePtr frame = refhost::adopt(bench->lastData());
        for (const auto& block : frame->metaData())
            times.push_back(block.numbers());
    };
    run(1, 0.256);
    times.clear(); // a series' times begin anew
    run(3, 0.256);
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    const auto lines = bench.wire();
    const auto start = std::ranges::find_if(lines, [](const std::string& l) { return l.starts_with(START); });
    ASSERT_NE(start, lines.end());
    EXPECT_EQ(*start, "55 02 05 01 01 00 02 FF AA ") << "768 rows, the last is number 767";
    EXPECT_EQ(*(start - 1), "55 00 01 04 00 00 0C 22 AA ") << "one row of 256 columns and 12 bits";
    EXPECT_EQ(bench->omr().RowBlockSel, 0);
    ASSERT_EQ(times.size(), 6U);
    ASSERT_EQ(times[0].size(), 256U);
    EXPECT_NEAR(times[0][0], 0.001, 1e-9);
    EXPECT_NEAR(times[0][255], 0.256, 1e-9);
    EXPECT_NEAR(times[2][7], 0.256, 1e-9);
    EXPECT_NEAR(times[3][0], 0.256, 1e-9);
}

TEST_F(Mpx3Series, CountZeroEndsAtOnce)
{
    worksAtTheEnd = false; // the board goes on with its rows
    expectSeries(0, 0.1);
    bench->setAcqMode(dv::ACQMODE_TDI);
    expectSeries(0, 0.1);
    EXPECT_EQ(bench.sent("55 02 05 01 01 FF FF FF AA "), 1) << "the board is started all the same";
}

TEST_F(Mpx3Series, SoftwareTriggerStartsEachFrame)
{
    expectSoftwareTriggers();
}

TEST_F(Mpx3Series, ExternalTriggerStartsTheFrame)
{
    bench->setAcqMode(3); // with both bits the start bit wins
    startAndExpose(1, 0.02);
    EXPECT_TRUE(bench.events->seen().empty());
    EXPECT_TRUE(bench->isBusy());
    sim::pulseTrigger(0);
    ASSERT_TRUE(bench.events->waitForEnd());
    expectBlocks(frames.at(0), 1, 2, 20);
    EXPECT_EQ(bench.sent("55 02 05 01 03 00 00 00 AA "), 1);
}

TEST_F(Mpx3Series, StopInEachState)
{
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_TRUE(bench.wire().empty()) << "nothing is sent without a series";
    startAndExpose(3, 60.0);
    EXPECT_EQ(bench->deviceStatus(), 0);
    expectStop(0);
    EXPECT_LT(bench->lastAcqTime(), 10.0) << "the board's measure of the cut frame";
    expectNextSeriesWorks();
    // In a burst the second frame waits for the first one's reader.
    startWithoutReader();
    expectStop();
    expectNextSeriesWorks();
    ASSERT_EQ(bench->setConfig(CRW), 0);
    startAndTake(10000, 0.01, 4);
    expectStop();
    ASSERT_TRUE(soonDrained());
}

TEST_F(Mpx3Series, LinkThatFailsInAFrameEndsTheSeriesWithAnError)
{
    runWithFault(3, {{"kind", "silence"}, {"seconds", 3.5}});
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}, {FINISHED, 0}}));
    EXPECT_STREQ(bench->lastError(), "Acquisition timeout (Timeout. Not received packet)");
    expectNextSeriesWorks();
    // The first read behind the start is the packet, the second the stream.
    nlohmann::json noStream = linkError("read");
    noStream["when"] = {{"after_reads", 1}};
    runWithFault(2, noStream);
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -9}, {FINISHED, 0}}));
    bench.expectError("Cannot read matrix ");
    expectNextSeriesWorks();
    runWithFault(3, {{"kind", "unplug"}});
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}, {FINISHED, 0}}));
    sim::plug(0);
    reconnect();
}

TEST_F(Mpx3Series, GarbledStreamIsDecodedAsItCame)
{
    runWithFault(1, {{"kind", "garbage"}, {"when", {{"after_reads", 1}}}, {"times", 20}});
    EXPECT_EQ(bench.events->seen().back().event, FINISHED);
}

TEST_F(Mpx3Series, StartCommandThatFailsInSingleStartSeries)
{
    ASSERT_EQ(bench->setConfig(CRW), 0);
    sim::addFault(0, behind("55 00 01 04", linkError("write", 1000), 2));
    expectGivenUp(3, 0.05);
    sim::clearFaults(0);
    reconnect();
    EXPECT_EQ(bench->omr().CRW_SRW, 0) << "bring-up forgets the series";
}

TEST(Mpx3SeriesShapes, EveryDepthAndCounter)
{
    struct Case {
        int depth, counter;
        unsigned expected;
    };
    constexpr Case CASES[] = {
        {0, 0, 1}, {1, 0, 40}, {2, 0, 40}, {2, 1, 40}, {2, 2, 40U << 16 | 40}, {3, 0, 40}, {1, 2, 40U << 16 | 40}};
    for (const auto& channels : {std::vector{1, 1}, {1, 1, 1, 1, 1}, {2, 2, 2, 2, 2}}) {
        BroughtUp<Mpx3Bench> bench(mpx3Board(channels), channels.size() == 2 ? TWO_CHANNELS : "");
        for (const auto& [depth, counter, expected] : CASES) {
            SCOPED_TRACE(testing::Message()
                         << bench->chipCount() << " chips, depth " << depth << ", counter " << counter);
            ASSERT_EQ(bench->setConfig(plainConfig(counter, depth)), 0);
            expectBlocks(bench.series(1, 0.04).at(0), 1, bench.chipIds().size(), expected);
        }
    }
}

TEST(Mpx3SeriesShapes, TdiOfFiveChannelsIntegratesWhileRowsMove)
{
    // The layout of the row records fits five channels alone.
    BroughtUp<Mpx3Bench> bench(mpx3Board({1, 1, 1, 1, 1}));
    bench->setAcqMode(dv::ACQMODE_TDI);
    for (const int counter : {0, 2}) {
        SCOPED_TRACE(counter);
        ASSERT_EQ(bench->setConfig(plainConfig(counter)), 0);
        const auto frames = bench.series(3, 0.256);
        ASSERT_EQ(frames.size(), 3U);
        // One count in each of up to 256 rows: the first frame's rows have come a shorter way.
        const unsigned unit = counter == 2 ? 0x10001 : 1;
        EXPECT_EQ(frames[0][0], unit);
        EXPECT_EQ(frames[0][4 * 65536 + 255 * 256 + 3], 256 * unit);
        expectBlocks(frames[1], 1, 5, 256 * unit);
        expectBlocks(frames[2], 1, 5, 256 * unit);
    }
}
