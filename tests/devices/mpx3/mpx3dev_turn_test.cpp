// What a host may call when on a Medipix3 board, and what it gets: readers, operations, starts, stops and closing
// against the states of a series.
#include "devices/mpx3/mpx3bench.h"

#include <atomic>
#include <limits>

using namespace support;

namespace {

const dv::_Mpx3Config PLAIN = {2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0};
const dv::_Mpx3Config CRW = {2, 0, 0, 0, 1, 1, 0, 0, 1, 0, 0};
constexpr std::size_t CHIP = 65536;

using Device = HwLatixel::Mpx3Dev;

/// A call of the host; 0 is good.
struct Call {
    const char* name;
    int (*make)(Device&);
};

const std::vector<unsigned> NOTHING(2 * CHIP);
const std::vector<unsigned short> DACS(54, 5);

/// Operations that leave the pixels' counts alone, or at zero.
const Call OPERATIONS[] = {
    {"analogValue",
     [](Device& d) {
         double volts = 0;
         return d.analogValue(0, &volts);
     }},
    {"senseDac", [](Device& d) { return d.senseDac(0, 3); }},
    {"getDacAnalogValue",
     [](Device& d) {
         double volts = 0;
         return d.getDacAnalogValue(0, 3, &volts);
     }},
    {"setDacs", [](Device& d) { return d.setDacs(DACS.data(), DACS.size(), -1); }},
    {"setDacs without a count", [](Device& d) { return d.setDacs(DACS.data(), 0, -1); }},
    {"setConfig", [](Device& d) { return d.setConfig(PLAIN); }},
    {"eraseMatrix", [](Device& d) { return d.eraseMatrix(); }},
    {"writeMatrix", [](Device& d) { return d.writeMatrix(NOTHING.data(), NOTHING.size(), false); }},
};

const Call READERS[] = {
    {"Temperature", [](Device& d) { return d.parameters()->get("Temperature")->getFloat() < -60 ? 1 : 0; }},
    {"CPU parameter", [](Device& d) { return d.parameters()->get("TempCpu")->getString() != "35.5" ? 1 : 0; }},
    {"adcValue", [](Device& d) { return d.adcValue(3) < 0 ? 1 : 0; }},
    {"deviceStatus", [](Device& d) { return d.deviceStatus(); }},
    {"deviceStatusText", [](Device& d) { return d.deviceStatusText() == nullptr ? 1 : 0; }},
    {"bias sense",
     [](Device& d) {
         double volts = 0;
         d.biasVoltageCurrentSense(&volts, nullptr);
         return 0;
     }},
};

class Mpx3Turn : public SeriesTest<Mpx3Bench, 1> {
protected:
    Mpx3Turn() : SeriesTest(mpx3Board({1, 1}), TWO_CHANNELS) {}

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->setConfig(PLAIN), 0);
        bench->deviceStatus();
        takeFrames();
        bench.wire();
    }
    void expectFrames(std::size_t count, unsigned level)
    {
        ASSERT_EQ(frames.size(), count);
        for (const auto& frame : frames)
            expectBlocks(frame, 1, 2, level);
    }
    void expectRefused(int result, const std::string& text)
    {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(bench->lastError(), text);
    }
};

/// Takes a device's events to a function.
struct Listener {
    explicit Listener(Device& device) { device.setEventFunc(&Listener::take, this); }
    static void take(unsigned event, long data, void* user)
    {
        auto& self = *static_cast<Listener*>(user);
        if (event == HWEVENT_BUSY_CHANGED)
            return;
        if (self.on)
            self.on(event, data);
        const std::lock_guard lock(self.mutex);
        self.events.push_back({event, data});
    }
    std::vector<Seen> seen()
    {
        const std::lock_guard lock(mutex);
        return events;
    }
    bool soonSeen(unsigned event, long times = 1)
    {
        return soon([&] {
            const auto all = seen();
            return std::ranges::count(all, event, &Seen::event) >= times;
        });
    }

    std::function<void(unsigned, long)> on;

private:
    std::mutex mutex;
    std::vector<Seen> events;
};

} // namespace

TEST_F(Mpx3Turn, ReadersInASeriesSpoilNoFrame)
{
    for (const double time : {0.02, 0.12}) {
        SCOPED_TRACE(time);
        start(12, time);
        std::atomic<bool> over = false;
        std::jthread polls([&] {
            while (!over)
                for (const Call& reader : READERS)
                    EXPECT_EQ(reader.make(bench.dev()), 0) << reader.name;
        });
        EXPECT_TRUE(bench.events->waitForEnd());
        over = true;
        polls.join();
        EXPECT_EQ(bench.events->seen(), readyEvents(12, FINISHED));
        expectFrames(12, static_cast<unsigned>(std::lround(1000 * time)));
        EXPECT_NEAR(bench->lastAcqTime(), time, 1e-6);
    }
    // Who polls no more leaves no trace in the next series.
    run(3, 0.02);
    for (const auto& line : bench.wire())
        EXPECT_FALSE(line.starts_with("55 00 04 01")) << line;
}

TEST_F(Mpx3Turn, OperationsBetweenFramesOfANormalSeries)
{
    for (const Call& operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        // In the frame's handler, before and after its frame is taken.
        bench.events->onFrame = [&](long i) {
            if (i == 0) {
                EXPECT_EQ(operation.make(bench.dev()), 0) << bench->lastError();
            }
            frames.push_back(bench.frame());
            if (i == 1) {
                EXPECT_EQ(operation.make(bench.dev()), 0) << bench->lastError();
            }
        };
        run(3, 0.1);
        expectFrames(3, 100);
        // From another thread, which waits for its turn.
        takeFrames();
        start(4, 0.1);
        ASSERT_TRUE(soonStarted());
        EXPECT_EQ(operation.make(bench.dev()), 0) << bench->lastError();
        ASSERT_TRUE(bench.events->waitForEnd());
        expectFrames(4, 100);
    }
}

TEST_F(Mpx3Turn, OperationsGetTheLinkInABurstWhoseFramesNobodyTakes)
{
    bench.events->onFrame = nullptr;
    start(3, 0.01);
    ASSERT_TRUE(soonStarted(2));
    sleepMs(100);
    const auto begin = Clock::now();
    EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
    // The frame that was on the wire meanwhile is there, and the series goes on.
    for (long i = 0; i < 3; ++i) {
        ASSERT_TRUE(soon([&] { return bench.events->seen().size() > static_cast<std::size_t>(i); }));
        frames.push_back(bench.frame());
    }
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    frames.resize(2);
    expectFrames(2, 10);
    // The handler that holds up the next frame may ask for it as well.
    bench.events->onFrame = [&](long) {
        sleepMs(40);
        EXPECT_EQ(bench->eraseMatrix(), 0) << bench->lastError();
        frames.push_back(bench.frame());
    };
    run(4, 0.01);
    EXPECT_EQ(bench.events->seen(), readyEvents(4, FINISHED));
    expectFrames(4, 10);
}

TEST_F(Mpx3Turn, WholeSeriesRefusesOperationsUntilItIsStopped)
{
    bench->setLogMsgFunc(nullptr, nullptr); // two threads report at once
    for (const bool tdi : {false, true}) {
        SCOPED_TRACE(tdi);
        bench->setAcqMode(tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
        ASSERT_EQ(bench->setConfig(tdi ? PLAIN : CRW), 0);
        bench->deviceStatus();
        std::atomic<bool> tried = false;
        bench.events->onFrame = [&](long i) {
            if (i == 1) {
                for (const Call& operation : OPERATIONS) {
                    expectRefused(operation.make(bench.dev()), "Acquisition is running");
                }
                tried = true;
            }
            bench.frame();
        };
        start(1000, 0.256);
        ASSERT_TRUE(soonStarted());
        for (const Call& operation : OPERATIONS)
            expectRefused(operation.make(bench.dev()), "Acquisition is running");
        sim::clearTraffic();
        for (const Call& reader : READERS)
            EXPECT_EQ(reader.make(bench.dev()), 0) << reader.name;
        EXPECT_TRUE(bench.wire().empty());
        ASSERT_TRUE(soon([&] { return tried.load(); }));
        EXPECT_EQ(bench->stopAcquisition(), 0);
        EXPECT_EQ(bench->eraseMatrix(), 0) << "waits for the end";
        ASSERT_TRUE(bench.events->waitForEnd());
        ASSERT_EQ(bench->setConfig(PLAIN), 0);
        expectNextSeriesWorks();
    }
}

TEST_F(Mpx3Turn, StartsThatAreRefused)
{
    constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
    constexpr double INFINITE = std::numeric_limits<double>::infinity();
    for (const double time : {NOT_A_NUMBER, INFINITE, -INFINITE, -1.0, 0.0, 1e-8, 86401.0}) {
        EXPECT_EQ(bench->startAcquisition(1, time), 1) << time;
        EXPECT_TRUE(std::string(bench->lastError()).starts_with("Invalid acquisition time")) << bench->lastError();
    }
    EXPECT_TRUE(bench.wire().empty());
    int inHandler = 0;
    bench.events->onFrame = [&](long i) {
        if (i == 0)
            inHandler = bench->startAcquisition(1, 0.01);
        frames.push_back(bench.frame());
    };
    start(3, 0.1);
    expectRefused(bench->startAcquisition(1, 0.01), "Acquisition is running");
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(inHandler, 1);
    expectFrames(3, 100);
}

TEST_F(Mpx3Turn, StartRightBehindAStopAndFromTheLastEvent)
{
    Listener listener(bench.dev());
    listener.on = [&](unsigned event, long) {
        if (event == READY)
            frames.push_back(bench.frame());
    };
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(bench->startAcquisition(1000, i % 2 == 0 ? 0.01 : 30.0), 0) << bench->lastError();
        sleepMs(15 * i);
        EXPECT_EQ(bench->stopAcquisition(), 0);
    }
    std::atomic<int> again = 2;
    listener.on = [&](unsigned event, long) {
        if (event == READY)
            frames.push_back(bench.frame());
        if (event == FINISHED && again-- > 0) {
            EXPECT_EQ(bench->startAcquisition(2, 0.02), 0) << bench->lastError();
        }
    };
    ASSERT_EQ(bench->startAcquisition(2, 0.02), 0) << bench->lastError();
    ASSERT_TRUE(listener.soonSeen(FINISHED, 3));
    const auto seen = listener.seen();
    EXPECT_EQ(std::ranges::count(seen, unsigned{ABORTED}, &Seen::event), 6);
    ASSERT_GE(frames.size(), 6U);
    frames.erase(frames.begin(), frames.end() - 6);
    expectFrames(6, 20);
    bench.events = std::make_unique<EventLog>(bench.dev());
}

TEST_F(Mpx3Turn, OverheatedBoardEndsTheSeriesOfAHostThatPolls)
{
    start(1000, 0.1);
    ASSERT_TRUE(bench.events->waitFor({READY}));
    sim::addFault(0, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    ASSERT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
    ASSERT_TRUE(bench.events->waitForEnd());
    auto events = bench.events->seen();
    ASSERT_GE(events.size(), 3U);
    EXPECT_EQ(Events(events.end() - 2, events.end()), (Events{{FAILED, -1037}, {FINISHED, 0}}));
    EXPECT_TRUE(std::ranges::any_of(bench.errors->take(), [](const std::string& line) {
        return line.starts_with("Maximal allowed temperature exceeded !") && line.ends_with("81 degrees\n");
    }));
    EXPECT_EQ(bench->stopAcquisition(), 1) << "with the words of the protection";
    ASSERT_EQ(bench->initDevice(), 0);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Turn, StopFromAHandlerAndInATriggerWait)
{
    // A burst whose handler, on the worker, stops while the series waits for its trigger.
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    bench.events->onWaitTrigger = [&] {
        if (bench.events->seen().empty())
            bench->doSoftwareTrigger(0);
    };
    bench.events->onFrame = [&](long) {
        sleepMs(100);
        EXPECT_EQ(bench->stopAcquisition(), 0);
    };
    run(5, 0.01);
    EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
    EXPECT_EQ(bench.sent(START), 1) << "none behind the stop";
    // Operations go on while it waits.
    bench.events->onWaitTrigger = nullptr;
    start(5, 0.01);
    ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
    EXPECT_EQ(bench->eraseMatrix(), 0);
    expectStop();
    expectNextSeriesWorks();
}

TEST_F(Mpx3Turn, FrameStaysTheHostsUntilTheLastEvent)
{
    bench.events->onFrame = [&](long) {
        bench->stopAcquisition();
        sim::clearTraffic();
        frames.push_back(bench.frame());
        EXPECT_TRUE(bench.wire().empty()) << "the announced frame, not the chips";
    };
    run(5, 0.1);
    expectFrames(1, 100);
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {ABORTED, 0}}));
}

TEST_F(Mpx3Turn, CloseFromHandlers)
{
    for (const bool burst : {false, true}) {
        int inFrame = 0;
        int inLast = -1;
        std::atomic<bool> done = false;
        Listener listener(bench.dev());
        listener.on = [&](unsigned event, long) {
            if (event == READY) {
                inFrame = bench->closeDevice();
            } else {
                inLast = bench->closeDevice();
                done = true;
            }
        };
        ASSERT_EQ(bench->startAcquisition(2, burst ? 0.01 : 0.1), 0);
        if (burst) {
            ASSERT_TRUE(listener.soonSeen(READY));
            sleepMs(100);
            bench.frame();
        }
        ASSERT_TRUE(soon([&] { return done.load(); }));
        EXPECT_EQ(inFrame, 1) << burst;
        EXPECT_EQ(inLast, 0) << burst;
        EXPECT_FALSE(bench->isConnected());
        bench.events = std::make_unique<EventLog>(bench.dev());
        bringUp();
    }
    expectNextSeriesWorks();
}

TEST_F(Mpx3Turn, TwoThreadsCloseAtOnce)
{
    for (int i = 0; i < 20; ++i) {
        std::atomic<int> ready = 0;
        const auto close = [&] {
            for (++ready; ready < 2;) {
            }
            bench->closeDevice();
        };
        std::jthread other(close);
        close();
        other.join();
        EXPECT_FALSE(bench->isConnected());
        bringUp();
    }
    EXPECT_EQ(bench.host.complaints(), Strings{}) << "nothing is given back twice";
}

TEST_F(Mpx3Turn, MuteBoardDoesNotHoldUpAStop)
{
    start(3, 30.0);
    ASSERT_TRUE(soonStarted());
    sim::addFault(0, {{"kind", "silence"}, {"seconds", 1000.0}});
    const auto begin = Clock::now();
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), (Events{{ABORTED, 0}}));
    sim::clearFaults(0);
    expectNextSeriesWorks();
}

TEST(Mpx3Destroy, HandlerThatHoldsTheSeriesGetsTheDevice)
{
    sim::loadBench({{"boards", {mpx3Board({1})}}, {"scene", flatScene(1000)}});
    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    auto* device = new Device("Latixel Latixel M3WA sn: 7 A", &host, folder.path(), folder / "latixel.ini", "A", false);
    ASSERT_EQ(device->initDevice(), 0);
    std::atomic<bool> inside = false;
    std::atomic<bool> go = false;
    Listener listener(*device);
    listener.on = [&](unsigned event, long) {
        inside = true;
        while (event == HWEVENT_FRAME_READY && !go)
            sleepMs(1);
    };
    ASSERT_EQ(device->startAcquisition(3, 0.1), 0);
    ASSERT_TRUE(soon([&] { return inside.load(); }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(device->closeDevice(), 1);
    EXPECT_TRUE(std::string(device->lastError()).starts_with("Device cannot be closed")) << device->lastError();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    device->destroy();
    EXPECT_EQ(sim::openSessions(), 1) << "the series' thread still has it";
    go = true;
    EXPECT_TRUE(soon([] { return sim::openSessions() == 0 && sim::liveContexts() == 0; }));
    EXPECT_TRUE(soon([&] { return host.liveManagers() == 0; }));
    sim::clearBus();
}

TEST_F(Mpx3Turn, ShortStreamIsMarkedOnItsFrame)
{
    const auto missing = [&](long) {
        auto frame = refhost::adopt(bench->lastData());
        const auto* block = frame->findMetaData("MissingBytes");
        frames.emplace_back(1, block != nullptr ? static_cast<unsigned>(block->numbers().at(0)) : 0);
        if (block != nullptr) {
            EXPECT_EQ(block->description, "MissingBytes");
            EXPECT_EQ(block->bytes.size(), 4U);
            EXPECT_EQ(static_cast<int>(block->type), 5);
        }
    };
    bench.events->onFrame = missing;
    start(3, 0.2);
    ASSERT_TRUE(soonStarted());
    sim::addFault(0, {{"kind", "short_read"}, {"bytes", 5000}, {"times", 1}, {"when", {{"after_reads", 1}}}});
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_GT(frames[0][0], 100000U);
    EXPECT_TRUE(bench.logged(" of " + std::to_string(frames[0][0] + 5000) + " bytes received\n")) << frames[0][0];
    EXPECT_TRUE(bench.errors->take().empty());
    sim::clearFaults(0);
    // Rows that a stop keeps from coming.
    bench->setAcqMode(dv::ACQMODE_TDI);
    start(3, 20.0);
    ASSERT_TRUE(soonStarted());
    sleepMs(300);
    expectStop();
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_GT(frames[0][0], 50000U);
    expectNextSeriesWorks();
}

TEST(Mpx3BringUpAgain, KeepsConfigurationAndCallback)
{
    Mpx3Bench bench(mpx3Board({1, 1, 1}), "[Settings]\nDebugLog=1\n");
    ASSERT_EQ(bench->initDevice(), 0);
    ASSERT_EQ(bench->setConfig({1, 9, 4, 2, 2, 1, 1, 1, 0, 1, 1}), 0);
    const OMR before = bench->omr();
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->omr().CountL, before.CountL);
    EXPECT_EQ(bench->omr().PS, before.PS);
    EXPECT_EQ(bench->omr().Gain, before.Gain);
    EXPECT_EQ(bench->omr().Polarity, before.Polarity);
    EXPECT_EQ(bench->chipCount(), 3);
    // A partial one, and a whole one again: DACs go to their chips.
    sim::addFault(0, {{"kind", "error"},
                      {"result", -4},
                      {"times", 1},
                      {"when", {{"after_written", "55 07 01 FF"}, {"occurrence", 13}}}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->chipCount(), 1);
    sim::clearFaults(0);
    ASSERT_EQ(bench->initDevice(), 0);
    std::vector<unsigned short> dacs(3 * 27);
    for (std::size_t i = 0; i < dacs.size(); ++i)
        dacs[i] = static_cast<unsigned short>(i);
    ASSERT_EQ(bench->setDacs(dacs.data(), 0, -1), 0) << bench->lastError();
    bench.board([](sim::Mpx3Board& b) {
        for (std::size_t chip = 0; chip < 3; ++chip)
            EXPECT_EQ(b.chip(chip).dacs()[0], 27 * chip);
    });
    bench.errors->take();
    EXPECT_EQ(bench->setExtDac(0, 0, 0), -1);
    bench->startAcquisition(1, -1);
    EXPECT_FALSE(bench.errors->take().empty()) << "the host still hears";
}

TEST(Mpx3HostErrors, AreAnswered)
{
    BroughtUp<Mpx3Bench> bench(mpx3Board({1}), TWO_CHANNELS);
    const Call CALLS[] = {
        {"devInfo", [](Device& d) { return d.devInfo(nullptr); }},
        {"devMpxInfo", [](Device& d) { return d.devMpxInfo(nullptr); }},
        {"devMpx3Info", [](Device& d) { return d.devMpx3Info(nullptr); }},
        {"chipIDList", [](Device& d) { return d.chipIDList(nullptr); }},
        {"analogValue", [](Device& d) { return d.analogValue(0, nullptr); }},
        {"setDacs", [](Device& d) { return d.setDacs(nullptr, 27, -1); }},
        {"setCTPR", [](Device& d) { return d.setCTPR(nullptr, 32); }},
        {"writeMatrix", [](Device& d) { return d.writeMatrix(nullptr, CHIP, true); }},
        {"setPixelCfg", [](Device& d) { return d.setPixelCfg(nullptr, 2 * CHIP); }},
        {"setPixelCfg of no device",
         [](Device& d) {
             unsigned char c = 0;
             return d.setPixelCfg(&c, std::numeric_limits<std::size_t>::max());
         }},
        {"setTimer", [](Device& d) { return d.setTimer(-1); }},
    };
    for (const Call& call : CALLS) {
        bench.errors->take();
        EXPECT_EQ(call.make(bench.dev()), 1) << call.name;
        EXPECT_EQ(bench.errors->take().size(), 1U) << call.name;
    }
    EXPECT_TRUE(bench.wire().empty());
    EXPECT_EQ(bench->readMatrix(nullptr, CHIP, true), 0);
    std::vector<unsigned> matrix(CHIP);
    EXPECT_EQ(bench->readMatrix(matrix.data(), std::numeric_limits<std::size_t>::max(), true), 0) << "what it has";
    // A status text outlives the polls behind it.
    const char* text = bench->deviceStatusText();
    const std::string copy = text;
    for (int i = 0; i < 20; ++i)
        bench->deviceStatusText();
    EXPECT_EQ(text, copy);
    EXPECT_EQ(text, bench->deviceStatusText());
}

TEST_F(Mpx3Turn, BigFlashValueIsReadBehindTheSeries)
{
    dv::IParam* table = bench->inDeviceConfigParameters()->get("Table");
    start(3, 0.2);
    ASSERT_TRUE(soonStarted());
    EXPECT_EQ(table->getInt32(), 0);
    EXPECT_STREQ(bench->lastError(), "Acquisition is running");
    ASSERT_TRUE(bench.events->waitForEnd());
    expectFrames(3, 200);
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
}
