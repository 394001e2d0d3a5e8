// Composites of Medipix2 and Timepix boards: one detector of several members, whose frames the composite drives itself.
#include "devices/ladbench.h"
#include "devices/mpx2bench.h"

#include "devices/mpx2laddev.h"

using namespace support;

namespace {

using Lad = LadBench<HwLatixel::Mpx2LadDev, sim::Mpx2Board, unsigned short>;
using Clock = std::chrono::steady_clock;
using Events = std::vector<Seen>;

constexpr auto READY = HWEVENT_FRAME_READY;
constexpr auto BUSY = HWEVENT_BUSY_CHANGED;
constexpr auto FINISHED = HWEVENT_ACQ_FINISHED;
constexpr auto FAILED = HWEVENT_ACQ_FAILED;
constexpr auto ABORTED = HWEVENT_ACQ_ABORTED;
constexpr std::size_t CHIP = Lad::CHIP;
constexpr std::size_t DACS = 14;
constexpr const char* START = "55 02 05 01";
const std::string REATTEMPT = "Reading matrix from devices failed, reattempting acq.";

nlohmann::json boards(std::size_t members, const std::vector<int>& modules)
{
    nlohmann::json list = nlohmann::json::array();
    for (std::size_t m = 1; m <= members; ++m) {
        const std::string number = std::to_string(m);
        list.push_back(
            mpx2Board(modules, {{"description", "Latixel Latixel TLWA " + number + " sn: 20" + number + " A"},
                                {"link", {{"rate_mb_s", 40}}}}));
    }
    return list;
}

nlohmann::json readsFail(int times)
{
    return {{"kind", "short_stream"}, {"readouts", times}, {"when", {{"after_written", START}}}};
}

nlohmann::json hangsInFrame(int frame)
{
    return {{"kind", "hang"}, {"when", {{"after_written", START}, {"occurrence", frame}}}};
}

/// Two members of two modules with a chip each.
class Mpx2Lad : public testing::Test {
protected:
    void SetUp() override { bringUp(); }
    void TearDown() override { Lad::expectNoViolations(); }

    void bringUp()
    {
        ASSERT_EQ(lad->initDevice(), 0);
        const std::vector<unsigned short> dacs(4 * DACS, 9); // each photon counts
        ASSERT_EQ(lad->setDacs(dacs.data(), dacs.size(), -1), 0);
        const std::vector<unsigned char> cfg(4 * CHIP, 0x02);
        ASSERT_EQ(lad->setPixelCfg(cfg.data(), cfg.size()), 0);
        takeFrames();
        sim::clearTraffic();
    }
    void takeFrames()
    {
        lad.events->onFrame = [this](long) { frames.push_back(lad.frame()); };
    }
    void parallel(bool on) { lad->parameters()->get("ParallelReadout")->setBool(on); }
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
    /// Lets a series of three frames of 20 ms run, each of which comes once and whole.
    void expectSeriesWorks()
    {
        takeFrames();
        run(3, 0.02);
        EXPECT_EQ(lad.events->seen(), readyEvents(3, FINISHED));
        ASSERT_EQ(frames.size(), 3U);
        for (const auto& frame : frames)
            expectBlocks(frame, 2, 2, 20);
        EXPECT_FALSE(lad->isBusy());
    }
    /// The error lines of the composite in the last series; its members report to their own logs.
    void expectErrors(const std::vector<std::string>& lines) { EXPECT_EQ(lad.errors.take(), lines); }
    std::string reconnecting(std::size_t member) const { return "Reconnecting device " + lad.names[member] + " ..."; }
    void expectStop()
    {
        const auto begin = Clock::now();
        EXPECT_EQ(lad->stopAcquisition(), 0);
        ASSERT_TRUE(lad.events->waitForEnd());
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
        EXPECT_EQ(lad.events->seen().back(), (Seen{ABORTED, 0}));
        EXPECT_FALSE(lad->isBusy());
    }

    Lad lad{boards(2, {1, 1}), "RecoverAttemptCount=2\n"};
    std::vector<Lad::Pixels> frames;
};

} // namespace

TEST(Mpx2LadBringUp, MembersThatComeUpAreOneDetector)
{
    auto list = boards(2, {1, 1});
    list[1]["firmware"] = "Firmware 2.2 TPX";
    const std::string gone = "Latixel Latixel TLWB 0 sn: 99 A";
    {
        Lad lad(list, "", {gone});
        dv::_DevMpxInfo mpx{};
        ASSERT_EQ(lad->initDevice(), 0);
        lad->devMpxInfo(&mpx);
        EXPECT_EQ(mpx.chipTotal, 4U);
        EXPECT_EQ(mpx.pixelTotal, 4U * CHIP);
        EXPECT_EQ(mpx.chipKind, 2);
        EXPECT_EQ(mpx.acqModeMask, 0U);
        EXPECT_EQ(mpx.biasMax, 200.0) << "by the names alone, also that of the member that is not there";
        dv::_DevInfo info{};
        lad->devInfo(&info);
        EXPECT_EQ(info.serialNumber, 1);
        EXPECT_EQ(lad.param("DeviceSerials"), "201 202 ");
        EXPECT_EQ(lad.param("Firmware"), "Firmware 2.2 TPX");
        EXPECT_TRUE(lad.logged("Initialized Latixel device " + lad.names[1]));
        EXPECT_NE(lad.folder.read("lad.log").find("Initialization of Latixel device " + gone + " failed: "),
                  std::string::npos);
        EXPECT_TRUE(lad->isTimepix());
        EXPECT_EQ(lad->deviceType(), 1);
        double volts = 7;
        EXPECT_EQ(lad->biasVoltageCurrentSense(&volts, nullptr), -1026);
        EXPECT_EQ(volts, 0.0);
        // The names go by position: the second member's failure carries the first one's.
        const std::vector<unsigned short> dacs(3 * DACS, 9);
        EXPECT_EQ(lad->setDacs(dacs.data(), dacs.size(), -1), 1);
        EXPECT_TRUE(std::string(lad->lastError()).starts_with("Device " + lad.names[1] + " reported error:"));
    }
    {
        Lad lad(boards(1, {1}));
        ASSERT_EQ(lad->initDevice(), 0);
        dv::_DevInfo info{};
        lad->devInfo(&info);
        EXPECT_EQ(info.serialNumber, 201) << "of the only member";
    }
    Lad lad(nlohmann::json::array(), "", {gone});
    EXPECT_EQ(lad->initDevice(), -1);
    EXPECT_FALSE(lad->isConnected());
}

TEST_F(Mpx2Lad, DacsClocksAndStatusGoToTheirMembers)
{
    std::vector<unsigned short> dacs(4 * DACS);
    for (std::size_t i = 0; i < dacs.size(); ++i)
        dacs[i] = static_cast<unsigned short>(i / DACS + 1);
    const auto expectChips = [&](std::array<unsigned, 4> values, std::array<unsigned, 4> sense) {
        for (std::size_t chip = 0; chip < 4; ++chip)
            lad.board(chip / 2, [&](sim::Mpx2Board& board) {
                EXPECT_EQ(board.chip(chip % 2).dac(0), values[chip]) << chip;
                EXPECT_EQ(board.chip(chip % 2).senseDac(), sense[chip]) << chip;
            });
    };
    ASSERT_EQ(lad->setMpx2Dacs(dacs.data(), dacs.size(), -1, 0, 5, 0, 0), 0);
    expectChips({1, 2, 3, 4}, {5, 0, 5, 0});
    for (auto& dac : dacs)
        dac = static_cast<unsigned short>(dac + 10);
    ASSERT_EQ(lad->setMpx2Dacs(dacs.data(), dacs.size(), 3, 3, 6, 0, 0), 0);
    expectChips({1, 2, 13, 14}, {5, 0, 0, 6}); // a member loads all of its chips
    EXPECT_EQ(lad->setMpx2Dacs(dacs.data(), dacs.size(), 9, 0, 0, 0, 0), 0);
    EXPECT_EQ(lad->setDacs(dacs.data(), 2 * DACS, 2), 0) << "a single chip fails silently";
    expectErrors({});
    double volts = 0;
    EXPECT_EQ(lad->analogValue(3, &volts), 0);
    EXPECT_EQ(lad->analogValue(4, &volts), 1);
    EXPECT_STREQ(lad->lastError(), "Invalid chip index: 4");

    lad->parameters()->get("PreShutterClockCount")->setInt32(77);
    double mhz = 40;
    ASSERT_EQ(lad->setTimepixClock(&mhz), 0);
    run(1, 0.001);
    for (std::size_t m = 0; m < 2; ++m)
        lad.board(m, [&](sim::Mpx2Board& board) {
            EXPECT_DOUBLE_EQ(board.timepixClockMhz(), mhz);
            EXPECT_EQ(board.acquisitionRegister(16), 100U) << "the member's own parameter";
        });
    EXPECT_EQ(lad->adcCount(), 32);
    EXPECT_EQ(lad->adcValue(32), -1005);
    sim::clearTraffic();
    lad->adcValue(31);
    EXPECT_TRUE(sim::written(0).empty());
    EXPECT_FALSE(sim::written(1).empty());
    EXPECT_EQ(lad->setBias(20), 0);
    sim::addFault(1, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    EXPECT_EQ(lad->deviceStatus(), 1);
    EXPECT_EQ(lad->resetMedipix(), 0);
}

TEST_F(Mpx2Lad, MatricesOfAllMembers)
{
    Lad::Pixels written(4 * CHIP);
    std::mt19937 random(7);
    std::ranges::generate(written, [&] { return static_cast<unsigned short>(random() % 11811); });
    ASSERT_EQ(lad->writeMatrix(written.data(), written.size(), true), 0);
    Lad::Pixels back(4 * CHIP);
    ASSERT_EQ(lad->readMatrix(back.data(), back.size(), true), 0);
    EXPECT_TRUE(back == written);
    for (const int result : {lad->writeMatrix(written.data(), written.size() - 1, true),
                             lad->readMatrix(back.data(), back.size() - 1, true)}) {
        EXPECT_EQ(result, 1);
        EXPECT_STREQ(lad->lastError(), "Invalid size for matrix (262143 < 262144)");
    }
    std::vector<unsigned char> cfg(4 * CHIP);
    cfg.back() = 3;
    ASSERT_EQ(lad->setPixelCfg(cfg.data(), cfg.size()), 0);
    lad.board(1, [](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(0).configuration().back(), 0x2000);
        EXPECT_EQ(board.chip(1).configuration().back(), 0x0080);
    });
    EXPECT_EQ(lad->setPixelCfg(cfg.data(), CHIP), 1);
    sim::addFault(1, {{"kind", "short_stream"}, {"readouts", 1}});
    EXPECT_EQ(lad->lastData(), nullptr);
    EXPECT_TRUE(std::string(lad->lastError()).starts_with(Lad::failure(lad.names[1], "Reading matrix failed")));
    sim::unplug(0);
    EXPECT_EQ(lad->writeMatrix(written.data(), written.size(), true), 1);
    EXPECT_TRUE(std::string(lad->lastError()).starts_with(Lad::failure(lad.names[0], "")));
}

TEST_F(Mpx2Lad, FramesInSequenceAndInParallel)
{
    for (const bool inParallel : {false, true}) {
        SCOPED_TRACE(inParallel);
        parallel(inParallel);
        expectSeriesWorks();
        run(0, 0.02);
        EXPECT_EQ(lad.events->seen(), readyEvents(0, FINISHED));
        run(1, 0.03);
        EXPECT_EQ(lad.events->seen(), readyEvents(1, FINISHED));
        expectBlocks(frames.at(0), 2, 2, 30);
        // A host that is slower than the boards: it decodes one frame while the next is exposed.
        lad.events->onFrame = [this](long) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            frames.push_back(lad.frame());
        };
        run(4, 0.001);
        EXPECT_EQ(lad.events->seen(), readyEvents(4, FINISHED));
        for (const auto& frame : frames)
            expectBlocks(frame, 2, 2, 1);
    }
    EXPECT_DOUBLE_EQ(lad->lastAcqTime(), 0.001);
}

TEST_F(Mpx2Lad, BusyEndsForTheDeliveryOfEachFrame)
{
    std::vector<Seen> all;
    std::mutex mutex;
    struct Taker {
        std::vector<Seen>& all;
        std::mutex& mutex;
        Lad& lad;
    } taker{all, mutex, lad};
    lad->setEventFunc(
        [](unsigned event, long data, void* user) {
            auto& to = *static_cast<Taker*>(user);
            {
                const std::lock_guard lock(to.mutex);
                to.all.push_back({event, data});
            }
            if (event == READY)
                to.lad.frame();
        },
        &taker);
    ASSERT_EQ(lad->startAcquisition(1, 0.02), 0);
    ASSERT_TRUE(soon([&] {
        const std::lock_guard lock(mutex);
        return !all.empty() && all.back().event == FINISHED;
    }));
    EXPECT_EQ(all, (Events{{BUSY, 1}, {BUSY, 0}, {READY, 0}, {BUSY, 1}, {BUSY, 0}, {FINISHED, 0}}));
}

TEST_F(Mpx2Lad, ReadThatFailsIsRepeatedBehindARecovery)
{
    const std::string tooShort = "Reading matrix failed - not enough data received (228442 < 229451)";
    sim::addFault(1, readsFail(1));
    expectSeriesWorks();
    EXPECT_EQ(Lad::sent(0, START), 4);
    expectErrors({Lad::failure(lad.names[1], tooShort), reconnecting(1), REATTEMPT});
    // In parallel the text names the member behind the one that failed, if there is one.
    parallel(true);
    for (std::size_t m = 0; m < 2; ++m) {
        sim::addFault(m, readsFail(1));
        expectSeriesWorks();
        expectErrors({Lad::failure(lad.names[1], tooShort), reconnecting(m), REATTEMPT});
    }
}

TEST_F(Mpx2Lad, ExposureThatFailsIsRepeatedBehindARecovery)
{
    sim::addFault(1, hangsInFrame(2));
    std::atomic<int> taken = 0;
    lad.events->onFrame = [&](long) {
        frames.push_back(lad.frame());
        ++taken;
    };
    start(3, 0.02);
    ASSERT_TRUE(soon([&] { return Lad::sent(1, START) >= 2; }));
    ASSERT_TRUE(soon([&] { return taken == 1; }));
    sim::clearFaults(1); // the frame of a hung board never ends
    ASSERT_TRUE(lad.events->waitForEnd());
    EXPECT_EQ(lad.events->seen(), readyEvents(3, FINISHED));
    for (const auto& frame : frames)
        expectBlocks(frame, 2, 2, 20);
    // The start command itself, behind which nothing else is sent.
    sim::addFault(0, {{"kind", "error"},
                      {"on", "write"},
                      {"result", -1},
                      {"text", "usb bulk write failed"},
                      {"times", 1},
                      {"when", {{"after_written", "55 00 01 01 00 00 0C A7"}}}});
    takeFrames();
    run(2, 0.02);
    EXPECT_EQ(lad.events->seen(), readyEvents(2, FINISHED));
    ASSERT_EQ(frames.size(), 2U);
    expectBlocks(frames[1], 2, 2, 20);
    sim::clearFaults(0);
    expectSeriesWorks();
}

TEST_F(Mpx2Lad, RecoveryThatFailsEndsTheSeriesWithoutAnEnd)
{
    sim::addFault(1, {{"kind", "unplug"}, {"when", {{"after_written", START}, {"occurrence", 2}}}});
    start(5, 0.02);
    ASSERT_TRUE(lad.events->waitFor({FAILED}));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(lad.events->seen(), (Events{{READY, 0}, {FAILED, -1}}));
    const auto lines = lad.errors.take();
    EXPECT_EQ(std::ranges::count(lines, reconnecting(1)), 1);
    EXPECT_TRUE(lad->isBusy());
    EXPECT_EQ(lad->setBias(10), 1) << "and does not hang";
    sim::plug(1);
    lad->closeDevice();
    EXPECT_TRUE(lad->isBusy());
    bringUp();
    EXPECT_FALSE(lad->isBusy());
    expectSeriesWorks();
    // A next series works as well where the member is back by then.
    sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", START}}}});
    start(5, 0.02);
    ASSERT_TRUE(lad.events->waitFor({FAILED}));
    sim::plug(0);
    ASSERT_EQ(lad->initDevice(), 0);
    EXPECT_FALSE(lad->isBusy());
    lad->closeDevice();
    bringUp();
    expectSeriesWorks();
}

TEST_F(Mpx2Lad, StopInEachState)
{
    for (const bool inParallel : {false, true}) {
        parallel(inParallel);
        start(100, 60); // at once, maybe before the first shutter
        expectStop();
        start(100, 60);
        ASSERT_TRUE(Lad::soonSent(1, START));
        const auto begin = Clock::now();
        expectStop();
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
        EXPECT_EQ(lad.events->seen(), readyEvents(1, ABORTED)) << "the frame in progress is delivered";
        start(100000, 0.001); // while frames come in
        ASSERT_TRUE(soon([&] { return lad.events->seen().size() > 3; }));
        expectStop();
        start(100, 0.02);
        lad->stopAcquisition();
        lad->stopAcquisition();
        ASSERT_TRUE(lad.events->waitForEnd());
        EXPECT_EQ(lad->stopAcquisition(), 0) << "and with no series at all";
        expectSeriesWorks();
    }
    // During a recovery: it is not forgotten, whatever the preparation of the member resets.
    sim::addFault(1, readsFail(1000));
    start(100, 0.001);
    ASSERT_TRUE(soon([&] { return Lad::sent(1, START) >= 2; }));
    expectStop();
    sim::clearFaults(1);
    expectSeriesWorks();
}

TEST_F(Mpx2Lad, HostPacesTheSeries)
{
    lad.events->onFrame = nullptr;
    start(3, 0.02);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(lad.events->seen(), (Events{{READY, 0}}));
    EXPECT_EQ(Lad::sent(1, START), 2) << "the second frame waits on the boards";
    lad->stopAcquisition();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(lad.events->seen(), (Events{{READY, 0}})) << "a stop does not end this wait";
    EXPECT_TRUE(lad->isConnected());
    // Polls don't hang behind the frame, and don't spoil it.
    sim::addFault(0, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
    EXPECT_EQ(lad->deviceStatus(), 0);
    EXPECT_STREQ(lad->deviceStatusText(), "");
    sim::clearFaults(0);
    // A read into too small an array takes nothing, but lets the series go on.
    unsigned short pixel = 0;
    EXPECT_EQ(lad->readMatrix(&pixel, 1, true), 1);
    ASSERT_TRUE(lad.events->waitForEnd());
    EXPECT_EQ(lad.events->seen().back(), (Seen{ABORTED, 0}));
    expectSeriesWorks();
    // A host that goes away without a word.
    for (const int wait : {0, 10, 300}) {
        lad.events->onFrame = nullptr;
        start(100, 0.02);
        std::this_thread::sleep_for(std::chrono::milliseconds(wait));
        const auto begin = Clock::now();
        EXPECT_EQ(lad->closeDevice(), 0);
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
        bringUp();
    }
    expectSeriesWorks();
    lad.events->onFrame = nullptr;
    start(100, 30); // the bench closes it
}

TEST(Mpx2LadStress, EightMembersUnderAllThatAHostDoes)
{
    Lad lad(boards(8, {1}));
    ASSERT_EQ(lad->initDevice(), 0);
    const std::vector<unsigned short> dacs(8 * DACS, 9);
    const std::vector<unsigned char> cfg(8 * CHIP, 0x02);
    ASSERT_EQ(lad->setDacs(dacs.data(), dacs.size(), -1), 0);
    ASSERT_EQ(lad->setPixelCfg(cfg.data(), cfg.size()), 0);
    lad->parameters()->get("ParallelReadout")->setBool(true);
    std::atomic<long> taken = 0;
    lad.events->onFrame = [&](long) { taken += lad.frame().empty() ? 0 : 1; };
    const auto control = [&](Dice& dice) {
        lad.events->clear();
        const bool endless = dice(2) == 0;
        ASSERT_EQ(lad->startAcquisition(endless ? 1000000 : 1 + dice(5), dice(20) / 1000.0), 0);
        if (endless) {
            std::this_thread::sleep_for(std::chrono::milliseconds(dice(300)));
            EXPECT_EQ(lad->stopAcquisition(), 0);
        }
        ASSERT_TRUE(lad.events->waitForEnd());
    };
    const auto polls = [&](Dice&) {
        lad->deviceStatus();
        lad->deviceStatusText();
        EXPECT_TRUE(lad->isConnected());
        lad->isBusy();
        lad->lastError();
    };
    const auto writes = [&](Dice& dice) {
        lad->parameters()->get("ParallelReadout")->setBool(dice(8) != 0);
        lad->setBias(dice(80));
        double mhz = 10;
        lad->setTimepixClock(&mhz);
        lad->setDacs(dacs.data(), dacs.size(), dice(2) == 0 ? -1 : static_cast<int>(dice(8)));
    };
    const auto adc = [&](Dice& dice) { lad->adcValue(dice(130)); };
    const auto stops = [&](Dice& dice) {
        if (dice(20) == 0)
            lad->stopAcquisition();
    };
    stress(control, {polls, writes, adc, stops});
    EXPECT_GT(taken, 0);
    std::vector<Lad::Pixels> frames;
    lad.events->onFrame = [&](long) { frames.push_back(lad.frame()); };
    lad.events->clear();
    ASSERT_EQ(lad->startAcquisition(2, 0.02), 0);
    ASSERT_TRUE(lad.events->waitForEnd());
    EXPECT_EQ(lad.events->seen(), readyEvents(2, FINISHED));
    ASSERT_EQ(frames.size(), 2U);
    expectBlocks(frames[1], 8, 1, 20);
}
