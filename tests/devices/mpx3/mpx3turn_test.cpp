// What a host may call when on a Medipix3 board or on a composite of them, and what it gets: frames, operations,
// readers, starts, stops and closing against the states of a series.
#include "devices/mpx3/mpx3ladbench.h"

#include <atomic>
#include <limits>

using namespace support;

namespace {

const dv::_Mpx3Config PLAIN = plainConfig();
constexpr std::size_t CHIP = 65536;
constexpr double STREAM = 196625; ///< bytes of a board's frame of 12 bits
constexpr const char* RUNNING = "Acquisition is running";

/// Boards of two chips each, and the checks that hold for a board alone and for a composite of two.
template <typename Bench, std::size_t MEMBERS>
class Turn : public SeriesTest<Bench, MEMBERS> {
protected:
    using Base = SeriesTest<Bench, MEMBERS>;
    using Base::Base, Base::bench, Base::frames, Base::READY, Base::FINISHED, Base::FAILED;
    using typename Base::Clock, typename Base::Events;
    static constexpr unsigned BOARDS = MEMBERS;
    static constexpr std::size_t CHIPS = 2 * MEMBERS;

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->setConfig(PLAIN), 0);
        bench->deviceStatus();
        this->takeFrames();
        sim::clearTraffic();
    }
    void expectFrames(std::size_t count, unsigned level)
    {
        ASSERT_EQ(frames.size(), count);
        for (const auto& frame : frames)
            expectBlocks(frame, MEMBERS, 2, level);
    }
    /// Ends a call within so many seconds.
    template <typename Made>
    void expectWithin(double limit, Made made)
    {
        const auto begin = Clock::now();
        EXPECT_EQ(made(), 0) << bench->lastError();
        EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), limit);
    }
    /// Operations that leave the pixels' counts alone, or at zero; 0 is good.
    std::vector<std::function<int()>> operations()
    {
        return {
            [this, volts = 0.0]() mutable { return bench->analogValue(CHIPS - 1, &volts); },
            [this] { return bench->senseDac(CHIPS - 2, 3); },
            [this] { return bench.setDacs(dacs); },
            [this] { return bench->setDacs(dacs.data(), 0, -1); },
            [this] { return bench->setConfig(PLAIN); },
            [this] { return bench->eraseMatrix(); },
            [this] { return bench->resetMedipix(); },
            [this] { return bench.write(nothing, false); },
        };
    }
    void poll()
    {
        double volts = 0;
        EXPECT_EQ(bench->deviceStatus(), 0);
        EXPECT_NE(bench->deviceStatusText(), nullptr);
        EXPECT_GE(bench->adcValue(16 * MEMBERS - 13), 0);
        bench->biasVoltageCurrentSense(&volts, nullptr);
    }
    /// The bytes that are told to be missing on the frame of the host; the frame goes to `frames`.
    double takeMissing()
    {
        auto frame = refhost::adopt(bench->lastData());
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

    void expectHeatEndsTheSeries(std::size_t member, const std::string& refusal)
    {
        this->start(1000, 0.1);
        ASSERT_TRUE(bench.events->waitFor({READY}));
        sim::addFault(member, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
        ASSERT_TRUE(soon([&] { return bench->deviceStatus() == 2; }));
        ASSERT_TRUE(bench.events->waitForEnd());
        const Events events = bench.events->seen();
        ASSERT_GE(events.size(), 3U);
        const long data = MEMBERS == 1 ? -1037 : static_cast<long>(events.size()) - 2;
        EXPECT_EQ(Events(events.end() - 2, events.end()), (Events{{FAILED, data}, {FINISHED, 0}}));
        EXPECT_TRUE(std::ranges::any_of(bench.errors->take(), [](const std::string& line) {
            return line.starts_with("Maximal allowed temperature exceeded !") && line.ends_with("81 degrees\n");
        }));
        EXPECT_EQ(bench->startAcquisition(1, 0.1), 1);
        bench.expectError(refusal);
        sim::clearFaults(member);
        this->reconnect();
    }
    /// What no device takes, and `more`: each gives 1 and one line, and nothing goes to the boards.
    void expectHostErrors(std::vector<std::function<int()>> calls)
    {
        constexpr double INFINITE = std::numeric_limits<double>::infinity();
        for (const double time : {std::nan(""), INFINITE, -INFINITE, -1.0, 0.0, 1e-8, 86401.0})
            calls.emplace_back([this, time] { return bench->startAcquisition(1, time); });
        calls.insert(calls.end(), {
                                      [this] { return bench->devInfo(nullptr); },
                                      [this] { return bench->devMpxInfo(nullptr); },
                                      [this] { return bench->devMpx3Info(nullptr); },
                                      [this] { return bench->chipIDList(nullptr); },
                                      [this] { return bench->analogValue(0, nullptr); },
                                      [this] { return bench->setDacs(nullptr, CHIPS * 27, -1); },
                                      [this] { return bench->writeMatrix(nullptr, CHIPS * CHIP, true); },
                                      [this] { return bench->setPixelCfg(nullptr, 2 * CHIPS * CHIP); },
                                  });
        expectEachRefused(calls);
        EXPECT_TRUE(sim::written(0).empty());
    }
    void expectEachRefused(const std::vector<std::function<int()>>& calls)
    {
        for (const auto& call : calls) {
            bench.errors->take();
            EXPECT_EQ(call(), 1) << &call - calls.data();
            EXPECT_EQ(bench.errors->take().size(), 1U) << &call - calls.data();
        }
    }

    const std::vector<unsigned short> dacs = std::vector<unsigned short>(CHIPS * 27, 5);
    const std::vector<unsigned> nothing = std::vector<unsigned>(CHIPS * CHIP);
};

class Mpx3Turn : public Turn<Mpx3Bench, 1> {
protected:
    Mpx3Turn() : Turn(mpx3Board({1, 1}), TWO_CHANNELS) {}
};

class Mpx3LadTurn : public Turn<Mpx3LadBench, 2> {
protected:
    explicit Mpx3LadTurn(const nlohmann::json& boards = mpx3LadBoards()) : Turn(boards, TWO_CHANNELS_EACH) {}
};

template <typename Kind>
class Mpx3Turns : public Kind {
};
using Kinds = testing::Types<Mpx3Turn, Mpx3LadTurn>;
TYPED_TEST_SUITE(Mpx3Turns, Kinds);

nlohmann::json noisyBoards()
{
    nlohmann::json list = mpx3LadBoards();
    for (auto& board : list)
        board["scene"] = {{"kind", "flat"}, {"flux", 3000.0}, {"noise", true}};
    return list;
}

class Mpx3LadNoise : public Mpx3LadTurn {
protected:
    Mpx3LadNoise() : Mpx3LadTurn(noisyBoards()) { worksAtTheEnd = false; }
};

/// A device whose handler does not return is freed by the handler's thread.
template <typename Device>
void expectLeftToItsHandler(refhost::Host& host, Device* device)
{
    ASSERT_EQ(device->initDevice(), 0);
    EventLog events(*device);
    std::atomic<bool> inside = false;
    std::atomic<bool> go = false;
    events.onFrame = [&](long) {
        inside = true;
        while (!go)
            sleepMs(1);
    };
    ASSERT_EQ(device->startAcquisition(3, 0.1), 0);
    ASSERT_TRUE(soon([&] { return inside.load(); }));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(device->closeDevice(), 1);
    EXPECT_NE(std::string(device->lastError()).find("evice cannot be closed"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
    device->destroy();
    EXPECT_EQ(sim::openSessions(), 1) << "the series' thread still has it";
    go = true;
    EXPECT_TRUE(soon([] { return sim::openSessions() == 0 && sim::liveContexts() == 0; }));
    EXPECT_TRUE(soon([&] { return host.liveManagers() == 0; }));
    sim::clearBus();
}

} // namespace

TYPED_TEST(Mpx3Turns, WholeSeriesRefusesOperationsUntilItIsStopped)
{
    auto& tested = this->bench;
    const auto calls = this->operations();
    const auto expectRefused = [&] {
        for (const auto& call : calls) {
            EXPECT_EQ(call(), 1) << &call - calls.data();
            EXPECT_STREQ(tested->lastError(), RUNNING);
        }
    };
    for (const bool tdi : {false, true}) {
        SCOPED_TRACE(tdi);
        tested->setAcqMode(tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
        dv::_Mpx3Config config = PLAIN;
        config.continuousRW = tdi ? 0 : 1;
        ASSERT_EQ(tested->setConfig(config), 0);
        tested->deviceStatus();
        std::atomic<int> tried = 0;
        tested.events->onFrame = [&](long) {
            if (tried++ == 0)
                expectRefused();
            tested.frame();
        };
        this->startAndExpose(1000, 0.256);
        ASSERT_TRUE(soon([&] { return tested.sent(this->START) > 0; }));
        expectRefused();
        sim::clearTraffic();
        this->poll();
        for (std::size_t m = 0; m < TestFixture::BOARDS; ++m)
            EXPECT_TRUE(sim::written(m).empty()) << hex(sim::written(m), 32);
        ASSERT_TRUE(soon([&] { return tried > 1; }));
        EXPECT_EQ(tested->stopAcquisition(), 0);
        EXPECT_EQ(tested->eraseMatrix(), 0) << "waits for the end " << tested->lastError();
        ASSERT_TRUE(tested.events->waitForEnd());
        ASSERT_EQ(tested->setConfig(PLAIN), 0);
        this->expectNextSeriesWorks();
    }
}

TYPED_TEST(Mpx3Turns, FrameTellsWhatIsMissing)
{
    auto& tested = this->bench;
    auto& taken = this->frames;
    constexpr unsigned MEMBERS = TestFixture::BOARDS;
    std::vector<double> missing;
    tested.events->onFrame = [&](long) { missing.push_back(this->takeMissing()); };
    this->startAndExpose(3, 0.2);
    sim::addFault(MEMBERS - 1, {{"kind", "short_read"}, {"bytes", 5000}, {"times", 1}, {"when", {{"after_reads", 1}}}});
    ASSERT_TRUE(tested.events->waitForEnd());
    EXPECT_EQ(tested.events->seen(), readyEvents(3, HWEVENT_ACQ_FINISHED));
    EXPECT_EQ(missing, (std::vector<double>{STREAM - 5000, 0, 0}));
    EXPECT_TRUE(tested.logged(MEMBERS == 1 ? "[ERR]: Frame is incomplete: 5000 of 196625 bytes received\n"
                                           : "[ERR]: Frame is incomplete: 201625 of 393250 bytes received\n"));
    EXPECT_TRUE(tested.errors->take().empty());
    constexpr std::size_t LAST = (MEMBERS - 1) * 2 * CHIP;
    EXPECT_EQ(taken.at(0)[LAST], 200U * MEMBERS);
    EXPECT_EQ(taken[0].back(), 0U) << "of a row that did not come";
    taken[0].resize(LAST);
    expectBlocks(taken[0], MEMBERS - 1, 2, 200);
    // Parts that a stop keeps from coming are empty, also those that an older frame had filled. A board alone does
    // not announce a frame that was cut as a whole.
    for (const unsigned mode : {0U, unsigned{dv::ACQMODE_TDI}}) {
        if (MEMBERS == 1 && mode == 0)
            continue;
        tested->setAcqMode(mode);
        missing.clear();
        this->startAndExpose(3, 30.0);
        this->expectStop(1);
        ASSERT_EQ(missing.size(), 1U);
        EXPECT_TRUE(mode == 0 ? missing[0] == MEMBERS * STREAM : missing[0] > MEMBERS * STREAM / 2) << missing[0];
        if (MEMBERS > 1) { // a board alone hands out the rows that have come
            EXPECT_EQ(std::ranges::count(taken.back(), 0U), static_cast<long>(MEMBERS * 2 * CHIP));
        }
    }
}

TYPED_TEST(Mpx3Turns, BoardsHoldUpNeitherStopNorClose)
{
    auto& tested = this->bench;
    for (const nlohmann::json& fault : {nlohmann::json{{"kind", "silence"}, {"seconds", 1000.0}},
                                        nlohmann::json{{"kind", "unplug"}}, nlohmann::json()})
        for (const bool closes : {false, true}) {
            SCOPED_TRACE(fault.dump());
            this->startAndExpose(3, 30.0);
            for (std::size_t m = 0; m < TestFixture::BOARDS && !fault.is_null(); ++m)
                sim::addFault(m, fault);
            if (!closes)
                this->expectWithin(2.0, [&] { return tested->stopAcquisition(); });
            this->expectWithin(3.0, [&] { return tested->closeDevice(); });
            for (std::size_t m = 0; m < TestFixture::BOARDS; ++m) {
                sim::clearFaults(m);
                sim::plug(m);
            }
            this->bringUp();
        }
}

TEST_F(Mpx3Turn, HeatEndsTheSeries)
{
    expectHeatEndsTheSeries(0, TOO_HOT);
}

TEST_F(Mpx3LadTurn, HeatEndsTheSeries)
{
    // The others may wait for its trigger.
    for (const auto& [synced, member] : {std::pair(0, 1U), std::pair(1, 0U)}) {
        bench.set("Synced", synced);
        expectHeatEndsTheSeries(member, Mpx3LadBench::failure(bench.names[member], TOO_HOT));
    }
    bench.set("Synced", 0);
}

TEST_F(Mpx3Turn, HostErrorsAreAnswered)
{
    constexpr std::size_t ABSURD = std::numeric_limits<std::size_t>::max();
    expectHostErrors({[this] { return bench->setCTPR(nullptr, 32); }, [this] { return bench->setTimer(-1); },
                      [this, byte = std::uint8_t{0}] { return bench->setPixelCfg(&byte, ABSURD); }});
    std::vector<unsigned> matrix(CHIPS * CHIP);
    EXPECT_EQ(bench->readMatrix(nullptr, matrix.size(), true), 0);
    EXPECT_EQ(bench->readMatrix(matrix.data(), ABSURD, true), 0) << "what it has";
    const char* text = bench->deviceStatusText();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(text, bench->deviceStatusText()) << "outlives the polls behind it";
}

TEST_F(Mpx3LadTurn, HostErrorsAreAnswered)
{
    const auto read = [this] { return bench->readMatrix(nullptr, CHIPS * CHIP, true); };
    expectHostErrors({read});
    for (const int chip : {-2, 4, 1000})
        EXPECT_EQ(bench.setDacs(dacs, chip), 0) << "no such chip";
    EXPECT_TRUE(sim::written(0).empty());
    bench->closeDevice();
    auto calls = operations();
    calls.insert(calls.end(),
                 {read, [this] { return bench->setBias(50); }, [this] { return bench->startAcquisition(1, 0.01); },
                  [this] { return bench->lastData() == nullptr ? 1 : 0; }});
    expectEachRefused(calls);
    EXPECT_EQ(bench->deviceStatus(), 0);
    EXPECT_STREQ(bench->deviceStatusText(), "");
    EXPECT_EQ(bench->adcValue(0), -1005);
    EXPECT_EQ(bench->stopAcquisition(), 0);
    EXPECT_EQ(bench->closeDevice(), 0);
    bringUp();
}

TEST(Mpx3Destroy, HandlerThatHoldsTheSeriesGetsTheDevice)
{
    const TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    folder.write("latixel.ini", ONE_CHANNEL);
    const auto boards = ladBoards(1, mpx3Board({1}));
    const std::string name = boards[0].at("description");
    const nlohmann::json bus = {{"boards", boards}, {"scene", flatScene(1000)}};
    sim::loadBench(bus);
    expectLeftToItsHandler(host,
                           new HwLatixel::Mpx3Dev(name, &host, folder.path(), folder / "latixel.ini", "A", false));
    sim::loadBench(bus);
    expectLeftToItsHandler(
        host, new HwLatixel::Mpx3LadDev(&host, folder.path(), nullptr, folder / "latixel.ini", Strings{name}));
}

TEST_F(Mpx3Turn, OperationsGetTheLinkInABurstWhoseFramesNobodyTakes)
{
    bench.events->onFrame = nullptr;
    startAndExpose(3, 0.01, 2);
    sleepMs(100);
    expectWithin(4, [&] { return bench->eraseMatrix(); });
    // The frame that was on the wire meanwhile is there, and the series goes on.
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(soon([&] { return bench.events->seen().size() > i; }));
        frames.push_back(bench.frame());
    }
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    frames.resize(2);
    expectFrames(2, 10);
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

TEST_F(Mpx3Turn, BigFlashValueIsReadBehindTheSeries)
{
    dv::IParam* table = bench->inDeviceConfigParameters()->get("Table");
    startAndExpose(3, 0.2);
    EXPECT_EQ(table->getInt32(), 0);
    EXPECT_STREQ(bench->lastError(), RUNNING);
    ASSERT_TRUE(bench.events->waitForEnd());
    expectFrames(3, 200);
    EXPECT_EQ(table->getInt32(), 1);
}

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

TEST_F(Mpx3LadTurn, OperationsInHandlersAndBesideASeries)
{
    const auto calls = operations();
    for (const int synced : {0, 1}) {
        SCOPED_TRACE(synced);
        bench.set("Synced", synced);
        const std::jthread polls([&](const std::stop_token& stop) {
            while (!stop.stop_requested())
                poll();
        });
        bench.events->onFrame = [&](long i) {
            if (i % 2 != 0)
                frames.push_back(bench.frame());
            EXPECT_EQ(calls[static_cast<std::size_t>(i) / 2](), 0) << i << " " << bench->lastError();
            if (i % 2 == 0)
                frames.push_back(bench.frame());
        };
        expectSeries(static_cast<unsigned>(2 * calls.size()), 0.02);
        takeFrames();
        start(8, 0.05);
        for (const auto& call : calls)
            EXPECT_EQ(call(), 0) << bench->lastError();
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_EQ(bench.events->seen(), readyEvents(8, FINISHED));
        expectFrames(8, 50);
    }
    bench.set("Synced", 0);
}

TEST_F(Mpx3LadTurn, OperationUnderATriggerThatDoesNotComeGivesUpOnceForAllMembers)
{
    bench->setAcqMode(dv::ACQMODE_EXT_TRIGGER_START);
    bench.set("TriggerStg", 2);
    startAndExpose(3, 0.02);
    expectWithin(8, [&] { return bench->resetMedipix(); }); // 0 whatever the members say
    expectStop();
    bench.set("TriggerStg", 0);
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
