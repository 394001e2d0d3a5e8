// A thin layer over HDF5's C functions: handles that close themselves, and the few things that files here hold.
// HDF5 is used from one thread at a time.
#pragma once

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

/// Keeps HDF5 from printing its errors; Error carries them.
void silence();

/// A new file, in place of the one at `path`. It stays open for as long as any handle into it.
Handle createFile(const std::string& path);
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

/// The name as a link can have it and no other link of `parent` has: "/" and what is not printable become "_".
std::string freeName(hid_t parent, const std::string& name);

/// A dataset whose first dimension grows by one with each record.
class Growing {
public:
    /// Records of the shape `record` (empty for single numbers) are stored as `type`, `recordsPerChunk` in a chunk.
    /// `compression` is 0 for none, or the level of deflate, behind a byte shuffle.
    Growing(hid_t parent, const std::string& name, hid_t type, std::vector<hsize_t> record, hsize_t recordsPerChunk,
            int compression);

    /// Writes a record behind the last one, or behind a gap when `position` is beyond it.
    void put(hsize_t position, const void* data, hid_t memoryType);
    /// Grows to `count` records. New ones, like those in a gap, hold not-a-number where they are doubles, else 0.
    void grow(hsize_t count);
    hid_t handle() const { return dataset; }

private:
    Handle dataset;
    std::vector<hsize_t> extent;
};

} // namespace record::h5
