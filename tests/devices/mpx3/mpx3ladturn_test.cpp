// What a host may call when on a composite of Medipix3 boards, and what it gets: frames, operations, readers, starts,
// stops and closing against the states of a series.
#include "devices/common/ladbench.h"
#include "devices/mpx3/mpx3bench.h"

#include "devices/mpx3/mpx3laddev.h"

#include <atomic>
#include <limits>

using namespace support;

namespace {

using Device = HwLatixel::Mpx3LadDev;
using Lad = LadBench<Device, sim::Mpx3Board, unsigned>;

constexpr std::size_t CHIP = 65536;
const dv::_Mpx3Config PLAIN = plainConfig();
const std::string TWO_CHANNELS_EACH = "Module2=0\nModule3=0\nModule4=0\n";

nlohmann::json boards(std::size_t members)
{
    nlohmann::json board = mpx3Board({1, 1});
    board["trigger_line"] = "lad";
    return ladBoards(members, board);
}

/// A call of the host; 0 is good.
struct Call {
    const char* name;
    int (*make)(Device&);
};

const std::vector<unsigned> NOTHING(4 * CHIP);
const std::vector<unsigned short> DACS(4 * 27, 5);
const std::vector<unsigned char> PIXELS(4 * CHIP * 2, 3);

/// Operations that leave the pixels' counts alone, or at zero.
const Call OPERATIONS[] = {
    {"analogValue",
     [](Device& d) {
         double volts = 0;
         return d.analogValue(3, &volts);
     }},
    {"senseDac", [](Device& d) { return d.senseDac(2, 3); }},
    {"setDacs", [](Device& d) { return d.setDacs(DACS.data(), DACS.size(), -1); }},
    {"setDacs without a count", [](Device& d) { return d.setDacs(DACS.data(), 0, -1); }},
    {"setConfig", [](Device& d) { return d.setConfig(PLAIN); }},
    {"setPixelCfg", [](Device& d) { return d.setPixelCfg(PIXELS.data(), 0); }},
    {"eraseMatrix", [](Device& d) { return d.eraseMatrix(); }},
    {"resetMedipix", [](Device& d) { return d.resetMedipix(); }},
    {"writeMatrix", [](Device& d) { return d.writeMatrix(NOTHING.data(), NOTHING.size(), false); }},
};

const Call READERS[] = {
    {"adcValue", [](Device& d) { return d.adcValue(19) < 0 ? 1 : 0; }},
    {"deviceStatus", [](Device& d) { return d.deviceStatus(); }},
    {"deviceStatusText", [](Device& d) { return d.deviceStatusText() == nullptr ? 1 : 0; }},
    {"bias sense",
     [](Device& d) {
         double volts = 0;
         d.biasVoltageCurrentSense(&volts, nullptr);
         return 0;
     }},
};

class Mpx3LadTurn : public LadTest<Lad> {
protected:
    explicit Mpx3LadTurn(const nlohmann::json& list = boards(2)) : LadTest(list, TWO_CHANNELS_EACH) {}

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->setConfig(PLAIN), 0);
        takeFrames();
        sim::clearTraffic();
    }
    void expectRefused(int result, const std::string& text)
    {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(bench->lastError(), text);
    }
    /// Ends a call within so many seconds.
    template <typename Made>
    void expectWithin(double limit, Made made)
    {
        const auto begin = Clock::now();
        EXPECT_EQ(made(), 0) << bench->lastError();
        EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), limit);
    }
    /// The bytes that are told to be missing on the frame of the host; the frame goes to `frames`.
    double takeMissing()
    {
        auto frame = refhost::adopt(bench->lastData());
        if (frame == nullptr)
            return -1;
        const auto* pixels = static_cast<const unsigned*>(frame->dataPointer(0.0));
        frames.emplace_back(pixels, pixels + frame->pixelCount());
        const auto* block = frame->findMetaData("MissingBytes");
        if (block == nullptr)
            return 0;
        EXPECT_EQ(block->description, "MissingBytes");
        EXPECT_EQ(block->bytes.size(), 4U);
        EXPECT_EQ(static_cast<int>(block->type), 5);
        return block->numbers().at(0);
    }
};

nlohmann::json noisyBoards()
{
    nlohmann::json list = boards(2);
    for (auto& board : list)
        board["scene"] = {{"kind", "flat"}, {"flux", 3000.0}, {"noise", true}};
    return list;
}

class Mpx3LadNoise : public Mpx3LadTurn {
protected:
    Mpx3LadNoise() : Mpx3LadTurn(noisyBoards()) { worksAtTheEnd = false; }
};

constexpr double STREAM = 196625; ///< bytes of a member's frame of 12 bits

} // namespace

TEST_F(Mpx3LadNoise, FrameIsTheAnnouncedOneHoweverOftenItIsRead)
{
    bench.events->onFrame = [&](long) {
        frames.push_back(bench.frame());
        sleepMs(150); // the members have the next frame by then
        EXPECT_TRUE(bench.frame() == frames.back());
        EXPECT_TRUE(bench.frame() == frames.back());
    };
    run(4, 0.02);
    EXPECT_EQ(bench.events->seen(), readyEvents(4, FINISHED));
    ASSERT_EQ(frames.size(), 4U);
    for (std::size_t i = 1; i < frames.size(); ++i)
        EXPECT_FALSE(frames[i] == frames[i - 1]);
}

TEST_F(Mpx3LadTurn, FrameTellsWhatIsMissing)
{
    std::vector<double> missing;
    bench.events->onFrame = [&](long) { missing.push_back(takeMissing()); };
    start(3, 0.2);
    ASSERT_TRUE(soonStarted());
    sim::addFault(1, {{"kind", "short_read"}, {"bytes", 5000}, {"times", 1}, {"when", {{"after_reads", 1}}}});
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    EXPECT_EQ(missing, (std::vector<double>{STREAM - 5000, 0, 0}));
    frames.at(0).resize(2 * CHIP);
    expectBlocks(frames[0], 1, 2, 200);
    EXPECT_TRUE(bench.logged("[ERR]: Frame is incomplete: 201625 of 393250 bytes received\n"));
    EXPECT_TRUE(bench.errors->take().empty());
    // Parts that a stop keeps from coming are empty and missing as a whole, also those that an older frame had filled.
    for (const auto& [mode, whole] : {std::pair(0U, 2 * STREAM), std::pair(unsigned{dv::ACQMODE_TDI}, 0.0)}) {
        bench->setAcqMode(mode);
        missing.clear();
        start(3, 30.0);
        ASSERT_TRUE(soonStarted());
        expectStop(1);
        ASSERT_EQ(missing.size(), 1U);
        EXPECT_TRUE(whole != 0 ? missing[0] == whole : missing[0] > STREAM) << missing[0];
        EXPECT_EQ(std::ranges::count(frames.back(), 0U), static_cast<long>(4 * CHIP));
    }
}

TEST_F(Mpx3LadTurn, OperationsInHandlersAndBesideASeries)
{
    constexpr std::size_t COUNT = std::size(OPERATIONS);
    for (const bool synced : {false, true}) {
        SCOPED_TRACE(synced);
        bench.set("Synced", synced ? 1 : 0);
        bench.events->onFrame = [&](long i) {
            const Call& call = OPERATIONS[static_cast<std::size_t>(i) / 2 % COUNT];
            if (i % 2 != 0)
                frames.push_back(bench.frame());
            EXPECT_EQ(call.make(bench.dev()), 0) << call.name << " " << bench->lastError();
            if (i % 2 == 0)
                frames.push_back(bench.frame());
        };
        expectSeries(2 * COUNT + 2, 0.02);
        takeFrames();
        start(8, 0.05);
        for (const Call& call : OPERATIONS)
            EXPECT_EQ(call.make(bench.dev()), 0) << call.name << " " << bench->lastError();
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_EQ(bench.events->seen(), readyEvents(8, FINISHED));
        for (const auto& frame : frames)
            expectBlocks(frame, 2, 2, 50);
    }
    bench.set("Synced", 0);
}

TEST_F(Mpx3LadTurn, WholeSeriesRefusesOperationsUntilItIsStopped)
{
    bench->setLogMsgFunc(nullptr, nullptr); // two threads report at once
    for (const bool tdi : {false, true}) {
        SCOPED_TRACE(tdi);
        bench->setAcqMode(tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
        dv::_Mpx3Config config = PLAIN;
        config.continuousRW = tdi ? 0 : 1;
        ASSERT_EQ(bench->setConfig(config), 0);
        std::atomic<int> tried = 0;
        bench.events->onFrame = [&](long) {
            if (tried++ == 0)
                for (const Call& call : OPERATIONS)
                    expectRefused(call.make(bench.dev()), "Acquisition is running");
            bench.frame();
        };
        start(1000, 0.256);
        ASSERT_TRUE(soonStarted() && soon([] { return Lad::sent(START, 0) > 0; }));
        sim::clearTraffic();
        for (const Call& call : OPERATIONS)
            EXPECT_EQ(call.make(bench.dev()), 1) << call.name;
        for (const Call& reader : READERS)
            EXPECT_EQ(reader.make(bench.dev()), 0) << reader.name;
        for (std::size_t m = 0; m < 2; ++m)
            EXPECT_TRUE(sim::written(m).empty()) << hex(sim::written(m), 32);
        ASSERT_TRUE(soon([&] { return tried > 1; }));
        EXPECT_EQ(bench->stopAcquisition(), 0);
        EXPECT_EQ(bench->eraseMatrix(), 0) << "waits for the end " << bench->lastError();
        ASSERT_TRUE(bench.events->waitForEnd());
        ASSERT_EQ(bench->setConfig(PLAIN), 0);
        expectNextSeriesWorks();
    }
}

TEST_F(Mpx3LadTurn, OperationUnderATriggerThatDoesNotComeGivesUpOnceForAllMembers)
{
    bench->setAcqMode(dv::ACQMODE_EXT_TRIGGER_START);
    bench.set("TriggerStg", 2);
    startAndExpose(3, 0.02);
    const auto begin = Clock::now();
    EXPECT_EQ(bench->resetMedipix(), 0) << "whatever the members say";
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8));
    expectStop();
    bench.set("TriggerStg", 0);
}

TEST_F(Mpx3LadTurn, OverheatedMemberEndsTheSeries)
{
    // The others may wait for its trigger.
    for (const auto& [synced, member] : {std::pair(false, 1U), std::pair(true, 0U)}) {
        SCOPED_TRACE(synced);
        bench.set("Synced", synced ? 1 : 0);
        start(1000, 0.1);
        ASSERT_TRUE(bench.events->waitFor({READY}));
        sim::addFault(member, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
        ASSERT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
        ASSERT_TRUE(bench.events->waitForEnd());
        const Events events = bench.events->seen();
        ASSERT_GE(events.size(), 3U);
        EXPECT_EQ(Events(events.end() - 2, events.end()),
                  (Events{{FAILED, static_cast<long>(events.size()) - 2}, {FINISHED, 0}}));
        EXPECT_TRUE(std::ranges::any_of(bench.errors->take(), [](const std::string& line) {
            return line.starts_with("Maximal allowed temperature exceeded !") && line.ends_with("81 degrees\n");
        }));
        expectFailure(bench->startAcquisition(1, 0.1), member, TOO_HOT);
        sim::clearFaults(member);
        reconnect();
    }
    bench.set("Synced", 0);
}

TEST_F(Mpx3LadTurn, StartsInASeriesAndFromItsLastEvent)
{
    std::vector<int> inHandlers;
    std::atomic<int> ends = 0;
    bench.events->onEvent = [&](unsigned event) {
        if (event != FINISHED || ends++ < 2)
            inHandlers.push_back(bench->startAcquisition(2, 0.02));
    };
    startAndExpose(2, 0.1);
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 1);
    ASSERT_TRUE(soon([&] { return std::ranges::count(bench.events->seen(), Seen{FINISHED, 0}) == 3; }));
    EXPECT_EQ(inHandlers, (std::vector<int>{1, 1, 1, 1, 0, 1, 1, 1, 1, 0, 1, 1, 1, 1}));
    ASSERT_EQ(frames.size(), 6U);
    expectBlocks(frames.back(), 2, 2, 20);
    bench.events->onEvent = nullptr;
    EXPECT_EQ(bench->startAcquisition(1, std::numeric_limits<double>::quiet_NaN()), 1);
    EXPECT_EQ(bench->startAcquisition(1, 0.0), 1);
}

TEST_F(Mpx3LadTurn, CloseFromHandlers)
{
    std::vector<int> results;
    std::atomic<bool> done = false;
    bench.events->onEvent = [&](unsigned event) {
        results.push_back(bench->closeDevice());
        done = event == FINISHED;
    };
    start(2, 0.02);
    ASSERT_TRUE(soon([&] { return done.load(); }));
    EXPECT_EQ(results, (std::vector<int>{1, 1, 1, 1, 0})) << "busy, two frames, not busy, the last event";
    EXPECT_FALSE(bench->isConnected());
    bench.events->onEvent = nullptr;
    bringUp();
}

TEST_F(Mpx3LadTurn, BoardsHoldUpNeitherStopNorClose)
{
    using Spoil = void (*)(std::size_t);
    const std::pair<const char*, Spoil> WAYS[] = {
        {"mute",
         [](std::size_t m) {
             sim::addFault(m, {{"kind", "silence"}, {"seconds", 1000.0}});
         }},
        {"gone", [](std::size_t m) { sim::unplug(m); }},
        {"well", [](std::size_t) {}},
    };
    for (const auto& [name, spoil] : WAYS) {
        SCOPED_TRACE(name);
        for (const bool closes : {false, true}) {
            startAndExpose(3, 30.0);
            spoil(0);
            spoil(1);
            if (!closes)
                expectWithin(2.0, [&] { return bench->stopAcquisition(); });
            expectWithin(3.0, [&] { return bench->closeDevice(); });
            for (std::size_t m = 0; m < 2; ++m) {
                sim::clearFaults(m);
                sim::plug(m);
            }
            bringUp();
        }
    }
}

TEST(Mpx3LadDestroy, HandlerThatHoldsTheSeriesGetsTheDevice)
{
    sim::loadBench({{"boards", ladBoards(1, mpx3Board({1}))}, {"scene", flatScene(1000)}});
    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    folder.write("latixel.ini", "[Settings]\n" + TWO_CHANNELS_EACH);
    auto* device =
        new Device(&host, folder.path(), nullptr, folder / "latixel.ini", {"Latixel Latixel M3WA 1 sn: 101 A"});
    ASSERT_EQ(device->initDevice(), 0);
    EventLog events(*device);
    std::atomic<bool> inside = false;
    std::atomic<bool> go = false;
    events.onFrame = [&](long) {
        inside = true;
        while (!go)
            sleepMs(1);
    };
    ASSERT_EQ(device->startAcquisition(3, 0.02), 0);
    ASSERT_TRUE(soon([&] { return inside.load(); }));
    EXPECT_EQ(device->closeDevice(), 1);
    device->destroy();
    EXPECT_EQ(sim::openSessions(), 1) << "the series' thread still has it";
    go = true;
    EXPECT_TRUE(soon([] { return sim::openSessions() == 0 && sim::liveContexts() == 0; }));
    EXPECT_TRUE(soon([&] { return host.liveManagers() == 0; }));
    sim::clearBus();
}

TEST(Mpx3LadHostErrors, AreAnswered)
{
    Lad bench(boards(2), TWO_CHANNELS_EACH);
    std::vector<Call> calls(std::begin(OPERATIONS), std::end(OPERATIONS));
    calls.push_back({"setBias", [](Device& d) { return d.setBias(50); }});
    calls.push_back({"start", [](Device& d) { return d.startAcquisition(1, 0.01); }});
    calls.push_back({"lastData", [](Device& d) { return d.lastData() == nullptr ? 1 : 0; }});
    calls.push_back({"readMatrix", [](Device& d) {
                         std::vector<unsigned> pixels(4 * CHIP);
                         return d.readMatrix(pixels.data(), pixels.size(), true);
                     }});
    const auto expectClosed = [&] {
        for (const Call& call : calls) {
            bench.errors->take();
            EXPECT_EQ(call.make(bench.dev()), 1) << call.name;
            EXPECT_EQ(bench.errors->take().size(), 1U) << call.name;
        }
        EXPECT_EQ(bench->deviceStatus(), 0);
        EXPECT_STREQ(bench->deviceStatusText(), "");
        EXPECT_EQ(bench->adcValue(0), -1005);
        EXPECT_EQ(bench->stopAcquisition(), 0);
        EXPECT_EQ(bench->closeDevice(), 0);
    };
    expectClosed();
    ASSERT_EQ(bench->initDevice(), 0);
    const Call NULLS[] = {
        {"devInfo", [](Device& d) { return d.devInfo(nullptr); }},
        {"devMpxInfo", [](Device& d) { return d.devMpxInfo(nullptr); }},
        {"devMpx3Info", [](Device& d) { return d.devMpx3Info(nullptr); }},
        {"chipIDList", [](Device& d) { return d.chipIDList(nullptr); }},
        {"analogValue", [](Device& d) { return d.analogValue(0, nullptr); }},
        {"setDacs", [](Device& d) { return d.setDacs(nullptr, 4 * 27, -1); }},
        {"writeMatrix", [](Device& d) { return d.writeMatrix(nullptr, 4 * CHIP, true); }},
        {"readMatrix", [](Device& d) { return d.readMatrix(nullptr, 4 * CHIP, true); }},
        {"setPixelCfg", [](Device& d) { return d.setPixelCfg(nullptr, 8 * CHIP); }},
    };
    sim::clearTraffic();
    for (const Call& call : NULLS) {
        bench.errors->take();
        EXPECT_EQ(call.make(bench.dev()), 1) << call.name;
        EXPECT_EQ(bench.errors->take().size(), 1U) << call.name;
    }
    for (const int chip : {-2, -100, 4, 1000})
        EXPECT_EQ(bench.setDacs(DACS, chip), 0) << "no such chip";
    EXPECT_TRUE(sim::written(0).empty());
    EXPECT_EQ(bench->closeDevice(), 0);
    expectClosed();
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.series(2, 0.02).size(), 2U);
    bench.expectNoViolations();
}
