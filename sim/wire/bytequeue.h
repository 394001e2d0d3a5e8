// First-in first-out store for bytes that come and go in blocks, up to whole frames of some megabytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace sim {

class ByteQueue {
public:
    std::size_t size() const { return bytes.size() - taken; }
    bool empty() const { return size() == 0; }

    /// What lies in the queue, oldest byte first. Valid until the next change.
    std::span<std::uint8_t> view() { return std::span(bytes).subspan(taken); }

    void push(std::span<const std::uint8_t> more)
    {
        const bool mostlyTaken = taken > bytes.size() / 2;
        if (mostlyTaken && bytes.size() + more.size() > bytes.capacity()) {
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(taken));
            taken = 0;
        }
        bytes.insert(bytes.end(), more.begin(), more.end());
    }

    /// Moves up to `room.size()` bytes into `room`; returns their number.
    std::size_t pop(std::span<std::uint8_t> room)
    {
        const std::size_t count = std::min(room.size(), size());
        if (count > 0)
            std::memcpy(room.data(), bytes.data() + taken, count);
        taken += count;
        if (empty())
            clear();
        return count;
    }

    /// Keeps the oldest `count` bytes and forgets the rest.
    void truncate(std::size_t count) { bytes.resize(taken + std::min(count, size())); }

    void clear()
    {
        bytes.clear();
        taken = 0;
    }

private:
    std::vector<std::uint8_t> bytes;
    std::size_t taken = 0; ///< bytes at the front that are gone already
};

} // namespace sim
