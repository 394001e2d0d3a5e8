// Rows of pixels as bit planes.
#include "sim/chips/bitplanes.h"

#include <algorithm>
#include <cstddef>

namespace sim {

namespace {

/// Turns an 8 x 8 square of bits over its diagonal. Row 0 is the lowest byte, column 0 the lowest bit of a byte.
std::uint64_t transpose(std::uint64_t square)
{
    std::uint64_t swap = (square ^ square >> 7U) & 0x00AA00AA00AA00AA;
    square ^= swap ^ swap << 7U;
    swap = (square ^ square >> 14U) & 0x0000CCCC0000CCCC;
    square ^= swap ^ swap << 14U;
    swap = (square ^ square >> 28U) & 0x00000000F0F0F0F0;
    return square ^ swap ^ swap << 28U;
}

} // namespace

void appendPlanes(std::span<const std::uint16_t> pixels, unsigned planes, std::vector<std::uint8_t>& out)
{
    const std::size_t planeBytes = pixels.size() / 8;
    const std::size_t start = out.size();
    out.resize(start + planes * planeBytes);
    for (std::size_t group = 0; group < planeBytes; ++group) {
        const std::uint16_t* const eight = &pixels[8 * group];
        std::uint64_t low = 0;
        std::uint64_t high = 0;
        for (unsigned i = 0; i < 8; ++i) {
            low |= std::uint64_t{eight[i] & 0xFFU} << 8 * i;
            high |= std::uint64_t{static_cast<unsigned>(eight[i]) >> 8U} << 8 * i;
        }
        low = transpose(low);
        high = transpose(high);
        std::uint8_t* plane = &out[start + planeBytes - 1 - group];
        for (unsigned bit = planes; bit-- > 0; plane += planeBytes)
            *plane = static_cast<std::uint8_t>((bit < 8 ? low : high) >> 8 * (bit % 8));
    }
}

void takePlanes(std::span<const std::uint8_t> bytes, unsigned planes, std::span<std::uint16_t> pixels)
{
    const std::size_t planeBytes = pixels.size() / 8;
    std::ranges::fill(pixels, std::uint16_t{0});
    for (unsigned plane = 0; plane < planes; ++plane)
        for (std::size_t at = 0; at < planeBytes; ++at) {
            const unsigned byte = bytes[plane * planeBytes + at];
            std::uint16_t* const eight = &pixels[8 * (planeBytes - 1 - at)];
            for (unsigned bit = 0; bit < 8; ++bit)
                eight[bit] |= static_cast<std::uint16_t>((byte >> bit & 1U) << (planes - 1 - plane));
        }
}

} // namespace sim
