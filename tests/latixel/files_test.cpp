// Files of frames: written, read back, and what is left of them when writing fails.
#include "apps/latixel/exitcode.h"
#include "apps/latixel/h5.h"
#include "apps/latixel/pngsink.h"
#include "tests/latixel/support.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <png.h>
#include <sys/resource.h>
#include <tiffio.h>

namespace {

using support::codeOf;
using testing::ElementsAre;
using testing::IsEmpty;
using tool::ExitCode;
using tool::Picture;

constexpr unsigned width = 512;
constexpr unsigned height = 256;

tool::SeriesInfo seriesOf(unsigned frames, unsigned pictures = 1)
{
    tool::SeriesInfo info;
    info.device = "Board sn: 7";
    info.chipIDs = {"A01-W0001", "B2"};
    info.width = width;
    info.height = height;
    info.picturesPerFrame = pictures;
    info.frames = frames;
    info.settings = {{"parameters", {{"odd/name", "what", 1.5}, {"odd name", "", std::string("text \xB0")}}},
                     {"bias", {{"steps", "", std::vector<double>{1, 2}}}}};
    return info;
}

std::uint32_t countAt(long frame, std::size_t picture, std::size_t pixel)
{
    return pixel == 5 ? Picture::bad : static_cast<std::uint32_t>(frame * 1000 + pixel % 700 + picture * 100000);
}

tool::FrameRecord frameOf(long index, unsigned pictures = 1)
{
    tool::FrameRecord frame{index, 0.5 * static_cast<double>(index), 0.25, {}, {}};
    for (std::size_t i = 0; i < pictures; ++i) {
        Picture picture{width, height, std::vector<std::uint32_t>(std::size_t{width} * height)};
        for (std::size_t p = 0; p < picture.pixels.size(); ++p)
            picture.pixels[p] = countAt(index, i, p);
        frame.pictures.push_back(std::move(picture));
    }
    return frame;
}

refhost::MetaData rowTimes(double first)
{
    refhost::MetaData block{"RowAcqTimes", "rows", refhost::DataType::Double, {}};
    for (const double value : {first, first + 1})
        block.bytes.insert(block.bytes.end(), reinterpret_cast<const unsigned char*>(&value),
                           reinterpret_cast<const unsigned char*>(&value) + sizeof value);
    return block;
}

/// The counts of an open TIFF file's present page.
template <typename Item>
std::vector<Item> readPage(TIFF* tiff)
{
    std::vector<Item> raster(std::size_t{width} * height);
    tmsize_t filled = 0;
    for (tstrip_t strip = 0; strip < TIFFNumberOfStrips(tiff); ++strip)
        filled += TIFFReadEncodedStrip(tiff, strip, reinterpret_cast<char*>(raster.data()) + filled, -1);
    EXPECT_EQ(filled, static_cast<tmsize_t>(raster.size() * sizeof(Item)));
    return raster;
}

std::vector<tool::Colour> readPng(const std::filesystem::path& path)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&image, path.c_str()), 0);
    EXPECT_EQ(image.width, width);
    image.format = PNG_FORMAT_RGB;
    std::vector<tool::Colour> pixels(PNG_IMAGE_SIZE(image) / 3);
    EXPECT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0);
    return pixels;
}

template <typename Item>
std::vector<Item> readAll(hid_t file, const char* path, hid_t type, std::vector<hsize_t>* shape = nullptr)
{
    const tool::h5::Handle dataset(H5Dopen2(file, path, H5P_DEFAULT), H5Dclose);
    const tool::h5::Handle space(H5Dget_space(dataset), H5Sclose);
    std::vector<Item> values(static_cast<std::size_t>(H5Sget_simple_extent_npoints(space)));
    tool::h5::check(H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()));
    if (shape != nullptr) {
        shape->resize(static_cast<std::size_t>(H5Sget_simple_extent_ndims(space)));
        H5Sget_simple_extent_dims(space, shape->data(), nullptr);
    }
    return values;
}

TEST(Hdf5, HoldsFramesTimesMetadataAndSettings)
{
    const support::Folder folder;
    tool::OutputOptions options;
    options.path = folder / "run.h5";
    options.format = tool::OutputFormat::Hdf5;
    {
        const auto sink = tool::makeSink(options);
        sink->begin(seriesOf(4, 2));
        for (const long index : {0, 1, 3}) { // number 2 was lost
            auto frame = frameOf(index, 2);
            if (index > 0)
                frame.metaData.push_back(rowTimes(static_cast<double>(index)));
            sink->write(frame);
        }
        EXPECT_FALSE(std::filesystem::exists(options.path));
        sink->finish({"2024-01-01T00:00:00", "finished"});
    }
    EXPECT_THAT(folder.names(), ElementsAre("run.h5"));

    const tool::h5::Handle file(H5Fopen(options.path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    std::vector<hsize_t> shape;
    const auto counts = readAll<std::uint32_t>(file, "/entry/instrument/detector/data", H5T_NATIVE_UINT32, &shape);
    ASSERT_THAT(shape, ElementsAre(3, height, width));
    const auto second = readAll<std::uint32_t>(file, "/entry/data/data_counter1", H5T_NATIVE_UINT32);
    const long indexes[] = {0, 1, 3};
    for (std::size_t i = 0; i < counts.size(); i += 1777) {
        const std::size_t pixel = i % (width * height);
        ASSERT_EQ(counts[i], countAt(indexes[i / (width * height)], 0, pixel)) << i;
        ASSERT_EQ(second[i], countAt(indexes[i / (width * height)], 1, pixel)) << i;
    }
    EXPECT_EQ(counts[5], Picture::bad);
    EXPECT_THAT(readAll<long>(file, "/entry/data/frame", H5T_NATIVE_LONG), ElementsAre(0, 1, 3));
    EXPECT_THAT(readAll<double>(file, "/entry/data/time", H5T_NATIVE_DOUBLE), ElementsAre(0, 0.5, 1.5));
    EXPECT_THAT(readAll<double>(file, "/entry/instrument/detector/frame_metadata/RowAcqTimes", H5T_NATIVE_DOUBLE),
                ElementsAre(testing::IsNan(), testing::IsNan(), 1, 2, 3, 4));
    EXPECT_THAT(readAll<double>(file, "/entry/instrument/detector/parameters/odd_name", H5T_NATIVE_DOUBLE),
                ElementsAre(1.5));
    EXPECT_GT(H5Lexists(file, "/entry/instrument/detector/parameters/odd_name_2", H5P_DEFAULT), 0);
    EXPECT_THAT(readAll<double>(file, "/entry/instrument/detector/bias/steps", H5T_NATIVE_DOUBLE), ElementsAre(1, 2));

    const tool::h5::Handle data(H5Dopen2(file, "/entry/data/data", H5P_DEFAULT), H5Dclose);
    const tool::h5::Handle made(H5Dget_create_plist(data), H5Pclose);
    hsize_t chunk[3] = {};
    EXPECT_EQ(H5Pget_chunk(made, 3, chunk), 3);
    EXPECT_THAT(chunk, ElementsAre(1, height, width));
    EXPECT_LT(std::filesystem::file_size(options.path), counts.size() * 2) << "compressed";
}

TEST(Tiff, HoldsOnePageForEachPicture)
{
    const support::Folder folder;
    for (const unsigned bits : {32u, 16u}) {
        tool::OutputOptions options;
        options.path = folder / ("run" + std::to_string(bits) + ".tif");
        options.format = tool::OutputFormat::Tiff;
        options.compression = bits == 32 ? 6 : 0;
        auto info = seriesOf(2, 2);
        info.bitsPerPixel = bits;
        const auto sink = tool::makeSink(options);
        sink->begin(info);
        sink->write(frameOf(0, 2));
        sink->write(frameOf(1, 2));
        sink->finish({});

        const std::unique_ptr<TIFF, decltype(&TIFFClose)> tiff(TIFFOpen(options.path.c_str(), "r"), TIFFClose);
        for (std::size_t page = 0; page < 4; ++page) {
            ASSERT_EQ(TIFFSetDirectory(tiff.get(), static_cast<tdir_t>(page)), 1) << page;
            std::uint16_t depth = 0;
            TIFFGetField(tiff.get(), TIFFTAG_BITSPERSAMPLE, &depth);
            EXPECT_EQ(depth, bits);
            char* description = nullptr;
            TIFFGetField(tiff.get(), TIFFTAG_IMAGEDESCRIPTION, &description);
            const auto told = nlohmann::json::parse(description);
            EXPECT_EQ(told["frame"], page / 2);
            EXPECT_EQ(told.contains("series"), page == 0);
            const auto expect = [&](const auto& raster, std::uint32_t highest) {
                for (std::size_t pixel = 0; pixel < raster.size(); pixel += 997)
                    ASSERT_EQ(raster[pixel], std::min(countAt(static_cast<long>(page / 2), page % 2, pixel), highest));
            };
            bits == 32 ? expect(readPage<std::uint32_t>(tiff.get()), 0xFFFFFFFF)
                       : expect(readPage<std::uint16_t>(tiff.get()), 0xFFFF);
        }
        EXPECT_EQ(TIFFSetDirectory(tiff.get(), 4), 0);
    }
}

TEST(Png, ShowsCountsInColoursAndBadPixelsInTheirOwn)
{
    const support::Folder folder;
    tool::OutputOptions options;
    options.path = folder / "look.png";
    options.format = tool::OutputFormat::Png;
    options.range = tool::ContrastRange{0, 254};
    const auto sink = tool::makeSink(options);
    sink->begin(seriesOf(2));
    sink->write(frameOf(0));
    EXPECT_THAT(folder.names(), ElementsAre("look_0000.png"));

    const auto pixels = readPng(folder / "look_0000.png");
    const auto& colours = tool::colormap(options.colours).colours;
    EXPECT_EQ(pixels[5], colours[tool::Colormap::badIndex]);
    EXPECT_EQ(pixels[100], colours[100]);
    EXPECT_EQ(pixels[600], colours[254]);

    const auto name = [](long frame, std::size_t picture, unsigned frames, unsigned pictures) {
        return tool::PngSink::nameOf("a/b.png", frame, picture, frames, pictures).string();
    };
    EXPECT_EQ(name(0, 0, 1, 1), "a/b.png");
    EXPECT_EQ(name(0, 1, 1, 2), "a/b_c1.png");
    EXPECT_EQ(name(7, 0, 20000, 1), "a/b_00007.png");
}

TEST(Output, ShortFramesKeepTheirCountsInEveryFormat)
{
    const support::Folder folder;
    refhost::Host host("", "");
    const std::uint16_t counts[] = {0, 1, 11810, 11811}; // the last one stands for no count
    const auto frame = support::frame<std::uint16_t>(
        host, 2, [&](unsigned chip, unsigned x, unsigned y) { return counts[(chip + x + y) % 4]; });
    const auto record = [&] {
        const tool::PictureMaker maker(2, tool::Layout::sideBySide(2), tool::Counting::Short);
        return tool::FrameRecord{0, 0, 0, maker.make(*frame), {}};
    };
    auto info = seriesOf(1);
    info.bitsPerPixel = 16;
    for (const char* name : {"run.h5", "run.tif", "run.png"}) {
        tool::OutputOptions options;
        options.path = folder / name;
        options.format = *tool::formatOf(options.path);
        options.range = tool::ContrastRange{0, 11810};
        const auto sink = tool::makeSink(options);
        sink->begin(info);
        sink->write(record());
        sink->finish({});
    }
    const tool::h5::Handle file(H5Fopen((folder / "run.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    const tool::h5::Handle data(H5Dopen2(file, "/entry/data/data", H5P_DEFAULT), H5Dclose);
    const tool::h5::Handle type(H5Dget_type(data), H5Tclose);
    EXPECT_GT(H5Tequal(type, H5T_STD_U16LE), 0);
    const auto inHdf5 = readAll<std::uint16_t>(file, "/entry/data/data", H5T_NATIVE_UINT16);
    const std::unique_ptr<TIFF, decltype(&TIFFClose)> tiff(TIFFOpen((folder / "run.tif").c_str(), "r"), TIFFClose);
    const auto inTiff = readPage<std::uint16_t>(tiff.get());
    const auto inPng = readPng(folder / "run.png");
    const auto& colours = tool::colormap(tool::ColormapName::Viridis).colours;
    const std::uint16_t stored[] = {0, 1, 11810, 0xFFFF};
    const tool::Colour shown[] = {colours[0], colours[0], colours[254], colours[tool::Colormap::badIndex]};
    for (std::size_t pixel = 0; pixel < inHdf5.size(); pixel += 101) {
        const std::size_t which = (pixel % width / 256 + pixel % width % 256 + pixel / width) % 4;
        ASSERT_EQ(inHdf5[pixel], stored[which]) << pixel;
        ASSERT_EQ(inTiff[pixel], stored[which]) << pixel;
        ASSERT_EQ(inPng[pixel], shown[which]) << pixel;
    }
}

TEST(Output, NothingIsLeftOfWhatWasNotFinished)
{
    const support::Folder folder;
    for (const char* name : {"run.h5", "run.tif", "run.png"}) {
        tool::OutputOptions options;
        options.path = folder / name;
        options.format = *tool::formatOf(options.path);
        {
            const auto sink = tool::makeSink(options);
            EXPECT_THAT(folder.names(), testing::SizeIs(1)) << "the place is tried at once";
            sink->begin(seriesOf(1));
        }
        EXPECT_THAT(folder.names(), IsEmpty()) << name;
        options.path = folder / (std::string("missing/") + name);
        EXPECT_EQ(codeOf([&] { tool::makeSink(options); }), ExitCode::Output) << name;
    }
}

TEST(Output, ExistingFilesAreReplacedOnlyOnRequest)
{
    const support::Folder folder;
    for (const char* name : {"run.h5", "run.tif", "run.png"}) {
        tool::OutputOptions options;
        options.path = folder / name;
        options.format = *tool::formatOf(options.path);
        std::ofstream(options.path) << "precious";
        EXPECT_EQ(codeOf([&] { tool::makeSink(options)->begin(seriesOf(1)); }), ExitCode::Output) << name;
        EXPECT_EQ(std::filesystem::file_size(options.path), 8u);
        options.mayReplace = true;
        const auto sink = tool::makeSink(options);
        sink->begin(seriesOf(1));
        sink->write(frameOf(0));
        sink->finish({});
        EXPECT_GT(std::filesystem::file_size(options.path), 100u);
    }
    tool::OutputOptions late;
    late.path = folder / "late.h5";
    late.format = tool::OutputFormat::Hdf5;
    const auto sink = tool::makeSink(late);
    sink->begin(seriesOf(1));
    std::ofstream(late.path) << "precious";
    EXPECT_EQ(codeOf([&] { sink->finish({}); }), ExitCode::Output) << "it came into being meanwhile";
    EXPECT_EQ(std::filesystem::file_size(late.path), 8u);
}

TEST(Output, AFullDiskIsOneClearFailure)
{
    const support::Folder folder;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit former{};
    getrlimit(RLIMIT_FSIZE, &former);
    for (const char* name : {"run.h5", "run.tif", "run.png"}) {
        tool::OutputOptions options;
        options.path = folder / name;
        options.format = *tool::formatOf(options.path);
        options.compression = 0;
        {
            const auto sink = tool::makeSink(options);
            sink->begin(seriesOf(1));
            const rlimit small{name == std::string("run.png") ? rlim_t{100} : rlim_t{100000}, former.rlim_max};
            setrlimit(RLIMIT_FSIZE, &small);
            const auto code = codeOf([&] {
                sink->write(frameOf(0));
                sink->finish({});
            });
            setrlimit(RLIMIT_FSIZE, &former);
            EXPECT_EQ(code, ExitCode::Output) << name;
        }
        EXPECT_THAT(folder.names(), IsEmpty()) << name;
    }
}

} // namespace
