// Files of frames: written, read back, and what is left of them when writing fails.
#include "record/check.h"
#include "record/frametable.h"
#include "record/pngsink.h"
#include "record/repair.h"
#include "tests/record/frames.h"

#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <png.h>
#include <sys/resource.h>

namespace {

using record::OutputError;
using record::Picture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned WIDTH = 512;
constexpr unsigned HEIGHT = 256;
const char* const NAMES[] = {"run.h5", "run.tif", "run.png"};

record::SeriesInfo seriesOf(unsigned frames, unsigned pictures = 1)
{
    record::SeriesInfo info;
    info.device = "Board sn: 7";
    info.chipIDs = {"A01-W0001", "B2"};
    info.width = WIDTH;
    info.height = HEIGHT;
    info.picturesPerFrame = pictures;
    info.frames = frames;
    info.settings = {{"parameters", {{"odd/name", "what", 1.5}, {"odd name", "", std::string("text \xB0")}}},
                     {"bias", {{"steps", "", std::vector<double>{1, 2}}}}};
    return info;
}

record::Counting countingFor(unsigned pictures)
{
    return pictures == 2 ? record::Counting::Double : record::Counting::Single;
}

record::PictureMaker makerFor(unsigned pictures)
{
    return {2, record::Layout::sideBySide(2), countingFor(pictures), 4095};
}

/// A frame of two chips; `record` of it is what sinks of that format take.
struct TestFrame {
    explicit TestFrame(long number, unsigned pictureCount = 1) : index(number), pictures(pictureCount)
    {
        frame = support::frame<std::uint32_t>(host, 2, [&](unsigned chip, unsigned x, unsigned y) {
            if (x == 5 && y == 0)
                return Picture::BAD;
            const unsigned low = (static_cast<unsigned>(index) * 10 + chip + x + 3 * y) % 700;
            return pictures == 2 ? low | (low + 100) << 16 : low * 1000;
        });
    }

    record::FrameRecord record(const record::FrameSink& sink, bool inHurry = false) const
    {
        record::FrameRecord made;
        made.index = index;
        made.arrival = 0.5 * static_cast<double>(index);
        made.exposure = 0.25;
        made.metaData = metaData;
        sink.encode(makerFor(pictures), *frame, made, inHurry);
        return made;
    }
    std::vector<Picture> expected() const { return makerFor(pictures).make(*frame); }

    refhost::Host host{"", ""};
    long index;
    unsigned pictures;
    refhost::FramePtr frame;
    std::vector<refhost::MetaData> metaData;
};

refhost::MetaData rowTimes(double first)
{
    const double values[] = {first, first + 1};
    const auto* bytes = reinterpret_cast<const unsigned char*>(values);
    return {"RowAcqTimes", "rows", refhost::DataType::Double, {bytes, bytes + sizeof values}};
}

record::OutputOptions outputTo(const std::filesystem::path& path)
{
    record::OutputOptions options;
    options.path = path;
    options.format = *record::formatOf(path);
    return options;
}

/// A whole series. Every second frame is encoded in a hurry.
void write(const record::OutputOptions& options, const record::SeriesInfo& info,
           const std::vector<const TestFrame*>& frames)
{
    const auto sink = record::makeSink(options);
    sink->begin(info);
    bool inHurry = false;
    for (const TestFrame* frame : frames) {
        sink->write(frame->record(*sink, inHurry));
        inHurry = !inHurry;
    }
    sink->finish({"2024-01-01T00:00:00", "finished"});
}

std::vector<record::Colour> readPng(const std::filesystem::path& path)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&image, path.c_str()), 0);
    EXPECT_EQ(image.width, WIDTH);
    image.format = PNG_FORMAT_RGB;
    std::vector<record::Colour> pixels(PNG_IMAGE_SIZE(image) / 3);
    EXPECT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0);
    return pixels;
}

TEST(Hdf5, HoldsFramesTimesMetadataAndSettings)
{
    const support::TempFolder folder;
    const auto path = folder / "run.h5";
    TestFrame first(0, 2);
    TestFrame second(1, 2);
    TestFrame last(3, 2); // number 2 was lost
    first.metaData = {rowTimes(0)};
    last.metaData = {rowTimes(3), {"Late", "", refhost::DataType::Byte, {7}}};
    const std::vector<const TestFrame*> frames = {&first, &second, &last};
    write(outputTo(path), seriesOf(4, 2), frames);
    EXPECT_THAT(folder.names(), ElementsAre("run.h5"));

    const support::Hdf5File file(path);
    EXPECT_THAT(file.shape("/entry/instrument/detector/data"), ElementsAre(3, HEIGHT, WIDTH));
    const auto low = file.numbers("/entry/instrument/detector/data");
    const auto high = file.numbers("/entry/data/data_counter1");
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto pictures = frames[i]->expected();
        for (std::size_t pixel = 0; pixel < WIDTH * HEIGHT; ++pixel) {
            ASSERT_EQ(low[i * WIDTH * HEIGHT + pixel], pictures[0].pixels[pixel]) << i << " " << pixel;
            ASSERT_EQ(high[i * WIDTH * HEIGHT + pixel], pictures[1].pixels[pixel]) << i << " " << pixel;
        }
    }
    EXPECT_THAT(file.numbers("/entry/data/frame"), ElementsAre(0, 1, 3));
    EXPECT_THAT(file.numbers("/entry/data/time"), ElementsAre(0, 0.5, 1.5));
    EXPECT_THAT(file.numbers("/entry/instrument/detector/frame_metadata/RowAcqTimes"),
                ElementsAre(0, 1, testing::IsNan(), testing::IsNan(), 3, 4));
    EXPECT_THAT(file.numbers("/entry/instrument/detector/parameters/odd_name"), ElementsAre(1.5));
    EXPECT_NO_THROW(file.dataset("/entry/instrument/detector/parameters/odd_name_2"));
    EXPECT_THAT(file.numbers("/entry/instrument/detector/bias/steps"), ElementsAre(1, 2));

    const record::h5::Handle detector = file.group("/entry/instrument/detector");
    const auto rows = record::FrameTable::read(detector);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_STREQ(rows[2].remarks, "Late=7.000000") << "nothing is created once readers are in";
    EXPECT_EQ(rows[2].number, 3);
    EXPECT_LT(std::filesystem::file_size(path), 3 * 2 * WIDTH * HEIGHT * 4 / 2) << "two of three are compressed";

    const record::FileCheck check = record::checkFile(path);
    EXPECT_TRUE(check.isOurs && check.isClosed && !check.hasWriter);
    EXPECT_EQ(check.missing(), 1u);
    EXPECT_EQ(record::gapsIn(check.numbers, 6), "2, 4-5");
}

TEST(Hdf5, NothingIsCreatedOnceReadersAreIn)
{
    const support::TempFolder folder;
    const auto sink = record::makeSink(outputTo(folder / "run.h5"));
    sink->begin(seriesOf(3));
    EXPECT_EQ(folder.names().size(), 1u);
    sink->write(TestFrame(0).record(*sink));
    EXPECT_THAT(folder.names(), ElementsAre("run.h5")) << "grows under its name";
    EXPECT_TRUE(record::hasWriter(folder / "run.h5"));
    EXPECT_FALSE(record::checkFile(folder / "run.h5").isClosed);
    const auto created = record::h5::createdObjects();
    TestFrame late(1);
    late.metaData = {rowTimes(3)};
    sink->write(late.record(*sink));
    sink->flush();
    sink->finish({"2024-01-01T00:00:00", std::string(500, 'x')});
    EXPECT_EQ(record::h5::createdObjects(), created);
    EXPECT_FALSE(record::hasWriter(folder / "run.h5"));
    EXPECT_EQ(record::checkFile(folder / "run.h5").delivered, 2u);
}

TEST(Tiff, HoldsOnePageForEachPicture)
{
    const support::TempFolder folder;
    auto options = outputTo(folder / "run.tif");
    options.compression = 6;
    const TestFrame first(0, 2);
    const TestFrame second(1, 2);
    write(options, seriesOf(3, 2), {&first, &second});

    const auto pages = support::tiffPages(options.path);
    ASSERT_EQ(pages.size(), 4u);
    for (std::size_t i = 0; i < pages.size(); ++i) {
        const auto told = nlohmann::json::parse(pages[i].description);
        EXPECT_EQ(told["frame"], i / 2);
        EXPECT_EQ(told.contains("series"), i == 0);
        EXPECT_TRUE(pages[i].counts == (i < 2 ? first : second).expected()[i % 2].pixels) << i;
    }
    const record::FileCheck check = record::checkFile(options.path);
    EXPECT_TRUE(check.isOurs && check.isClosed && !check.isHdf5);
    EXPECT_EQ(check.delivered, 2u);
    EXPECT_EQ(check.missing(), 1u);
}

TEST(Check, WhatIsNotOursIsToldApart)
{
    const support::TempFolder folder;
    EXPECT_THROW(record::checkFile(folder / "none.h5"), OutputError);
    for (const char* text : {"", "II*", "some text that is long enough", "II*\x08", "\x89HDF\r\n\x1a\n"})
        try {
            EXPECT_FALSE(record::checkFile(folder.write("file", text)).isOurs) << text;
            EXPECT_THROW(record::repairFile(folder / "file"), OutputError);
        } catch (const OutputError&) { // not to be read at all
        }
}

TEST(Png, FilesAreNumberedByFrameAndCounter)
{
    const support::TempFolder folder;
    const TestFrame only(0);
    write(outputTo(folder / "look.png"), seriesOf(2), {&only});
    EXPECT_THAT(folder.names(), ElementsAre("look_0000.png"));

    const auto name = [](long frame, std::size_t picture, unsigned frames, unsigned pictures) {
        return record::PngSink::nameOf("a/b.png", frame, picture, frames, pictures).string();
    };
    EXPECT_EQ(name(0, 0, 1, 1), "a/b.png");
    EXPECT_EQ(name(0, 1, 1, 2), "a/b_c1.png");
    EXPECT_EQ(name(7, 0, 20000, 1), "a/b_00007.png");
}

TEST(Output, ShortFramesKeepTheirCountsInEveryFormat)
{
    const support::TempFolder folder;
    refhost::Host host("", "");
    const std::uint16_t counts[] = {0, 1, 11810, 11811}; // the last one stands for no count
    const auto frame = support::frame<std::uint16_t>(
        host, 2, [&](unsigned chip, unsigned x, unsigned y) { return counts[(chip + x + y) % 4]; });
    const record::PictureMaker maker(2, record::Layout::sideBySide(2), record::Counting::Short, 11810);
    auto info = seriesOf(1);
    info.bitsPerPixel = 16;
    for (const char* name : NAMES) {
        auto options = outputTo(folder / name);
        options.range = record::ContrastRange{0, 11810};
        const auto sink = record::makeSink(options);
        sink->begin(info);
        record::FrameRecord one;
        sink->encode(maker, *frame, one, false);
        sink->write(one);
        sink->finish({});
    }
    for (const char* name : {"run.h5", "run.tif"})
        EXPECT_EQ(record::checkFile(folder / name).saturatedPixels, WIDTH * HEIGHT / 4) << name;
    const support::Hdf5File file(folder / "run.h5");
    const record::h5::Handle type(H5Dget_type(file.dataset("/entry/data/data")), H5Tclose);
    EXPECT_GT(H5Tequal(type, H5T_STD_U16LE), 0);
    const auto inHdf5 = file.numbers("/entry/data/data");
    const auto inTiff = support::tiffPages(folder / "run.tif").at(0);
    EXPECT_EQ(inTiff.bits, 16);
    const auto inPng = readPng(folder / "run.png");
    const auto& colours = record::colormap(record::ColormapName::Viridis).colours;
    const std::uint16_t stored[] = {0, 1, 11810, 0xFFFF};
    const record::Colour shown[] = {colours[0], colours[0], colours[254], colours[record::Colormap::BAD_INDEX]};
    for (std::size_t pixel = 0; pixel < inHdf5.size(); pixel += 101) {
        const std::size_t which = (pixel % WIDTH / 256 + pixel % WIDTH % 256 + pixel / WIDTH) % 4;
        ASSERT_EQ(inHdf5[pixel], stored[which]) << pixel;
        ASSERT_EQ(inTiff.counts.at(pixel), stored[which]) << pixel;
        ASSERT_EQ(inPng[pixel], shown[which]) << pixel;
    }
}

/// What goes wrong with a file of each format.
class OutputTest : public testing::TestWithParam<const char*> {
protected:
    std::unique_ptr<record::FrameSink> begun() const
    {
        auto sink = record::makeSink(options);
        sink->begin(seriesOf(1));
        return sink;
    }
    static void writeAndFinish(record::FrameSink& sink)
    {
        sink.write(TestFrame(0).record(sink));
        sink.finish({});
    }

    support::TempFolder folder;
    record::OutputOptions options = outputTo(folder / GetParam());
};

INSTANTIATE_TEST_SUITE_P(Formats, OutputTest, testing::ValuesIn(NAMES),
                         [](const auto& format) { return std::string(format.param).substr(4); });

TEST_P(OutputTest, NothingIsLeftOfWhatWasNotFinished)
{
    {
        const auto sink = record::makeSink(options);
        EXPECT_THAT(folder.names(), testing::SizeIs(1)) << "the place is tried at once";
        sink->begin(seriesOf(1));
        EXPECT_FALSE(std::filesystem::exists(options.path));
    }
    EXPECT_THAT(folder.names(), IsEmpty());
    options.path = folder / "missing" / GetParam();
    EXPECT_THROW(record::makeSink(options), OutputError);
}

TEST_P(OutputTest, ExistingFilesAreReplacedOnlyOnRequest)
{
    folder.write(GetParam(), "precious");
    EXPECT_THROW(begun(), record::OutputExists);
    EXPECT_EQ(folder.read(GetParam()), "precious");
    options.mayReplace = true;
    writeAndFinish(*begun());
    EXPECT_GT(std::filesystem::file_size(options.path), 100u);

    options.path = folder / (std::string("late_") + GetParam());
    options.mayReplace = false;
    const auto sink = begun();
    folder.write(options.path.filename(), "precious");
    EXPECT_THROW(writeAndFinish(*sink), OutputError) << "it came into being meanwhile";
    EXPECT_EQ(folder.read(options.path.filename()), "precious");
}

TEST_P(OutputTest, AFullDiskIsOneClearFailure)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit former{};
    getrlimit(RLIMIT_FSIZE, &former);
    options.compression = 0;
    {
        const auto sink = begun();
        const rlimit small{100, former.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_THROW(sink->write(TestFrame(0).record(*sink)), OutputError);
        EXPECT_NO_THROW(sink->finish({}));
        EXPECT_EQ(sink->safeFrames(), 0u);
        setrlimit(RLIMIT_FSIZE, &former);
    }
    EXPECT_THAT(folder.names(), IsEmpty());
}

} // namespace
