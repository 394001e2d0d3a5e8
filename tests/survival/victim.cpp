// Writes a series whose pixels are known, as the tool does, for those who kill it or fail its disk.
//
// victim FILE FRAMES MILLISECONDS [direct]: a frame each so many milliseconds. After each flush of the file the number
// of frames that it calls safe goes to standard output. With "direct" there are no threads, and a flush after every
// third frame. Ends with 6 when the file cannot be written.
#include "host/datatype.h"
#include "record/error.h"
#include "record/framewriter.h"
#include "refhost/host.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" {
/// Of the preloaded library, where there is one.
[[gnu::weak]] void latixelFlush(bool begins);
}

namespace {

constexpr unsigned PIXELS = 256 * 256;
constexpr unsigned FRAMES_A_FLUSH = 3;
constexpr std::uint32_t MISSING = 17; // bytes of some frames

/// The same as in survival.py.
std::uint32_t countOf(long frame, std::uint32_t pixel)
{
    return static_cast<std::uint32_t>((frame * 7919 + pixel * 31 + (pixel >> 5)) % 4000);
}

refhost::SeriesFrame frameOf(refhost::Host& host, long index)
{
    dv::IMpxFrame* made = host.frameFactory()->createFrame(256, 256, DTYPE_U32);
    auto* pixels = static_cast<std::uint32_t*>(made->dataPointer(0));
    for (std::uint32_t pixel = 0; pixel < PIXELS; ++pixel)
        pixels[pixel] = countOf(index, pixel);
    const double row[] = {static_cast<double>(index), 2};
    made->addMetaData("RowAcqTimes", "rows", DTYPE_DOUBLE, row, sizeof row);
    if (index % 10 == 3) {
        const std::uint32_t missing = MISSING;
        made->addMetaData("MissingBytes", "MissingBytes", DTYPE_U32, &missing, sizeof missing);
    }
    return {index, 0.1 * static_cast<double>(index), 0.1, refhost::adopt(made)};
}

/// Tells what happens to the sink below.
class Watched final : public record::FrameSink {
public:
    explicit Watched(std::unique_ptr<record::FrameSink> below) : sink(std::move(below)) {}

    void begin(const record::SeriesInfo& info) override { sink->begin(info); }
    void encode(const record::PictureMaker& maker, const refhost::Frame& frame, record::FrameRecord& record,
                bool inHurry) const override
    {
        sink->encode(maker, frame, record, inHurry);
    }
    void write(const record::FrameRecord& frame) override { sink->write(frame); }
    void flush() override
    {
        mark(true);
        sink->flush();
        mark(false);
        std::printf("%zu\n", sink->safeFrames());
        std::fflush(stdout);
    }
    void finish(const record::SeriesSummary& summary) override
    {
        mark(true);
        sink->finish(summary);
        mark(false);
    }
    std::string place() const override { return sink->place(); }
    std::size_t safeFrames() const override { return sink->safeFrames(); }

private:
    static void mark(bool begins)
    {
        if (latixelFlush != nullptr)
            latixelFlush(begins);
    }

    const std::unique_ptr<record::FrameSink> sink;
};

void writeDirectly(record::FrameSink& sink, refhost::Host& host, const record::PictureMaker& maker, long frames)
{
    std::exception_ptr failure;
    try {
        for (long i = 0; i < frames; ++i) {
            const auto frame = frameOf(host, i);
            record::FrameRecord record;
            record.index = i;
            record.metaData = frame.frame->metaData();
            record.missingBytes = frame.frame->findMetaData("MissingBytes") != nullptr ? MISSING : 0;
            sink.encode(maker, *frame.frame, record, i % 5 == 0);
            sink.write(record);
            if (i % FRAMES_A_FLUSH == FRAMES_A_FLUSH - 1)
                sink.flush();
        }
    } catch (...) {
        failure = std::current_exception();
    }
    sink.finish({"2024-01-01T00:00:00", failure == nullptr ? "finished" : "the disk failed"});
    if (failure != nullptr)
        std::rethrow_exception(failure);
}

void writeThreaded(const std::shared_ptr<record::FrameSink>& sink, refhost::Host& host,
                   const record::PictureMaker& maker, long frames, std::chrono::milliseconds interval)
{
    record::FrameWriter writer(sink, maker, std::size_t{32} << 20);
    for (long i = 0; i < frames && !writer.failed(); ++i) {
        writer.push(frameOf(host, i));
        std::this_thread::sleep_for(interval);
    }
    writer.finish({"2024-01-01T00:00:00", "finished"});
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return 2;
    record::OutputOptions options;
    options.path = argv[1];
    options.format = *record::formatOf(options.path);
    record::SeriesInfo info;
    info.device = "victim";
    info.chipIDs = {"A1"};
    info.width = info.height = 256;
    info.frames = static_cast<unsigned>(std::atol(argv[2]));
    info.settings = {{"bias", {{"voltage", "", 1.5}}}};
    refhost::Host host("", "");
    const record::PictureMaker maker(1, {1, 1}, record::Counting::Single, 3999);
    try {
        const auto sink = std::make_shared<Watched>(record::makeSink(options));
        sink->begin(info);
        if (argc > 4)
            writeDirectly(*sink, host, maker, info.frames);
        else
            writeThreaded(sink, host, maker, info.frames, std::chrono::milliseconds(std::atol(argv[3])));
    } catch (const record::OutputError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 6;
    }
    return 0;
}
