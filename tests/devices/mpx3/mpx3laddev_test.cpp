// Composites of Medipix3 boards: one detector of several members, its series, and what a member's failure does to it.
#include "devices/mpx3/mpx3ladbench.h"

#include <array>
#include <numeric>

using namespace support;

namespace {

using Lad = Mpx3LadBench;

class Mpx3Lad : public LadTest<Lad> {
protected:
    Mpx3Lad() : LadTest(mpx3LadBoards(), TWO_CHANNELS_EACH) {}

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        takeFrames();
        sim::clearTraffic();
    }
    template <typename Look>
    void chip(std::size_t index, Look look)
    {
        SCOPED_TRACE(index);
        bench.board(index / 2, [&](sim::Mpx3Board& board) { look(board.chip(index % 2)); });
    }
};

} // namespace

TEST(LadNames, HighestBiasGoesByTheOrderOfTheNames)
{
    const std::pair<Strings, double> cases[] = {
        {{}, 100},
        {{"M3WA", "M3WB"}, 200},
        {{"M3WB", "M3WC"}, 0}, // a later C wipes out a B
        {{"M3WC", "M3WA"}, 100},
        {{"M3WB", "M3W"}, 200}, // three characters are no type
    };
    for (auto [names, volts] : cases) {
        for (auto& name : names)
            name = "Latixel Latixel " + name + " sn: 1";
        EXPECT_EQ(HwLatixel::maxBiasOf(names), volts) << testing::PrintToString(names);
    }
    EXPECT_EQ(HwLatixel::maxBiasOf({"Latixel Latixel M3WB sn:1"}), 100.0) << "four words are no name";
    EXPECT_EQ(HwLatixel::biasTypeOf("Latixel Latixel M3WB sn:1"), "");
}

TEST(Mpx3LadBringUp, MembersThatComeUpAreOneDetector)
{
    expectOneDetector<Lad>(mpx3LadBoards(), 3, 0x23);
    auto list = mpx3LadBoards();
    list[0]["flash"]["parameters"].push_back({{"name", "BiasMin"}, {"type", "double"}, {"value", 20.0}});
    list[1]["flash"]["parameters"].push_back({{"name", "BiasMin"}, {"type", "double"}, {"value", -10.0}});
    list[1]["flash"]["parameters"][0]["value"] = -210.0;
    Lad lad(list);
    EXPECT_EQ(lad.info().biasMax, 100.0) << "by the names, until the members have told";
    ASSERT_EQ(lad->initDevice(), 0);
    EXPECT_EQ(lad.info().biasMin, -10.0) << "magnitudes are compared";
    EXPECT_EQ(lad.info().biasMax, -210.0);
    lad.set("DebugLog", 1);
    EXPECT_TRUE(lad.logged("Debug log enabled: 1\n"));
}

TEST_F(Mpx3Lad, DacsPixelsAndSenseGoToTheirChips)
{
    worksAtTheEnd = false;
    std::vector<unsigned short> dacs(4 * 27);
    const auto setDacs = [&](unsigned short first, int chip) {
        std::iota(dacs.begin(), dacs.end(), first);
        return bench.setDacs(dacs, chip);
    };
    const auto expectDacs = [&](std::array<unsigned, 4> first) {
        for (std::size_t index = 0; index < 4; ++index)
            chip(index, [&](auto& c) {
                EXPECT_EQ(c.dacs()[0], first[index]);
                EXPECT_EQ(c.dacs()[1], first[index] + 1);
            });
    };
    ASSERT_EQ(setDacs(0, -1), 0);
    expectDacs({0, 27, 54, 81});
    ASSERT_EQ(setDacs(100, 3), 0);
    expectDacs({0, 27, 54, 181});
    EXPECT_EQ(setDacs(0, 4), 0) << "no such chip";
    dacs.resize(3 * 27);
    EXPECT_EQ(bench.setDacs(dacs, 3), 0) << "a single chip fails silently";
    expectFailure(bench.setDacs(dacs), 1, "Cannot set DACs (chan=1, chip=1): too few values");

    std::vector<unsigned char> cfg(4 * CHIP * 2);
    for (std::size_t i = 0; i < cfg.size(); i += 2)
        cfg[i] = static_cast<unsigned char>((i / (2 * CHIP) + 1) << 3);
    ASSERT_EQ(bench.setPixelCfg(cfg), 0);
    for (std::size_t index = 0; index < 4; ++index)
        chip(index, [&](auto& c) {
            const auto own = [&](auto word) { return (word >> 1U & 0x1FU) == index + 1; };
            EXPECT_TRUE(std::ranges::all_of(c.configuration(), own));
        });

    double volts = -1;
    ASSERT_EQ(bench->senseDac(3, 4), 0);
    ASSERT_EQ(bench->analogValue(3, &volts), 0);
    chip(3, [&](auto& c) {
        EXPECT_EQ(c.omr().get(sim::OmrField::SenseDac), 5U);
        EXPECT_NEAR(volts, *c.senseVolts(), 0.01);
    });
    EXPECT_EQ(bench->senseDac(4, 4), 1);
}

TEST_F(Mpx3Lad, MatricesBiasAndAdcOfAllMembers)
{
    ASSERT_EQ(bench->setConfig(plainConfig()), 0);
    expectMatricesComeBack(4096);
    EXPECT_EQ(bench->eraseMatrix(), 0);

    double volts = 5;
    EXPECT_EQ(bench->biasVoltageCurrentSense(nullptr, nullptr), 0);
    ASSERT_EQ(bench->setBias(50), 0);
    for (std::size_t m = 0; m < 2; ++m)
        bench.board(m, [](sim::Mpx3Board& board) { EXPECT_EQ(board.biasCode(), 141); });
    EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, nullptr), 0);
    EXPECT_NEAR(volts, 50, 3);
    // It is not measured in a series.
    const double before = volts;
    startAndExpose(1, 30);
    sim::clearTraffic();
    EXPECT_EQ(bench->biasVoltageCurrentSense(&volts, nullptr), 0);
    EXPECT_EQ(volts, before);
    EXPECT_TRUE(sim::written(0).empty());
    expectStop();
    expectAdcAndStatus();
}

TEST_F(Mpx3Lad, FailureOfAMemberEndsABroadcast)
{
    worksAtTheEnd = false;
    sim::addFault(1, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_EQ(bench->deviceStatus(), 2);
    expectFailure(bench.write(Lad::Pixels(4 * CHIP)), 1);
    expectFailure(bench->startAcquisition(1, 0.01), 1);
    EXPECT_EQ(bench->lastData(), nullptr);
    expectFailure(1, 1);
    EXPECT_TRUE(bench.events->seen().empty());
    sim::unplug(0);
    sim::clearTraffic();
    expectFailure(bench->setBias(50), 0);
    EXPECT_TRUE(sim::written(1).empty());
    EXPECT_EQ(bench->resetMedipix(), 0) << "calls all, whatever they say";
    EXPECT_FALSE(sim::written(1).empty());
}

TEST_F(Mpx3Lad, FollowersStartWithTheMaster)
{
    bench->setAcqMode(dv::ACQMODE_EXT_TRIGGER_STOP);
    bench->setAcqMode(0);
    expectSeries(4, 0.05);
    for (std::size_t m = 0; m < 2; ++m)
        EXPECT_EQ(Lad::sent("55 02 05 01 01 00 00 00", m), 4) << "no trigger";
    EXPECT_DOUBLE_EQ(bench->lastAcqTime(), 0.05);
    expectSeries(0, 0.05);

    const auto expectWords = [&](unsigned master, unsigned follower) {
        bench.board(0, [&](sim::Mpx3Board& board) { EXPECT_EQ(board.triggerWord(), master); });
        bench.board(1, [&](sim::Mpx3Board& board) { EXPECT_EQ(board.triggerWord(), follower); });
    };
    bench.set("Synced", 1);
    bench.set("TriggerTdiSeries", 1);
    bench.set("TdiRowCount", 3);
    expectSeries(3, 0.05);
    constexpr unsigned TDI_SERIES = 0x20;
    expectWords(TDI_SERIES | 8 | 4, TDI_SERIES | 4);
    for (std::size_t m = 0; m < 2; ++m)
        EXPECT_EQ(Lad::sent("55 02 05 01 03 00 00 00", m), 3) << "frames start on a trigger";
    bench.set("TriggerTdiSeries", 0);
    bench.set("TriggerOutLevel", 1);
    bench.set("TriggerStg", 1);
    expectSeries(2, 0.02);
    expectWords(0x10 | 8 | 4 | 1, 0x10 | 4 | 1);
    bench.set("TriggerOutLevel", 0);
    expectSeries(2, 0.02);
    expectWords(8 | 4 | 1, 4);
    // An edge that does not come: everybody waits until the stop.
    bench.set("TriggerStg", 2);
    startAndExpose(2, 0.02);
    sleepMs(100);
    EXPECT_TRUE(bench.events->seen().empty());
    EXPECT_EQ(bench->stopAcquisition(), 0);
    ASSERT_TRUE(bench.events->waitForEnd());
    bench.set("Synced", 0);
}

TEST_F(Mpx3Lad, HostPacesTheSeries)
{
    startWithoutReader();
    readTooLittle();
    ASSERT_TRUE(soon([&] { return bench.events->seen().size() == 2; }));
    expectBlocks(bench.frame(), 2, 2, 20);
    ASSERT_TRUE(bench.events->waitForEnd());
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    // Nobody has taken the last frame, and its members' ends wait for that: the next series doesn't.
    expectNextSeriesWorks();
    takeFrames(40);
    expectSeries(6, 0.001);
}

TEST_F(Mpx3Lad, MemberThatFailsEndsTheSeries)
{
    sim::addFault(1, behind(START, {{"kind", "silence"}, {"seconds", 3.0}}, 3));
    run(5, 0.05);
    EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}, {READY, 1}, {FAILED, 2}, {FINISHED, 0}}));
    EXPECT_EQ(frames.size(), 2U);
    sim::clearFaults(1);
    expectNextSeriesWorks();
    // The same where the host takes nothing, so that the other member's event waits.
    bench.events->onFrame = nullptr;
    sim::addFault(0, behind(START, {{"kind", "unplug"}}));
    run(5, 0.05);
    EXPECT_EQ(bench.events->seen(), (Events{{FAILED, 0}, {FINISHED, 0}}));
    sim::plug(0);
    reconnect();
}

TEST_F(Mpx3Lad, StopInEachState)
{
    expectStops();
    startWithoutReader(); // the second frame waits for the reader of the first
    expectStop();
}

TEST_F(Mpx3Lad, TdiSeriesEndsAndStops)
{
    bench->setAcqMode(dv::ACQMODE_TDI);
    run(3, 0.256);
    EXPECT_EQ(bench.events->seen(), readyEvents(3, FINISHED));
    EXPECT_EQ(frames.size(), 3U);
    startAndTake(1000, 0.256, 1);
    expectStop();
    bench.events->onFrame = nullptr;
    startAndTake(1000, 0.1, 1); // by nobody
    sleepMs(400);
    expectStop();
}

TEST_F(Mpx3Lad, RestartRightBehindAStop)
{
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        bench.events->onFrame = nullptr;
        start(50, 0.005);
        // The members' events wait for the reader by then, or the series has only just begun.
        sleepMs(30 * i);
        EXPECT_EQ(bench->stopAcquisition(), 0);
        ASSERT_EQ(bench->startAcquisition(0, 0.01), 0) << "waits for the former one's end";
        ASSERT_TRUE(bench.events->waitFor({FINISHED}));
        const Events events = bench.events->seen();
        EXPECT_EQ(Events(events.end() - 2, events.end()), (Events{{ABORTED, 0}, {FINISHED, 0}}));
        expectNextSeriesWorks();
    }
}

TEST_F(Mpx3Lad, CloseDuringASeries)
{
    expectCloseInSeries(0.02, 150);
    bench->setAcqMode(dv::ACQMODE_TDI);
    expectCloseInSeries(0.2, 150);
    worksAtTheEnd = false; // the bench closes it
    bench.events->onFrame = nullptr;
    start(100, 0.02);
}
