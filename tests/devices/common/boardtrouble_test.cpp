// What a device of each class does about a board that does not answer, takes no bytes or sends without end, and about
// callbacks of the host that close it or throw.
#include "devices/mpx2/mpx2bench.h"
#include "devices/mpx3/mpx3bench.h"

#include "devices/common/containeddevice.h"

#include <stdexcept>

using namespace support;

namespace {

struct Mpx3Kind : Mpx3Bench {
    Mpx3Kind() : Mpx3Bench(mpx3Board({1, 1}), TWO_CHANNELS) {}
    static constexpr const char* POWER_OFF = "55 00 01 01 00 00 00 06";
};
struct Mpx2Kind : Mpx2Bench {
    Mpx2Kind() : Mpx2Bench(mpx2Board({1, 1})) {}
    static constexpr const char* POWER_OFF = "55 00 01 01 00 00 08 A4";
};
struct RowKind : RowBench {
    RowKind() : RowBench(rowBoard({"", "C01-W0100", "", "C02-W0100"})) {}
    static constexpr const char* POWER_OFF = Mpx2Kind::POWER_OFF;
};

constexpr const char* CPU_EXCHANGE = "55 00 04 01 04 00 00 32";

template <typename Kind>
class BoardTrouble : public testing::Test {
protected:
    void bringUp()
    {
        ASSERT_EQ(tested->initDevice(), 0);
        ASSERT_EQ(tested.chipIds().size(), 2U);
        sim::clearTraffic();
    }
    template <typename Call>
    static double secondsOf(Call call)
    {
        const auto begin = std::chrono::steady_clock::now();
        call();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    Kind tested;
};

using Kinds = testing::Types<Mpx3Kind, Mpx2Kind, RowKind>;
TYPED_TEST_SUITE(BoardTrouble, Kinds);

} // namespace

TYPED_TEST(BoardTrouble, BringUpGoesOnWithoutTheBoard)
{
    auto& bench = this->tested;
    const nlohmann::json faults[] = {
        {{"kind", "silence"}},
        {{"kind", "mute"}, {"on", "read"}},
        {{"kind", "stalled_write"}},
        behind(CPU_EXCHANGE, {{"kind", "stalled_write"}}, 3),
        behind(CPU_EXCHANGE, {{"kind", "mute"}}, 3),
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.dump());
        sim::addFault(0, fault);
        EXPECT_LT(this->secondsOf([&] { EXPECT_EQ(bench->initDevice(), 0); }), 10);
        EXPECT_TRUE(bench->isConnected());
        EXPECT_STREQ(bench->deviceStatusText(), "Board does not answer");
        EXPECT_EQ(bench.chipIds(), Strings{});
        EXPECT_EQ(bench->startAcquisition(1, -1), 1);
        sim::clearFaults(0);
        bench->closeDevice();
        EXPECT_STRNE(bench->deviceStatusText(), "Board does not answer");
    }
    this->bringUp();
    EXPECT_EQ(bench->eraseMatrix(), 0);
}

TYPED_TEST(BoardTrouble, ClosingASeriesKeepsItsLimit)
{
    auto& bench = this->tested;
    const std::pair<nlohmann::json, unsigned> rows[] = {
        {nullptr, 0},
        {nullptr, dv::ACQMODE_TDI}, // sends rows until it is stopped
        {{{"kind", "silence"}}, 0},
        {{{"kind", "silence"}}, dv::ACQMODE_TDI},
        {{{"kind", "mute"}}, 0},
        {{{"kind", "stalled_write"}}, 0},
        {{{"kind", "unplug"}}, 0},
    };
    for (const auto& [fault, mode] : rows) {
        SCOPED_TRACE(fault.dump() + std::to_string(mode));
        this->bringUp();
        if (mode != 0 && (bench.info().acqModeMask & mode) == 0)
            continue;
        bench->setAcqMode(mode);
        ASSERT_EQ(bench->startAcquisition(1000, mode != 0 ? 1.0 : 30.0), 0) << bench->lastError();
        ASSERT_TRUE(soon([&] { return bench.sent("55 02 05 01") == 1; }));
        if (!fault.is_null())
            sim::addFault(0, fault);
        std::thread other([&] {
            while (bench->isConnected())
                bench->eraseMatrix();
        });
        sleepMs(100);
        bench->beginClosing();
        EXPECT_LT(this->secondsOf([&] { EXPECT_EQ(bench->closeDevice(), 0) << bench->lastError(); }), 3);
        other.join();
        if (fault.is_null()) {
            EXPECT_EQ(bench.sent("55 02 05 02"), 1);
            EXPECT_EQ(bench.sent(TypeParam::POWER_OFF), 1);
        }
        EXPECT_FALSE(bench->isBusy());
        sim::clearFaults(0);
        sim::plug(0);
    }
}

TYPED_TEST(BoardTrouble, LogCallbackNeitherClosesNorStartsNorThrows)
{
    auto& bench = this->tested;
    this->bringUp();
    struct Reporter {
        TypeParam& bench;
        int lines = 0;
        std::vector<int> results{};
    } reporter{bench};
    const auto take = [](unsigned, const char*, void* user) {
        auto& self = *static_cast<Reporter*>(user);
        ++self.lines;
        self.results.push_back(self.bench->closeDevice());
        self.bench->destroy();
        self.results.push_back(self.bench->startAcquisition(1, 0.02));
        throw std::runtime_error("from a callback");
    };
    bench->setLogMsgFunc(take, &reporter);
    EXPECT_EQ(bench->setTimer(-1), 1);
    EXPECT_EQ(reporter.lines, 1) << "what it causes is not told to it";
    EXPECT_EQ(reporter.results, (std::vector{1, 1}));
    bench->setLogMsgFunc(nullptr, nullptr);
    EXPECT_TRUE(bench->isConnected());
    bench.events->onFrame = [&](long) { throw std::bad_alloc(); };
    EXPECT_EQ(bench->startAcquisition(1, 0.02), 0);
    EXPECT_TRUE(bench.events->waitForEnd());
}

namespace {

/// A device that finds no memory, in an operation or in its series.
template <typename Device>
struct Poor : Device {
    using Device::Device;
    int resetMedipix() override { return poor ? throw std::bad_alloc() : Device::resetMedipix(); }
    const char* deviceStatusText() const override { return poor ? throw 7 : Device::deviceStatusText(); }
    bool poor = false;
};
struct PoorMpx3 : Poor<HwLatixel::Mpx3Dev> {
    using Poor::Poor;
    void waitForSoftwareTrigger(bool* stop) override
    {
        poor ? throw std::bad_alloc() : Poor::waitForSoftwareTrigger(stop);
    }
};
struct PoorMpx2 : Poor<HwLatixel::Mpx2Dev> {
    using Poor::Poor;
    int doSingleAcquisition() override { return poor ? throw std::bad_alloc() : Poor::doSingleAcquisition(); }
};

template <typename Bench>
void expectContained(Bench& bench)
{
    ASSERT_EQ(bench->initDevice(), 0);
    bench->poor = true;
    EXPECT_EQ(bench->resetMedipix(), 1);
    EXPECT_STREQ(bench->lastError(), "Operation failed (std::bad_alloc)");
    EXPECT_STREQ(bench->deviceStatusText(), "");
    EXPECT_STREQ(bench->lastError(), "Operation failed (exception of an unknown type)");
    bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    bench.events->onWaitTrigger = [&] { bench->doSoftwareTrigger(0); };
    EXPECT_EQ(bench->startAcquisition(1, 0.02), 0) << bench->lastError();
    EXPECT_TRUE(bench.events->waitFor({HWEVENT_ACQ_FAILED}));
    EXPECT_STREQ(bench->lastError(), "Acquisition failed (std::bad_alloc)");
    bench->poor = false;
    // Behind the event that tells the failure the series still ends.
    EXPECT_TRUE(soon([&] { return bench.series(2, 0.02).size() == 2; }));
}

} // namespace

TEST(ContainedDevice, LetsNoExceptionOut)
{
    using HwLatixel::Contained;
    {
        DeviceBench<Contained<PoorMpx3>, sim::Mpx3Board, unsigned> bench(mpx3Board({1}), ONE_CHANNEL, false);
        expectContained(bench);
    }
    DeviceBench<Contained<PoorMpx2>, sim::Mpx2Board, unsigned short> bench(mpx2Board({1}), "", false);
    expectContained(bench);
}
