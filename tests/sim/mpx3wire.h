// The host's end of the wire, for tests of a Medipix3 board: writes frames byte by byte, at moments that the test sets,
// and decodes what comes back bit by bit, slowly and without knowledge of how the board makes it.
#pragma once

#include "boardwire.h"

#include "sim/mpx3board.h"

namespace sim {

/// Five-channel board entry with a scene without noise; keys of `more` are added.
inline json mpx3Entry(json channels, const json& more = json::object())
{
    json entry = {{"kind", "mpx3"},
                  {"description", "Latixel Latixel M3WA sn: 7 A"},
                  {"channels", std::move(channels)},
                  {"scene", {{"kind", "gradient"}, {"flux", 100000}, {"noise", false}}}};
    entry.update(more);
    return entry;
}

/// Where the pixels of one counter lie in a stream, and how they are written there.
struct StreamPlace {
    std::size_t start = 3; ///< of the first chip's pixels
    std::size_t stride = 1;
    unsigned depth = 12;
    unsigned columns = 256;
    unsigned firstColumn = 0;
    unsigned rows = 256;
};

/// Count at which the counter has a state, by stepping it from zero.
inline unsigned steppedCount(unsigned state, unsigned depth)
{
    if (depth == 1)
        return state;
    unsigned now = 0;
    for (unsigned count = 0; count < 1U << depth; ++count) {
        if (now == state)
            return count;
        const auto bit = [now](unsigned n) { return now >> n & 1U; };
        const unsigned low = now & ((1U << (depth - 1)) - 1);
        const unsigned taps = depth == 6 ? bit(5) ^ bit(0) : bit(11) ^ bit(5) ^ bit(3) ^ bit(0);
        now = (now << 1U | (taps ^ (low == 0 ? 1U : 0U))) & ((1U << depth) - 1);
    }
    return ~0U;
}

/// A pixel's register in a stream.
inline unsigned registerIn(const Bytes& stream, const StreamPlace& place, unsigned row, unsigned column)
{
    const unsigned fromLast = place.firstColumn + place.columns - 1 - column;
    unsigned state = 0;
    for (unsigned plane = 0; plane < place.depth; ++plane) {
        const std::size_t byte = (std::size_t{row} * place.depth + plane) * (place.columns / 8) + fromLast / 8;
        state = state << 1U | (stream.at(place.start + byte * place.stride) >> (7 - fromLast % 8) & 1U);
    }
    return state;
}

inline unsigned countIn(const Bytes& stream, const StreamPlace& place, unsigned row, unsigned column)
{
    return steppedCount(registerIn(stream, place, row, column), place.depth);
}

/// A board under power, with the host's end of its link.
class Mpx3Wire : public BoardWire<Mpx3Board> {
public:
    explicit Mpx3Wire(const json& entry) : BoardWire(entry) { bare(1, 1, 0, 0, 0, 7); }

    void channels(int enabled, int selected) { bare(1, 3, 0, 0, enabled, selected); }
    /// Shifts the default register image with another mode, and bytes 3 to 7 as given.
    void omr(unsigned mode, Bytes rest = {0x20, 0, 0, 0x10, 0})
    {
        rest.insert(rest.begin(), {0x30, 0x00, static_cast<std::uint8_t>(firstByte(mode))});
        rest.resize(12);
        payload(1, 255, rest, 5);
    }
    /// Register byte 2 with the mode, its lowest bit first, and positive polarity.
    static unsigned firstByte(unsigned mode, unsigned columnCount = 0)
    {
        return (mode & 1U) << 7U | (mode >> 1U & 1U) << 6U | (mode >> 2U & 1U) << 5U | 8U | (columnCount & 1U) << 2U |
               (columnCount & 2U);
    }
    /// Stores both readout images: counter depth code, columns and rows by their codes.
    void images(unsigned countL, unsigned columnCount = 0, unsigned block = 0, bool blockSel = false, int rowBlock = -1)
    {
        const unsigned byte3 = (countL & 1U) << 6U | (countL >> 1U & 1U) << 5U | (block & 1U) << 4U |
                               (block >> 1U & 1U) << 3U | (block >> 2U & 1U) << 2U | (blockSel ? 2U : 0U) |
                               (rowBlock >= 0 ? static_cast<unsigned>(rowBlock) & 1U : 0U);
        const auto rows = static_cast<unsigned>(std::max(rowBlock, 0));
        const unsigned byte4 = (rows >> 1U & 1U) << 7U | (rows >> 2U & 1U) << 6U | (rowBlock >= 0 ? 0x20U : 0U);
        for (const auto& [mode, command] : {std::pair{0U, 6}, {4U, 8}}) {
            bare(1, command, 0x30, 0, static_cast<int>(firstByte(mode, columnCount)), static_cast<int>(byte3));
            bare(1, command - 1, static_cast<int>(byte4), 0, 0x10, 0);
        }
    }
    void timer(unsigned count)
    {
        bare(5, 3, count >> 24U & 0xFF, count >> 16U & 0xFF, count >> 8U & 0xFF, count & 0xFF);
    }
};

constexpr unsigned tenMs = 1000000; ///< in units of 10 ns

/// Bits that the host asks for.
inline unsigned bitsOf(unsigned rows, unsigned columns, unsigned planes, bool two)
{
    return rows * columns * planes + 34 + (two ? 13 : 0);
}

/// A board that is ready to take whole frames of 12 bits and 10 ms.
class ReadyWire : public Mpx3Wire {
public:
    ReadyWire(const json& entry, int mask, int selection = 0, bool two = false) : Mpx3Wire(entry)
    {
        bare(1, 10, 0, 0, 0, two ? 1 : 0);
        timer(tenMs);
        images(2);
        bits(1, 4, selection, bitsOf(256, 256, 12, two), 0);
        channels(mask, mask);
    }
};

/// What the packet says of the shutter's time, in units of 10 ns.
inline std::uint64_t packetTime(const Bytes& stream, std::size_t at)
{
    std::uint64_t time = 0;
    for (std::size_t i = 3; i < 8; ++i)
        time = time << 8U | stream.at(at + i);
    EXPECT_EQ(stream.at(at), 0x55);
    EXPECT_EQ(stream.at(at + 8), 0xAA);
    return time;
}

} // namespace sim
