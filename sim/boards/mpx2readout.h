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
// A row board has one chip on each of its n channels, and nothing stands in its multiplexer. It announces nothing: the
// channels are read to the end of what is clocked. 917767 bits are the whole matrix, 114721 bytes of each channel: FF
// and the image, as above. 3592 bits for each of R rows, less 1, are 449 times R bytes of each channel:
//
//     1 byte   FF
//     rows     448 bytes for each of the R rows from row 0 on; the rows behind them move up to their place
//     R - 1    bytes E0, E1, ..., again from E0 behind EF
//
// The same 9 bytes close it. In a continuous series the board sends a block at each step of its timer:
//
//   9 bytes that end a frame: 55 05, the time that the step took in 6 bytes, and AA
//   449 times R bytes of each channel, interleaved, as R rows are read
//   9 bytes that close it: 55 01, the number of the bytes since the packet in front in 6 bytes, and AA
//
// When the chips' registers are shifted, or bytes go past them, each module delivers as many bytes as were sent: C5,
// on a board that has it in its multiplexer, and then what comes out of the chips.
#pragma once

#include "sim/boards/mpx2chain.h"

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

/// Rows that a number of bits clocks out of each channel of a row board, or none if that is no number of rows from 1 to
/// 256.
std::optional<unsigned> rowsOfBits(std::uint32_t bits);
/// Bits that clock the whole matrix out of each channel of a row board.
constexpr std::uint32_t ROW_BOARD_MATRIX_BITS = (Mpx2Chip::IMAGE_BYTES + 1) * 8 - 1;

/// Puts readouts together, and keeps the last one for the case that the next is the same.
class Mpx2Readout {
public:
    /// `muxBytes` are those that stand in the multiplexer when the clock begins, for each line.
    explicit Mpx2Readout(Bytes muxBytes) : lead(std::move(muxBytes)) {}

    /// What a line delivers through the multiplexer.
    Lane through(Lane lane) const;
    /// Reads the first `chips` chips of all lines, which clears them, and returns `size` bytes. Valid until the next
    /// call.
    const Bytes& read(std::span<Mpx2Chain* const> lines, std::size_t chips, std::size_t size);
    /// Reads rows of lines with one chip each, for a row board. Valid until the next call.
    const Bytes& readRows(std::span<Mpx2Chain* const> channels, const Mpx2RowRead& order);

private:
    const Bytes lead;
    std::vector<std::uint64_t> lastMade;
    Bytes bytes;
};

} // namespace sim
