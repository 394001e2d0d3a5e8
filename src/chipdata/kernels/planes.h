// Bit planes to and from the bytes of pixels.
//
// A vector holds a stretch of one plane: byte j of it has the plane's bit of the eight pixels of block j. With one
// vector for each of eight planes, eight by eight bits are transposed across the vectors, all blocks at once; behind
// that, vector k has a byte of pixel k of every block. Which stream a block belongs to doesn't matter to any of this.
#pragma once

#include "chipdata/kernels/vector.h"

namespace {

constexpr std::size_t BLOCK = 8;        // pixels that share the bytes of a stream
constexpr unsigned BYTE_PLANES = 8;     // planes in a byte of a pixel
constexpr unsigned WORD_PLANES = 16;    // planes in a word
constexpr unsigned WORD_BLOCKS = 16;    // vectors of words that the blocks of a vector of bytes fill
constexpr std::ptrdiff_t SIDE = 256;    // pixels of a row
constexpr std::size_t PLANE_BYTES = 32; // bytes of a row's plane

/// Where blocks of eight pixels go: block i is that of byte i of a plane.
template <class Pixel>
struct AnyBlocks {
    Pixel* pixels;
    const std::ptrdiff_t* places; ///< first pixels of the blocks, counted from `pixels`

    KERNEL_INLINE Pixel* operator[](std::size_t i) const { return pixels + places[i]; }
    KERNEL_INLINE AnyBlocks behind(std::size_t blocks) const { return {pixels, places + blocks}; }
    KERNEL_INLINE AnyBlocks below(std::size_t rows) const
    {
        return {pixels + static_cast<std::ptrdiff_t>(rows) * SIDE, places};
    }
};

/// The same for blocks of which each is just left of the one before.
template <class Pixel>
struct BlockRun {
    Pixel* first;

    KERNEL_INLINE Pixel* operator[](std::size_t i) const { return first - static_cast<std::ptrdiff_t>(BLOCK * i); }
    KERNEL_INLINE BlockRun behind(std::size_t blocks) const { return {(*this)[blocks]}; }
    KERNEL_INLINE BlockRun below(std::size_t rows) const { return {first + static_cast<std::ptrdiff_t>(rows) * SIDE}; }
};

/// One round: swaps the bits off the diagonal in blocks of `distance` by `distance` bits. The shifts move bits between
/// neighbouring bytes, too; the mask drops those. Of the planes only the first `count` are there, the others are 0.
template <unsigned distance, unsigned count>
KERNEL_INLINE void swapBits(Bytes* planes)
{
    constexpr unsigned MASK = distance == 4 ? 0x0F0F : distance == 2 ? 0x3333 : 0x5555;
    const Words mask = Words{} + static_cast<std::uint16_t>(MASK);
#pragma GCC unroll 8
    for (unsigned i = 0; i < count; ++i) {
        if (i & distance)
            continue;
        const Words upper = (Words)planes[i];
        if (i + distance < count) {
            const Words lower = (Words)planes[i + distance];
            const Words moved = ((upper >> distance) ^ lower) & mask;
            planes[i + distance] = (Bytes)(lower ^ moved);
            planes[i] = (Bytes)(upper ^ (moved << distance));
        } else {
            planes[i + distance] = (Bytes)((upper >> distance) & mask);
            planes[i] = (Bytes)(upper & mask);
        }
    }
}

/// Plane p becomes bit p of the pixels' bytes: bit k of byte j of vector p goes to bit p of byte j of vector k, for
/// eight vectors of which only the first `count` are there. With all it is its own inverse. The order of the rounds
/// makes no difference but this: near ones first, planes that are not there come into being as late as they can.
template <unsigned count = BYTE_PLANES>
KERNEL_INLINE void transposeBits(Bytes* planes)
{
    constexpr unsigned AFTER_ONE = (count + 1) / 2 * 2;
    constexpr unsigned AFTER_TWO = (count + 3) / 4 * 4;
    swapBits<1, count>(planes);
    swapBits<2, AFTER_ONE>(planes);
    swapBits<4, AFTER_TWO>(planes);
}

/// Puts the low and high bytes of the pixels together, in vectors as transposeBits makes them: words[k] are pixel k of
/// the blocks in the lower halves of the lanes, words[k + 8] of those in the upper halves.
KERNEL_INLINE void joinBytes(const Bytes* low, const Bytes* high, Bytes* words)
{
    for (unsigned k = 0; k < BLOCK; ++k) {
        words[k] = unpackLow<Bytes>(low[k], high[k]);
        words[k + BLOCK] = unpackHigh<Bytes>(low[k], high[k]);
    }
}

/// Puts the pixels of a block side by side: takes elements of the type of `Pixel` from eight vectors, one for each
/// pixel k, and puts the eight with the same place together. `Pair` and `Four` are of two and of four such elements.
/// The vectors that come out have the blocks of each lane in ascending order, one or two of them in a lane.
template <class Pixel, class Pair, class Four>
KERNEL_INLINE void gatherPixels(const Bytes* k, Bytes* out)
{
    Bytes pairs[8];
    for (std::size_t i = 0; i < 4; ++i) {
        pairs[i] = unpackLow<Pixel>(k[2 * i], k[2 * i + 1]);
        pairs[i + 4] = unpackHigh<Pixel>(k[2 * i], k[2 * i + 1]);
    }
    Bytes fours[8];
    for (std::size_t i = 0; i < 8; i += 2) {
        fours[i] = unpackLow<Pair>(pairs[i], pairs[i + 1]);
        fours[i + 1] = unpackHigh<Pair>(pairs[i], pairs[i + 1]);
    }
    // Pixels 0 to 3 of a block are in one of these, 4 to 7 in the one two further on.
    for (std::size_t h = 0; h < 8; h += 4)
        for (std::size_t q = 0; q < 2; ++q) {
            out[h + 2 * q] = unpackLow<Four>(fours[h + q], fours[h + q + 2]);
            out[h + 2 * q + 1] = unpackHigh<Four>(fours[h + q], fours[h + q + 2]);
        }
}

/// gatherPixels for words as joinBytes makes them: lane l of blocks[i] becomes block 16 * l + i.
KERNEL_INLINE void gatherWords(const Bytes* words, Bytes* blocks)
{
    gatherPixels<Words, Longs, Quads>(words, blocks);
    gatherPixels<Words, Longs, Quads>(words + BLOCK, blocks + BLOCK);
}

/// Two rounds of scatterBlocks for four vectors, of which each is `step` behind the one before.
KERNEL_INLINE void scatterFour(const Bytes* from, std::size_t step, Bytes* to)
{
    const Bytes even[2] = {unpackLow<Bytes>(from[0], from[2 * step]), unpackLow<Bytes>(from[step], from[3 * step])};
    const Bytes odd[2] = {unpackHigh<Bytes>(from[0], from[2 * step]), unpackHigh<Bytes>(from[step], from[3 * step])};
    to[0] = unpackLow<Bytes>(even[0], even[1]);
    to[1] = unpackHigh<Bytes>(even[0], even[1]);
    to[2] = unpackLow<Bytes>(odd[0], odd[1]);
    to[3] = unpackHigh<Bytes>(odd[0], odd[1]);
}

/// Cuts blocks, laid out as gatherWords leaves them, into the low and the high bytes of pixel k of every block. That
/// is sixteen by sixteen bytes transposed in each lane, byte h of pixel k going to vector 2 * k + h. Each of four
/// rounds takes one bit of the vectors' numbers into those of the bytes; two at a time need no more than four of the
/// vectors.
KERNEL_INLINE void scatterBlocks(const Bytes* blocks, Bytes* low, Bytes* high)
{
    constexpr std::size_t STEP = WORD_BLOCKS / 4;
    Bytes half[WORD_BLOCKS]; // of the rounds done
    Bytes done[WORD_BLOCKS];
    for (std::size_t i = 0; i < STEP; ++i)
        scatterFour(blocks + i, STEP, half + 4 * i);
    for (std::size_t i = 0; i < STEP; ++i)
        scatterFour(half + i, STEP, done + 4 * i);
    for (std::size_t k = 0; k < BLOCK; ++k) {
        low[k] = done[2 * k];
        high[k] = done[2 * k + 1];
    }
}

/// Loads `count` planes, the most significant of which is at `from`.
template <unsigned count>
KERNEL_INLINE void loadPlanes(const unsigned char* from, std::size_t stride, Bytes* planes)
{
    for (unsigned plane = 0; plane < count; ++plane)
        planes[plane] = load<Bytes>(from + (count - 1 - plane) * stride);
}

/// The way back.
template <unsigned count>
KERNEL_INLINE void storePlanes(const Bytes* planes, unsigned char* to, std::size_t stride)
{
    for (unsigned plane = 0; plane < count; ++plane)
        store(to + (count - 1 - plane) * stride, planes[plane]);
}

} // namespace
