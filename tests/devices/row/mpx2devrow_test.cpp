// A row board: its bring-up, chips and series, of frames and of rows, on the wire and at the host.
#include "devices/mpx2/mpx2bench.h"

#include <future>

using namespace support;

namespace {

const Strings TWO = {"", "C01-W0100", "", "C02-W0100"};
const Strings SEVEN = {"A01-W0001", "A02-W0001", "A03-W0001", "A04-W0001", "A05-W0001", "A06-W0001", "A07-W0001"};
constexpr const char* MATRIX_WRITE = "55 07 01 00 00 01 C0 21 AA + 114721";

Mpx2Wire readout()
{
    Mpx2Wire wire;
    wire.mux(0x0A).alive(OUTEN).number(2, MPX, 4, 917767);
    return wire.alive(ENIN);
}

Mpx2Wire preparation(std::uint32_t ticks, std::uint32_t bits)
{
    Mpx2Wire wire;
    wire.timer(ticks).clocks(100, 1, 100);
    wire += readout();
    wire.number(2, MPX, 5, bits).cmd(0, ACQ, 5);
    return wire;
}

class RowSeries : public TpxSeries<RowBench> {
protected:
    RowSeries() : TpxSeries(rowBoard(TWO)) {}

    void setRows(int rows) const
    {
        bench->setAcqMode(dv::ACQMODE_TDI);
        bench.set("TdiRowCount", rows);
    }
};

} // namespace

TEST(RowBringUp, SendsItsStepsInOrder)
{
    constexpr unsigned AWAKE = ENIN | M0 | OUTEN;
    RowBench bench(rowBoard(TWO));
    ASSERT_EQ(bench->initDevice(), 0);
    Mpx2Wire wire;
    wire.identify().powerCycle(AWAKE).alive(AWAKE).number(2, MPX, 2, 0xFF);
    wire.stream({0xAA, 0xFF, 0x55, 0xAA, 0xFF}).reset(AWAKE);
    wire.mux(2).readIds(1).mux(8).readIds(1).number(0, ACQ, 0x13, 5);
    EXPECT_EQ(bench.wire(), wire.lines());
    EXPECT_EQ(bench.errors->take(), Strings{});
    EXPECT_TRUE(bench.host.messages().empty());
    EXPECT_EQ(bench.info().acqModeMask, 0x27U);
    for (const char* line : {"Active channels: 1 3 \n", "Channel 3, ChipID 1 is: C02-W0100\n", "Switch channel (3)"})
        EXPECT_TRUE(bench.logged(line)) << line;
}

TEST(RowBringUp, ChipsThatTellNothingDoNotDecideTheKind)
{
    RowBench bench(rowBoard(TWO));
    // The last line breaks down once its chip has been found.
    sim::addFault(0, behind("55 00 01 02 00 00 00 02", {{"kind", "stuck_line"}, {"channel", 3}, {"level", 0}}));
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.chipIds(), (Strings{"C01-W0100", "000-W0000"}));
    EXPECT_TRUE(bench->isTimepix());
}

TEST(RowBringUp, FindsTheChipsOfAllChannelsWithAnyFirmware)
{
    BroughtUp<RowBench> bench(rowBoard(SEVEN, {{"firmware", "Firmware 1.7 TLA"}}));
    ASSERT_EQ(bench.host.messages().size(), 1U);
    EXPECT_TRUE(bench.host.messages()[0].text.ends_with("\nPlease use Firmware 1.2 TRA (11.10.2016)."));
    // The last two can't be reached alone: the pulled-up lines look like a chip.
    Strings found = SEVEN;
    found[5] = found[6] = "O-3-W2047";
    EXPECT_EQ(bench.chipIds(), found);
    countAll(bench);
    EXPECT_EQ(bench->eraseMatrix(), 0);
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.channelMask(), 0x7F);
        EXPECT_EQ(board.chip(4).dac(0), 9U);
        EXPECT_EQ(board.chip(5).dac(0), 0U);
    });
    // Another bring-up with one chip less, and with none.
    sim::addFault(0, {{"kind", "chip_missing"}, {"channel", 1}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.chipIds().size(), 6U);
    for (int channel : {0, 2, 3, 4, 5, 6})
        sim::addFault(0, {{"kind", "chip_missing"}, {"channel", channel}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.errors->take(), Strings{"No chip connected"});
}

TEST_F(RowSeries, ConfigurationReachesTheChipsAndComesBack)
{
    worksAtTheEnd = false;
    const auto counts = randomNumbers<unsigned short>(bench.pixels(), 11810);
    ASSERT_EQ(bench.write(counts), 0);
    RowBench::Pixels less(70000); // takes what fits
    EXPECT_EQ(bench.read(less), 0);
    EXPECT_TRUE(std::equal(less.begin(), less.end(), counts.begin()));

    std::vector<unsigned char> cfg(bench.pixels(), 0x02);
    cfg[65536 + 300] = 0x07;
    bench.wire();
    ASSERT_EQ(bench.setPixelCfg(cfg), 0);
    EXPECT_EQ(bench.sent(MATRIX_WRITE), 2);
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.chip(1).configuration()[300], 0);
        EXPECT_EQ(board.chip(3).configuration()[300], 1U << 7 | 1U << 8);
    });

    bench.wire();
    EXPECT_EQ(bench->setBias(50), 0);
    EXPECT_EQ(bench.wire(), BoardWire().bias(141).lines());
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}});
    EXPECT_EQ(bench->deviceStatus(), 1);
    EXPECT_NEAR(bench->parameters()->get("Temperature")->getFloat(), 31.5, 0.13);
}

TEST_F(RowSeries, FramesOnTheWireAndAtTheHost)
{
    expectSeries(2, 0.02);
    Mpx2Wire wire = preparation(2000000, 3591);
    for (int i = 0; i < 2; ++i) {
        wire.exposure(1);
        wire += readout();
    }
    EXPECT_EQ(bench.wire(), wire.lines());
}

TEST_F(RowSeries, RowsOnTheWireAndAtTheHost)
{
    std::vector<refhost::FramePtr> taken;
    bench.events->onFrame = [&](long) { taken.push_back(refhost::adopt(bench->lastData())); };
    for (const unsigned rows : {1U, 4U}) {
        SCOPED_TRACE(rows);
        taken.clear();
        setRows(static_cast<int>(rows));
        run(3, 0.256);
        Mpx2Wire wire = preparation(100000, rows * 3592 - 1);
        EXPECT_EQ(bench.wire(), wire.exposure(0x01000000U | 3 * 256 / rows).lines());
        EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
        EXPECT_EQ(bench->lastAcqTime(), 0.256);
        ASSERT_EQ(taken.size(), 3U);
        // A row counts from where it enters the chip to where it is read; how long a step takes is the timer's affair.
        for (unsigned row = 0; row < 256; row += 51)
            EXPECT_EQ(taken[0]->pixel(65536 + row * 256 + 9), row / rows + 1) << row;
        for (std::size_t i = 0; i < 2 * 65536; i += 509)
            EXPECT_EQ(taken[2]->pixel(i), 256 / rows) << i;
        // So its time rises over the first frame.
        const auto exposures = [&](std::size_t frame) { return taken[frame]->metaData().at(0).numbers(); };
        const auto starts = [&](std::size_t frame) { return taken[frame]->metaData().at(1).numbers(); };
        EXPECT_NEAR(exposures(0)[0], 0.001, 1e-9);
        for (const double time : {exposures(0)[255], exposures(1)[0], exposures(1)[255], starts(1)[0]})
            EXPECT_NEAR(time, 0.256, 1e-9);
        EXPECT_EQ(starts(0)[0], 0.0);
        EXPECT_TRUE(refhost::adopt(bench->lastData())->metaData().empty()) << "none behind the series";
    }
    EXPECT_EQ(bench->prepareAcquisition(2.56), 0);
    bench.board([](sim::RowBoard& board) { EXPECT_EQ(board.timerCount(), 1000000U) << "10 ms"; });
    bench->setAcqMode(0);
    run(1, 0.02);
    EXPECT_TRUE(taken.back()->metaData().empty()) << "nor in a series of frames";
}

TEST_F(RowSeries, AnyNumberOfRowsStaysInsideTheBuffers)
{
    for (const int rows : {255, 1000}) {
        SCOPED_TRACE(rows);
        setRows(rows);
        run(1, 0.0512);
        EXPECT_EQ(bench.events->seen(), readyEvents(1, FINISHED));
        EXPECT_EQ(frames.at(0).at(255 * 256 - 1), rows == 255 ? 9 : 0);
        EXPECT_EQ(frames.at(0).at(255 * 256), 0) << "a row that did not come";
    }
    for (const int rows : {0, -3}) {
        SCOPED_TRACE(rows);
        setRows(rows);
        startAndExpose(2, 0.0512);
        expectStop();
    }
}

TEST_F(RowSeries, StopEndsEveryState)
{
    startAndExpose(5, 30);
    expectStop(0);
    // While the reader is waited for.
    for (const unsigned mode : {0U, unsigned{dv::ACQMODE_TDI}}) {
        bench->setAcqMode(mode);
        bench.events->onFrame = nullptr;
        startAndTake(50, 0.02, 1);
        sleepMs(300);
        expectStop(1);
    }
}

TEST_F(RowSeries, StopOfRowsGoesOutBeforeTheLinkIsEmptied)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    startAndTake(1000, 0.0256, 1);
    std::vector<unsigned char> some(50000);
    auto other = std::async(std::launch::async, [&] {
        bench->receiveRawData(some.data(), some.size(), 0, 0, 0); // keeps the stop's command back for a while
    });
    sleepMs(2);
    const auto begin = Clock::now();
    expectStop();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(9)) << "the link is not emptied without end";
}

TEST_F(RowSeries, HeatRefusesAllButTheBias)
{
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    start(3, 0.05);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    sim::addFault(0, {{"kind", "cpu_overheated"}});
    EXPECT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
    EXPECT_EQ(bench->stopAcquisition(), 1);
    ASSERT_TRUE(bench.events->waitForEnd()) << "it ends all the same";
    for (const int result : {bench->setTimer(1), bench->eraseMatrix(), bench.setDacs(RowBench::Pixels(28)),
                             bench.setPixelCfg({1}), bench.write({1}, false)})
        EXPECT_EQ(result, 1);
    EXPECT_STREQ(bench->lastError(), TOO_HOT);
    EXPECT_EQ(bench->setBias(50), 0);
    sim::clearFaults(0);
    bringUp();
}

TEST_F(RowSeries, FailedFrameIsRepeatedBehindARecovery)
{
    ASSERT_EQ(bench.setPixelCfg(std::vector<unsigned char>(bench.pixels(), 0x0A)), 0);
    sim::addFault(0, behind(START, {{"kind", "hang"}}, 2));
    expectSeries(3, 0.02);
    EXPECT_EQ(bench.sent(MATRIX_WRITE), 4) << "the configuration twice";
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.chip(3).dac(0), 9U);
        EXPECT_EQ(board.chip(3).configuration()[5], 1U << 12);
    });
}

TEST_F(RowSeries, FailuresForGood)
{
    loseBoard();
    EXPECT_FALSE(bench->isBusy()) << "unlike on other boards, the flags are cleared";
    sim::plug(0);
    ASSERT_EQ(bench->recoverDevice(), 0);
    expectNextSeriesWorks();
    // A series of rows that can't be started leaves the device busy.
    bench->setAcqMode(dv::ACQMODE_TDI);
    startAndExpose(3, 2.56);
    sleepMs(100); // the board has answered
    sim::unplug(0);
    expectStop();
    expectGivenUp(3, 2.56);
    EXPECT_TRUE(bench->isBusy());
    sim::plug(0);
    bringUp();
    EXPECT_FALSE(bench->isBusy());
}

TEST_F(RowSeries, ShortStreamsAreMarked)
{
    const auto missingBytes = [](const refhost::FramePtr& frame) {
        const auto* block = frame->findMetaData("MissingBytes");
        return block == nullptr ? 0.0 : block->numbers().at(0);
    };
    std::vector<refhost::FramePtr> taken;
    bench.events->onFrame = [&](long) { taken.push_back(refhost::adopt(bench->lastData())); };
    sim::addFault(0, behind(START, {{"kind", "short_stream"}, {"readouts", 1}}));
    run(2, 0.02);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_GT(missingBytes(taken[0]), 0);
    EXPECT_EQ(missingBytes(taken[1]), 0);
    EXPECT_TRUE(bench.logged("Frame 0 is incomplete: "));
    // The rows of a stopped frame, decoded as rows, whatever the stop does.
    bench->setAcqMode(dv::ACQMODE_TDI);
    startAndExpose(5, 2.56);
    sleepMs(500);
    expectStop();
    ASSERT_EQ(taken.size(), 3U);
    EXPECT_GT(missingBytes(taken[2]), 0);
    EXPECT_NE(taken[2]->findMetaData("RowAcqTimes"), nullptr);
}

TEST_F(RowSeries, SeriesOfRowsIsOneTurn)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    int inHandler = 0;
    bench.events->onEvent = [&](unsigned event) { inHandler += event == READY ? bench->eraseMatrix() : 0; };
    startAndExpose(3, 0.256);
    EXPECT_EQ(bench->eraseMatrix(), 1);
    EXPECT_STREQ(bench->lastError(), "Acquisition is running");
    EXPECT_EQ(bench->setBias(20), 0) << "brings no answer";
    EXPECT_EQ(bench->deviceStatus(), 0) << "the last value";
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(inHandler, 3);
    bench.events->onEvent = nullptr;
    // A stop ends the refusal, and who waits goes on once the link is empty.
    startAndTake(1000, 0.256, 1);
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
    ASSERT_TRUE(bench.events->waitForEnd());
}

TEST_F(RowSeries, CountsOfRowsFitTheCommands)
{
    setRows(5000);
    EXPECT_EQ(bench->prepareAcquisition(0.256), 0);
    EXPECT_EQ(bench.sent("55 02 01 05 00 FF F5 EF"), 1) << "bits of 4670 rows";
    setRows(1);
    EXPECT_EQ(bench->startAcquisition(65536, 0.256), 1) << "2^24 blocks";
    bench.expectError("Too many frames");
}
