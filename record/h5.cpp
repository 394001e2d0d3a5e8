// A thin layer over HDF5's C functions.
#include "record/h5.h"

#include "record/h5driver.h"

#include <algorithm>
#include <atomic>
#include <limits>

namespace record::h5 {
namespace {

std::atomic<unsigned long> created{0};

/// Takes the reason out of "... error message = 'No space left on device', ..." where there is one.
std::string essence(const std::string& description)
{
    const std::string mark = "error message = '";
    const std::size_t begin = description.find(mark);
    if (begin == std::string::npos)
        return description;
    const std::size_t from = begin + mark.size();
    return description.substr(from, description.find('\'', from) - from);
}

herr_t keepFirst(unsigned, const H5E_error2_t* entry, void* user)
{
    auto& reason = *static_cast<std::string*>(user);
    if (reason.empty() && entry->desc != nullptr)
        reason = essence(entry->desc);
    return 0;
}

Handle textType(std::size_t length)
{
    Handle type(H5Tcopy(H5T_C_S1), H5Tclose);
    check(H5Tset_size(type, std::max<std::size_t>(length, 1)));
    check(H5Tset_strpad(type, H5T_STR_NULLPAD));
    return type;
}

Handle scalarSpace()
{
    return {H5Screate(H5S_SCALAR), H5Sclose};
}

Handle listSpace(hsize_t count)
{
    return {H5Screate_simple(1, &count, nullptr), H5Sclose};
}

/// Texts side by side, each as long as the longest.
struct TextBlock {
    explicit TextBlock(const std::vector<std::string>& texts)
    {
        for (const auto& text : texts)
            length = std::max(length, text.size());
        for (const auto& text : texts) {
            bytes += plain(text);
            bytes.append(length - text.size(), '\0');
        }
        bytes.push_back('\0'); // so that there is something to point at
    }

    static std::string plain(std::string text)
    {
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return c >= 0x80; }, '?');
        return text;
    }

    std::size_t length = 1;
    std::string bytes;
};

void attribute(hid_t object, const std::string& name, hid_t type, hid_t space, const void* data)
{
    const Handle made(H5Acreate2(object, name.c_str(), type, space, H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
    ++created;
    check(H5Awrite(made, type, data));
}

Handle dataset(hid_t parent, const std::string& name, hid_t type, hid_t space, const void* data)
{
    Handle made(H5Dcreate2(parent, name.c_str(), type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT), H5Dclose);
    ++created;
    check(H5Dwrite(made, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, data));
    return made;
}

} // namespace

void check(long long result)
{
    if (result >= 0)
        return;
    std::string reason;
    H5Ewalk2(H5E_DEFAULT, H5E_WALK_UPWARD, keepFirst, &reason);
    throw Error(reason.empty() ? "HDF5 gave no reason" : reason);
}

Handle::Handle(hid_t newId, Closer closer) : id(newId), close(closer)
{
    check(id);
}

herr_t Handle::reset()
{
    return id >= 0 ? close(std::exchange(id, -1)) : 0;
}

void silence()
{
    H5dont_atexit(); // refused once HDF5 is in use, and then it was done before
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

Handle createFile(DiskFile& disk)
{
    const Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    check(H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110));
    setDisk(access, disk);
    return {H5Fcreate("series", H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose};
}

void letReadersIn(hid_t file)
{
    check(H5Fstart_swmr_write(file));
}

unsigned long createdObjects()
{
    return created;
}

Handle createGroup(hid_t parent, const std::string& name, const std::string& nexusClass)
{
    Handle group(H5Gcreate2(parent, name.c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT), H5Gclose);
    ++created;
    writeAttribute(group, "NX_class", nexusClass);
    return group;
}

void writeAttribute(hid_t object, const std::string& name, const std::string& text)
{
    attribute(object, name, textType(text.size()), scalarSpace(), TextBlock({text}).bytes.data());
}

void writeAttribute(hid_t object, const std::string& name, const std::vector<std::string>& texts)
{
    const TextBlock block(texts);
    attribute(object, name, textType(block.length), listSpace(texts.size()), block.bytes.data());
}

void writeAttribute(hid_t object, const std::string& name, long long value)
{
    attribute(object, name, H5T_NATIVE_LLONG, scalarSpace(), &value);
}

Handle write(hid_t parent, const std::string& name, const std::string& text)
{
    return dataset(parent, name, textType(text.size()), scalarSpace(), TextBlock({text}).bytes.data());
}

Handle write(hid_t parent, const std::string& name, const std::vector<std::string>& texts)
{
    const TextBlock block(texts);
    return dataset(parent, name, textType(block.length), listSpace(texts.size()), block.bytes.data());
}

Handle write(hid_t parent, const std::string& name, double value)
{
    return dataset(parent, name, H5T_NATIVE_DOUBLE, scalarSpace(), &value);
}

Handle write(hid_t parent, const std::string& name, const std::vector<double>& values)
{
    return dataset(parent, name, H5T_NATIVE_DOUBLE, listSpace(values.size()), values.data());
}

Handle writeRoom(hid_t parent, const std::string& name, std::size_t length, const std::string& text)
{
    const std::string empty(length, '\0');
    Handle made = dataset(parent, name, textType(length), scalarSpace(), empty.data());
    overwrite(made, text);
    return made;
}

void overwrite(hid_t room, const std::string& text)
{
    const Handle type(H5Dget_type(room), H5Tclose);
    std::string bytes = TextBlock::plain(text);
    bytes.resize(H5Tget_size(type), '\0');
    check(H5Dwrite(room, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, bytes.data()));
}

Handle writeCount(hid_t parent, const std::string& name, std::uint64_t value)
{
    return dataset(parent, name, H5T_NATIVE_UINT64, scalarSpace(), &value);
}

void overwrite(hid_t count, std::uint64_t value)
{
    check(H5Dwrite(count, H5T_NATIVE_UINT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, &value));
}

std::vector<std::string> namesIn(hid_t group)
{
    std::vector<std::string> names;
    const auto keep = [](hid_t, const char* name, const H5L_info_t*, void* list) -> herr_t {
        static_cast<std::vector<std::string>*>(list)->emplace_back(name);
        return 0;
    };
    h5::check(H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, nullptr, keep, &names));
    return names;
}

std::string freeName(hid_t parent, const std::string& name)
{
    std::string base = name;
    std::replace_if(
        base.begin(), base.end(), [](unsigned char c) { return c <= 0x20 || c >= 0x7F || c == '/'; }, '_');
    if (base.find_first_not_of('.') == std::string::npos)
        base = "_" + base;
    std::string candidate = base;
    for (int number = 2; H5Lexists(parent, candidate.c_str(), H5P_DEFAULT) > 0; ++number)
        candidate = base + "_" + std::to_string(number);
    return candidate;
}

Growing::Growing(hid_t parent, const std::string& name, hid_t type, std::vector<hsize_t> record,
                 hsize_t recordsPerChunk, int compression)
    : extent(std::move(record))
{
    std::vector<hsize_t> chunk = extent;
    chunk.insert(chunk.begin(), recordsPerChunk);
    std::vector<hsize_t> largest = extent;
    largest.insert(largest.begin(), H5S_UNLIMITED);
    extent.insert(extent.begin(), 0);
    const int rank = static_cast<int>(extent.size());

    const Handle properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    check(H5Pset_chunk(properties, rank, chunk.data()));
    constexpr double NOTHING = std::numeric_limits<double>::quiet_NaN();
    if (H5Tequal(type, H5T_NATIVE_DOUBLE) > 0)
        check(H5Pset_fill_value(properties, H5T_NATIVE_DOUBLE, &NOTHING));
    if (compression > 0) {
        check(H5Pset_shuffle(properties));
        check(H5Pset_deflate(properties, static_cast<unsigned>(compression)));
    }
    const Handle space(H5Screate_simple(rank, extent.data(), largest.data()), H5Sclose);
    dataset = Handle(H5Dcreate2(parent, name.c_str(), type, space, H5P_DEFAULT, properties, H5P_DEFAULT), H5Dclose);
    ++created;
}

void Growing::grow(hsize_t count)
{
    if (count <= extent[0])
        return;
    extent[0] = count;
    check(H5Dset_extent(dataset, extent.data()));
}

void Growing::putChunk(hsize_t position, const std::vector<unsigned char>& bytes, std::uint32_t leftOut)
{
    grow(position + 1);
    std::vector<hsize_t> offset(extent.size(), 0);
    offset[0] = position;
    check(H5Dwrite_chunk(dataset, H5P_DEFAULT, leftOut, offset.data(), bytes.size(), bytes.data()));
}

void Growing::flush() const
{
    check(H5Dflush(dataset));
}

void Growing::put(hsize_t position, const void* data, hid_t memoryType)
{
    grow(position + 1);
    std::vector<hsize_t> start(extent.size(), 0);
    std::vector<hsize_t> count = extent;
    start[0] = position;
    count[0] = 1;
    const Handle target(H5Dget_space(dataset), H5Sclose);
    check(H5Sselect_hyperslab(target, H5S_SELECT_SET, start.data(), nullptr, count.data(), nullptr));
    const Handle source(H5Screate_simple(static_cast<int>(count.size()), count.data(), nullptr), H5Sclose);
    check(H5Dwrite(dataset, memoryType, source, target, H5P_DEFAULT, data));
}

} // namespace record::h5
