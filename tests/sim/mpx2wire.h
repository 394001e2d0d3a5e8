// The host's end of the wire, for tests of a Medipix2 or Timepix board: the steps that a host makes, and what comes
// back decoded bit by bit, slowly and without knowledge of how the board makes it.
#pragma once

#include "boardwire.h"

#include "sim/mpx2board.h"

#include <map>

namespace sim {

inline json mpx2Entry(json modules, const json& more = json::object())
{
    json entry = {{"kind", "mpx2"},
                  {"description", "Latixel Latixel TLWA sn: 7 A"},
                  {"modules", std::move(modules)},
                  {"scene", {{"kind", "gradient"}, {"flux", 100000}, {"noise", false}}}};
    entry.update(more);
    return entry;
}

// Control pins.
constexpr unsigned PWR = 1, RST = 2, ENIN = 4, M0 = 8, M1 = 16, PS = 64, OUTEN = 256, ACQOVER = 1024;
constexpr unsigned resting = 0x08A0; ///< pins that no step changes

/// A board out of reset, with the steps that a host makes.
class Mpx2Wire : public BoardWire<Mpx2Board> {
public:
    explicit Mpx2Wire(const json& entry) : BoardWire(entry)
    {
        pins(PWR);
        pins(PWR | RST);
    }

    void pins(unsigned levels)
    {
        const unsigned word = resting | levels;
        bare(1, 1, 0, 0, static_cast<int>(word >> 8U), static_cast<int>(word & 0xFFU));
    }
    void alive(unsigned levels) { pins(PWR | RST | levels); }
    void mux(int mask) { bare(1, 2, 0, 0, 0, mask); }
    void number(int peripheral, int command, std::uint32_t value, int flags)
    {
        bare(peripheral, command, static_cast<int>(value >> 24U), value >> 16U & 0xFF, value >> 8U & 0xFF, value & 0xFF,
             flags);
    }

    Bytes pattern()
    {
        alive(M0 | ENIN);
        bare(1, 3, 0, 0, 0, 0, 2);
        return read();
    }
    /// A block of ones into the chain of a module, a block of zeros behind it, and what comes back for the second.
    Bytes countBlock(int mask)
    {
        mux(mask);
        alive(M0 | ENIN);
        payload(1, 0, Bytes(14, 0xFF), 7);
        alive(M0 | ENIN | OUTEN);
        payload(1, 0, Bytes(14), 7);
        return read();
    }
    /// Shifts a stream into the DACs; returns the old contents.
    Bytes dacs(int mask, const Bytes& stream)
    {
        mux(mask);
        alive(M0 | OUTEN);
        payload(1, 0, stream, 7);
        alive(M0 | ENIN);
        return read();
    }
    void writeMatrix(int mask, const Bytes& stream)
    {
        mux(mask);
        alive(M1);
        payload(1, 0, stream, 7);
        alive(ENIN);
    }
    Bytes readMatrix(int mask, std::uint32_t announced, std::uint32_t bits)
    {
        mux(mask);
        alive(OUTEN);
        number(1, 5, announced, 2);
        number(1, 4, bits, 2);
        const Bytes stream = read();
        alive(ENIN);
        return stream;
    }
    /// The readout of one module, or of several with as many bytes of each.
    Bytes readModules(int mask, std::uint32_t modules, std::uint32_t chips, std::uint32_t less)
    {
        return readMatrix(mask, modules * (chips * 114721 - less) - 1, chips * 917768 - 2);
    }
    void timer(std::uint32_t ticks) { number(5, 3, ticks, 0); }
    void start(int flags = 0)
    {
        alive(ENIN | ACQOVER);
        bare(5, 1, flags, 0, 0, 1, 2);
    }
    /// Takes a frame; returns its packet.
    Bytes frame(std::chrono::nanoseconds time)
    {
        start();
        wait(time);
        const Bytes packet = read();
        alive(ENIN);
        return packet;
    }
};

/// The 48-bit number in a packet.
inline std::uint64_t packetNumber(const Bytes& stream, std::size_t at, std::uint8_t peripheral)
{
    EXPECT_EQ(stream.at(at), 0x55);
    EXPECT_EQ(stream.at(at + 1), peripheral);
    EXPECT_EQ(stream.at(at + 8), 0xAA);
    std::uint64_t value = 0;
    for (std::size_t i = 2; i < 8; ++i)
        value = value << 8U | stream[at + i];
    return value;
}

/// One module's bytes out of a stream of several.
inline Bytes lane(const Bytes& stream, std::size_t modules, std::size_t number)
{
    Bytes bytes;
    for (std::size_t at = number; at + 9 < stream.size(); at += modules)
        bytes.push_back(stream[at]);
    return bytes;
}

/// Register of a pixel in one module's bytes.
inline unsigned registerIn(const Bytes& bytes, std::size_t chips, std::size_t chip, unsigned row, unsigned column)
{
    const std::size_t image = 1 + chips + chip * 114720;
    unsigned state = 0;
    for (unsigned plane = 0; plane < 14; ++plane) {
        const std::size_t byte = image + std::size_t{row} * 448 + plane * 32 + (255 - column) / 8;
        state = state << 1U | (bytes.at(byte) >> (7 - (255 - column) % 8) & 1U);
    }
    return state;
}

inline unsigned countIn(const Bytes& bytes, std::size_t chips, std::size_t chip, unsigned row, unsigned column)
{
    static const std::map<unsigned, unsigned> counts = [] {
        std::map<unsigned, unsigned> table;
        unsigned state = 16383;
        for (unsigned count = 0; count <= 11810; ++count) {
            table[state] = count;
            state = ((state >> 13U) ^ (state & 1U)) | (state * 2 & 16382U);
        }
        return table;
    }();
    const auto found = counts.find(registerIn(bytes, chips, chip, row, column));
    return found == counts.end() ? ~0U : found->second;
}

} // namespace sim
