// The host's end of the wire, for tests of a Medipix3 board: the steps that a
// host makes.
#pragma once

#include "sim/boards/boardwire.h"

#include "sim/boards/mpx3board.h"

namespace sim {

inline json mpx3Entry(json channels, const json& more = json::object())
{
    return boardEntry("Latixel Latixel M3WA sn: 7 A", "channels", std::move(channels), 100000, more);
}

/// A board under power, with the host's end of its link.
class Mpx3Wire : public InterfaceWire<Mpx3Board> {
public:
    explicit Mpx3Wire(const json& entry = mpx3Entry({{""}})) : InterfaceWire(entry) { pins(7); }

    void pins(std::uint32_t levels) { number(1, 1, levels); }
    void channels(int enabled, int selected) { bare(1, 3, 0, 0, enabled, selected); }
    /// Shifts into or through the selected chips.
    void shift(const Bytes& stream, int flags = 5) { payload(1, 255, stream, flags); }
    /// Shifts the default register image with another mode, and bytes 3 to 7 as
    /// given.
    void omr(unsigned mode, Bytes rest = {0x20, 0, 0, 0x10, 0})
    {
        const unsigned modeBits = (mode & 1U) << 7U | (mode >> 1U & 1U) << 6U | (mode >> 2U & 1U) << 5U;
        rest.insert(rest.begin(), {0x30, 0x00, static_cast<std::uint8_t>(modeBits | 8)});
        shift(padded(rest, 12));
    }
    /// Stores both readout images, of which three bytes differ: how many columns, the depth with the block of columns,
    /// and the rows.
    void images(int columns, int depthAndBlock, int rows = 0)
    {
        for (const auto& [mode, command] : {std::pair{0x00, 6}, {0x20, 8}}) {
            bare(1, command, 0x30, 0, mode | 8 | columns, depthAndBlock);
            bare(1, command - 1, rows, 0, 0x10, 0);
        }
    }
    /// Stores what a frame delivers: the selection of counters, and the bits of
    /// each.
    void order(unsigned selection, unsigned bits) { number(1, 4, selection << 24U | bits); }
    /// Reads counters as they are.
    Bytes readCounters(unsigned selection, unsigned bits)
    {
        number(1, 2, selection << 24U | bits, 2);
        return read();
    }
    /// Starts one frame, or with other arguments a series.
    void start(std::uint32_t flags = 0, std::uint32_t framesBehindTheFirst = 0)
    {
        number(5, 1, (flags | 1U) << 24U | framesBehindTheFirst, 2);
    }
};

constexpr unsigned TEN_MS = 1000000; ///< in units of 10 ns

/// Bits that the host asks for.
inline unsigned bitsOf(unsigned rows, unsigned columns, unsigned planes)
{
    return rows * columns * planes + 34;
}
constexpr unsigned FRAME_BITS = 786466; ///< of whole frames of 12 bits
constexpr int DEPTH_12 = 0x20;          ///< in a readout image

/// A board that is ready to take whole frames of 12 bits and 10 ms.
class ReadyWire : public Mpx3Wire {
public:
    explicit ReadyWire(const json& entry = mpx3Entry({{""}}), int mask = 1, unsigned selection = 0) : Mpx3Wire(entry)
    {
        timer(TEN_MS);
        images(0, DEPTH_12);
        order(selection, bitsOf(256, 256, 12));
        channels(mask, mask);
    }

    Bytes frame(std::chrono::nanoseconds time = 10ms)
    {
        start();
        return readAfter(time);
    }
};

} // namespace sim
