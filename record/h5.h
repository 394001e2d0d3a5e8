// A thin layer over HDF5's C functions: handles that close themselves, and the few things that files here hold.
// HDF5 is used from one thread at a time.
#pragma once

#include "record/diskfile.h"

#include <cstdint>
#include <hdf5.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace record::h5 {

/// HDF5 refused; `what()` is its innermost reason.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Throws Error for a negative result, which is how all of HDF5's functions tell a failure.
void check(long long result);

/// An identifier with the function that closes it.
class Handle {
public:
    using Closer = herr_t (*)(hid_t);

    Handle() = default;
    /// Throws Error when `id` is negative.
    Handle(hid_t newId, Closer closer);
    ~Handle() { reset(); }
    Handle(Handle&& other) noexcept : id(std::exchange(other.id, -1)), close(other.close) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(id, other.id);
        std::swap(close, other.close);
        return *this;
    }

    operator hid_t() const { return id; }
    bool isOpen() const { return id >= 0; }
    /// Closes it; the result of that.
    herr_t reset();

private:
    hid_t id = -1;
    Closer close = nullptr;
};

/// Keeps HDF5 from printing its errors on this thread; Error carries them. Also keeps it from tidying up when the
/// process ends, which crashes where the disk has failed; files are closed long before.
void silence();

/// A new file in `disk`, in the format that others can read while it grows. It stays open for as long as any handle
/// into it.
Handle createFile(DiskFile& disk);
/// From now on others may open the file and follow it, and nothing more can be created in it.
void letReadersIn(hid_t file);
/// Groups, datasets and attributes created by this process so far.
unsigned long createdObjects();
/// A group with its NeXus class.
Handle createGroup(hid_t parent, const std::string& name, const std::string& nexusClass);

void writeAttribute(hid_t object, const std::string& name, const std::string& text);
void writeAttribute(hid_t object, const std::string& name, const std::vector<std::string>& texts);
void writeAttribute(hid_t object, const std::string& name, long long value);

/// Datasets of fixed size. Each returns its handle, for attributes.
Handle write(hid_t parent, const std::string& name, const std::string& text);
Handle write(hid_t parent, const std::string& name, const std::vector<std::string>& texts);
Handle write(hid_t parent, const std::string& name, double value);
Handle write(hid_t parent, const std::string& name, const std::vector<double>& values);

/// A text and a number that are overwritten in place later. A text that is longer than `length` bytes is cut.
Handle writeRoom(hid_t parent, const std::string& name, std::size_t length, const std::string& text);
void overwrite(hid_t dataset, const std::string& text);
Handle writeCount(hid_t parent, const std::string& name, std::uint64_t value);
void overwrite(hid_t dataset, std::uint64_t value);

/// The names of all links of a group, sorted.
std::vector<std::string> namesIn(hid_t group);

/// The name as a link can have it and no other link of `parent` has: "/" and what is not printable become "_".
std::string freeName(hid_t parent, const std::string& name);

/// A dataset whose first dimension grows by one with each record.
class Growing {
public:
    /// Records of the shape `record` (empty for single numbers) are stored as `type`, `recordsPerChunk` in a chunk.
    /// `compression` is 0 for none, or the level of deflate, behind a byte shuffle.
    Growing(hid_t parent, const std::string& name, hid_t type, std::vector<hsize_t> record, hsize_t recordsPerChunk,
            int compression = 0);

    /// Writes a record behind the last one, or behind a gap when `position` is beyond it.
    void put(hsize_t position, const void* data, hid_t memoryType);
    /// Writes a chunk of one record as it is to lie in the file, without those filters whose bits are in `leftOut`.
    void putChunk(hsize_t position, const std::vector<unsigned char>& bytes, std::uint32_t leftOut);
    /// Brings all of it to the file.
    void flush() const;
    /// Grows to `count` records. New ones, like those in a gap, hold not-a-number where they are doubles, else 0.
    void grow(hsize_t count);
    hid_t handle() const { return dataset; }

private:
    Handle dataset;
    std::vector<hsize_t> extent;
};

} // namespace record::h5
