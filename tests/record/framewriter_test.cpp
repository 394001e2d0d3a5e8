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
    std::atomic<int> flushes{0};
    std::string outcome;

    void begin(const record::SeriesInfo&) override {}
    void write(const record::FrameRecord& frame) override
    {
        opened.wait();
        if (frame.index == failAt)
            throw record::OutputError("disk full");
        indexes.push_back(frame.index);
    }
    void flush() override { ++flushes; }
    void finish(const record::SeriesSummary& summary) override { outcome = summary.outcome; }
    std::string place() const override { return "memory"; }
    std::size_t safeFrames() const override { return indexes.size(); }
};

class WriterTest : public testing::Test {
protected:
    refhost::SeriesFrame frame(long index, unsigned chips = 1, std::uint32_t count = 1)
    {
        return {index, 0, 0,
                support::frame<std::uint32_t>(host, chips, [count](unsigned, unsigned, unsigned) { return count; })};
    }
    /// Takes that many frames while the disk is held, and lets it go after 100 ms.
    void run(long frames)
    {
        std::thread series([&] {
            for (long i = 0; i < frames; ++i, ++pushed)
                writer.push(frame(i));
        });
        std::this_thread::sleep_for(100ms);
        EXPECT_LE(pushed, 4) << "three in the pipe and one before it";
        EXPECT_LE(host.liveFrames(), 5u);
        sink->gate.set_value();
        series.join();
    }

    refhost::Host host{"", ""};
    std::atomic<int> pushed{0};
    std::shared_ptr<SlowSink> sink = std::make_shared<SlowSink>();
    record::FrameWriter writer{sink, record::PictureMaker(1, {1, 1}, record::Counting::Single, 7), 3 * 256 * 256 * 4};
};

TEST_F(WriterTest, HoldsTheSeriesWhenTheQueueIsFullAndLosesNothing)
{
    run(10);
    writer.finish({"", "finished"});
    EXPECT_THAT(sink->indexes, ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    EXPECT_EQ(writer.counts().written, 10u);
    EXPECT_GT(writer.counts().held, 0.01);
    EXPECT_EQ(host.liveFrames(), 0u);
}

TEST_F(WriterTest, AFailureReleasesTheSeriesAndIsTold)
{
    sink->failAt = 1;
    run(20);
    EXPECT_THROW(writer.finish({"", "finished"}), record::OutputError);
    EXPECT_TRUE(writer.failed());
    EXPECT_EQ(sink->outcome, "finished") << "with the frames that are there";
    EXPECT_EQ(writer.counts().written, 1u);
    EXPECT_EQ(host.liveFrames(), 0u);
}

TEST_F(WriterTest, AFrameOfAnotherSizeIsAFailure)
{
    sink->gate.set_value();
    writer.push(frame(0, 2));
    EXPECT_THROW(writer.finish({"", "finished"}), record::FrameError);
}

TEST_F(WriterTest, FlushesWhileNoFrameComes)
{
    sink->gate.set_value();
    writer.push(frame(0));
    for (int i = 0; i < 500 && sink->flushes == 0; ++i)
        std::this_thread::sleep_for(20ms);
    EXPECT_EQ(sink->flushes, 1);
    writer.finish({"", "finished"});
}

TEST_F(WriterTest, ADiskThatTakesNothingIsGivenUp)
{
    writer.push(frame(0));
    std::thread series([&] {
        for (long i = 1; i < 10; ++i)
            writer.push(frame(i));
    });
    while (writer.blocked() < 0.1)
        std::this_thread::sleep_for(5ms);
    writer.giveUp();
    series.join(); // a device that waited for room goes on
    EXPECT_THROW(writer.finish({"", "finished"}, 100ms), record::OutputError);
    EXPECT_GT(writer.blocked(), 0.1) << "the thread was left behind";
    sink->gate.set_value(); // the one that was left behind ends too
    while (writer.blocked() > 0)
        std::this_thread::sleep_for(5ms);
    EXPECT_EQ(sink->outcome, "");
}

TEST_F(WriterTest, CountsWhatLooksWrong)
{
    sink->gate.set_value();
    const std::uint32_t counts[] = {0, 0, 0, 7, 0, 0, 1}; // 7 is the highest
    for (std::size_t i = 0; i < std::size(counts); ++i) {
        auto next = frame(static_cast<long>(i), 1, counts[i]);
        const std::uint32_t missing = i == 6 ? 12 : 0;
        next.frame->addMetaData("MissingBytes", "", DTYPE_U32, &missing, sizeof missing);
        writer.push(std::move(next));
    }
    writer.finish({"", "finished"});
    const record::WriterCounts found = writer.counts();
    EXPECT_EQ(found.written, 7u);
    EXPECT_EQ(found.incomplete, 1u) << "a block that says 0 is no gap";
    EXPECT_EQ(found.zero, 5u);
    EXPECT_EQ(found.longestZero, 2u) << "those before the first count may be meant";
    EXPECT_EQ(found.saturated, 65536u);
    EXPECT_EQ(found.mostSaturated, 1);
}

} // namespace
