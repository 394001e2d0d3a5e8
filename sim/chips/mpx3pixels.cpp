// The pixel matrix of a Medipix3 chip.
#include "sim/chips/mpx3pixels.h"

#include "sim/chips/bitplanes.h"
#include "sim/chips/mpx3counters.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t SIDE = 256;
constexpr unsigned HALF_OF24 = 12; ///< bits of a 24-bit count in each counter

} // namespace

void Mpx3Pixels::loadHalf(unsigned counter, unsigned firstRow, std::span<const std::uint8_t> planes)
{
    constexpr unsigned ROWS = 128;
    constexpr unsigned BITS = 12;
    cleared[counter] = false;
    for (unsigned row = 0; row < ROWS; ++row)
        takePlanes(planes.subspan(row * ROW_BYTES, ROW_BYTES), BITS,
                   std::span(state[counter]).subspan((firstRow + row) * SIDE, SIDE));
}

void Mpx3Pixels::clear()
{
    for (unsigned counter = 0; counter < 2; ++counter)
        if (!cleared[counter]) {
            std::ranges::fill(state[counter], std::uint16_t{0});
            cleared[counter] = true;
        }
}

void Mpx3Pixels::reset()
{
    clear();
    std::ranges::fill(config, std::uint16_t{0});
}

void Mpx3Pixels::add(unsigned counter, unsigned depth, std::span<const std::uint32_t> counts)
{
    const unsigned width = std::min(depth, HALF_OF24);
    const std::uint32_t full = (1U << depth) - 1;
    const std::uint32_t mask = (1U << width) - 1;
    const unsigned shift = depth > HALF_OF24 && counter == 0 ? HALF_OF24 : 0;
    const auto stateOf = mpx3StateOfCount(width);
    const auto countOf = mpx3CountOfState(width);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        std::uint32_t before = countOf[state[depth > HALF_OF24 ? 1 : counter][i] & mask];
        if (depth > HALF_OF24)
            before |= std::uint32_t{countOf[state[0][i] & mask]} << HALF_OF24;
        const std::uint32_t now = std::min(before + counts[i], full);
        state[counter][i] = stateOf[now >> shift & mask];
    }
    cleared[counter] = false;
}

void Mpx3Pixels::shiftOut(unsigned counter, const ReadoutShape& shape, std::vector<std::uint8_t>& out)
{
    out.reserve(out.size() + shape.bytes());
    for (unsigned row = 0; row < shape.rows; ++row)
        appendPlanes(std::span(state[counter]).subspan(row * SIDE + shape.firstColumn, shape.columns), shape.planes,
                     out);
    if (!cleared[counter])
        std::ranges::fill(state[counter], std::uint16_t{0});
    cleared[counter] = true;
}

} // namespace sim
