// The life of a series: what leads from one state to the next, who may start and stop when, and its threads.
#include "devices/common/serieslife.h"

#include "devices/common/devicebench.h"
#include "devices/common/hostevents.h"

#include <atomic>
#include <future>

using namespace support;
using HwLatixel::HostEvents;
using HwLatixel::SeriesLife;
using State = HwLatixel::SeriesLife::State;
using Start = HwLatixel::SeriesLife::Start;
using Caller = HwLatixel::SeriesLife::Caller;

namespace {

/// A device whose series exposes until it is stopped or let go.
struct Device {
    SeriesLife life;
    HostEvents events{life};
    std::function<void(unsigned)> onEvent;
    std::atomic<bool> exposing = true;
    std::atomic<int> ended = 0;

    Device() { events.setFunc(&Device::event, this); }
    ~Device()
    {
        life.stop();
        EXPECT_TRUE(life.awaitThreads(100));
    }
    Start begin()
    {
        const Start answer = life.begin();
        if (answer == Start::Accepted) {
            EXPECT_TRUE(life.run(&Device::series, this));
        }
        return answer;
    }
    static void event(unsigned type, long, void* user)
    {
        auto& device = *static_cast<Device*>(user);
        if (device.onEvent)
            device.onEvent(type);
    }
    static void series(void* user)
    {
        auto& device = *static_cast<Device*>(user);
        while (device.exposing && !device.life.stopped())
            sleepMs(1);
        device.events.send(HWEVENT_FRAME_READY, 0, false);
        device.life.framesOver();
        device.life.finished();
        device.events.send(HWEVENT_ACQ_FINISHED, 0, false);
        ++device.ended;
        device.life.left();
    }
};

} // namespace

TEST(SeriesLifeTest, StatesFollowTheTable)
{
    SeriesLife life;
    using Step = bool (*)(SeriesLife&);
    constexpr Step BEGIN = [](SeriesLife& l) { return l.begin() == Start::Accepted; };
    constexpr Step STOP = [](SeriesLife& l) { return l.stop(); };
    constexpr Step GIVE_UP = [](SeriesLife& l) { return l.giveUp(), true; };
    constexpr Step FRAMES_OVER = [](SeriesLife& l) { return l.framesOver(), true; };
    constexpr Step FINISHED = [](SeriesLife& l) { return l.finished(), true; };
    const struct {
        Step step;
        bool answer;
        State state;
        bool stopped;
    } ROWS[] = {
        {STOP, false, State::Idle, true},         {BEGIN, true, State::Preparing, false},
        {BEGIN, false, State::Preparing, false},  {FRAMES_OVER, true, State::Preparing, false},
        {GIVE_UP, true, State::Idle, false},      {BEGIN, true, State::Preparing, false},
        {STOP, true, State::Stopping, true},      {STOP, true, State::Stopping, true},
        {FRAMES_OVER, true, State::Ending, true}, {STOP, true, State::Ending, true},
        {GIVE_UP, true, State::Ending, true},     {FINISHED, true, State::Idle, true},
        {BEGIN, true, State::Preparing, false},   {STOP, true, State::Stopping, true},
        {GIVE_UP, true, State::Idle, true},       {FINISHED, true, State::Idle, true},
    };
    for (std::size_t i = 0; i < std::size(ROWS); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(ROWS[i].step(life), ROWS[i].answer);
        EXPECT_EQ(life.state(), ROWS[i].state);
        EXPECT_EQ(life.stopped(), ROWS[i].stopped);
    }
}

TEST(SeriesLifeTest, StartRightBehindAStopWaitsForTheEndWithItsLastEvent)
{
    Device device;
    std::atomic<int> events = 0;
    device.onEvent = [&](unsigned type) {
        sleepMs(type == HWEVENT_ACQ_FINISHED ? 50 : 10);
        ++events;
    };
    ASSERT_EQ(device.begin(), Start::Accepted);
    EXPECT_EQ(device.life.state(), State::Running);
    EXPECT_EQ(device.begin(), Start::Running);
    EXPECT_TRUE(device.life.stop());
    ASSERT_EQ(device.begin(), Start::Accepted);
    EXPECT_EQ(events, 2) << "none of the former series comes behind its beginning";
    EXPECT_FALSE(device.life.stopped());
}

TEST(SeriesLifeTest, WhereAStartComesFromDecides)
{
    Device device;
    Start inFrame{};
    Start inLast{};
    std::vector<Caller> callers;
    device.onEvent = [&](unsigned type) {
        callers.push_back(device.life.caller());
        if (type == HWEVENT_FRAME_READY) {
            device.life.stop();
            inFrame = device.life.begin();
        } else if (callers.size() == 2) {
            inLast = device.begin();
        }
    };
    ASSERT_EQ(device.begin(), Start::Accepted);
    device.exposing = false;
    ASSERT_TRUE(soon([&] { return device.ended == 2; }));
    EXPECT_EQ(inFrame, Start::InCallback);
    EXPECT_EQ(inLast, Start::Accepted) << "at once";
    EXPECT_EQ(callers, (std::vector<Caller>{Caller::Handler, Caller::LastEvent, Caller::Handler, Caller::LastEvent}));
    EXPECT_EQ(device.life.caller(), Caller::Host);
}

TEST(SeriesLifeTest, ThreadsAreCountedOutButForTheirOwn)
{
    Device device;
    bool alone = false;
    device.onEvent = [&](unsigned type) {
        if (type == HWEVENT_ACQ_FINISHED)
            alone = device.life.awaitThreads(0.0);
    };
    ASSERT_EQ(device.begin(), Start::Accepted);
    EXPECT_FALSE(device.life.awaitThreads(0.02));
    device.life.stop();
    EXPECT_TRUE(device.life.awaitThreads(100));
    EXPECT_TRUE(alone) << "a handler of the last event waits for nobody";
    EXPECT_TRUE(device.life.abandon()) << "the caller frees what no thread needs";
}

TEST(SeriesLifeTest, LastThreadOfAnAbandonedDeviceFreesIt)
{
    SeriesLife life;
    ASSERT_EQ(life.begin(), Start::Accepted);
    struct Run {
        SeriesLife& life;
        std::atomic<bool> go = false;
        std::promise<bool> frees;
    } run{life, false, {}};
    ASSERT_TRUE(life.run(
        [](void* user) {
            auto& own = *static_cast<Run*>(user);
            while (!own.go)
                sleepMs(1);
            own.life.finished();
            own.frees.set_value(own.life.left());
        },
        &run));
    EXPECT_FALSE(life.abandon());
    run.go = true;
    EXPECT_TRUE(run.frees.get_future().get());
    EXPECT_TRUE(life.awaitThreads(0));
}
