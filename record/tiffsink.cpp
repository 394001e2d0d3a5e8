// Frames as the pages of one TIFF file.
#include "record/tiffsink.h"

#include "record/error.h"
#include "record/text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace record {
namespace {

using Json = nlohmann::json;

constexpr double CLASSIC_LIMIT = 3.9e9; // bytes; a classic TIFF ends at 4 GiB
constexpr unsigned ROWS_PER_STRIP = 64;

// The library reports through one function for the whole process; the last words are kept for each thread.
thread_local std::string lastWords;

void keepWords(const char*, const char* format, va_list arguments)
{
    std::array<char, 300> buffer{};
    std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    lastWords = buffer.data();
}

Json toJson(const std::vector<SettingGroup>& groups)
{
    Json json = Json::object();
    for (const SettingGroup& group : groups)
        for (const Setting& setting : group.settings)
            std::visit([&](const auto& value) { json[group.name][setting.name] = value; }, setting.value);
    return json;
}

Json toJson(const SeriesInfo& info)
{
    return {{"device", info.device},      {"serial", info.serial},
            {"firmware", info.firmware},  {"plugin", info.pluginVersion},
            {"chips", info.chipIDs},      {"start_time", info.startTime},
            {"frame_time", info.seconds}, {"settings", toJson(info.settings)}};
}

/// Texts from boards may be in any encoding; what is no UTF-8 becomes the replacement character.
std::string dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

TiffSink::TiffSink(const OutputOptions& options)
    : file(options.path, options.mayReplace),
      compression(options.compression.value_or(0))
{
    TIFFSetErrorHandler(keepWords);
    TIFFSetWarningHandler(nullptr);
}

void TiffSink::begin(const SeriesInfo& info)
{
    series = info;
    const double bytes =
        double{1} * info.width * info.height * info.bitsPerPixel / 8 * info.picturesPerFrame * info.frames;
    tiff.reset(TIFFOpen(file.temporary().c_str(), bytes > CLASSIC_LIMIT ? "w8" : "w"));
    if (tiff == nullptr)
        fail();
}

void TiffSink::write(const FrameRecord& frame)
{
    for (std::size_t i = 0; i < frame.pictures.size(); ++i) {
        Json page{{"frame", frame.index}, {"counter", i}, {"time", frame.arrival}, {"exposure", frame.exposure}};
        for (const auto& block : frame.metaData)
            page["metadata"][block.name] = block.numbers();
        if (firstPage)
            page["series"] = toJson(series);
        writePage(frame.pictures[i], dump(page));
        firstPage = false;
    }
}

void TiffSink::writePage(const Picture& picture, const std::string& description)
{
    setTags(picture, description);
    std::vector<std::uint16_t> narrow;
    if (series.bitsPerPixel == 16)
        for (const std::uint32_t count : picture.pixels)
            narrow.push_back(static_cast<std::uint16_t>(std::min<std::uint32_t>(count, 0xFFFF)));
    const std::size_t rowBytes = std::size_t{picture.width} * series.bitsPerPixel / 8;
    auto* bytes = narrow.empty() ? reinterpret_cast<const unsigned char*>(picture.pixels.data())
                                 : reinterpret_cast<const unsigned char*>(narrow.data());
    std::vector<unsigned char> strip; // the library may change what it is given
    for (unsigned row = 0; row < picture.height; row += ROWS_PER_STRIP) {
        const std::size_t size = rowBytes * std::min(ROWS_PER_STRIP, picture.height - row);
        strip.assign(bytes + row * rowBytes, bytes + row * rowBytes + size);
        if (TIFFWriteEncodedStrip(tiff.get(), row / ROWS_PER_STRIP, strip.data(), static_cast<tmsize_t>(size)) < 0)
            fail();
    }
    if (TIFFWriteDirectory(tiff.get()) == 0)
        fail();
}

void TiffSink::setTags(const Picture& picture, const std::string& description)
{
    TIFF* page = tiff.get();
    TIFFSetField(page, TIFFTAG_IMAGEWIDTH, picture.width);
    TIFFSetField(page, TIFFTAG_IMAGELENGTH, picture.height);
    TIFFSetField(page, TIFFTAG_BITSPERSAMPLE, static_cast<int>(series.bitsPerPixel));
    TIFFSetField(page, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(page, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    TIFFSetField(page, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(page, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(page, TIFFTAG_ROWSPERSTRIP, ROWS_PER_STRIP);
    TIFFSetField(page, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
    TIFFSetField(page, TIFFTAG_COMPRESSION, compression > 0 ? COMPRESSION_ADOBE_DEFLATE : COMPRESSION_NONE);
    if (compression > 0)
        TIFFSetField(page, TIFFTAG_ZIPQUALITY, compression);
    TIFFSetField(page, TIFFTAG_SOFTWARE, "latixel " LATIXEL_VERSION);
    TIFFSetField(page, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
}

void TiffSink::finish(const SeriesSummary&)
{
    if (tiff != nullptr && TIFFFlush(tiff.get()) == 0)
        fail();
    tiff.reset();
    file.complete();
}

void TiffSink::fail() const
{
    throw OutputError("cannot write " + file.path().string() + ": " +
                      (lastWords.empty() ? "the disk may be full" : printable(lastWords)));
}

} // namespace record
