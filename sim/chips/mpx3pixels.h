// The pixel matrix of a Medipix3 chip: two counters for each pixel, the configuration latches, and the shift registers
// that carry bit planes in and out.
#pragma once

#include "sim/chips/mpx3omr.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace sim {

class Mpx3Pixels {
public:
    static constexpr std::size_t COUNT = std::size_t{256} * 256;
    /// Bits of a pixel's configuration word.
    static constexpr unsigned CONFIG_MASK = 1;                        ///< the pixel does not count
    static constexpr unsigned CONFIG_ADJUST0 = 1, CONFIG_ADJUST1 = 6; ///< first bits of the two threshold adjustments
    static constexpr unsigned CONFIG_ADJUST_BITS = 0x1F;
    /// Bytes that one row of a half matrix takes on the wire.
    static constexpr std::size_t ROW_BYTES = 12 * 256 / 8;

    /// Loads 128 rows of a counter, 12 bits a pixel.
    void loadHalf(unsigned counter, unsigned firstRow, std::span<const std::uint8_t> planes);
    /// Takes the second counter's contents over into the configuration latches.
    void latchConfig() { config = state[1]; }
    /// Clears both counters. The configuration stays.
    void clear();
    /// Power is gone: counters and configuration are all zero.
    void reset();

    /// Adds counts to all pixels of a counter of `depth` bits. A full counter stays full. A count of 24 bits stands in
    /// both counters, its upper half in the first: this sets the half that stands in `counter`.
    void add(unsigned counter, unsigned depth, std::span<const std::uint32_t> counts);
    bool isClear(unsigned counter) const { return cleared[counter]; }

    /// Appends what a readout of the shape shifts out, which leaves the counter clear.
    void shiftOut(unsigned counter, const ReadoutShape& shape, std::vector<std::uint8_t>& out);

    /// Registers of a counter as they stand, row by row, pixel by pixel.
    const std::vector<std::uint16_t>& registers(unsigned counter) const { return state[counter]; }
    const std::vector<std::uint16_t>& configuration() const { return config; }

private:
    using Registers = std::vector<std::uint16_t>;

    std::array<Registers, 2> state{Registers(COUNT), Registers(COUNT)};
    std::array<bool, 2> cleared{true, true};
    Registers config = Registers(COUNT);
};

} // namespace sim
