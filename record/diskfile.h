// The bytes of a file that grows while a series runs, on a disk that may fail.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace record {

/// A file on the disk with a reserve: space in the same folder that is given free at the first write that fails, so
/// that the frames on their way still fit and the file can be closed. A file whose second try fails too is dead: from
/// then on it takes every write without a word and stays as it is, as after a kill, so that a library above it can be
/// closed in peace. Used by one thread at a time.
class DiskFile {
public:
    static constexpr std::size_t RESERVE = std::size_t{4} << 20; ///< bytes, besides the largest piece of a frame
    static constexpr std::chrono::seconds SYNC_INTERVAL{5};

    /// Opens the file at `path`, which is there, empties it, and tells others by a lock that it has a writer. Throws
    /// OutputError when that or the reserve fails.
    DiskFile(const std::filesystem::path& path, std::size_t reserveBytes);
    ~DiskFile();
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    /// False when the file has just died; a dead one takes everything.
    bool writeAt(std::uint64_t offset, const void* data, std::size_t size);
    /// Reads; what lies behind the end is zero. False when the disk fails.
    bool readAt(std::uint64_t offset, void* data, std::size_t size) const;
    bool resize(std::uint64_t size);
    std::uint64_t size() const;
    /// Brings what was written to the disk itself, at most once in SYNC_INTERVAL. For after each flush.
    void syncNowAndThen();
    /// The same at once.
    void sync();

    /// The error number of the first write that failed; 0 while all went well.
    int trouble() const { return firstError; }
    bool isDead() const { return dead; }

private:
    bool tryWrite(std::uint64_t offset, const unsigned char* data, std::size_t size) const;
    template <typename Try>
    bool twice(Try attempt);
    void makeReserve(const std::filesystem::path& path, std::size_t bytes);
    void giveReserve();

    int descriptor = -1;
    int reserve = -1; // a file without a name, which goes away with the process
    int firstError = 0;
    bool dead = false;
    std::chrono::steady_clock::time_point nextSync = std::chrono::steady_clock::now() + SYNC_INTERVAL;
};

/// Whether a process that lives writes the file.
bool hasWriter(const std::filesystem::path& path);

/// A lock that no writer can have meanwhile.
class NoWriter {
public:
    /// Throws OutputError when the file has a writer, or cannot be opened for writing.
    explicit NoWriter(const std::filesystem::path& path);
    ~NoWriter();
    NoWriter(const NoWriter&) = delete;
    NoWriter& operator=(const NoWriter&) = delete;

private:
    int descriptor = -1;
};

} // namespace record
