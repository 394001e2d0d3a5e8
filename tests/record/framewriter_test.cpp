// The queue between a series and its files.
#include "record/error.h"
#include "record/framewriter.h"
#include "tests/record/frames.h"

#include <future>
#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// A disk whose speed and failure the test decides.
class SlowSink final : public record::FrameSink {
public:
    std::promise<void> gate;
    std::shared_future<void> opened{gate.get_future()};
    std::atomic<long> failAt{-1};
    std::vector<long> indexes;

    void begin(const record::SeriesInfo&) override {}
    void write(const record::FrameRecord& frame) override
    {
        opened.wait();
        if (frame.index == failAt)
            throw record::OutputError("disk full");
        indexes.push_back(frame.index);
    }
    void finish(const record::SeriesSummary&) override {}
    std::string place() const override { return "memory"; }
};

class WriterTest : public testing::Test {
protected:
    refhost::SeriesFrame frame(long index, unsigned chips = 1)
    {
        return {index, 0, 0,
                support::frame<std::uint32_t>(host, chips, [](unsigned, unsigned, unsigned) { return 1u; })};
    }
    /// Takes that many frames while the disk is held, and lets it go after 100 ms.
    void run(long frames)
    {
        std::thread series([&] {
            for (long i = 0; i < frames; ++i, ++pushed)
                writer.push(frame(i));
        });
        std::this_thread::sleep_for(100ms);
        EXPECT_LE(pushed, 4) << "three wait and one is with the sink";
        EXPECT_LE(host.liveFrames(), 5u);
        sink.gate.set_value();
        series.join();
    }

    refhost::Host host{"", ""};
    std::atomic<int> pushed{0};
    SlowSink sink;
    record::FrameWriter writer{sink, record::PictureMaker(1, {1, 1}, record::Counting::Single), 3 * 256 * 256 * 4};
};

TEST_F(WriterTest, HoldsTheSeriesWhenTheQueueIsFullAndLosesNothing)
{
    run(10);
    writer.finish();
    EXPECT_THAT(sink.indexes, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ(writer.written(), 10u);
    EXPECT_GT(writer.held(), 0.01);
    EXPECT_EQ(host.liveFrames(), 0u);
}

TEST_F(WriterTest, AFailureReleasesTheSeriesAndIsTold)
{
    sink.failAt = 1;
    run(20);
    EXPECT_THROW(writer.finish(), record::OutputError);
    EXPECT_TRUE(writer.failed());
    EXPECT_EQ(writer.written(), 1u);
    EXPECT_EQ(host.liveFrames(), 0u);
}

TEST_F(WriterTest, AFrameOfAnotherSizeIsAFailure)
{
    sink.gate.set_value();
    writer.push(frame(0, 2));
    EXPECT_THROW(writer.finish(), record::FrameError);
}

} // namespace
