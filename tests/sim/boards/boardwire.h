// The host's end of the wire, for tests of readout boards: writes frames byte
// by byte, at moments that the test sets, talks to what hangs behind the SPI
// peripheral, and decodes what comes back bit by bit, slowly and without
// knowledge of how the board makes it.
#pragma once

#include "sim/boards/interfaceboard.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>
#include <initializer_list>
#include <map>

namespace sim {

using namespace std::chrono_literals;
using nlohmann::json;

/// Entry of a board with a gradient scene without noise; keys of `more` are
/// added.
inline json boardEntry(const char* description, const char* linesKey, json lines, int flux, const json& more)
{
    json entry = {{"description", description},
                  {linesKey, std::move(lines)},
                  {"scene", {{"kind", "gradient"}, {"flux", flux}, {"noise", false}}}};
    entry.update(more);
    return entry;
}

/// A board with the host's end of its link. What the board has recorded against
/// the host and no test has asked for fails the test at the end.
template <typename BoardClass>
class BoardWire {
public:
    template <typename... Args>
    explicit BoardWire(const Args&... args) : board(args..., json::object())
    {
    }
    ~BoardWire()
    {
        for (const Violation& violation : board.violations())
            ADD_FAILURE() << violation.what << ": " << testing::PrintToString(violation.bytes);
    }

    void write(const Bytes& bytes) { board.receive(bytes, now); }
    Bytes read()
    {
        board.advance(now);
        Bytes bytes(board.pending());
        board.take(bytes);
        return bytes;
    }
    void wait(std::chrono::nanoseconds time) { now += time; }
    Bytes readAfter(std::chrono::nanoseconds time)
    {
        wait(time);
        return read();
    }
    void pulseTrigger() { board.externalTrigger(now); }
    void fault(const json& entry) { EXPECT_TRUE(board.applyFault(entry)) << entry; }
    /// Number of violations since this was asked last.
    std::size_t complaints()
    {
        const std::size_t count = board.violations().size();
        board.clearViolations();
        return count;
    }

    BoardClass board;
    Time now = Time{} + std::chrono::hours(1);
};

inline Bytes bytesOf(std::initializer_list<int> values)
{
    return {values.begin(), values.end()};
}

/// Bytes with zeros behind them, `size` in all.
inline Bytes padded(Bytes bytes, std::size_t size)
{
    bytes.resize(size);
    return bytes;
}

/// `size` bytes of a stream from a place on, or every `stride`th one.
inline Bytes slice(const Bytes& stream, std::size_t from, std::size_t size, std::size_t stride = 1)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = stream.at(from + i * stride);
    return bytes;
}

/// Number in the bytes from `first` on of a packet that stands at a place in a
/// stream: in the usual packet, the time that the shutter was open.
inline std::uint64_t packetNumber(const Bytes& stream, std::size_t at = 0, std::size_t first = 3)
{
    EXPECT_EQ(stream.at(at), 0x55);
    EXPECT_EQ(stream.at(at + 8), 0xAA);
    std::uint64_t value = 0;
    for (std::size_t i = first; i < 8; ++i)
        value = value << 8U | stream[at + i];
    return value;
}

/// A board with frames of nine bytes. The peripherals are 1 the chips, 2 the
/// firmware, 4 SPI, 5 acquisition.
template <typename BoardClass>
class InterfaceWire : public BoardWire<BoardClass> {
public:
    using BoardWire<BoardClass>::BoardWire;
    using BoardWire<BoardClass>::read;
    using BoardWire<BoardClass>::write;

    void bare(int peripheral, int command, int d0, int d1, int d2, int d3, int flags = 0)
    {
        write(bytesOf({0x55, flags, peripheral, command, d0, d1, d2, d3, 0xAA}));
    }
    /// A command with one number of 32 bits.
    void number(int peripheral, int command, std::uint32_t value, int flags = 0)
    {
        bare(peripheral, command, static_cast<int>(value >> 24U), value >> 16U & 0xFF, value >> 8U & 0xFF, value & 0xFF,
             flags);
    }
    void payload(int peripheral, int command, const Bytes& bytes, int flags)
    {
        number(peripheral, command, static_cast<std::uint32_t>(bytes.size()), flags | 1);
        write(bytes);
    }
    void timer(std::uint32_t ticks) { number(5, 3, ticks); }
    void stop() { number(5, 2, 0, 2); }
    void setTrigger(std::uint32_t word) { number(5, 5, word); }

    void select(std::uint32_t slave, int flags = 0) { number(4, 2, slave, flags); }
    void outputToChips() { number(1, 0, 0, 2); }
};

/// Where the pixels of one counter of a chip lie in a stream, and how they are
/// written there.
struct StreamPlace {
    std::size_t start = 3;
    std::size_t stride = 1; ///< from one of the chip's bytes to the next
    unsigned depth = 12;
    unsigned columns = 256;
    unsigned firstColumn = 0;
    unsigned rows = 256;
};

/// Count that a register stands for: how often the counter steps from zero to it, and more than any count for one that
/// it never reaches. 14 bits are Timepix and Medipix2, the others Medipix3.
inline unsigned countOf(unsigned state, unsigned depth)
{
    const unsigned taps = std::map<unsigned, unsigned>{{1, 0}, {6, 0x21}, {12, 0x829}, {14, 0x2001}}.at(depth);
    const unsigned mask = (1U << depth) - 1;
    unsigned reached = depth == 14 ? mask : 0;
    unsigned count = 0;
    for (; reached != state && count <= mask; ++count) {
        const bool turned = depth != 14 && (reached & mask >> 1U) == 0;
        const unsigned fedBack = static_cast<unsigned>(std::popcount(reached & taps)) + (turned ? 1U : 0U);
        reached = (reached << 1U | (fedBack & 1U)) & mask;
    }
    return count;
}

/// Count of a pixel in a stream.
inline unsigned countIn(const Bytes& stream, const StreamPlace& place, unsigned row, unsigned column)
{
    const unsigned fromLast = place.firstColumn + place.columns - 1 - column;
    unsigned state = 0;
    for (unsigned plane = 0; plane < place.depth; ++plane) {
        const std::size_t byte = (std::size_t{row} * place.depth + plane) * (place.columns / 8) + fromLast / 8;
        state = state << 1U | (stream.at(place.start + byte * place.stride) >> (7 - fromLast % 8) & 1U);
    }
    return countOf(state, place.depth);
}

/// What the gradient scene gives a pixel, as a part of its flux.
inline double gradient(unsigned row, unsigned column)
{
    return 0.1 + 0.6 * (column + 0.5) / 256 + 0.3 * (row + 0.5) / 256;
}

/// Expects the gradient scene upright in a stream, after as many photons as its
/// flux gives, up to a full counter.
inline void expectGradient(const Bytes& stream, const StreamPlace& place, double photons)
{
    const unsigned last = place.columns - 1;
    const double most = place.depth == 14 ? 11810 : (1U << place.depth) - 1;
    for (const unsigned row : {0U, (place.rows - 1) / 3, place.rows - 1})
        for (const unsigned column : {place.firstColumn, place.firstColumn + last / 2, place.firstColumn + last})
            EXPECT_NEAR(countIn(stream, place, row, column), std::min(photons * gradient(row, column), most), 0.51)
                << row << ", " << column;
}

} // namespace sim
