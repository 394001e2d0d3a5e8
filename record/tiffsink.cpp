// Frames as the pages of one TIFF file.
#include "record/tiffsink.h"

#include "record/error.h"
#include "record/text.h"
#include "record/tiffchain.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
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
            {"frame_time", info.seconds}, {"settings", toJson(info.settings)},
            {"frames", info.frames},      {"pictures", info.picturesPerFrame}};
}

/// Texts from boards may be in any encoding; what is no UTF-8 becomes the replacement character.
std::string dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string withBlanks(std::string outcome)
{
    outcome.resize(TiffSink::OUTCOME_ROOM, ' ');
    return outcome;
}

/// What the library does its reading and writing with. It moves about as in a file of its own.
struct Access {
    DiskFile& disk;
    std::uint64_t& position;
};

tmsize_t readProc(thandle_t handle, void* data, tmsize_t size)
{
    auto& access = *static_cast<Access*>(handle);
    const std::uint64_t end = access.disk.size();
    const std::uint64_t there = access.position < end ? end - access.position : 0;
    const auto bytes = static_cast<std::size_t>(std::min<std::uint64_t>(there, static_cast<std::uint64_t>(size)));
    if (!access.disk.readAt(access.position, data, bytes))
        return -1;
    access.position += bytes;
    return static_cast<tmsize_t>(bytes);
}

tmsize_t writeProc(thandle_t handle, void* data, tmsize_t size)
{
    auto& access = *static_cast<Access*>(handle);
    if (!access.disk.writeAt(access.position, data, static_cast<std::size_t>(size)))
        return -1;
    access.position += static_cast<std::uint64_t>(size);
    return size;
}

toff_t seekProc(thandle_t handle, toff_t offset, int whence)
{
    auto& access = *static_cast<Access*>(handle);
    if (whence == SEEK_SET)
        access.position = offset;
    else
        access.position = (whence == SEEK_END ? access.disk.size() : access.position) + offset;
    return access.position;
}

int closeProc(thandle_t handle)
{
    const std::unique_ptr<Access> owned(static_cast<Access*>(handle));
    return 0;
}

toff_t sizeProc(thandle_t handle)
{
    return static_cast<Access*>(handle)->disk.size();
}

} // namespace

TiffSink::TiffSink(const OutputOptions& options)
    : output(options.path, options.mayReplace),
      compression(options.compression.value_or(0))
{
    TIFFSetErrorHandler(keepWords);
    TIFFSetWarningHandler(nullptr);
}

TiffSink::~TiffSink() = default;

void TiffSink::begin(const SeriesInfo& info)
{
    series = info;
}

void TiffSink::createFile()
{
    const double frameBytes =
        double{1} * series.width * series.height * series.bitsPerPixel / 8 * series.picturesPerFrame;
    disk = std::make_unique<DiskFile>(output.temporary(), DiskFile::RESERVE + static_cast<std::size_t>(frameBytes));
    auto access = std::make_unique<Access>(Access{*disk, position});
    tiff.reset(TIFFClientOpen(output.path().c_str(), frameBytes * series.frames > CLASSIC_LIMIT ? "w8" : "w",
                              access.get(), readProc, writeProc, seekProc, closeProc, sizeProc, nullptr, nullptr));
    if (tiff == nullptr)
        fail();
    [[maybe_unused]] const auto* kept = access.release(); // closeProc frees it
}

std::string TiffSink::describePage(const FrameRecord& frame, std::size_t picture, bool first) const
{
    Json page{{"frame", frame.index},
              {"counter", picture},
              {"time", frame.arrival},
              {"exposure", frame.exposure},
              {"missing_bytes", frame.missingBytes},
              {"zero_pixels", frame.tally.zero},
              {"saturated_pixels", frame.tally.saturated}};
    for (const auto& block : frame.metaData)
        page["metadata"][block.name] = block.numbers();
    if (first) {
        page["series"] = toJson(series);
        page["outcome"] = withBlanks(RECORDING);
    }
    return dump(page);
}

void TiffSink::write(const FrameRecord& frame)
{
    if (tiff == nullptr)
        createFile();
    for (std::size_t i = 0; i < frame.pictures.size(); ++i)
        writePage(frame.pictures[i], describePage(frame, i, safe == 0 && i == 0));
    if (!output.isComplete())
        output.complete();
    if (!disk->isDead())
        ++safe;
    check();
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

void TiffSink::flush()
{
    if (disk == nullptr || failed)
        return;
    disk->syncNowAndThen(); // what the library has written is in the file already
    check();
}

void TiffSink::finish(const SeriesSummary& summary)
{
    if (!output.isComplete())
        return;
    tiff.reset();
    const auto read = [this](std::uint64_t offset, void* data, std::size_t size) {
        return offset + size <= disk->size() && disk->readAt(offset, data, size);
    };
    const TiffChain chain = readTiffChain(read);
    if (!chain.pages.empty())
        writeOutcome(chain.pages.front(), summary.outcome, [this](std::uint64_t offset, const std::string& text) {
            return disk->writeAt(offset, text.data(), text.size());
        });
    disk->sync();
    check();
    disk.reset(); // and with it the lock of a file that has a writer
}

bool TiffSink::writeOutcome(const TiffPageInfo& page, const std::string& outcome, const WriteAt& write)
{
    // Letters that a JSON text has as they are, so that it keeps its length.
    std::string text = printable(outcome);
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c == '"' || c == '\\' || c >= 0x7F; }, '\'');
    const std::string mark = "\"outcome\":\"";
    const std::size_t found = page.description.find(mark);
    if (found == std::string::npos || found + mark.size() + OUTCOME_ROOM > page.description.size())
        return false;
    return write(page.descriptionAt + found + mark.size(), withBlanks(text));
}

void TiffSink::check()
{
    if (!failed && disk->trouble() != 0)
        fail();
}

void TiffSink::fail()
{
    failed = true;
    const int error = disk->trouble();
    throw OutputError("cannot write " + output.path().string() + ": " +
                      (error != 0 ? std::strerror(error) : printable(lastWords)));
}

} // namespace record
