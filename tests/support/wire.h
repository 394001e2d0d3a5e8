// What goes over the wire to a board with 9-byte command frames, written out by hand or taken from a recording, in a
// form that a failing comparison shows line by line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;

/// One line for each frame: its nine bytes, and of its payload the length, the first bytes and a sum over all.
using WireLines = std::vector<std::string>;

inline std::string hex(std::span<const std::uint8_t> bytes, std::size_t most)
{
    std::string text;
    for (std::size_t i = 0; i < bytes.size() && i < most; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof(digits), "%02X ", bytes[i]);
        text += digits;
    }
    return text;
}

inline std::string payloadText(std::span<const std::uint8_t> payload)
{
    if (payload.empty())
        return "";
    std::uint32_t sum = 0;
    for (const auto byte : payload)
        sum = sum * 31 + byte;
    return "+ " + std::to_string(payload.size()) + ": " + hex(payload, 16) + "#" + std::to_string(sum);
}

/// The expected traffic, frame by frame.
class Wire {
public:
    Wire& cmd(int flags, int perif, int command, int d0 = 0, int d1 = 0, int d2 = 0, int d3 = 0)
    {
        const Bytes frame = {0x55,     byte(flags), byte(perif), byte(command), byte(d0),
                             byte(d1), byte(d2),    byte(d3),    0xAA};
        lines_.push_back(hex(frame, 9));
        return *this;
    }
    Wire& data(int flags, int perif, int command, const Bytes& payload)
    {
        const auto size = static_cast<int>(payload.size());
        cmd(flags | 1, perif, command, size >> 24, size >> 16, size >> 8, size);
        lines_.back() += payloadText(payload);
        return *this;
    }
    Wire& operator+=(const Wire& other)
    {
        lines_.insert(lines_.end(), other.lines_.begin(), other.lines_.end());
        return *this;
    }
    const WireLines& lines() const { return lines_; }

private:
    static std::uint8_t byte(int value) { return static_cast<std::uint8_t>(value); }

    WireLines lines_;
};

/// The recorded traffic in the same form. What is no frame shows as a line of its own.
inline WireLines wireLines(const Bytes& bytes)
{
    constexpr std::size_t FRAME = 9;
    WireLines lines;
    std::span rest(bytes);
    while (rest.size() >= FRAME && rest[0] == 0x55 && rest[8] == 0xAA) {
        const auto frame = rest.first(FRAME);
        rest = rest.subspan(FRAME);
        std::size_t size = 0;
        if ((frame[1] & 1) != 0)
            for (const auto byte : frame.subspan(4, 4))
                size = size << 8 | byte;
        size = std::min(size, rest.size());
        lines.push_back(hex(frame, FRAME) + payloadText(rest.first(size)));
        rest = rest.subspan(size);
    }
    if (!rest.empty())
        lines.push_back("no frame: " + hex(rest, 64));
    return lines;
}

/// Bytes with a beginning and zeros behind it.
inline Bytes padded(Bytes beginning, std::size_t size)
{
    beginning.resize(size);
    return beginning;
}

} // namespace support
