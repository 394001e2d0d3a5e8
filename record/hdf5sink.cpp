// Frames in an HDF5 file with the NeXus layout.
#include "record/hdf5sink.h"

#include "record/error.h"
#include "record/text.h"

#include <numeric>

namespace record {
namespace {

constexpr hsize_t SMALL_CHUNK = 256; // records in a chunk of single numbers

std::vector<double> pixelNumbers(unsigned count)
{
    std::vector<double> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

} // namespace

Hdf5Sink::Hdf5Sink(const OutputOptions& options)
    : output(options.path, options.mayReplace),
      compression(options.compression.value_or(1))
{
    h5::silence();
}

template <typename Work>
void Hdf5Sink::guarded(Work work) const
{
    try {
        work();
    } catch (const h5::Error& error) {
        throw OutputError("cannot write " + output.path().string() + ": " + printable(error.what()));
    }
}

void Hdf5Sink::begin(const SeriesInfo& info)
{
    guarded([&] {
        file = h5::createFile(output.temporary().string());
        writeRoot();
        writeEntry(info);
        writeData(info);
        writeDetector(info);
        writeSettings(info.settings);
    });
}

void Hdf5Sink::writeRoot()
{
    h5::writeAttribute(file, "default", "entry");
    h5::writeAttribute(file, "creator", "latixel " LATIXEL_VERSION);
    h5::writeAttribute(file, "file_name", output.path().filename().string());
    h5::writeAttribute(file, "file_time", timeStamp());
}

void Hdf5Sink::writeEntry(const SeriesInfo& info)
{
    entry = h5::createGroup(file, "entry", "NXentry");
    h5::writeAttribute(entry, "default", "data");
    h5::write(entry, "title", std::to_string(info.frames) + " frames of " + fixed(info.seconds, 6) + " s");
    h5::write(entry, "start_time", info.startTime);
    const auto program = h5::write(entry, "program_name", std::string("latixel"));
    h5::writeAttribute(program, "version", LATIXEL_VERSION);
}

void Hdf5Sink::writeData(const SeriesInfo& info)
{
    data = h5::createGroup(entry, "data", "NXdata");
    h5::writeAttribute(data, "signal", "data");
    h5::writeAttribute(data, "axes", std::vector<std::string>{"frame", "y", "x"});
    h5::writeAttribute(data, "time_indices", 0);
    h5::write(data, "y", pixelNumbers(info.height));
    h5::write(data, "x", pixelNumbers(info.width));
    axes.emplace_back(data, "frame", H5T_NATIVE_LONG, std::vector<hsize_t>{}, SMALL_CHUNK, 0);
    axes.emplace_back(data, "time", H5T_NATIVE_DOUBLE, std::vector<hsize_t>{}, SMALL_CHUNK, 0);
    h5::writeAttribute(axes.back().handle(), "units", "s");

    const bool narrow = info.bitsPerPixel == 16;
    const std::vector<hsize_t> shape{info.height, info.width};
    for (unsigned i = 0; i < info.picturesPerFrame; ++i) {
        const std::string name = i == 0 ? "data" : "data_counter" + std::to_string(i);
        counts.emplace_back(data, name, narrow ? H5T_STD_U16LE : H5T_STD_U32LE, shape, 1, compression);
        h5::writeAttribute(counts.back().handle(), "interpretation", "image");
        h5::writeAttribute(counts.back().handle(), "units", "counts");
        h5::writeAttribute(counts.back().handle(), "bad_pixel_value", narrow ? 0xFFFF : 0xFFFFFFFF);
    }
    if (info.picturesPerFrame > 1)
        h5::writeAttribute(data, "auxiliary_signals", std::vector<std::string>{"data_counter1"});
    h5::writeAttribute(counts.front().handle(), "target", "/entry/data/data");
}

void Hdf5Sink::writeDetector(const SeriesInfo& info)
{
    const auto instrument = h5::createGroup(entry, "instrument", "NXinstrument");
    detector = h5::createGroup(instrument, "detector", "NXdetector");
    h5::check(H5Lcreate_hard(data, "data", detector, "data", H5P_DEFAULT, H5P_DEFAULT));
    h5::write(detector, "description", info.device);
    h5::write(detector, "serial_number", info.serial);
    h5::write(detector, "chip_ids", info.chipIDs);
    h5::write(detector, "firmware", info.firmware);
    h5::write(detector, "plugin", info.pluginVersion);
    const auto frameTime = h5::write(detector, "frame_time", info.seconds);
    h5::writeAttribute(frameTime, "units", "s");
    axes.emplace_back(detector, "count_time", H5T_NATIVE_DOUBLE, std::vector<hsize_t>{}, SMALL_CHUNK, 0);
    h5::writeAttribute(axes.back().handle(), "units", "s");
}

void Hdf5Sink::writeSettings(const std::vector<SettingGroup>& groups)
{
    for (const SettingGroup& settings : groups) {
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

void Hdf5Sink::write(const FrameRecord& frame)
{
    guarded([&] {
        for (std::size_t i = 0; i < counts.size() && i < frame.pictures.size(); ++i)
            counts[i].put(written, frame.pictures[i].pixels.data(), H5T_NATIVE_UINT32);
        axes[0].put(written, &frame.index, H5T_NATIVE_LONG);
        axes[1].put(written, &frame.arrival, H5T_NATIVE_DOUBLE);
        axes[2].put(written, &frame.exposure, H5T_NATIVE_DOUBLE);
        writeMetaData(frame.metaData);
        ++written;
    });
}

void Hdf5Sink::writeMetaData(const std::vector<refhost::MetaData>& list)
{
    for (const auto& block : list) {
        const std::vector<double> numbers = block.numbers();
        if (numbers.empty())
            continue;
        if (!metaData.isOpen())
            metaData = h5::createGroup(detector, "frame_metadata", "NXcollection");
        auto found = blocks.find(block.name);
        if (found == blocks.end()) {
            std::vector<hsize_t> shape;
            if (numbers.size() > 1)
                shape.push_back(numbers.size());
            h5::Growing dataset(metaData, h5::freeName(metaData, block.name), H5T_NATIVE_DOUBLE, shape, 16, 0);
            h5::writeAttribute(dataset.handle(), "description", block.description);
            found = blocks.emplace(block.name, Block{std::move(dataset), numbers.size()}).first;
        }
        if (found->second.length == numbers.size())
            found->second.dataset.put(written, numbers.data(), H5T_NATIVE_DOUBLE);
    }
}

void Hdf5Sink::finish(const SeriesSummary& summary)
{
    guarded([&] {
        h5::write(entry, "end_time", summary.endTime);
        h5::write(entry, "outcome", summary.outcome);
        for (auto& [name, block] : blocks)
            block.dataset.grow(written);
        h5::check(H5Fflush(file, H5F_SCOPE_GLOBAL));
        closeObjects();
        h5::check(file.reset());
    });
    output.complete();
}

void Hdf5Sink::closeObjects()
{
    blocks.clear();
    axes.clear();
    counts.clear();
    for (h5::Handle* handle : {&metaData, &data, &detector, &entry})
        handle->reset();
}

} // namespace record
