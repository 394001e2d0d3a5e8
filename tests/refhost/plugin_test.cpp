// Frames, devices, loading, and series with all their ends, on devices without hardware.
#include "fakedevice.h"
#include "refhost/error.h"
#include "refhost/plugin.h"
#include "refhost/series.h"

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using refhost::SeriesEnd;
using testing::ElementsAre;
using testing::HasSubstr;

struct FakeEvent {
    unsigned type;
    long data = 0;
};
using Events = std::vector<FakeEvent>;
constexpr FakeEvent UNTIL_STOPPED{9999}; // no event, but a wait

/// What the Error that `call` throws says, or nothing.
std::string errorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const refhost::Error& error) {
        return error.what();
    }
    return {};
}

TEST(Frame, KeepsPixelsAndMetadataAndNoticesMisuse)
{
    refhost::Host host("config", "logs");
    dv::IFrameFactory& factory = *host.frameFactory();
    dv::IMpxFrame* raw = factory.createFrame(512, 256, 5);
    dv::RefDataBuff<unsigned> pixels;
    raw->acquireData(&pixels, 0);
    ASSERT_EQ(pixels.size(), 131072u);
    pixels.data()[131071] = 0xFFFFFFFF;
    const double times[] = {0.25, 0.5};
    EXPECT_EQ(raw->addMetaData("times", "d", 9, times, sizeof times), 0);
    EXPECT_EQ(raw->addMetaData("times", "d", 9, times, 9), -1);
    dv::RefDataBuff<unsigned short> narrow;
    raw->acquireData(&narrow, 0);
    EXPECT_EQ(factory.createFrame(1u << 31, 1u << 31, 5), nullptr);
    EXPECT_EQ(host.complaints().size(), 3u);

    refhost::FramePtr frame = refhost::adopt(raw);
    EXPECT_EQ(frame->pixel(131071), 0xFFFFFFFFu);
    EXPECT_EQ(frame->pixel(131072), 0u);
    EXPECT_THAT(frame->findMetaData("times")->numbers(), ElementsAre(0.25, 0.5));
    EXPECT_EQ(host.liveFrames(), 1u);
    frame.reset();
    EXPECT_EQ(host.liveFrames(), 0u);

    host.clearComplaints();
    EXPECT_EQ(raw->dataPointer(0), nullptr);
    raw->destroy();
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("dataPointer after"), HasSubstr("twice")));
}

TEST(Plugin, ListsDevicesAndNoticesWhatIsLeftAfterClose)
{
    refhost::Host host("config", "logs");
    FakeDevice leaky(&host);
    FakeDevice strange(&host, "strange");
    strange.kind = 9;
    FakeLibrary library;
    library.devices = {&leaky, nullptr, &strange, &leaky};
    refhost::Plugin plugin(host, &library);
    plugin.open();
    ASSERT_EQ(plugin.devices().size(), 1u);
    EXPECT_EQ(plugin.find("0"), plugin.find("Fake A sn: 1 WA"));
    EXPECT_EQ(plugin.find("1"), nullptr);
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("null device"), HasSubstr("type 9"), HasSubstr("twice")));

    host.clearComplaints();
    dv::IMpxFrame* forgottenFrame = leaky.lastData();
    dv::IParamMgr* forgottenParams = host.createParamMgr();
    library.devices = {&leaky};
    plugin.close();
    leaky.send(HWEVENT_BUSY_CHANGED, 1);
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("1 frame(s)"), HasSubstr("1 parameter manager(s)"),
                                               HasSubstr("event 7 of Fake A sn: 1 WA after it was closed")));
    forgottenFrame->destroy();
    forgottenParams->destroy();
}

class SeriesTest : public testing::Test {
protected:
    ~SeriesTest() override { fake.closeDevice(); }

    /// The device complains and sends these in the next series.
    void play(const Events& events)
    {
        fake.script = [events](FakeDevice& d) {
            d.log(1, "the board said no\n");
            for (const auto& [event, data] : events)
                event == UNTIL_STOPPED.type ? d.waitForStop() : d.send(event, data);
        };
    }
    refhost::SeriesResult run() { return refhost::runSeries(device, request, takeIndex); }

    refhost::Host host{"config", "logs"};
    FakeDevice fake{&host};
    refhost::Device device{host, &fake};
    refhost::SeriesRequest request{.frames = 3, .seconds = 0.001, .silence = 300ms, .errorGrace = 50ms, .rest = 5ms};
    std::vector<long> indexes;
    const refhost::FrameSink takeIndex = [this](refhost::SeriesFrame taken) { indexes.push_back(taken.index); };
};

TEST_F(SeriesTest, CountsFramesThatNeverCameAndComplainsOfNonsense)
{
    play({{HWEVENT_FRAME_READY, 1},
          {HWEVENT_FRAME_READY, 0},
          {HWEVENT_FRAME_READY, 7},
          {1234},
          {HWEVENT_ACQ_FINISHED},
          {HWEVENT_ACQ_FINISHED}});
    const auto result = run();
    EXPECT_EQ(result.end, SeriesEnd::Finished);
    EXPECT_EQ(result.lost, 2u) << "number 0 was skipped and number 2 never came";
    EXPECT_THAT(indexes, ElementsAre(1));
    EXPECT_EQ(host.liveFrames(), 0u);
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("number 0"), HasSubstr("number 7"),
                                               HasSubstr("unknown event 1234"), HasSubstr("twice")));

    host.clearComplaints();
    fake.frameChips = 2;
    fake.framesLeft = 1;
    play({{HWEVENT_FRAME_READY, 0}, {HWEVENT_FRAME_READY, 1}, {HWEVENT_FRAME_READY, 2}, {HWEVENT_ACQ_FINISHED}});
    EXPECT_EQ(run().lost, 3u);
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("131072 pixels")));
}

TEST_F(SeriesTest, EveryWayToFailEndsIt)
{
    struct Case {
        const char* what;
        Events events;
        SeriesEnd end;
        long code;
    };
    const Case cases[] = {
        {"error, then the end of a stop", {{HWEVENT_ACQ_FAILED, -4}, {HWEVENT_ACQ_ABORTED}}, SeriesEnd::Failed, -4},
        {"the start failed", {{HWEVENT_ACQ_FAILED, -1}}, SeriesEnd::Failed, -1},
        {"silence", {{HWEVENT_BUSY_CHANGED, 1}}, SeriesEnd::Silent, 0},
    };
    for (const Case& one : cases) {
        play(one.events);
        const auto result = run();
        EXPECT_EQ(std::pair(result.end, result.errorCode), std::pair(one.end, one.code)) << one.what;
        EXPECT_THAT(result.error, HasSubstr(one.end == SeriesEnd::Failed ? "" : "no sign of life"));
        EXPECT_THAT(result.error, HasSubstr("the board said no"));
    }
    fake.startResult = -1;
    const auto refused = run();
    EXPECT_EQ(refused.end, SeriesEnd::Refused);
    EXPECT_EQ(refused.errorCode, -1);
}

TEST_F(SeriesTest, StopEndsASeriesThatWaitsForATriggerBeyondAllLimits)
{
    request.silence = 50ms;
    device.setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
    // The frame is of the time before: its event was on its way on another thread.
    play({{HWEVENT_WAIT_TRIGGER}, {HWEVENT_FRAME_READY, 0}, UNTIL_STOPPED, {HWEVENT_ACQ_ABORTED}});
    refhost::Series series(device, request, {});
    series.start();
    EXPECT_FALSE(series.waitFor(120ms));
    EXPECT_TRUE(series.progress().waitsForTrigger);
    series.trigger();
    EXPECT_FALSE(series.progress().waitsForTrigger);
    EXPECT_EQ(fake.softTriggers, 1);
    series.stop();
    EXPECT_EQ(series.wait().end, SeriesEnd::Stopped);
    series.stop();

    { // a series that goes out of scope is stopped and waited for
        refhost::Series abandoned(device, request, {});
        abandoned.start();
    }
    EXPECT_TRUE(fake.stopped);
}

TEST_F(SeriesTest, AFrameThatAStopCameBeforeIsNotFetched)
{
    // The event of frame 1 was under way: the device would read the cut exposure now.
    play({{HWEVENT_FRAME_READY, 0}, UNTIL_STOPPED, {HWEVENT_FRAME_READY, 1}, {HWEVENT_ACQ_ABORTED}});
    refhost::Series series(device, request, takeIndex);
    series.start();
    while (series.progress().frames == 0)
        std::this_thread::sleep_for(1ms);
    series.stop();
    const auto result = series.wait();
    EXPECT_EQ(result.end, SeriesEnd::Stopped);
    EXPECT_EQ(result.lost, 0u);
    EXPECT_THAT(indexes, ElementsAre(0));
}

TEST_F(SeriesTest, ASlowSinkIsNoSilenceAndNoSeriesStartsInsideAnEvent)
{
    request.frames = 1;
    request.silence = 20ms;
    play({{HWEVENT_FRAME_READY, 0}, {HWEVENT_ACQ_FINISHED}});
    std::string refusal;
    const auto result = refhost::runSeries(device, request, [&](refhost::SeriesFrame) {
        std::this_thread::sleep_for(100ms);
        refhost::Series inner(device, request, {});
        refusal = errorOf([&] { inner.start(); });
    });
    EXPECT_EQ(result.end, SeriesEnd::Finished);
    EXPECT_THAT(refusal, HasSubstr("within an event"));
}

} // namespace
