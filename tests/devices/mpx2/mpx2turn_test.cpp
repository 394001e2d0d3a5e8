// Who may use the link of a Medipix2, Timepix or row board, and when: calls of a host against the states of a series.
#include "devices/mpx2/mpx2bench.h"

#include <atomic>
#include <cmath>
#include <functional>
#include <future>

using namespace support;

namespace {

const std::vector<std::string> ROW_CHIPS = {"", "C01-W0100", "", "C02-W0100"};

/// Series on each kind of board, with two chips.
template <typename Bench>
nlohmann::json boardOf();
template <>
nlohmann::json boardOf<Mpx2Bench>()
{
    return mpx2Board({1, 1});
}
template <>
nlohmann::json boardOf<RowBench>()
{
    return rowBoard(ROW_CHIPS);
}

template <typename Bench>
class TpxTurn : public TpxSeries<Bench> {
protected:
    using Base = TpxSeries<Bench>;
    using Clock = Base::Clock;
    using Base::bench;
    static constexpr bool ROW = std::is_same_v<Bench, RowBench>;
    static constexpr const char* RUNNING = "Acquisition is running";

    TpxTurn() : Base(boardOf<Bench>()) {}

    void expectFrames(unsigned level)
    {
        for (const auto& frame : this->frames)
            expectBlocks(frame, 1, 2, level);
    }
    /// Whether `call` returns within `limit` seconds.
    template <typename Call>
    static void expectWithin(double limit, Call call)
    {
        const auto begin = Clock::now();
        call();
        EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), limit);
    }
};

using Kinds = testing::Types<Mpx2Bench, RowBench>;
TYPED_TEST_SUITE(TpxTurn, Kinds);

} // namespace

TYPED_TEST(TpxTurn, OperationsInTheFrameHandlerOrBesideDoNotHarmTheFrames)
{
    auto& tpx = this->bench;
    const std::vector<unsigned short> dacs(28, 9);
    unsigned short code = 0;
    double mhz = 10;
    const std::vector<std::function<int()>> operations = {
        [&] { return tpx->setBias(20); },           [&] { return tpx->setDacs(dacs.data(), dacs.size(), -1); },
        [&] { return tpx->setTimepixClock(&mhz); }, [&] { return tpx->eraseMatrix(); },
        [&] { return tpx->resetMedipix(); },        [&] { return tpx->getADC(3, &code, true); },
        [&] { return tpx->setTimer(0.02); },
    };
    // Before the frame is taken, on the handler's thread.
    tpx.events->onFrame = [&](long i) {
        EXPECT_EQ(operations[static_cast<std::size_t>(i) % operations.size()](), 0) << tpx->lastError();
        this->frames.push_back(tpx.frame());
    };
    this->run(static_cast<unsigned>(operations.size()), 0.02);
    ASSERT_EQ(this->frames.size(), operations.size());
    this->expectFrames(20);
    // From another thread, with frames that nobody takes for a while.
    this->takeFrames(30);
    this->start(20, 0.02);
    std::size_t calls = 0;
    while (tpx.events->seen().empty() || tpx.events->seen().back() != Seen{HWEVENT_ACQ_FINISHED, 0})
        EXPECT_EQ(operations[calls++ % operations.size()](), 0) << tpx->lastError();
    ASSERT_EQ(this->frames.size(), 20U);
    this->expectFrames(20);
    EXPECT_GT(calls, 10U);
}

TYPED_TEST(TpxTurn, FrameThatNobodyTakesKeepsNobodyFromTheLink)
{
    auto& tpx = this->bench;
    tpx.events->onFrame = nullptr;
    this->start(50, 0.02);
    ASSERT_TRUE(this->soonStarted(2));
    sleepMs(100);
    this->expectWithin(3, [&] { EXPECT_EQ(tpx->eraseMatrix(), 0) << tpx->lastError(); });
    // The frame that was announced is still there, and so is the next one, which was read meanwhile.
    for (long i = 0; i < 3; ++i) {
        ASSERT_TRUE(soon([&] { return tpx.events->seen().size() > static_cast<std::size_t>(i); }));
        expectBlocks(tpx.frame(), 1, 2, 20);
        if (i == 0)
            expectBlocks(tpx.frame(), 1, 2, 20);
    }
    this->expectStop();
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, PollsWaitForAPauseBetweenFrames)
{
    auto& tpx = this->bench;
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    this->start(150, 0.02);
    EXPECT_TRUE(soon([&] {
        tpx->biasVoltageCurrentSense(nullptr, nullptr);
        tpx->parameters()->get("TempCpu")->getString();
        return tpx->deviceStatus() == 1 && tpx->deviceStatusText() == std::string("warm") && tpx->adcValue(1) > 0;
    }));
    ASSERT_TRUE(tpx.events->waitForEnd());
    EXPECT_EQ(tpx.events->seen(), readyEvents(150, HWEVENT_ACQ_FINISHED));
    ASSERT_EQ(this->frames.size(), 150U);
    this->expectFrames(20);
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, HeatEndsASeries)
{
    this->worksAtTheEnd = false;
    auto& tpx = this->bench;
    this->start(1000, 0.02);
    ASSERT_TRUE(tpx.events->waitFor({HWEVENT_FRAME_READY}));
    sim::addFault(0, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_TRUE(soon([&] { return tpx->deviceStatus() == 2; }));
    ASSERT_TRUE(tpx.events->waitForEnd());
    const auto seen = tpx.events->seen();
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(seen[seen.size() - 2], (Seen{HWEVENT_ACQ_FAILED, -1037}));
    EXPECT_EQ(seen.back(), (Seen{HWEVENT_ACQ_ABORTED, 0}));
    EXPECT_FALSE(tpx->isBusy());
}

TYPED_TEST(TpxTurn, StartsAndStopsInEachState)
{
    auto& tpx = this->bench;
    this->start(1000, 0.02);
    EXPECT_EQ(tpx->startAcquisition(1, 0.02), 1);
    EXPECT_STREQ(tpx->lastError(), this->RUNNING);
    // Right behind a stop, again and again.
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(tpx->stopAcquisition(), 0);
        EXPECT_EQ(tpx->stopAcquisition(), 0);
        ASSERT_EQ(tpx->startAcquisition(1000, 0.02), 0) << tpx->lastError();
        tpx.events->clear();
    }
    this->expectStop();
    // From the last event, but from no other one.
    int inFrame = 0;
    int inEnd = -1;
    tpx.events->onEvent = [&](unsigned event) {
        if (event == HWEVENT_FRAME_READY && inFrame == 0)
            inFrame = tpx->startAcquisition(1, 0.02);
        if (event == HWEVENT_ACQ_FINISHED && inEnd < 0)
            inEnd = tpx->startAcquisition(2, 0.02);
    };
    this->takeFrames();
    this->start(1, 0.02);
    ASSERT_TRUE(soon([&] { return tpx.events->seen().size() == 5; }));
    tpx.events->onEvent = nullptr;
    EXPECT_EQ(inFrame, 1);
    EXPECT_EQ(inEnd, 0);
    for (const double time : {std::nan(""), -1.0, 0.0, 1e6}) {
        EXPECT_EQ(tpx->startAcquisition(1, time), 1) << time;
        EXPECT_TRUE(std::string(tpx->lastError()).starts_with("Invalid acquisition time")) << tpx->lastError();
    }
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, RecoveredFramesAreRealOnesBehindOneTrigger)
{
    auto& tpx = this->bench;
    tpx->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    tpx.events->onWaitTrigger = [&] { tpx->doSoftwareTrigger(0); };
    sim::addFault(0, {{"kind", "hang"}, {"when", {{"after_written", this->START}, {"occurrence", 2}}}});
    this->run(4, 0.02);
    EXPECT_EQ(std::ranges::count(tpx.events->seen(), Seen{HWEVENT_WAIT_TRIGGER, 0}), 4);
    ASSERT_EQ(this->frames.size(), 4U);
    this->expectFrames(20);
    tpx.events->onWaitTrigger = nullptr;
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, RecoveryThatAStopCutsIsMadeUpFor)
{
    auto& tpx = this->bench;
    sim::addFault(0, {{"kind", "hang"}, {"when", {{"after_written", this->START}}}});
    this->start(3, 0.02);
    ASSERT_TRUE(soon([&] { return std::string(tpx->lastError()) == "Acquisition timeout ()"; }));
    this->expectStop();
    EXPECT_EQ(tpx.events->seen(), (std::vector<Seen>{{HWEVENT_ACQ_ABORTED, 0}}));
    sim::clearFaults(0);
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, ModeThatIsSetInASeriesIsForTheNextOne)
{
    auto& tpx = this->bench;
    tpx.events->onFrame = [&](long) {
        tpx->setAcqMode(dv::ACQMODE_SOFT_TRIGGER | dv::ACQMODE_EXT_TRIGGER_START);
        this->frames.push_back(tpx.frame());
    };
    this->run(3, 0.02);
    EXPECT_EQ(tpx.events->seen(), readyEvents(3, HWEVENT_ACQ_FINISHED));
    ASSERT_EQ(this->frames.size(), 3U);
    this->expectFrames(20);
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, BringUpWaitsForASeriesThatFailsWithoutALink)
{
    auto& tpx = this->bench;
    tpx.events->onFrame = nullptr;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(tpx->closeDevice(), 0);
        tpx.events->clear();
        ASSERT_EQ(tpx->startAcquisition(3, 0.02), 0);
        sleepMs(i);
        this->bringUp();
        EXPECT_TRUE(tpx.events->waitFor({HWEVENT_ACQ_FAILED, HWEVENT_ACQ_ABORTED})) << "all told before";
    }
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, ReadsBehindAStopGiveTheAnnouncedFrame)
{
    auto& tpx = this->bench;
    tpx.events->onFrame = [&](long i) {
        if (i != 1)
            return (void)this->frames.push_back(tpx.frame());
        tpx->stopAcquisition();
        sleepMs(50);
        this->frames.push_back(tpx.frame());
        this->frames.push_back(tpx.frame());
    };
    this->start(100, 0.02);
    ASSERT_TRUE(tpx.events->waitForEnd());
    ASSERT_EQ(this->frames.size(), 3U);
    this->expectFrames(20);
}

TYPED_TEST(TpxTurn, CloseAndDestroyFromCallbacks)
{
    auto& tpx = this->bench;
    int inFrame = 0;
    int inEnd = -1;
    tpx.events->onEvent = [&](unsigned event) {
        if (event == HWEVENT_FRAME_READY) {
            inFrame = tpx->closeDevice();
            tpx->destroy(); // refused
        }
        if (event == HWEVENT_ACQ_FINISHED)
            inEnd = tpx->closeDevice();
    };
    this->takeFrames();
    this->run(2, 0.02);
    tpx.events->onEvent = nullptr;
    EXPECT_EQ(inFrame, 1);
    EXPECT_EQ(inEnd, 0);
    EXPECT_FALSE(tpx->isConnected());
    EXPECT_EQ(this->frames.size(), 2U);
    this->bringUp();
    // Closing waits for no handler longer than its limit.
    std::promise<void> letGo;
    std::atomic<bool> inHandler = false;
    tpx.events->onFrame = [&](long) {
        if (!inHandler.exchange(true))
            letGo.get_future().wait();
    };
    this->start(5, 0.02);
    ASSERT_TRUE(soon([&] { return inHandler.load(); }));
    this->expectWithin(4, [&] { EXPECT_EQ(tpx->closeDevice(), 1); });
    letGo.set_value();
    ASSERT_TRUE(tpx.events->waitForEnd());
    this->expectNextSeriesWorks();
}

TYPED_TEST(TpxTurn, FlashIsNotReadInASeries)
{
    auto& tpx = this->bench;
    this->start(20, 0.02);
    ASSERT_TRUE(this->soonStarted());
    const auto table = [&] { return tpx->inDeviceConfigParameters()->get("Table")->getString(); };
    const std::string inSeries = table();
    EXPECT_STREQ(tpx->lastError(), this->RUNNING);
    ASSERT_TRUE(tpx.events->waitForEnd());
    ASSERT_EQ(this->frames.size(), 20U);
    this->expectFrames(20);
    EXPECT_NE(table(), inSeries);
}

TYPED_TEST(TpxTurn, HostErrorsHaveAnAnswer)
{
    auto& tpx = this->bench;
    constexpr std::size_t ABSURD = ~std::size_t{0} / 4;
    const auto expectErrors = [&] {
        EXPECT_EQ(tpx->setTimer(-1), 1);
        EXPECT_EQ(tpx->setTimer(std::nan("")), 1);
        EXPECT_EQ(tpx->setTimepixClock(nullptr), 1);
        EXPECT_EQ(tpx->analogValue(0, nullptr), 1);
        EXPECT_EQ(tpx->setPixelCfg(nullptr, 5), 1);
        EXPECT_EQ(tpx->writeMatrix(nullptr, 5, false), 1);
        EXPECT_NE(tpx->setDacs(nullptr, 28, -1), 0);
        unsigned short one = 0;
        EXPECT_EQ(tpx->writeMatrix(&one, ABSURD, false), 1);
        EXPECT_NE(tpx->setDacs(&one, ABSURD, -1), 0);
        EXPECT_EQ(tpx->devInfo(nullptr), 1);
        EXPECT_EQ(tpx->devMpxInfo(nullptr), 1);
        EXPECT_EQ(tpx->devMpx2Info(nullptr), 1);
        EXPECT_EQ(tpx->chipIDList(nullptr), 1);
        EXPECT_EQ(tpx->sendRawData(nullptr, 6, 0, 0, 0), 1);
        EXPECT_NE(tpx->receiveRawData(nullptr, 6, 0, 0, 0), 0);
    };
    expectErrors();
    tpx->closeDevice();
    expectErrors();
    tpx->setPins({});
    tpx->stopAcquisition();
    tpx->deviceStatus();
    tpx->adcValue(3);
    EXPECT_EQ(tpx->lastData(), nullptr);
    EXPECT_EQ(tpx->closeDevice(), 0);
    this->bringUp();
}

TYPED_TEST(TpxTurn, WaitForATriggerKeepsNobodyFromTheLink)
{
    auto& tpx = this->bench;
    tpx->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    this->start(2, 0.02);
    for (int frame = 0; frame < 2; ++frame) {
        ASSERT_TRUE(soon([&] {
            return std::ranges::count(tpx.events->seen(), Seen{HWEVENT_WAIT_TRIGGER, 0}) == frame + 1;
        }));
        this->expectWithin(3, [&] { EXPECT_EQ(tpx->eraseMatrix(), 0) << tpx->lastError(); });
        tpx->doSoftwareTrigger(0);
    }
    ASSERT_TRUE(tpx.events->waitForEnd());
    ASSERT_EQ(this->frames.size(), 2U);
    this->expectFrames(20);
    this->expectNextSeriesWorks();
}

/// A device that is destroyed while its series runs, outside of a bench.
struct Abandoned {
    static void take(unsigned event, long, void* user)
    {
        auto& self = *static_cast<Abandoned*>(user);
        if (event != self.kind)
            return;
        self.inHandler = true;
        if (self.destroys)
            self.device->destroy();
        else
            self.letGo.get_future().wait();
    }

    unsigned kind;
    bool destroys;
    std::atomic<bool> inHandler{false};
    std::promise<void> letGo{};
    dv::IHwDev* device = nullptr;
};

TEST(TpxDestroy, ObjectIsLeftToTheThreadThatStillNeedsIt)
{
    for (const bool destroys : {false, true}) {
        SCOPED_TRACE(destroys);
        TempFolder folder;
        refhost::Host host{folder.path(), folder.path()};
        const nlohmann::json board = mpx2Board({1, 1});
        sim::loadBench({{"boards", {board}}, {"scene", flatScene(1000)}});
        Abandoned abandoned{.kind = destroys ? HWEVENT_ACQ_FINISHED : HWEVENT_FRAME_READY, .destroys = destroys};
        auto* device =
            new HwLatixel::Mpx2Dev(board.at("description"), &host, folder.path(), folder / "latixel.ini", "A", false);
        abandoned.device = device;
        ASSERT_EQ(device->initDevice(), 0);
        device->setEventFunc(&Abandoned::take, &abandoned);
        ASSERT_EQ(device->startAcquisition(1, 0.02), 0);
        ASSERT_TRUE(soon([&] { return abandoned.inHandler.load(); }));
        if (!destroys) {
            const auto begin = std::chrono::steady_clock::now();
            device->destroy();
            EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
            EXPECT_EQ(sim::openSessions(), 1) << "the handler still runs on the device's thread";
            abandoned.letGo.set_value();
        }
        EXPECT_TRUE(soon([&] { return sim::liveContexts() == 0; }));
        sleepMs(100);
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), std::vector<std::string>{});
        sim::clearBus();
    }
}

template <typename Bench>
void expectStopWithoutChips(const nlohmann::json& board)
{
    constexpr const char* START = "55 02 05 01";
    Bench bench(board);
    ASSERT_EQ(bench->initDevice(), 0);
    sim::clearTraffic();
    ASSERT_EQ(bench->startAcquisition(100, 0.02), 0);
    sleepMs(300);
    EXPECT_EQ(bench->stopAcquisition(), 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
    EXPECT_TRUE(bench.events->waitFor({HWEVENT_ACQ_ABORTED, HWEVENT_ACQ_FAILED}));
    const long starts = bench.sent(START);
    sleepMs(500);
    EXPECT_EQ(bench.sent(START), starts);
}

TEST(TpxWithoutChips, SeriesIsStopped)
{
    expectStopWithoutChips<Mpx2Bench>(mpx2Board({}));
    expectStopWithoutChips<RowBench>(rowBoard({"", ""}));
}

namespace {

class RowTurn : public TpxTurn<RowBench> {};
class Mpx2Turn : public TpxTurn<Mpx2Bench> {};

std::uint32_t missingBytes(const refhost::FramePtr& frame)
{
    const auto* block = frame->findMetaData("MissingBytes");
    if (block == nullptr)
        return 0;
    EXPECT_EQ(static_cast<int>(block->type), 5);
    EXPECT_EQ(block->description, "MissingBytes");
    return static_cast<std::uint32_t>(block->numbers().at(0));
}

} // namespace

TEST_F(RowTurn, ShortStreamsAreMarked)
{
    std::vector<refhost::FramePtr> taken;
    bench.events->onFrame = [&](long) { taken.push_back(refhost::adopt(bench->lastData())); };
    sim::addFault(0, {{"kind", "short_stream"}, {"readouts", 1}, {"when", {{"after_written", START}}}});
    run(2, 0.02);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_GT(missingBytes(taken[0]), 0U);
    EXPECT_EQ(missingBytes(taken[1]), 0U);
    EXPECT_TRUE(bench.logged("Frame 0 is incomplete: "));
    EXPECT_TRUE(bench.errors->take().empty());
    // The rows of a stopped frame.
    bench->setAcqMode(dv::ACQMODE_TDI);
    start(5, 2.56);
    ASSERT_TRUE(soonStarted());
    sleepMs(500);
    taken.clear();
    expectStop();
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_GT(missingBytes(taken[0]), 0U);
    EXPECT_NE(taken[0]->findMetaData("RowAcqTimes"), nullptr) << "decoded as rows, whatever the stop does";
    expectNextSeriesWorks();
}

TEST_F(RowTurn, SeriesOfRowsIsOneTurn)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    int inHandler = 0;
    takeFrames();
    bench.events->onEvent = [&](unsigned event) {
        if (event == HWEVENT_FRAME_READY)
            inHandler += bench->eraseMatrix();
    };
    start(3, 0.256);
    ASSERT_TRUE(soonStarted());
    EXPECT_EQ(bench->eraseMatrix(), 1);
    EXPECT_STREQ(bench->lastError(), RUNNING);
    EXPECT_EQ(bench->setBias(20), 0) << "brings no answer";
    EXPECT_EQ(bench->deviceStatus(), 0) << "the last value";
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(inHandler, 3);
    bench.events->onEvent = nullptr;
    // A stop ends the refusal, and who waits goes on once the link is empty.
    start(1000, 0.256);
    ASSERT_TRUE(bench.events->waitFor({READY}));
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
    ASSERT_TRUE(bench.events->waitForEnd());
    expectNextSeriesWorks();
}

TEST_F(RowTurn, CountsOfRowsFitTheCommands)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    bench->parameters()->get("TdiRowCount")->setInt32(5000);
    EXPECT_EQ(bench->prepareAcquisition(0.256), 0);
    EXPECT_EQ(bench.sent("55 02 01 05 00 FF F5 EF"), 1) << "bits of 4670 rows";
    bench->parameters()->get("TdiRowCount")->setInt32(1);
    EXPECT_EQ(bench->startAcquisition(65536, 0.256), 1) << "2^24 blocks";
    EXPECT_TRUE(std::string(bench->lastError()).starts_with("Too many frames")) << bench->lastError();
    bench->setAcqMode(0);
    // Without a link there is no series.
    bench->closeDevice();
    bench->setAcqMode(dv::ACQMODE_TDI);
    start(2, 0.1);
    EXPECT_TRUE(bench.events->waitFor({FAILED}));
    bringUp();
    expectNextSeriesWorks();
}

TEST(RowKind, ChipsThatTellNothingDoNotDecide)
{
    RowBench bench(rowBoard(ROW_CHIPS));
    // The last line breaks down once its chip has been found.
    sim::addFault(0, {{"kind", "stuck_line"},
                      {"channel", 3},
                      {"level", 0},
                      {"when", {{"after_written", "55 00 01 02 00 00 00 02"}}}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.chipIds(), (std::vector<std::string>{"C01-W0100", "000-W0000"}));
    EXPECT_TRUE(bench->isTimepix());
}

TEST_F(Mpx2Turn, ClosingEndsAnExposureInTwoHalves)
{
    ASSERT_EQ(bench->prepareAcquisition(30), 0);
    ASSERT_EQ(bench->startSingleAcquisition(), 0);
    auto waiting = std::async(std::launch::async, [&] { return bench->waitForAcqFinish(false); });
    sleepMs(100);
    expectWithin(3, [&] {
        bench->beginClosing();
        waiting.get();
        EXPECT_EQ(bench->closeDevice(), 0) << bench->lastError();
    });
    EXPECT_EQ(bench.sent("55 02 05 02"), 1);
    bringUp();
}

TEST_F(Mpx2Turn, StopOfAnExposureInTwoHalvesEndsTheAcquisition)
{
    std::mt19937 random(3);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(bench->prepareAcquisition(0.3), 0);
        ASSERT_EQ(bench->startSingleAcquisition(), 0);
        auto stop = std::async(std::launch::async, [&, ms = static_cast<int>(random() % 60)] {
            sleepMs(480 + ms / 2);
            return bench->stopAcquisition();
        });
        const int result = bench->waitForAcqFinish(true);
        stop.get();
        EXPECT_TRUE(result == 0 || result == -4);
        if (result == 0)
            bench.board([](sim::Mpx2Board& board) { EXPECT_EQ(board.pins() & ACQOVER, 0); });
    }
}
