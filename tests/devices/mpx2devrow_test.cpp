// A row board: its bring-up, chips and series, of frames and of rows, on the wire and at the host.
#include "devices/mpx2bench.h"

#include "chipdata/mpx2dacs.h"

#include <future>
#include <random>

using namespace support;

namespace {

constexpr auto READY = HWEVENT_FRAME_READY;
constexpr auto FINISHED = HWEVENT_ACQ_FINISHED;
constexpr auto FAILED = HWEVENT_ACQ_FAILED;
constexpr auto ABORTED = HWEVENT_ACQ_ABORTED;

constexpr const char* START = "55 02 05 01";
using Events = std::vector<Seen>;

const std::vector<std::string> TWO = {"", "C01-W0100", "", "C02-W0100"};
constexpr int TWO_MASK = 0x0A;
const std::vector<std::string> SEVEN = {"A01-W0001", "A02-W0001", "A03-W0001", "A04-W0001",
                                        "A05-W0001", "A06-W0001", "A07-W0001"};

Mpx2Wire readout()
{
    Mpx2Wire wire;
    wire.mux(TWO_MASK).alive(OUTEN).number(2, 1, 4, 917767).alive(ENIN);
    return wire;
}

Mpx2Wire preparation(std::uint32_t ticks, std::uint32_t bits)
{
    Mpx2Wire wire;
    wire.number(0, 5, 3, ticks).cmd(0, 5, 4).cmd(0, 5, 0x10, 0, 0, 0, 100).cmd(0, 5, 0x11, 0, 0, 0, 1);
    wire.cmd(0, 5, 7, 0, 0, 0, 100).cmd(0, 5, 0x14, 0, 0, 0, 10).cmd(0, 5, 0x15, 0, 0, 0, 100);
    wire += readout();
    wire.number(2, 1, 5, bits).cmd(0, 5, 5);
    return wire;
}

Events ready(long frames, Seen end)
{
    Events events;
    for (long i = 0; i < frames; ++i)
        events.push_back({READY, i});
    events.push_back(end);
    return events;
}

void setRows(const RowBench& bench, int rows)
{
    bench->parameters()->get("TdiRowCount")->setInt32(rows);
}

/// Two chips under flat light of 1000 counts per second, brought up.
class RowSeries : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench.chips(), 2U);
        bench.countAll();
        bench.wire();
    }
    void TearDown() override { bench.expectNoViolations(); }

    void start(unsigned count, double time, bool reads = true)
    {
        frames.clear();
        times.clear();
        bench.events->clear();
        bench.events->onFrame = [this, reads](long) {
            if (reads)
                takeFrame();
        };
        ASSERT_EQ(bench->startAcquisition(count, time), 0);
    }
    void takeFrame()
    {
        const refhost::FramePtr frame = refhost::adopt(bench->lastData());
        ASSERT_NE(frame, nullptr);
        const auto* first = static_cast<const unsigned short*>(frame->dataPointer(0.0));
        frames.emplace_back(first, first + frame->pixelCount());
        for (const auto& block : frame->metaData())
            times.push_back(block.numbers());
    }
    void run(unsigned count, double time)
    {
        start(count, time);
        ASSERT_TRUE(bench.events->waitForEnd());
    }
    bool exposing() const
    {
        return soon([&] { return bench.sent(START) > 0; });
    }
    void expectStop()
    {
        EXPECT_EQ(bench->stopAcquisition(), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
        EXPECT_FALSE(bench->isBusy());
    }
    void expectNextSeriesWorks()
    {
        bench->setAcqMode(0);
        run(2, 0.02);
        EXPECT_EQ(bench.events->seen(), ready(2, {FINISHED, 0}));
        ASSERT_EQ(frames.size(), 2U);
        expectLevel(frames[1], 20);
    }
    static void expectLevel(const std::vector<unsigned short>& frame, unsigned short counts)
    {
        ASSERT_EQ(frame.size(), 2U * 65536);
        EXPECT_EQ(std::ranges::count(frame, counts), static_cast<long>(frame.size())) << "first pixel is " << frame[0];
    }

    RowBench bench{rowBoard(TWO)};
    std::vector<std::vector<unsigned short>> frames;
    std::vector<std::vector<double>> times; ///< of their rows
};

} // namespace

TEST(RowBringUp, SendsItsStepsInOrder)
{
    constexpr unsigned AWAKE = ENIN | M0 | OUTEN;
    RowBench bench(rowBoard(TWO));
    ASSERT_EQ(bench->initDevice(), 0);
    const std::vector<unsigned short> dacs = {20, 255, 255, 255, 255, 255, 300, 255, 255, 255, 255, 255, 255, 255};
    Bytes ids(33);
    dacsToStreamTPX(dacs.data(), ids.data(), 1, 0, 0, 0, 0);
    Mpx2Wire wire;
    wire.cmd(2, 2, 1);
    wire.spiExchange(2, 3, padded({0x03}, 1024));
    wire.cpu({5}, 100).cpu({5}, 100).cpu({3}, 4096).cpu({4}, 4096).cpu({4}, 4096);
    wire.pins(AWAKE).cpu({0x80, 4}, 6).pins(PWR | AWAKE).cpu({0x80, 3}, 6);
    wire.alive(AWAKE).cmd(2, 1, 2, 0, 0, 0, 0xFF);
    wire.stream({0xAA, 0xFF, 0x55, 0xAA, 0xFF}).reset(AWAKE);
    wire.mux(2).dacs(ids).mux(8).dacs(ids).cmd(0, 5, 0x13, 0, 0, 0, 5);
    EXPECT_EQ(bench.wire(), wire.lines());
    EXPECT_TRUE(bench.errors.empty());
    EXPECT_TRUE(bench.host.messages().empty());

    dv::_DevMpxInfo info;
    bench->devMpxInfo(&info);
    EXPECT_EQ(info.chipTotal, 2U);
    EXPECT_EQ(info.acqModeMask, 0x27U);
    EXPECT_EQ(info.biasMax, 90.0);
    for (const char* line : {"Active channels: 1 3 \n", "Channel 3, ChipID 1 is: C02-W0100\n", "Switch channel (3)"})
        EXPECT_NE(bench.log().find(line), std::string::npos) << line;
    std::vector<std::string> names;
    for (auto* param : bench->parameters()->params())
        names.emplace_back(param->name());
    EXPECT_EQ(names, (std::vector<std::string>{"HwLibVer", "Firmware", "Temperature", "DebugLog",
                                               "PreShutterClockCount", "PreShutterClockDivider",
                                               "PreShutterDelayClockCount", "TriggerStg", "TriggerWaitForReady",
                                               "TriggerMaster", "TriggerOutLevel", "TdiRowCount", "TempCpu", "*Fan"}));
    bench->closeDevice();
    EXPECT_EQ(bench->setTimer(1), 1) << "and no way to a closed link";
    bench.expectNoViolations();
}

TEST(RowBringUp, FindsTheChipsOfAllChannelsWithAnyFirmware)
{
    RowBench bench(rowBoard(SEVEN, {{"firmware", "Firmware 1.7 TLA"}}));
    ASSERT_EQ(bench->initDevice(), 0);
    ASSERT_EQ(bench.host.messages().size(), 1U);
    EXPECT_TRUE(bench.host.messages()[0].text.ends_with("\nPlease use Firmware 1.2 TRA (11.10.2016)."));
    dv::StrList ids;
    bench->chipIDList(&ids);
    // The last two can't be reached alone: the pulled-up lines look like a chip.
    EXPECT_EQ(ids.vect(), (std::vector<std::string>{"A01-W0001", "A02-W0001", "A03-W0001", "A04-W0001", "A05-W0001",
                                                    "O-3-W2047", "O-3-W2047"}));
    bench.countAll();
    EXPECT_EQ(bench->eraseMatrix(), 0);
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.channelMask(), 0x7F);
        EXPECT_EQ(board.chip(4).dac(0), 9U);
        EXPECT_EQ(board.chip(5).dac(0), 0U);
    });
    // Another bring-up with one chip less, and with none.
    sim::addFault(0, {{"kind", "chip_missing"}, {"channel", 1}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.chips(), 6U);
    for (int channel : {0, 2, 3, 4, 5, 6})
        sim::addFault(0, {{"kind", "chip_missing"}, {"channel", channel}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_TRUE(bench->isConnected());
    EXPECT_EQ(bench.errors, std::vector<std::string>{"No chip connected"});
    EXPECT_EQ(bench->setTimer(1), 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
    EXPECT_EQ(bench->setBias(10), 0);
    bench.expectNoViolations();
}

TEST_F(RowSeries, ConfigurationReachesTheChipsAndComesBack)
{
    std::mt19937 random(3);
    std::vector<unsigned short> counts(2 * 65536);
    for (auto& count : counts)
        count = static_cast<unsigned short>(random() % 11810);
    ASSERT_EQ(bench->writeMatrix(counts.data(), counts.size(), true), 0);
    std::vector<unsigned short> back(counts.size());
    ASSERT_EQ(bench->readMatrix(back.data(), back.size(), true), 0);
    EXPECT_EQ(back, counts);
    // An array that is too small takes what fits.
    ASSERT_EQ(bench->writeMatrix(counts.data(), counts.size(), true), 0);
    std::vector<unsigned short> less(70000);
    EXPECT_EQ(bench->readMatrix(less.data(), less.size(), true), 0);
    EXPECT_TRUE(std::equal(less.begin(), less.end(), counts.begin()));

    std::vector<unsigned char> cfg(2 * 65536, 0x02);
    cfg[65536 + 300] = 0x07;
    bench.wire();
    ASSERT_EQ(bench->setPixelCfg(cfg.data(), cfg.size()), 0);
    EXPECT_EQ(bench.sent("55 07 01 00 00 01 C0 21 AA + 114721"), 2);
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.chip(1).configuration()[300], 0);
        EXPECT_EQ(board.chip(3).configuration()[300], 1U << 7 | 1U << 8);
    });

    ASSERT_EQ(bench->setTimer(1), 0);
    bench.board([](sim::RowBoard& board) { EXPECT_EQ(board.timerCount(), 100000000U); });
    bench.wire();
    EXPECT_EQ(bench->setBias(50), 0);
    Mpx2Wire wire;
    wire.cmd(0, 4, 1, 0x10, 0, 0, 5).data(0, 4, 0, {141}).cmd(0, 4, 2, 0, 0, 0, 4).cmd(0, 4, 3).cmd(0, 4, 2);
    wire.cmd(2, 1, 0);
    EXPECT_EQ(bench.wire(), wire.lines());
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}});
    EXPECT_EQ(bench->deviceStatus(), 1);
    EXPECT_NEAR(bench->parameters()->get("Temperature")->getFloat(), 31.5, 0.13);
}

TEST_F(RowSeries, FramesOnTheWireAndAtTheHost)
{
    run(2, 0.02);
    Mpx2Wire wire = preparation(2000000, 3591);
    for (int i = 0; i < 2; ++i) {
        wire.alive(ENIN | ACQOVER).cmd(2, 5, 1, 0, 0, 0, 1);
        wire.alive(ENIN).cmd(2, 1, 0);
        wire += readout();
    }
    EXPECT_EQ(bench.wire(), wire.lines());
    EXPECT_EQ(bench.events->seen(), ready(2, {FINISHED, 0}));
    ASSERT_EQ(frames.size(), 2U);
    for (const auto& frame : frames)
        expectLevel(frame, 20);
    EXPECT_TRUE(times.empty());
}

TEST_F(RowSeries, RowsOnTheWireAndAtTheHost)
{
    for (const unsigned rows : {1U, 4U}) {
        SCOPED_TRACE(rows);
        bench->setAcqMode(dv::ACQMODE_TDI);
        setRows(bench, static_cast<int>(rows));
        bench.wire();
        run(3, 0.256);
        Mpx2Wire wire = preparation(100000, rows * 3592 - 1);
        wire.alive(ENIN | ACQOVER).number(2, 5, 1, 0x01000000U | 3 * 256 / rows).alive(ENIN).cmd(2, 1, 0);
        EXPECT_EQ(bench.wire(), wire.lines());
        EXPECT_EQ(bench.events->seen(), ready(3, {FINISHED, 0}));
        ASSERT_EQ(frames.size(), 3U);
        // A row counts from where it enters the chip to where it is read; how long a step takes is the timer's affair.
        for (unsigned row = 0; row < 256; row += 51)
            EXPECT_EQ(frames[0][65536 + row * 256 + 9], row / rows + 1) << row;
        expectLevel(frames[2], static_cast<unsigned short>(256 / rows));
        ASSERT_EQ(times.size(), 6U);
        EXPECT_NEAR(times[0][0], 0.001, 1e-9);
        EXPECT_NEAR(times[0][255], 0.256, 1e-9);
        EXPECT_NEAR(times[4][0], 0.256, 1e-9);
        EXPECT_NEAR(times[5][0], 0.512, 1e-9);
        EXPECT_EQ(bench->lastAcqTime(), 0.256);
        takeFrame();
        EXPECT_EQ(times.size(), 6U) << "none behind the series";
    }
    EXPECT_EQ(bench->prepareAcquisition(2.56), 0);
    bench.board([](sim::RowBoard& board) { EXPECT_EQ(board.timerCount(), 1000000U) << "10 ms"; });
    expectNextSeriesWorks();
}

TEST_F(RowSeries, AnyNumberOfRowsStaysInsideTheBuffers)
{
    for (const int rows : {255, 1000}) {
        SCOPED_TRACE(rows);
        bench->setAcqMode(dv::ACQMODE_TDI);
        setRows(bench, rows);
        run(1, 0.0512);
        EXPECT_EQ(bench.events->seen(), ready(1, {FINISHED, 0}));
        ASSERT_EQ(frames.at(0).size(), 2U * 65536);
        EXPECT_EQ(frames[0][255 * 256 - 1], rows == 255 ? 9 : 0);
        EXPECT_EQ(frames[0][255 * 256], 0) << "a row that did not come";
    }
    for (const int rows : {0, -3}) {
        SCOPED_TRACE(rows);
        setRows(bench, rows);
        bench.wire();
        start(2, 0.0512);
        ASSERT_TRUE(exposing());
        expectStop();
    }
    setRows(bench, 1);
    expectNextSeriesWorks();
    bench->closeDevice();
    EXPECT_EQ(bench->readContinuousMatrixFromDevice(~0UL), 0) << "more than any memory holds, from no link";
    bench->setAcqMode(dv::ACQMODE_TDI);
    start(2, 0.1);
    EXPECT_TRUE(bench.events->waitFor({FAILED}));
}

TEST_F(RowSeries, StopEndsEveryState)
{
    // The software trigger does not come; nor the external one; a long frame.
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    start(5, 30);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    expectStop();
    for (const unsigned mode : {1U, 0U}) {
        bench->setAcqMode(mode);
        bench.wire();
        start(5, 30);
        ASSERT_TRUE(exposing());
        expectStop();
        EXPECT_EQ(bench.events->seen(), (Events{{ABORTED, 0}}));
    }
    expectNextSeriesWorks();
    // While the reader is waited for, the stop counts from the host's next read on: in a series of either kind.
    for (const unsigned mode : {0U, unsigned{dv::ACQMODE_TDI}}) {
        bench->setAcqMode(mode);
        start(50, 0.02, false);
        ASSERT_TRUE(bench.events->waitFor({READY}));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(bench->stopAcquisition(), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        EXPECT_EQ(bench.events->seen().size(), 1U);
        bench.frame();
        ASSERT_TRUE(bench.events->waitForEnd());
        expectNextSeriesWorks();
    }
    // At any time.
    std::mt19937 random(5);
    for (int i = 0; i < 20; ++i) {
        bench->setAcqMode(i % 2 == 0 ? 0U : unsigned{dv::ACQMODE_TDI});
        start(1000, 0.0256);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
        expectStop();
    }
    expectNextSeriesWorks();
}

TEST_F(RowSeries, SecondStartWaitsForTheGapBetweenFrames)
{
    bench.wire();
    start(3, 0.1, false);
    ASSERT_TRUE(exposing());
    auto second = std::async(std::launch::async, [&] { return bench->startAcquisition(1, 0.05); });
    const auto ends = [&] { return std::ranges::count(bench.events->seen(), Seen{FINISHED, 0}); };
    // Without a reader neither series would end, whatever the machine does besides.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (ends() < 2 && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        bench.frame();
    }
    EXPECT_EQ(second.get(), 0);
    EXPECT_EQ(ends(), 2);
}

TEST_F(RowSeries, HeatRefusesAllButTheBias)
{
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    start(3, 0.05);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    sim::addFault(0, {{"kind", "cpu_overheated"}});
    EXPECT_EQ(bench->deviceStatus(), 2);
    EXPECT_EQ(bench->stopAcquisition(), 1);
    ASSERT_TRUE(bench.events->waitForEnd()) << "it ends all the same";
    std::vector<unsigned short> words(2 * 65536);
    std::vector<unsigned char> cfg(words.size());
    EXPECT_EQ(bench->setTimer(1), 1);
    EXPECT_STREQ(bench->lastError(), "Device allowed temperature exceeded, chips turned off.");
    for (const int result :
         {bench->setInterfaceDac(0, 1), bench->eraseMatrix(), bench->setDacs(words.data(), 28, -1),
          bench->setPixelCfg(cfg.data(), cfg.size()), bench->writeMatrix(words.data(), words.size(), false),
          bench->readMatrix(words.data(), words.size(), false)})
        EXPECT_EQ(result, 1);
    EXPECT_EQ(bench->setBias(50), 0);
    sim::clearFaults(0);
    ASSERT_EQ(bench->initDevice(), 0);
    bench.countAll();
    expectNextSeriesWorks();
}

TEST_F(RowSeries, FailedFrameIsRepeatedBehindARecovery)
{
    std::vector<unsigned char> cfg(2 * 65536, 0x0A);
    ASSERT_EQ(bench->setPixelCfg(cfg.data(), cfg.size()), 0);
    bench->setBias(50);
    bench.wire();
    sim::addFault(0, {{"kind", "hang"}, {"when", {{"after_written", START}, {"occurrence", 2}}}});
    run(3, 0.02);
    EXPECT_EQ(bench.events->seen(), ready(3, {FINISHED, 0}));
    EXPECT_EQ(bench.errors, std::vector<std::string>{"Acquisition timeout ()"});
    EXPECT_EQ(bench.sent("55 07 01 00 00 01 C0 21 AA + 114721"), 4) << "the configuration twice";
    bench.board([](sim::RowBoard& board) {
        EXPECT_EQ(board.chip(3).dac(0), 9U);
        EXPECT_EQ(board.chip(3).configuration()[5], 1U << 12);
        EXPECT_EQ(board.biasCode(), 141);
    });
    expectNextSeriesWorks();
}

TEST_F(RowSeries, FailuresForGood)
{
    sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", START}}}});
    start(3, 0.02);
    ASSERT_TRUE(bench.events->waitFor({FAILED}));
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, -1}}));
    EXPECT_STREQ(bench->lastError(), "Could not recover device");
    EXPECT_TRUE(soon([&] { return !bench->isBusy(); })) << "unlike on other boards, the flags are cleared";
    sim::plug(0);
    ASSERT_EQ(bench->recoverDevice(), 0);
    expectNextSeriesWorks();
    // A series of rows takes what comes, does not recover, and ends all the same; one that can't be started leaves the
    // device busy.
    bench->setAcqMode(dv::ACQMODE_TDI);
    sim::addFault(0, {{"kind", "short_stream"}, {"readouts", 1}, {"when", {{"after_written", START}}}});
    run(1, 0.0256);
    EXPECT_EQ(frames.size(), 1U);
    expectNextSeriesWorks();
    bench->setAcqMode(dv::ACQMODE_TDI);
    start(3, 2.56);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_BUSY_CHANGED}));
    sim::unplug(0);
    expectStop();
    start(3, 2.56);
    ASSERT_TRUE(bench.events->waitFor({FAILED}));
    EXPECT_TRUE(bench->isBusy());
    sim::plug(0);
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_FALSE(bench->isBusy());
    bench.countAll();
    expectNextSeriesWorks();
}
