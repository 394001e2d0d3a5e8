// Counters as bit planes: on the wire a byte holds one bit of eight pixels, in memory a pixel's bits lie side by side.
// Eight pixels are taken at a time, as the eight bytes of a 64-bit word.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace bitplanes {

static_assert(std::endian::native == std::endian::little, "byte i of a 64-bit word is pixel i of eight");

/// Eight pixels' bytes for each stream byte: byte i of the word is bit i of the stream byte, 0 or 1.
inline constexpr auto SPREAD = [] {
    std::array<std::uint64_t, 256> table{};
    for (unsigned value = 0; value < 256; ++value)
        for (unsigned bit = 0; bit < 8; ++bit)
            table[value] |= std::uint64_t{value >> bit & 1U} << 8 * bit;
    return table;
}();

/// The way back: bit i of the result is bit 0 of byte i. The factor moves each of the eight bits to its place in the
/// top byte, and no two products meet elsewhere in a way that carries into it.
constexpr unsigned char collect(std::uint64_t pixels)
{
    return static_cast<unsigned char>((pixels & 0x0101010101010101) * 0x0102040810204080 >> 56);
}

/// `count` planes of eight pixels, most significant first, as eight bytes.
template <unsigned count>
std::uint64_t gather(const unsigned char* byte, std::size_t planeStride)
{
    static_assert(count <= 8);
    std::uint64_t pixels = 0;
    for (unsigned plane = 0; plane < count; ++plane)
        pixels = pixels << 1 | SPREAD[byte[plane * planeStride]];
    return pixels;
}

/// The way back: the low `count` bits of eight bytes, most significant plane first.
template <unsigned count>
void scatter(std::uint64_t pixels, unsigned char* byte, std::size_t planeStride)
{
    static_assert(count <= 8);
    for (unsigned plane = 0; plane < count; ++plane)
        byte[plane * planeStride] = collect(pixels >> (count - 1 - plane));
}

/// One step of transpose: swaps the bytes off the diagonal in blocks of `distance` by `distance` bytes.
template <unsigned distance>
constexpr void swapBlocks(std::uint64_t* words)
{
    constexpr unsigned SHIFT = 8 * distance;
    constexpr std::uint64_t UPPER = distance == 4   ? 0x00000000FFFFFFFF
                                    : distance == 2 ? 0x0000FFFF0000FFFF
                                                    : 0x00FF00FF00FF00FF;
    for (unsigned block = 0; block < 8; block += 2 * distance)
        for (unsigned word = block; word < block + distance; ++word) {
            const std::uint64_t upper = words[word];
            const std::uint64_t lower = words[word + distance];
            words[word] = (upper & UPPER) | (lower & UPPER) << SHIFT;
            words[word + distance] = (upper >> SHIFT & UPPER) | (lower & ~UPPER);
        }
}

/// Swaps rows and columns of eight by eight bytes: byte i of word r becomes byte r of word i.
constexpr void transpose(std::uint64_t* words)
{
    swapBlocks<4>(words);
    swapBlocks<2>(words);
    swapBlocks<1>(words);
}

} // namespace bitplanes
