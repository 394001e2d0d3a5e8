// Frames in an HDF5 file with the NeXus layout.
#include "record/hdf5sink.h"

#include "record/deflate.h"
#include "record/error.h"
#include "record/text.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace record {
namespace {

constexpr hsize_t SMALL_CHUNK = 256;      // records in a chunk of single numbers
constexpr hsize_t BLOCK_CHUNK = 16;       // records in a chunk of metadata
constexpr std::size_t TIME_ROOM = 40;     // bytes
constexpr std::size_t TEXT_ROOM = 240;    // bytes
constexpr std::uint32_t NO_DEFLATE = 0x2; // the second filter of a chunk was left out

std::vector<double> pixelNumbers(unsigned count)
{
    std::vector<double> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

std::string titleOf(const std::string& frames, const SeriesInfo& info)
{
    std::string seconds = fixed(info.seconds, 9);
    seconds.erase(seconds.find_last_not_of('0') + 1);
    if (seconds.back() == '.')
        seconds.pop_back();
    return frames + (frames == "1" ? " frame of " : " frames of ") + seconds + " s";
}

std::string textOf(const refhost::MetaData& block)
{
    std::string text = block.name + "=";
    const auto numbers = block.numbers();
    for (std::size_t i = 0; i < numbers.size(); ++i)
        text += (i == 0 ? "" : " ") + fixed(numbers[i], 6);
    return printable(numbers.empty() ? text + std::string(block.bytes.begin(), block.bytes.end()) : text);
}

} // namespace

Hdf5Sink::Hdf5Sink(const OutputOptions& options)
    : output(options.path, options.mayReplace),
      compression(options.compression.value_or(1))
{
}

Hdf5Sink::~Hdf5Sink()
{
    try {
        h5::silence();
        closeObjects();
    } catch (...) { // a file that was not finished is like one after a kill
    }
}

template <typename Work>
void Hdf5Sink::guarded(Work work)
{
    h5::silence();
    const auto fail = [this](const std::string& reason) {
        failed = true;
        throw OutputError("cannot write " + output.path().string() + ": " + printable(reason));
    };
    try {
        work();
    } catch (const h5::Error& error) {
        fail(disk != nullptr && disk->trouble() != 0 ? std::strerror(disk->trouble()) : error.what());
    }
    if (!failed && disk != nullptr && disk->trouble() != 0)
        fail(std::strerror(disk->trouble()));
}

void Hdf5Sink::begin(const SeriesInfo& info)
{
    series = info;
}

void Hdf5Sink::encode(const PictureMaker& maker, const refhost::Frame& frame, FrameRecord& record, bool inHurry) const
{
    const PixelType type{series.bitsPerPixel / 8, compression > 0};
    for (PixelBytes& bytes : maker.pack(frame, type, record.tally)) {
        auto stream = compression > 0 && !inHurry ? deflated(bytes, compression) : std::vector<unsigned char>();
        const bool smaller = !stream.empty();
        record.chunks.push_back({smaller ? std::move(stream) : std::move(bytes), smaller});
    }
}

void Hdf5Sink::createFile(const FrameRecord& first)
{
    const std::size_t frameBytes =
        std::size_t{series.width} * series.height * series.bitsPerPixel / 8 * series.picturesPerFrame;
    disk = std::make_unique<DiskFile>(output.temporary(), DiskFile::RESERVE + frameBytes);
    file = h5::createFile(*disk);
    writeRoot();
    writeEntry();
    writeTotals();
    writeData();
    writeDetector();
    createBlocks(h5::Handle(H5Gopen2(file, "/entry/instrument/detector", H5P_DEFAULT), H5Gclose), first.metaData);
    entry.reset();
    data.reset();
    h5::letReadersIn(file);
}

void Hdf5Sink::writeRoot()
{
    h5::writeAttribute(file, "default", "entry");
    h5::writeAttribute(file, "creator", "latixel " LATIXEL_VERSION);
    h5::writeAttribute(file, "file_name", output.path().filename().string());
    h5::writeAttribute(file, "file_time", timeStamp());
}

void Hdf5Sink::writeEntry()
{
    entry = h5::createGroup(file, "entry", "NXentry");
    h5::writeAttribute(entry, "default", "data");
    closing.title = h5::writeRoom(entry, "title", TEXT_ROOM, titleOf(std::to_string(series.frames), series));
    h5::write(entry, "start_time", series.startTime);
    closing.endTime = h5::writeRoom(entry, "end_time", TIME_ROOM, "");
    closing.outcome = h5::writeRoom(entry, "outcome", TEXT_ROOM, RECORDING);
    const auto program = h5::write(entry, "program_name", std::string("latixel"));
    h5::writeAttribute(program, "version", LATIXEL_VERSION);
}

void Hdf5Sink::writeTotals()
{
    const auto totals = h5::createGroup(entry, "totals", "NXcollection");
    h5::writeCount(totals, "frames_requested", series.frames);
    closing.delivered = h5::writeCount(totals, "frames_delivered", 0);
    closing.incomplete = h5::writeCount(totals, "frames_incomplete", 0);
    closing.missing = h5::writeCount(totals, "frames_missing", series.frames);
    closing.saturated = h5::writeCount(totals, "saturated_pixels", 0);
}

void Hdf5Sink::writeData()
{
    data = h5::createGroup(entry, "data", "NXdata");
    h5::writeAttribute(data, "signal", "data");
    h5::writeAttribute(data, "axes", std::vector<std::string>{"frame", "y", "x"});
    h5::writeAttribute(data, "time_indices", 0);
    h5::write(data, "y", pixelNumbers(series.height));
    h5::write(data, "x", pixelNumbers(series.width));
    axes.emplace_back(data, "frame", H5T_NATIVE_LONG, std::vector<hsize_t>{}, SMALL_CHUNK);
    axes.emplace_back(data, "time", H5T_NATIVE_DOUBLE, std::vector<hsize_t>{}, SMALL_CHUNK);
    h5::writeAttribute(axes.back().handle(), "units", "s");

    const bool narrow = series.bitsPerPixel == 16;
    const std::vector<hsize_t> shape{series.height, series.width};
    for (unsigned i = 0; i < series.picturesPerFrame; ++i) {
        const std::string name = i == 0 ? "data" : "data_counter" + std::to_string(i);
        counts.emplace_back(data, name, narrow ? H5T_STD_U16LE : H5T_STD_U32LE, shape, 1, compression);
        h5::writeAttribute(counts.back().handle(), "interpretation", "image");
        h5::writeAttribute(counts.back().handle(), "units", "counts");
        h5::writeAttribute(counts.back().handle(), "bad_pixel_value", narrow ? 0xFFFF : 0xFFFFFFFF);
    }
    if (series.picturesPerFrame > 1)
        h5::writeAttribute(data, "auxiliary_signals", std::vector<std::string>{"data_counter1"});
    h5::writeAttribute(counts.front().handle(), "target", "/entry/data/data");
}

void Hdf5Sink::writeDetector()
{
    const auto instrument = h5::createGroup(entry, "instrument", "NXinstrument");
    const auto detector = h5::createGroup(instrument, "detector", "NXdetector");
    h5::check(H5Lcreate_hard(data, "data", detector, "data", H5P_DEFAULT, H5P_DEFAULT));
    h5::write(detector, "description", series.device);
    h5::write(detector, "serial_number", series.serial);
    h5::write(detector, "chip_ids", series.chipIDs);
    h5::write(detector, "firmware", series.firmware);
    h5::write(detector, "plugin", series.pluginVersion);
    const auto frameTime = h5::write(detector, "frame_time", series.seconds);
    h5::writeAttribute(frameTime, "units", "s");
    axes.emplace_back(detector, "count_time", H5T_NATIVE_DOUBLE, std::vector<hsize_t>{}, SMALL_CHUNK);
    h5::writeAttribute(axes.back().handle(), "units", "s");
    table.emplace(detector);
    writeSettings(detector);
}

void Hdf5Sink::writeSettings(hid_t detector)
{
    for (const SettingGroup& settings : series.settings) {
        const auto group = h5::createGroup(detector, h5::freeName(detector, settings.name), "NXcollection");
        for (const Setting& setting : settings.settings) {
            const std::string name = h5::freeName(group, setting.name);
            const auto dataset =
                std::visit([&](const auto& value) { return h5::write(group, name, value); }, setting.value);
            if (!setting.description.empty())
                h5::writeAttribute(dataset, "description", setting.description);
        }
    }
}

void Hdf5Sink::createBlocks(hid_t detector, const std::vector<refhost::MetaData>& list)
{
    const auto group = h5::createGroup(detector, "frame_metadata", "NXcollection");
    for (const auto& block : list) {
        const std::size_t length = block.numbers().size();
        if (length == 0 || blocks.count(block.name) > 0)
            continue;
        const std::vector<hsize_t> shape = length > 1 ? std::vector<hsize_t>{length} : std::vector<hsize_t>{};
        h5::Growing dataset(group, h5::freeName(group, block.name), H5T_NATIVE_DOUBLE, shape, BLOCK_CHUNK);
        h5::writeAttribute(dataset.handle(), "description", block.description);
        blocks.emplace(block.name, Block{std::move(dataset), length});
    }
}

void Hdf5Sink::write(const FrameRecord& frame)
{
    guarded([&] {
        if (file.isOpen()) {
            append(frame);
            return;
        }
        createFile(frame);
        append(frame);
        flushAll();
        output.complete();
    });
}

void Hdf5Sink::append(const FrameRecord& frame)
{
    for (std::size_t i = 0; i < counts.size() && i < frame.chunks.size(); ++i) {
        const Chunk& chunk = frame.chunks[i];
        counts[i].putChunk(written, chunk.bytes, compression > 0 && !chunk.deflated ? NO_DEFLATE : 0);
    }
    axes[0].put(written, &frame.index, H5T_NATIVE_LONG);
    axes[1].put(written, &frame.arrival, H5T_NATIVE_DOUBLE);
    axes[2].put(written, &frame.exposure, H5T_NATIVE_DOUBLE);
    const std::string remarks = appendBlocks(frame.metaData);
    FrameRow row{
        frame.index, frame.arrival, frame.exposure, frame.missingBytes, frame.tally.zero, frame.tally.saturated, {}};
    remarks.copy(row.remarks, sizeof row.remarks - 1);
    table->add(row);
    incompleteFrames += frame.missingBytes > 0 ? 1 : 0;
    saturatedPixels += frame.tally.saturated;
    ++written;
}

/// Returns as text what has no dataset.
std::string Hdf5Sink::appendBlocks(const std::vector<refhost::MetaData>& list)
{
    std::string others;
    for (const auto& block : list) {
        const std::vector<double> numbers = block.numbers();
        const auto found = blocks.find(block.name);
        if (found != blocks.end() && found->second.length == numbers.size())
            found->second.dataset.put(written, numbers.data(), H5T_NATIVE_DOUBLE);
        else
            others += (others.empty() ? "" : "; ") + textOf(block);
    }
    return others;
}

void Hdf5Sink::flush()
{
    if (!output.isComplete() || failed)
        return;
    guarded([&] {
        flushAll();
        disk->syncNowAndThen();
    });
}

/// The rows come last: one that is in the file means that the frame is.
void Hdf5Sink::flushAll()
{
    for (auto& [name, block] : blocks) {
        block.dataset.grow(written);
        block.dataset.flush();
    }
    for (const auto* list : {&counts, &axes})
        for (const h5::Growing& dataset : *list)
            dataset.flush();
    table->flush();
    if (!disk->isDead())
        safe = table->rows();
}

void Hdf5Sink::finish(const SeriesSummary& summary)
{
    if (!output.isComplete())
        return;
    guarded([&] {
        flushAll();
        overwriteClosing(summary);
        closeObjects();
        disk->sync();
        if (disk->isDead())
            throw h5::Error("it could not be closed");
    });
    disk.reset(); // and with it the lock of a file that has a writer
}

void Hdf5Sink::overwriteClosing(const SeriesSummary& summary)
{
    h5::overwrite(closing.title, titleOf(std::to_string(written), series));
    h5::overwrite(closing.endTime, summary.endTime);
    h5::overwrite(closing.delivered, written);
    h5::overwrite(closing.incomplete, incompleteFrames);
    h5::overwrite(closing.missing, series.frames - std::min<hsize_t>(series.frames, written));
    h5::overwrite(closing.saturated, saturatedPixels);
    h5::overwrite(closing.outcome, summary.outcome);
}

void Hdf5Sink::closeObjects()
{
    blocks.clear();
    axes.clear();
    counts.clear();
    table.reset();
    closing = {};
    data.reset();
    entry.reset();
    if (const herr_t result = file.reset(); result < 0)
        h5::check(result);
}

} // namespace record
