// What a Medipix2 or Timepix board sends when its matrix is read. This is the one place that says what every byte is.
//
// The host announces a number A, and then has B bits clocked out of each of the n selected modules. It gets
//
//   A + 1 bytes of the n modules, interleaved byte by byte, the lowest module first. Each module delivers
//     1 byte   C5, which stood in the multiplexer when the clock began
//     1 byte   FF for each of its chips
//     images   114720 bytes for each chip that the clock reaches: rows from row 0 on, of each row 14 bit planes from
//              the highest on, of each plane the columns from the last on, eight in a byte, the last in the highest
//              bit; behind the 256 rows 32 bytes, E0, E1, ...
//     zeros    or ones, where no chip drives the line
//   9 bytes that close it: 55 01, the number of the bytes before them in 6 bytes, the highest first, and AA
//
// The clock brings 1 + B / 8 bytes of each module, so that A + 1 can be n times that at most. B is 917768 for each
// chip, less 2; a chip that the clock does not reach keeps its counts.
//
// When the chips' registers are shifted, or bytes go past them, each module delivers as many bytes as were sent: C5,
// and then what comes out of the chips.
#pragma once

#include "sim/mpx2chain.h"

namespace sim {

using Mpx2Packet = std::array<std::uint8_t, 9>;

/// A packet of the board in the form of a frame: the peripheral that sends it, and a number of 48 bits.
Mpx2Packet mpx2Packet(std::uint8_t peripheral, std::uint64_t number);

/// What a readout is asked to deliver.
struct Mpx2ReadoutOrder {
    std::uint32_t announced = 0; ///< bytes of all modules, less 1
    std::uint32_t bits = 0;      ///< of each module

    /// Chips of a module that the clock reaches, or none if it ends within a chip, or behind the longest chain.
    std::optional<std::size_t> chips() const;
    /// Bytes that the clock brings of each module.
    std::size_t clocked() const { return std::size_t{bits} / 8 + 1; }
};

/// Byte that stands in the multiplexer when the clock begins.
constexpr std::uint8_t mpx2LeadByte = 0xC5;

/// Puts readouts together, and keeps the last one for the case that the next is the same.
class Mpx2Readout {
public:
    /// Reads the first `chips` chips of all modules, which clears them, and returns `size` bytes. Valid until the next
    /// call.
    const Bytes& read(std::span<Mpx2Chain* const> modules, std::size_t chips, std::size_t size);

private:
    std::vector<std::uint64_t> lastMade;
    Bytes bytes;
};

} // namespace sim
