// The host's end of the wire, for tests of readout boards: writes frames byte by byte, at moments that the test sets,
// and talks to what hangs behind the SPI peripheral.
#pragma once

#include "sim/interfaceboard.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <initializer_list>

namespace sim {

using nlohmann::json;

/// A board with the host's end of its link.
template <typename BoardClass>
class BoardWire {
public:
    explicit BoardWire(const json& entry) : board(entry, json::object()) {}

    void write(const Bytes& bytes) { board.receive(bytes, now); }
    void bare(int peripheral, int command, int d0, int d1, int d2, int d3, int flags = 0)
    {
        Bytes frame;
        for (const int byte : {0x55, flags, peripheral, command, d0, d1, d2, d3, 0xAA})
            frame.push_back(static_cast<std::uint8_t>(byte));
        write(frame);
    }
    void bits(int peripheral, int command, int d0, unsigned value, int flags)
    {
        bare(peripheral, command, d0, value >> 16U & 0xFF, value >> 8U & 0xFF, value & 0xFF, flags);
    }
    void payload(int peripheral, int command, const Bytes& bytes, int flags)
    {
        const auto size = static_cast<unsigned>(bytes.size());
        bare(peripheral, command, 0, size >> 16U & 0xFF, size >> 8U & 0xFF, size & 0xFF, flags | 1);
        write(bytes);
    }
    Bytes read()
    {
        board.advance(now);
        Bytes bytes(board.pending());
        board.take(bytes);
        return bytes;
    }
    void wait(std::chrono::nanoseconds time) { now += time; }

    BoardClass board;
    Time now = Time{} + std::chrono::hours(1);
};

/// Text from a place on, up to a zero or the end.
inline std::string textAt(const Bytes& bytes, std::size_t at)
{
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    return {begin, std::find(begin, bytes.end(), 0)};
}

inline std::uint8_t reversed(std::uint8_t byte)
{
    std::uint8_t turned = 0;
    for (unsigned bit = 0; bit < 8; ++bit)
        turned = static_cast<std::uint8_t>(turned << 1U | (byte >> bit & 1U));
    return turned;
}

/// One exchange with an SPI slave that answers at once.
template <typename Wire>
Bytes spi(Wire& wire, int mode, int divider, int select, const Bytes& sent)
{
    wire.bits(4, 1, mode, static_cast<unsigned>(divider), 0);
    wire.bare(4, 2, 0, 0, 0, select, 2);
    wire.payload(4, 0, sent, 7);
    Bytes answer = wire.read();
    wire.bare(4, 2, 0, 0, 0, 0);
    wire.bare(1, 0, 0, 0, 0, 0, 2);
    return answer;
}

template <typename Wire>
Bytes cpu(Wire& wire, std::size_t size, Bytes command)
{
    command.resize(size);
    return spi(wire, 4, 50, 7, command);
}

template <typename Wire>
int adc(Wire& wire, unsigned channel)
{
    wire.bits(4, 1, 0x20, 5, 0);
    for (const unsigned first : {0x18U, 0x10U, 0x10U}) {
        wire.bare(4, 2, 0, 0, 0, 1, 2);
        wire.payload(
            4, 0,
            {static_cast<std::uint8_t>(first | channel >> 1U), static_cast<std::uint8_t>(0x40U | (channel & 1U) << 7U)},
            0);
        wire.bare(4, 3, 0, 0, 0, 0);
        wire.bare(4, 2, 0, 0, 0, 0);
    }
    wire.bare(1, 0, 0, 0, 0, 0, 2);
    const Bytes answer = wire.read();
    return answer.size() == 6 ? (answer[4] & 0xF) << 8 | answer[5] : -1;
}

template <typename Wire>
void setBias(Wire& wire, std::uint8_t code)
{
    wire.bits(4, 1, 0x10, 5, 0);
    wire.payload(4, 0, {code}, 0);
    wire.bare(4, 2, 0, 0, 0, 4);
    wire.bare(4, 3, 0, 0, 0, 0);
    wire.bare(4, 2, 0, 0, 0, 0);
    wire.bare(1, 0, 0, 0, 0, 0, 2);
}

} // namespace sim
