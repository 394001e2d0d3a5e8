// What a Medipix3 board sends for a readout. This is the one place that says what every byte is.
//
// With n channels whose data are enabled, a readout of one counter is, in this order:
//
//   for each chip of a channel (one, or two):
//     B bytes of every channel, interleaved byte by byte, the lowest channel first, where B is the number of bits
//     that the readout asks for divided by 8 (what is left of a byte falls out):
//       header  3 bytes in a chain of one chip; 4 and 5 bytes from the first and the second chip of two:
//               A1, A2, ...
//       pixels  rows from row 0 on; of each row the bit planes from the highest on; of each plane the columns from
//               the last on, eight in a byte, the last in the highest bit
//       pads    E0, E1, ... up to B bytes; pixels that do not fit into B bytes fall out
//   one packet for each chip of a channel, or a single one when n is 0.
//
// A readout of both counters is one of the first counter and then one of the second. A channel without a chip, or with
// a stuck line, gives the level of its line in all its bytes.
//
// A packet has nine bytes: 55 05, the number of the frame modulo 256, five bytes with the time that the shutter was
// open in units of 10 ns, the highest byte first, and AA. The same packet announces the end of a frame before its
// readout.
#pragma once

#include "sim/boards/mpx3chain.h"

namespace sim {

/// What a readout is asked to deliver.
struct ReadoutOrder {
    bool first = true;      ///< the counter that the first readout image reads
    bool second = false;    ///< the one that the second image reads
    std::uint32_t bits = 0; ///< of each chip

    /// From the argument word of a read command; none for a counter selection that does not exist.
    static std::optional<ReadoutOrder> fromWord(std::uint32_t word);
    bool operator==(const ReadoutOrder&) const = default;
};

using Packet = std::array<std::uint8_t, 9>;

/// The packet that closes a frame; `length` in units of 10 ns.
Packet endPacket(std::uint64_t frame, std::uint64_t length);

/// Puts readouts together, and keeps the last one for the case that the next is the same.
class Mpx3Readout {
public:
    /// A channel's chain, with whether its data go to the host.
    struct Source {
        Mpx3Chain* chain;
        bool enabled;
    };

    /// Reads a counter of all chains of the board, which clears it, and returns the bytes before the packets. Valid
    /// until the next call for the same counter.
    const Bytes& read(std::span<const Source> sources, unsigned counter, std::size_t chainLength,
                      const ReadoutShape& shape, std::uint32_t bits);

private:
    /// A block of bytes, with what it was made from.
    struct Block {
        std::vector<std::uint64_t> made;
        Bytes bytes;
    };

    struct Part {
        const ChipStream* stream;
        std::uint8_t resting;
    };

    static void interleave(std::span<const Part> parts, std::size_t header, std::size_t size, Bytes& out);

    std::array<Block, 2> blocks;
};

} // namespace sim
