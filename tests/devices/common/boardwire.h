// Frames that go to every board with 9-byte command frames, and for tests of what a device sends.
#pragma once

#include "support/wire.h"

namespace support {

// Peripherals of a board.
constexpr int MPX = 1;
constexpr int INF = 2;
constexpr int SPI = 4;
constexpr int ACQ = 5;

class BoardWire : public Wire {
public:
    BoardWire& number(int flags, int perif, int command, std::uint32_t value)
    {
        const int v = static_cast<int>(value);
        cmd(flags, perif, command, v >> 24, v >> 16, v >> 8, v);
        return *this;
    }
    BoardWire& spiExchange(int divider, int select, const Bytes& payload)
    {
        cmd(0, SPI, 1, 4, 0, 0, divider).cmd(2, SPI, 2, 0, 0, 0, select);
        data(7, SPI, 0, payload).cmd(0, SPI, 2).cmd(2, MPX, 0);
        return *this;
    }
    BoardWire& cpu(const Bytes& beginning, std::size_t size) { return spiExchange(50, 7, padded(beginning, size)); }
    /// The code of a bias; on some boards the output is handed back before it.
    BoardWire& bias(std::uint8_t code, bool handsBackFirst = false)
    {
        cmd(0, SPI, 1, 0x10, 0, 0, 5);
        if (handsBackFirst)
            cmd(2, MPX, 0);
        data(0, SPI, 0, {code}).cmd(0, SPI, 2, 0, 0, 0, 4).cmd(0, SPI, 3).cmd(0, SPI, 2);
        if (!handsBackFirst)
            cmd(2, MPX, 0);
        return *this;
    }
};

} // namespace support
