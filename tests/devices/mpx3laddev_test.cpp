// Composites of Medipix3 boards: one detector of several members, its series, and what a member's failure does to it.
#include "devices/ladbench.h"
#include "devices/mpx3bench.h"

#include "devices/mpx3laddev.h"

using namespace support;

namespace {

using Lad = LadBench<HwLatixel::Mpx3LadDev, sim::Mpx3Board, unsigned>;
using Clock = std::chrono::steady_clock;
using Events = std::vector<Seen>;

constexpr auto READY = HWEVENT_FRAME_READY;
constexpr auto FINISHED = HWEVENT_ACQ_FINISHED;
constexpr auto FAILED = HWEVENT_ACQ_FAILED;
constexpr auto ABORTED = HWEVENT_ACQ_ABORTED;
constexpr std::size_t CHIP = Lad::CHIP;
constexpr const char* START = "55 02 05 01";

/// Boards of so many chips each; the first one's trigger output is wired to the others.
nlohmann::json boards(std::size_t members, int chips)
{
    nlohmann::json list = nlohmann::json::array();
    for (std::size_t m = 1; m <= members; ++m) {
        const std::string number = std::to_string(m);
        nlohmann::json board = mpx3Board(chips);
        board["description"] = "Latixel Latixel M3WA " + number + " sn: 10" + number + " A";
        board["firmware"] = "Firmware 3." + number + " M3";
        board["trigger_line"] = "lad";
        for (int c = 0; c < chips; ++c)
            board["channels"][static_cast<std::size_t>(c)][0] = "C0" + std::to_string(c) + "-W010" + number;
        list.push_back(board);
    }
    return list;
}

/// Two members of two chips each.
class Mpx3Lad : public testing::Test {
protected:
    void SetUp() override { bringUp(); }
    void TearDown() override { Lad::expectNoViolations(); }

    void bringUp()
    {
        ASSERT_EQ(lad->initDevice(), 0);
        takeFrames();
        sim::clearTraffic();
    }
    void takeFrames()
    {
        lad.events->onFrame = [this](long) { frames.push_back(lad.frame()); };
    }
    void start(unsigned count, double time)
    {
        frames.clear();
        lad.events->clear();
        lad.errors.take();
        sim::clearTraffic();
        ASSERT_EQ(lad->startAcquisition(count, time), 0);
    }
    void run(unsigned count, double time)
    {
        start(count, time);
        ASSERT_TRUE(lad.events->waitForEnd());
    }
    void expectNextSeriesWorks()
    {
        lad->setAcqMode(0);
        takeFrames();
        run(3, 0.02);
        EXPECT_EQ(lad.events->seen(), readyEvents(3, FINISHED));
        ASSERT_EQ(frames.size(), 3U);
        expectBlocks(frames[2], 2, 2, 20);
        EXPECT_FALSE(lad->isBusy());
    }
    void expectStop()
    {
        const auto begin = Clock::now();
        EXPECT_EQ(lad->stopAcquisition(), 0);
        ASSERT_TRUE(lad.events->waitForEnd());
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(4));
        EXPECT_EQ(lad.events->seen().back(), (Seen{ABORTED, 0}));
        EXPECT_FALSE(lad->isBusy());
    }

    Lad lad{boards(2, 2), "Module2=0\nModule3=0\nModule4=0\n"};
    std::vector<Lad::Pixels> frames;
};

} // namespace

TEST(LadNames, HighestBiasGoesByTheOrderOfTheNames)
{
    const auto volts = [](std::initializer_list<const char*> types) {
        std::vector<std::string> names;
        for (const std::string type : types)
            names.push_back("Latixel Latixel M3W" + type + " sn: 1");
        return HwLatixel::maxBiasOf(names);
    };
    EXPECT_EQ(volts({}), 100.0);
    EXPECT_EQ(volts({"B", "A"}), 200.0);
    EXPECT_EQ(volts({"A", "B"}), 200.0);
    EXPECT_EQ(volts({"B", "C"}), 0.0) << "a later C wipes out a B";
    EXPECT_EQ(volts({"C", "A"}), 100.0);
    EXPECT_EQ(volts({"C", "B", "X"}), 200.0);
    EXPECT_EQ(volts({"B", ""}), 200.0) << "three characters are no type";
    EXPECT_EQ(HwLatixel::maxBiasOf({"Latixel Latixel M3WB sn:1"}), 100.0) << "four words are no name";
    EXPECT_EQ(HwLatixel::biasTypeOf("Latixel Latixel M3WB sn:1"), "");
}

TEST(Mpx3LadBringUp, AllMembersAreOneDetector)
{
    auto list = boards(2, 2);
    list[0]["flash"]["parameters"][0]["value"] = 20.0;
    list[1]["flash"]["parameters"][0]["value"] = -10.0;
    list[1]["flash"]["parameters"][1]["value"] = -210.0;
    Lad lad(list);
    dv::_DevMpxInfo mpx{};
    lad->devMpxInfo(&mpx);
    EXPECT_EQ(mpx.biasMax, 100.0) << "by the names, until the members have told";
    ASSERT_EQ(lad->initDevice(), 0);
    EXPECT_TRUE(lad->isConnected());
    lad->devMpxInfo(&mpx);
    EXPECT_EQ(mpx.chipTotal, 4U);
    EXPECT_EQ(mpx.pixelTotal, 4U * CHIP);
    EXPECT_EQ(mpx.chipKind, 3);
    EXPECT_EQ(mpx.acqModeMask, 0x23U);
    EXPECT_EQ(mpx.biasMin, -10.0) << "magnitudes are compared";
    EXPECT_EQ(mpx.biasMax, -210.0);
    dv::_DevInfo info{};
    lad->devInfo(&info);
    EXPECT_EQ(info.serialNumber, 1);
    EXPECT_EQ(lad.param("DeviceSerials"), "101 102 ");
    EXPECT_EQ(lad.param("Firmware"), "Firmware 3.2 M3");
    EXPECT_EQ(lad->adcCount(), 32);
    EXPECT_STREQ(lad->deviceName(), "Latixel");
    for (const auto& name : lad.names)
        EXPECT_TRUE(lad.logged("Initialized Latixel device " + name));
    lad->parameters()->get("DebugLog")->setBool(true);
    EXPECT_TRUE(lad.logged("Debug log enabled: 1\n"));
    EXPECT_EQ(lad->closeDevice(), 0);
    EXPECT_FALSE(lad->isConnected());
    EXPECT_EQ(lad->adcCount(), 0);
    Lad::expectNoViolations();
}

TEST(Mpx3LadBringUp, MemberThatDoesNotComeUpIsLeftOut)
{
    const std::string gone = "Latixel Latixel M3WB 0 sn: 99 A";
    {
        Lad lad(boards(2, 1), "", {gone});
        ASSERT_EQ(lad->initDevice(), 0);
        EXPECT_TRUE(lad.logged("Initialization of Latixel device " + gone + " failed: "));
        EXPECT_EQ(lad.param("DeviceSerials"), "101 102 ");
        // Names go by position, and so a failure of the second member carries the first one's.
        const std::vector<unsigned short> dacs(27, 5);
        EXPECT_EQ(lad->setDacs(dacs.data(), dacs.size(), -1), 1);
        EXPECT_EQ(lad->lastError(), Lad::failure(lad.names[1], "Cannot set DACs (chan=0, chip=0): too few values"));
        lad.events->onFrame = [&](long) { expectBlocks(lad.frame(), 2, 1, 20); };
        ASSERT_EQ(lad->startAcquisition(2, 0.02), 0) << lad->lastError();
        ASSERT_TRUE(lad.events->waitForEnd());
        EXPECT_EQ(lad.events->seen(), readyEvents(2, FINISHED));
    }
    {
        Lad lad(boards(1, 1), "", {gone});
        ASSERT_EQ(lad->initDevice(), 0);
        dv::_DevInfo info{};
        lad->devInfo(&info);
        EXPECT_EQ(info.serialNumber, 101) << "of the only member";
    }
    Lad lad(nlohmann::json::array(), "", {gone, "no name of ours"});
    EXPECT_EQ(lad->initDevice(), -1);
    EXPECT_FALSE(lad->isConnected());
    EXPECT_EQ(lad->stopAcquisition(), 0);
}

TEST_F(Mpx3Lad, DacsPixelsAndSenseGoToTheirChips)
{
    std::vector<unsigned short> dacs(4 * 27);
    for (std::size_t i = 0; i < dacs.size(); ++i)
        dacs[i] = static_cast<unsigned short>(i);
    const auto expectDacs = [&](std::size_t chip, unsigned first) {
        lad.board(chip / 2, [&](sim::Mpx3Board& board) {
            EXPECT_EQ(board.chip(chip % 2).dacs()[0], first) << chip;
            EXPECT_EQ(board.chip(chip % 2).dacs()[1], first + 1) << chip;
        });
    };
    ASSERT_EQ(lad->setDacs(dacs.data(), dacs.size(), -1), 0);
    for (unsigned chip = 0; chip < 4; ++chip)
        expectDacs(chip, 27 * chip);
    for (auto& dac : dacs)
        dac = static_cast<unsigned short>(dac + 100);
    ASSERT_EQ(lad->setDacs(dacs.data(), dacs.size(), 3), 0);
    expectDacs(2, 54);
    expectDacs(3, 181);
    EXPECT_EQ(lad->setDacs(dacs.data(), dacs.size(), 4), 0) << "no such chip";
    EXPECT_EQ(lad->setDacs(dacs.data(), 3 * 27, 3), 0) << "a single chip fails silently";
    EXPECT_EQ(lad->setDacs(dacs.data(), 3 * 27, -1), 1);
    EXPECT_EQ(lad->lastError(), Lad::failure(lad.names[1], "Cannot set DACs (chan=1, chip=1): too few values"));

    std::vector<unsigned char> cfg(4 * CHIP * 2);
    for (std::size_t i = 0; i < cfg.size(); i += 2)
        cfg[i] = static_cast<unsigned char>((i / (2 * CHIP) + 1) << 3);
    ASSERT_EQ(lad->setPixelCfg(cfg.data(), cfg.size()), 0);
    for (std::size_t chip = 0; chip < 4; ++chip)
        lad.board(chip / 2, [&](sim::Mpx3Board& board) {
            EXPECT_TRUE(std::ranges::all_of(board.chip(chip % 2).configuration(), [&](auto word) {
                return (word >> 1U & 0x1FU) == chip + 1;
            })) << chip;
        });

    double volts = -1;
    ASSERT_EQ(lad->senseDac(3, 4), 0);
    ASSERT_EQ(lad->analogValue(3, &volts), 0);
    lad.board(1, [&](sim::Mpx3Board& board) {
        EXPECT_EQ(board.chip(1).omr().get(sim::OmrField::senseDac), 5U);
        EXPECT_NEAR(volts, *board.chip(1).senseVolts(), 0.01);
    });
    EXPECT_EQ(lad->senseDac(4, 4), 1);
    EXPECT_EQ(lad->analogValue(4, &volts), 1);
    EXPECT_STREQ(lad->lastError(), "Invalid chip index: 4");
}

TEST_F(Mpx3Lad, MatricesBiasAndAdcOfAllMembers)
{
    ASSERT_EQ(lad->setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0}), 0);
    Lad::Pixels written(4 * CHIP);
    std::mt19937 random(5);
    std::ranges::generate(written, [&] { return static_cast<unsigned>(random() % 4096); });
    ASSERT_EQ(lad->writeMatrix(written.data(), written.size(), true), 0);
    Lad::Pixels back(4 * CHIP);
    ASSERT_EQ(lad->readMatrix(back.data(), back.size(), true), 0);
    EXPECT_TRUE(back == written);
    EXPECT_EQ(lad->eraseMatrix(), 0);
    EXPECT_EQ(lad->resetMedipix(), 0);
    for (const int result : {lad->writeMatrix(written.data(), written.size() - 1, true),
                             lad->readMatrix(back.data(), back.size() - 1, true)}) {
        EXPECT_EQ(result, 1);
        EXPECT_STREQ(lad->lastError(), "Invalid size for matrix (262143 < 262144)");
    }

    double volts = 5;
    double current = 5;
    EXPECT_EQ(lad->biasVoltageCurrentSense(nullptr, nullptr), 0);
    ASSERT_EQ(lad->setBias(100), 0);
    for (std::size_t m = 0; m < 2; ++m)
        lad.board(m, [](sim::Mpx3Board& board) { EXPECT_EQ(board.biasCode(), 27); });
    EXPECT_EQ(lad->biasVoltageCurrentSense(&volts, &current), 0);
    EXPECT_NEAR(volts, 100, 3);

    sim::clearTraffic();
    EXPECT_GE(lad->adcValue(17), 0);
    EXPECT_TRUE(sim::written(0).empty());
    EXPECT_FALSE(sim::written(1).empty());
    EXPECT_EQ(lad->adcValue(32), -1005);
    EXPECT_STREQ(lad->lastError(), "Invalid ADC index.");
    EXPECT_EQ(lad->deviceStatus(), 0);
    EXPECT_STREQ(lad->deviceStatusText(), "OK");
    sim::addFault(1, {{"kind", "cpu_status"}, {"status", 2}, {"text", "hot"}});
    EXPECT_EQ(lad->deviceStatus(), 2);
    EXPECT_EQ(lad->senseDac(0, 0), 0);
    EXPECT_EQ(lad->closeDevice(), 0);
}

TEST_F(Mpx3Lad, FailureOfAMemberEndsABroadcast)
{
    Lad::Pixels pixels(4 * CHIP);
    const auto fails = [&](std::size_t member, int result) {
        EXPECT_EQ(result, 1);
        EXPECT_TRUE(std::string(lad->lastError()).starts_with(Lad::failure(lad.names[member], ""))) << lad->lastError();
    };
    sim::addFault(1, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_EQ(lad->deviceStatus(), 2);
    fails(1, lad->writeMatrix(pixels.data(), pixels.size(), true));
    fails(1, lad->startAcquisition(1, 0.01));
    EXPECT_EQ(lad->lastData(), nullptr);
    fails(1, 1);
    EXPECT_TRUE(lad.events->seen().empty());
    sim::unplug(0);
    sim::clearTraffic();
    fails(0, lad->setBias(50));
    EXPECT_TRUE(sim::written(1).empty());
    EXPECT_EQ(lad->resetMedipix(), 0) << "calls all, whatever they say";
    EXPECT_FALSE(sim::written(1).empty());
}

TEST_F(Mpx3Lad, FramesAreTheMembersBlocks)
{
    lad->setAcqMode(dv::ACQMODE_EXT_TRIGGER_STOP);
    lad->setAcqMode(0);
    run(4, 0.05);
    EXPECT_EQ(lad.events->seen(), readyEvents(4, FINISHED));
    ASSERT_EQ(frames.size(), 4U);
    for (const auto& frame : frames)
        expectBlocks(frame, 2, 2, 50);
    for (std::size_t m = 0; m < 2; ++m)
        EXPECT_EQ(Lad::sent(m, "55 02 05 01 01 00 00 00"), 4) << "no trigger";
    EXPECT_DOUBLE_EQ(lad->lastAcqTime(), 0.05);
    run(0, 0.05);
    EXPECT_EQ(lad.events->seen(), readyEvents(0, FINISHED));
    run(1, 0.6);
    EXPECT_EQ(lad.events->seen(), readyEvents(1, FINISHED));
    expectBlocks(frames.at(0), 2, 2, 600);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, FollowersStartWithTheMaster)
{
    dv::IParamMgr& params = *lad->parameters();
    params.get("Synced")->setBool(true);
    params.get("TriggerTdiSeries")->setBool(true);
    params.get("TdiRowCount")->setInt32(3);
    run(3, 0.05);
    ASSERT_EQ(frames.size(), 3U);
    expectBlocks(frames[2], 2, 2, 50);
    const auto expectWords = [&](unsigned master, unsigned follower) {
        lad.board(0, [&](sim::Mpx3Board& board) { EXPECT_EQ(board.triggerWord(), master); });
        lad.board(1, [&](sim::Mpx3Board& board) { EXPECT_EQ(board.triggerWord(), follower); });
    };
    constexpr unsigned TDI_SERIES = 0x20;
    expectWords(TDI_SERIES | 8 | 4, TDI_SERIES | 4);
    for (std::size_t m = 0; m < 2; ++m)
        EXPECT_EQ(Lad::sent(m, "55 02 05 01 03 00 00 00"), 3) << "frames start on a trigger";
    params.get("TriggerTdiSeries")->setBool(false);
    params.get("TriggerOutLevel")->setByte(1);
    params.get("TriggerStg")->setByte(1);
    run(2, 0.02);
    expectWords(0x10 | 8 | 4 | 1, 0x10 | 4 | 1);
    params.get("TriggerOutLevel")->setByte(0);
    run(2, 0.02);
    expectWords(8 | 4 | 1, 4);
    EXPECT_EQ(frames.size(), 2U);
    // An edge that does not come: everybody waits until the stop.
    params.get("TriggerStg")->setByte(2);
    start(2, 0.02);
    ASSERT_TRUE(Lad::soonSent(1, START));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(lad.events->seen().empty());
    EXPECT_EQ(lad->stopAcquisition(), 0);
    ASSERT_TRUE(lad.events->waitForEnd());
    params.get("Synced")->setBool(false);
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, HostPacesTheSeries)
{
    lad.events->onFrame = nullptr;
    start(3, 0.02);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(lad.events->seen(), (Events{{READY, 0}}));
    for (std::size_t m = 0; m < 2; ++m)
        EXPECT_EQ(Lad::sent(m, START), 2) << "a member has one frame ahead of the host";
    // A read into too small an array takes nothing, but lets the members go on.
    unsigned pixel = 0;
    EXPECT_EQ(lad->readMatrix(&pixel, 1, true), 1);
    ASSERT_TRUE(soon([&] { return lad.events->seen().size() == 2; }));
    expectBlocks(lad.frame(), 2, 2, 20);
    ASSERT_TRUE(lad.events->waitForEnd());
    EXPECT_EQ(lad.events->seen(), readyEvents(3, FINISHED));
    // Nobody has taken the last frame, and its members' ends wait for that: the next series doesn't.
    expectNextSeriesWorks();
    // A host that is slower than the boards loses nothing.
    lad.events->onFrame = [this](long) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        frames.push_back(lad.frame());
    };
    run(6, 0.001);
    EXPECT_EQ(lad.events->seen(), readyEvents(6, FINISHED));
    ASSERT_EQ(frames.size(), 6U);
    expectBlocks(frames[5], 2, 2, 1);
}

TEST_F(Mpx3Lad, BiasIsNotMeasuredInASeries)
{
    double before = 0;
    double volts = 0;
    ASSERT_EQ(lad->setBias(80), 0);
    ASSERT_EQ(lad->biasVoltageCurrentSense(&before, nullptr), 0);
    start(1, 30);
    ASSERT_TRUE(Lad::soonSent(1, START));
    sim::clearTraffic();
    EXPECT_EQ(lad->biasVoltageCurrentSense(&volts, nullptr), 0);
    EXPECT_EQ(volts, before);
    EXPECT_TRUE(sim::written(0).empty());
    expectStop();
}

TEST_F(Mpx3Lad, MemberThatFailsEndsTheSeries)
{
    sim::addFault(1, {{"kind", "silence"}, {"when", {{"after_written", START}, {"occurrence", 3}}}, {"seconds", 3.0}});
    run(5, 0.05);
    EXPECT_EQ(lad.events->seen(), (Events{{READY, 0}, {READY, 1}, {FAILED, 2}, {FINISHED, 0}}));
    EXPECT_EQ(frames.size(), 2U);
    sim::clearFaults(1);
    expectNextSeriesWorks();
    // The same where the host takes nothing, so that the other member's event waits.
    lad.events->onFrame = nullptr;
    sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", START}}}});
    run(5, 0.05);
    EXPECT_EQ(lad.events->seen(), (Events{{FAILED, 0}, {FINISHED, 0}}));
    sim::plug(0);
    lad->closeDevice();
    bringUp();
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, StopInEachState)
{
    start(100, 60); // at once, maybe before the first shutter
    expectStop();
    start(100, 60);
    ASSERT_TRUE(Lad::soonSent(1, START));
    expectStop();
    lad.events->onFrame = nullptr;
    start(100, 0.02); // while the second frame waits for the reader of the first
    ASSERT_TRUE(soon([&] { return Lad::sent(1, START) >= 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    expectStop();
    takeFrames();
    start(10000, 0.001); // while frames come in
    ASSERT_TRUE(soon([&] { return lad.events->seen().size() > 5; }));
    expectStop();
    EXPECT_EQ(lad->stopAcquisition(), 0) << "and with no series at all";
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, TdiSeriesEndsAndStops)
{
    lad->setAcqMode(dv::ACQMODE_TDI);
    run(3, 0.256);
    EXPECT_EQ(lad.events->seen(), readyEvents(3, FINISHED));
    EXPECT_EQ(frames.size(), 3U);
    start(1000, 0.256);
    ASSERT_TRUE(lad.events->waitFor({READY}));
    expectStop();
    lad.events->onFrame = nullptr;
    start(1000, 0.1); // nobody takes a frame
    ASSERT_TRUE(lad.events->waitFor({READY}));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    expectStop();
    start(1000, 0.1);
    expectStop();
    std::this_thread::sleep_for(std::chrono::milliseconds(600)); // the boards run ahead of a stop
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, RestartRightBehindAStop)
{
    std::atomic<bool> taking = false;
    std::mutex mutex;
    Lad::Pixels last;
    lad.events->onFrame = [&](long) {
        if (!taking)
            return;
        auto frame = lad.frame();
        const std::lock_guard lock(mutex);
        last = std::move(frame);
    };
    for (int i = 0; i < 8; ++i) {
        SCOPED_TRACE(i);
        taking = false;
        start(50, 0.005);
        // The members' events wait for the reader by then, or the series has only just begun.
        std::this_thread::sleep_for(std::chrono::milliseconds(20 * i));
        EXPECT_EQ(lad->stopAcquisition(), 0);
        if (i % 2 == 0) {
            ASSERT_TRUE(lad.events->waitForEnd());
        }
        taking = true;
        ASSERT_EQ(lad->startAcquisition(3, 0.01), 0);
        ASSERT_TRUE(lad.events->waitFor({FINISHED}));
        Events events = lad.events->seen();
        ASSERT_GE(events.size(), 5U);
        const auto second = events.end() - 4;
        EXPECT_EQ(Events(second, events.end()), readyEvents(3, FINISHED));
        EXPECT_EQ(*(second - 1), (Seen{ABORTED, 0})) << "the first series ends before the second one";
        const std::lock_guard lock(mutex);
        expectBlocks(last, 2, 2, 10);
    }
    expectNextSeriesWorks();
}

TEST_F(Mpx3Lad, CloseDuringASeries)
{
    for (const unsigned mode : {0U, static_cast<unsigned>(dv::ACQMODE_TDI), 0U}) {
        lad.events->onFrame = nullptr;
        lad->setAcqMode(mode);
        start(100, mode == 0 ? 0.02 : 0.2);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        const auto begin = Clock::now();
        lad->closeDevice();
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
        EXPECT_FALSE(lad->isConnected());
        bringUp();
    }
    expectNextSeriesWorks();
    lad.events->onFrame = nullptr;
    start(100, 0.02); // the bench closes it
}

TEST(Mpx3LadStress, EightMembersUnderAllThatAHostDoes)
{
    Lad lad(boards(8, 1), "Module1=0\nModule2=0\nModule3=0\nModule4=0\n");
    ASSERT_EQ(lad->initDevice(), 0);
    std::atomic<long> taken = 0;
    lad.events->onFrame = [&](long) { taken += lad.frame().empty() ? 0 : 1; };
    const auto control = [&](Dice& dice) {
        lad.events->clear();
        lad->parameters()->get("Synced")->setBool(dice(2) == 0);
        const bool endless = dice(2) == 0;
        ASSERT_EQ(lad->startAcquisition(endless ? 1000000 : 1 + dice(5), dice(20) / 1000.0), 0) << lad->lastError();
        if (endless) {
            std::this_thread::sleep_for(std::chrono::milliseconds(dice(300)));
            EXPECT_EQ(lad->stopAcquisition(), 0);
        }
        ASSERT_TRUE(lad.events->waitForEnd());
    };
    const auto polls = [&](Dice&) {
        lad->deviceStatus();
        lad->deviceStatusText();
        double volts = 0;
        lad->biasVoltageCurrentSense(&volts, nullptr);
        EXPECT_TRUE(lad->isConnected());
        lad->isBusy();
        lad->lastError();
    };
    const auto writes = [&](Dice& dice) {
        lad->parameters()->get("DebugLog")->setBool(dice(2) == 0);
        lad->parameters()->get("TriggerOutLevel")->setByte(static_cast<unsigned char>(dice(2)));
    };
    const auto adc = [&](Dice& dice) { lad->adcValue(dice(130)); };
    const auto stops = [&](Dice& dice) {
        if (dice(20) == 0)
            lad->stopAcquisition();
    };
    stress(control, {polls, writes, adc, stops});
    EXPECT_GT(taken, 0);
    // Whatever went wrong in between, the composite works.
    lad->parameters()->get("Synced")->setBool(false);
    std::vector<Lad::Pixels> frames;
    lad.events->onFrame = [&](long) { frames.push_back(lad.frame()); };
    lad.events->clear();
    ASSERT_EQ(lad->startAcquisition(2, 0.02), 0) << lad->lastError();
    ASSERT_TRUE(lad.events->waitForEnd());
    EXPECT_EQ(lad.events->seen(), readyEvents(2, FINISHED));
    ASSERT_EQ(frames.size(), 2U);
    expectBlocks(frames[1], 8, 1, 20);
}
