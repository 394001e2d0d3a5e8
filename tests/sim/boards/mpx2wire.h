// The host's end of the wire, for tests of boards with Medipix2 or Timepix
// chips: the steps that a host makes, and where the pixels lie in what comes
// back.
#pragma once

#include "sim/boards/boardwire.h"

#include "sim/boards/mpx2board.h"

namespace sim {

inline json mpx2Entry(json modules, const json& more = json::object())
{
    return boardEntry("Latixel Latixel TLWA sn: 7 A", "modules", std::move(modules), 100000, more);
}

// Control pins.
constexpr unsigned PWR = 1, RST = 2, ENIN = 4, M0 = 8, M1 = 16, OUTEN = 256, ACQOVER = 1024;
constexpr unsigned RESTING = 0x08A0; ///< pins that no step changes
constexpr unsigned ON = PWR | RST;

/// A board out of reset, with the steps that a host makes.
template <typename BoardClass>
class PinWire : public InterfaceWire<BoardClass> {
public:
    using InterfaceWire<BoardClass>::number;
    using InterfaceWire<BoardClass>::payload;
    using InterfaceWire<BoardClass>::read;

    explicit PinWire(const json& entry) : InterfaceWire<BoardClass>(entry)
    {
        pins(PWR);
        alive(ENIN);
    }

    void pins(unsigned levels) { number(1, 1, RESTING | levels); }
    void alive(unsigned levels) { pins(ON | levels); }
    void mux(unsigned mask, int flags = 0) { number(1, 2, mask, flags); }
    /// Shifts a stream into the DACs; returns the old contents.
    Bytes dacs(unsigned mask, const Bytes& stream)
    {
        mux(mask);
        alive(M0 | OUTEN);
        payload(1, 0, stream, 7);
        alive(M0 | ENIN);
        return read();
    }
    void writeMatrix(unsigned mask, const Bytes& stream)
    {
        mux(mask);
        alive(M1);
        payload(1, 0, stream, 7);
        alive(ENIN);
    }
    /// Starts a frame, or with other arguments a series.
    void start(std::uint32_t triggers = 0, std::uint32_t frames = 1)
    {
        alive(ENIN | ACQOVER);
        number(5, 1, triggers << 24U | frames, 2);
    }
};

class Mpx2Wire : public PinWire<Mpx2Board> {
public:
    explicit Mpx2Wire(const json& entry = mpx2Entry({{""}})) : PinWire(entry) {}

    Bytes readMatrix(unsigned mask, std::uint32_t announced, std::uint32_t bits)
    {
        mux(mask);
        alive(OUTEN);
        number(1, 5, announced, 2);
        number(1, 4, bits, 2);
        Bytes stream = read();
        alive(ENIN);
        return stream;
    }
    /// The readout of one module, or of several with as many bytes of each.
    Bytes readModules(unsigned mask, std::uint32_t modules, std::uint32_t chips, std::uint32_t less)
    {
        return readMatrix(mask, modules * (chips * 114721 - less) - 1, chips * 917768 - 2);
    }
    Bytes readChip() { return readModules(1, 1, 1, 2); }
    /// Takes a frame; returns its packet.
    Bytes frame(std::chrono::nanoseconds time)
    {
        start();
        Bytes packet = readAfter(time);
        alive(ENIN);
        return packet;
    }
};

/// Number in a packet of 48 bits.
inline std::uint64_t packetOf(std::uint8_t peripheral, const Bytes& stream, std::size_t at = 0)
{
    EXPECT_EQ(stream.at(at + 1), peripheral);
    return packetNumber(stream, at, 2);
}

/// Pixels of a chip in a readout of `lines` lines, a byte of each in turn, with
/// as many chips on every line.
inline StreamPlace chipIn(std::size_t lines, std::size_t line, std::size_t chips, std::size_t chip)
{
    return {.start = line + lines * (1 + chips + chip * 114720), .stride = lines, .depth = 14};
}
const StreamPlace ONLY_CHIP = chipIn(1, 0, 1, 0);

/// A command that no firmware understands, at pins where it may be sent.
struct BadFrame {
    const char* name;
    unsigned pins;
    Bytes frame;
    std::size_t payload = 0; ///< bytes FF behind the frame
};

/// Expects that the board records each of these commands.
template <typename Wire>
void expectRecorded(const std::vector<BadFrame>& frames)
{
    for (BadFrame one : frames) {
        Wire wire;
        wire.mux(1);
        wire.pins(one.pins);
        one.frame.resize(one.frame.size() + one.payload, 0xFF);
        wire.write(one.frame);
        EXPECT_EQ(wire.complaints(), 1U) << one.name;
    }
}

} // namespace sim
