// What a file of frames holds.
#include "record/check.h"

#include "record/diskfile.h"
#include "record/error.h"
#include "record/frametable.h"
#include "record/hdf5sink.h"
#include "record/text.h"
#include "record/tiffchain.h"
#include "record/tiffsink.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

namespace record {
namespace {

using Json = nlohmann::json;

constexpr const char* DETECTOR = "/entry/instrument/detector";
constexpr std::size_t MOST_SHOWN = 8; // values of a setting
constexpr std::size_t SUPERBLOCK_BYTES = 12;
constexpr std::size_t MARK_AT = 11;       // in the superblock: the file is open for writing, or by one writer
constexpr unsigned char MARK_VERSION = 3; // of the superblock, from which on there is that mark
constexpr std::array<unsigned char, 8> HDF5_BEGIN{0x89, 'H', 'D', 'F', '\r', '\n', 0x1A, '\n'};

std::string numberText(double value)
{
    std::string text = fixed(value, 6);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.')
        text.pop_back();
    return text;
}

std::string listText(const std::vector<double>& values)
{
    if (values.size() > MOST_SHOWN)
        return "(" + std::to_string(values.size()) + " values)";
    std::string text;
    for (const double value : values)
        text += (text.empty() ? "" : " ") + numberText(value);
    return text;
}

h5::Handle openDataset(hid_t parent, const std::string& path)
{
    return {H5Dopen2(parent, path.c_str(), H5P_DEFAULT), H5Dclose};
}

std::size_t valuesIn(hid_t dataset)
{
    const h5::Handle space(H5Dget_space(dataset), H5Sclose);
    return static_cast<std::size_t>(std::max<hssize_t>(0, H5Sget_simple_extent_npoints(space)));
}

std::string valueText(hid_t dataset)
{
    const h5::Handle type(H5Dget_type(dataset), H5Tclose);
    const std::size_t count = valuesIn(dataset);
    if (H5Tget_class(type) == H5T_STRING && H5Tis_variable_str(type) <= 0) {
        const std::size_t length = H5Tget_size(type);
        std::string bytes(count * length + 1, '\0');
        h5::check(H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, bytes.data()));
        std::string text;
        for (std::size_t i = 0; i < count; ++i)
            text += (i == 0 ? "" : " ") + std::string(bytes.substr(i * length, length).c_str());
        return printable(text);
    }
    if (count > MOST_SHOWN)
        return "(" + std::to_string(count) + " values)";
    std::vector<double> values(count);
    h5::check(H5Dread(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()));
    return listText(values);
}

bool isGroup(hid_t parent, const std::string& name)
{
    H5O_info_t info{};
    return H5Oget_info_by_name(parent, name.c_str(), &info, H5P_DEFAULT) >= 0 && info.type == H5O_TYPE_GROUP;
}

void addSettings(FileCheck& check, hid_t detector)
{
    for (const std::string& name : h5::namesIn(detector)) {
        if (!isGroup(detector, name) || name == "frame_metadata")
            continue;
        const h5::Handle group(H5Gopen2(detector, name.c_str(), H5P_DEFAULT), H5Gclose);
        for (const std::string& setting : h5::namesIn(group))
            check.facts.emplace_back(name + "/" + setting, valueText(openDataset(group, setting)));
    }
}

void addRows(FileCheck& check, hid_t file, hid_t detector)
{
    const auto rows = FrameTable::read(detector);
    check.delivered = rows.size();
    for (const FrameRow& row : rows) {
        check.numbers.push_back(row.number);
        check.incomplete += row.missingBytes > 0 ? 1 : 0;
        check.saturatedPixels += row.saturatedPixels;
    }
    const auto requested = openDataset(file, "/entry/totals/frames_requested");
    h5::check(H5Dread(requested, H5T_NATIVE_UINT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, &check.requested));
}

/// A file of the time before there were tables: what is in it counts.
void addPlainFrames(FileCheck& check, hid_t file)
{
    check.delivered = check.requested = valuesIn(openDataset(file, "/entry/data/frame"));
    for (std::uint64_t i = 0; i < check.delivered; ++i)
        check.numbers.push_back(static_cast<std::int64_t>(i));
}

bool isMarked(const std::filesystem::path& path)
{
    std::array<char, SUPERBLOCK_BYTES> begin{};
    std::ifstream(path, std::ios::binary).read(begin.data(), begin.size());
    return static_cast<unsigned char>(begin[HDF5_BEGIN.size()]) >= MARK_VERSION && begin[MARK_AT] != 0;
}

h5::Handle openFile(const std::filesystem::path& path)
{
    // This way of reading minds neither a writer nor its mark; it knows no files of older formats.
    const hid_t followed = H5Fopen(path.c_str(), H5F_ACC_RDONLY | H5F_ACC_SWMR_READ, H5P_DEFAULT);
    if (followed >= 0)
        return {followed, H5Fclose};
    return {H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose};
}

FileCheck checkHdf5(const std::filesystem::path& path)
{
    FileCheck check;
    check.isHdf5 = true;
    h5::silence();
    const h5::Handle file = openFile(path);
    if (H5Lexists(file, "entry", H5P_DEFAULT) <= 0 || H5Lexists(file, "/entry/program_name", H5P_DEFAULT) <= 0 ||
        valueText(openDataset(file, "/entry/program_name")) != "latixel")
        return check;
    const h5::Handle detector(H5Gopen2(file, DETECTOR, H5P_DEFAULT), H5Gclose);
    check.isOurs = true;
    if (H5Lexists(detector, FrameTable::NAME, H5P_DEFAULT) > 0)
        addRows(check, file, detector);
    else
        addPlainFrames(check, file);
    const std::string outcome = valueText(openDataset(file, "/entry/outcome"));
    check.isClosed = outcome != Hdf5Sink::RECORDING && !isMarked(path);
    for (const char* name : {"title", "start_time", "end_time", "outcome"})
        check.facts.emplace_back(name, valueText(openDataset(file, std::string("/entry/") + name)));
    for (const char* name : {"description", "serial_number", "chip_ids", "firmware", "plugin"})
        check.facts.emplace_back(name, valueText(openDataset(detector, name)));
    addSettings(check, detector);
    return check;
}

std::string jsonText(const Json& value)
{
    return printable(value.is_string() ? value.get<std::string>() : value.dump());
}

void addFirstPage(FileCheck& check, const Json& page)
{
    const Json series = page.value("series", Json::object());
    std::string outcome = page.value("outcome", std::string("finished")); // older files had none
    outcome.erase(outcome.find_last_not_of(' ') + 1);
    check.isOurs = series.contains("device");
    check.isClosed = outcome != TiffSink::RECORDING;
    check.facts.emplace_back("outcome", printable(outcome));
    for (const auto& [name, value] : series.items())
        if (name != "settings")
            check.facts.emplace_back(name, jsonText(value));
    const Json settings = series.value("settings", Json::object());
    for (const auto& [group, values] : settings.items())
        for (const auto& [name, value] : values.items())
            check.facts.emplace_back(group + "/" + name, jsonText(value));
}

FileCheck checkTiff(const TiffChain& chain)
{
    FileCheck check;
    std::uint64_t pictures = 1;
    for (std::size_t i = 0; i < chain.pages.size(); ++i) {
        const Json page = Json::parse(chain.pages[i].description, nullptr, false);
        if (!page.is_object())
            return check;
        if (i == 0) {
            addFirstPage(check, page);
            const Json series = page.value("series", Json::object());
            pictures = std::max<std::uint64_t>(1, series.value("pictures", std::uint64_t{1}));
            check.requested = series.value("frames", chain.pages.size() / pictures);
        }
        if ((i + 1) % pictures != 0)
            continue; // a frame counts with its last picture
        ++check.delivered;
        check.numbers.push_back(page.value("frame", std::int64_t{0}));
        check.incomplete += page.value("missing_bytes", std::uint64_t{0}) > 0 ? 1 : 0;
        check.saturatedPixels += page.value("saturated_pixels", std::uint64_t{0});
    }
    check.isClosed = check.isClosed && chain.brokenLinkAt == 0;
    return check;
}

} // namespace

FileCheck checkFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::array<char, HDF5_BEGIN.size()> begin{};
    if (!file.read(begin.data(), begin.size())) {
        if (!std::filesystem::is_regular_file(path))
            throw OutputError("there is no file " + path.string());
        return {};
    }
    try {
        FileCheck check;
        if (std::memcmp(begin.data(), HDF5_BEGIN.data(), begin.size()) == 0)
            check = checkHdf5(path);
        else
            check = checkTiff(readTiffChain([&file](std::uint64_t offset, void* data, std::size_t size) {
                file.clear();
                file.seekg(static_cast<std::streamoff>(offset));
                return static_cast<bool>(file.read(static_cast<char*>(data), static_cast<std::streamsize>(size)));
            }));
        check.hasWriter = hasWriter(path);
        return check;
    } catch (const h5::Error& error) {
        throw OutputError("cannot read " + path.string() + ": " + printable(error.what()));
    } catch (const Json::exception&) {
        return {};
    }
}

std::string gapsIn(const std::vector<std::int64_t>& numbers, std::uint64_t count)
{
    std::string text;
    const auto add = [&text](std::int64_t first, std::int64_t last) {
        if (first > last)
            return;
        text += (text.empty() ? "" : ", ") + std::to_string(first);
        if (last > first)
            text += "-" + std::to_string(last);
    };
    std::int64_t next = 0;
    for (const std::int64_t number : numbers) {
        add(next, number - 1);
        next = std::max(next, number + 1);
    }
    add(next, static_cast<std::int64_t>(count) - 1);
    return text;
}

} // namespace record
