// Medipix3 matrices: rows of planes of one or of both counters, 32-bit pixels.
#pragma once

#include "chipdata/kernels/kernels.h"
#include "chipdata/kernels/planes.h"

namespace {
namespace mpx3 {

using kernels::Mpx3Rows;
using kernels::Store;

constexpr unsigned COUNTER_PLANES = 12;
constexpr unsigned ANY_PLANES = WORD_PLANES; // a kernel for as many planes as the rows have
constexpr std::size_t ROW_BYTES = COUNTER_PLANES * PLANE_BYTES;

/// Stores four pixels.
template <Store how>
KERNEL_INLINE void storePixels(std::uint32_t* to, ByteLane pixels)
{
    if constexpr (how == Store::Or)
        pixels |= load<ByteLane>(to);
    store(to, pixels);
}

/// Stores the blocks of both lanes, from their words and what stands above those. `shift` moves the pixels up.
template <Store how, bool shifted>
KERNEL_INLINE void storeBlocks(std::uint32_t* pixels, const std::ptrdiff_t* places, Bytes low, Bytes high,
                               unsigned shift)
{
    Bytes left = unpackLow<Words>(low, high);
    Bytes right = unpackHigh<Words>(low, high);
    if constexpr (shifted) {
        left = (Bytes)((Longs)left << shift);
        right = (Bytes)((Longs)right << shift);
    }
    storePixels<how>(pixels + places[0], laneOf<0>(left));
    storePixels<how>(pixels + places[0] + BLOCK / 2, laneOf<0>(right));
    if constexpr (LANES > 1) {
        storePixels<how>(pixels + places[LANE], laneOf<LANES - 1>(left));
        storePixels<how>(pixels + places[LANE] + BLOCK / 2, laneOf<LANES - 1>(right));
    }
}

/// Stores the counts of a block of states, and if there are high ones theirs from bit `position` up.
template <bool both>
KERNEL_INLINE void storeCounts(std::uint32_t* to, ByteLane low, ByteLane high, const std::uint16_t* counts,
                               unsigned position)
{
    std::uint16_t lowStates[BLOCK];
    std::uint16_t highStates[BLOCK];
    store(lowStates, low);
    store(highStates, high);
    for (unsigned i = 0; i < BLOCK; ++i) {
        const std::uint32_t count = counts[lowStates[i]];
        to[i] = both ? count | static_cast<std::uint32_t>(counts[highStates[i]]) << position : count;
    }
}

/// The words of a counter of `planes` planes, block by block.
template <unsigned planes>
KERNEL_INLINE void wordsOfPlanes(Bytes* plane, Bytes* blocks)
{
    constexpr unsigned HIGH = planes > BYTE_PLANES ? planes - BYTE_PLANES : 0;
    transposeBits<(planes < BYTE_PLANES ? planes : BYTE_PLANES)>(plane);
    if constexpr (HIGH > 0)
        transposeBits<HIGH>(plane + BYTE_PLANES);
    else
        for (unsigned k = 0; k < BLOCK; ++k)
            plane[BYTE_PLANES + k] = Bytes{};
    Bytes words[WORD_BLOCKS];
    joinBytes(plane, plane + BYTE_PLANES, words);
    gatherBlocks(words, blocks);
}

/// A stretch of one counter: where it comes from and goes to.
struct Stretch {
    const unsigned char* low;
    const unsigned char* high;
    std::size_t planeStride;
    std::uint32_t* pixels;
    const std::ptrdiff_t* places;
};

/// Decodes one vector of each plane of one counter.
template <unsigned planes, Store how, bool shifted>
KERNEL_INLINE void decodeOne(const Stretch& at, const Mpx3Rows& rows)
{
    Bytes plane[WORD_PLANES];
    Bytes blocks[WORD_BLOCKS];
    if constexpr (planes == ANY_PLANES)
        for (unsigned p = 0; p < WORD_PLANES; ++p)
            plane[p] = p < rows.planes ? load<Bytes>(at.low + (rows.planes - 1 - p) * at.planeStride) : Bytes{};
    else
        loadPlanes<planes>(at.low, at.planeStride, plane);
    wordsOfPlanes<planes>(plane, blocks);
    for (unsigned i = 0; i < WORD_BLOCKS; ++i) {
        if constexpr (how == Store::Count) {
            storeCounts<false>(at.pixels + at.places[i], laneOf<0>(blocks[i]), ByteLane{}, rows.counts, 0);
            if constexpr (LANES > 1)
                storeCounts<false>(at.pixels + at.places[i + LANE], laneOf<LANES - 1>(blocks[i]), ByteLane{},
                                   rows.counts, 0);
        } else {
            storeBlocks<how, shifted>(at.pixels, at.places + i, blocks[i], Bytes{}, rows.position);
        }
    }
}

/// Decodes one vector of each plane of both counters. The planes of a 24-bit count are put together as such, unless the
/// halves are states, each of which has a count of its own.
template <Store how, unsigned position>
KERNEL_INLINE void decodeBoth(const Stretch& at, const Mpx3Rows& rows)
{
    constexpr unsigned HIGH_PLACE = how == Store::Count ? WORD_PLANES : position;
    constexpr unsigned LOW_PLANES = HIGH_PLACE < WORD_PLANES ? WORD_PLANES : COUNTER_PLANES;
    constexpr unsigned HIGH_PLANES = HIGH_PLACE + COUNTER_PLANES - WORD_PLANES;
    Bytes plane[2 * WORD_PLANES];
    Bytes low[WORD_BLOCKS];
    Bytes high[WORD_BLOCKS];
    loadPlanes<COUNTER_PLANES>(at.low, at.planeStride, plane);
    loadPlanes<COUNTER_PLANES>(at.high, at.planeStride, plane + HIGH_PLACE);
    wordsOfPlanes<HIGH_PLANES>(plane + WORD_PLANES, high);
    wordsOfPlanes<LOW_PLANES>(plane, low);
    for (unsigned i = 0; i < WORD_BLOCKS; ++i) {
        if constexpr (how == Store::Count) {
            storeCounts<true>(at.pixels + at.places[i], laneOf<0>(low[i]), laneOf<0>(high[i]), rows.counts, position);
            if constexpr (LANES > 1)
                storeCounts<true>(at.pixels + at.places[i + LANE], laneOf<LANES - 1>(low[i]),
                                  laneOf<LANES - 1>(high[i]), rows.counts, position);
        } else {
            storeBlocks<how, false>(at.pixels, at.places + i, low[i], high[i], 0);
        }
    }
}

/// Walks the rows: whole vectors of their planes, and what is left of a plane through a copy, so that nothing behind it
/// is read and no pixel written that it doesn't have.
template <class Decode>
KERNEL_INLINE void walk(const Mpx3Rows& rows, Decode decode)
{
    const std::size_t whole = rows.planeSize / WIDTH * WIDTH;
    const std::size_t rest = rows.planeSize - whole;
    const std::size_t rowSize = rows.planes * rows.planeSize;
    for (std::size_t r = 0; r < rows.rows; ++r) {
        const unsigned char* low = rows.source + r * rowSize;
        const unsigned char* high = rows.second ? rows.second + r * rowSize : nullptr;
        std::uint32_t* pixels = rows.matrix + static_cast<std::ptrdiff_t>(r) * SIDE;
        for (std::size_t first = 0; first < whole; first += WIDTH)
            decode(Stretch{low + first, high ? high + first : nullptr, rows.planeSize, pixels, rows.blocks + first});
        if (rest == 0)
            continue;
        unsigned char bytes[2][WORD_PLANES][WIDTH] = {};
        std::uint32_t copy[WIDTH * BLOCK];
        std::ptrdiff_t places[WIDTH];
        for (unsigned p = 0; p < rows.planes; ++p) {
            __builtin_memcpy(bytes[0][p], low + p * rows.planeSize + whole, rest);
            if (high)
                __builtin_memcpy(bytes[1][p], high + p * rows.planeSize + whole, rest);
        }
        for (std::size_t i = 0; i < WIDTH; ++i)
            places[i] = static_cast<std::ptrdiff_t>(i * BLOCK);
        for (std::size_t i = 0; i < rest; ++i)
            __builtin_memcpy(copy + i * BLOCK, pixels + rows.blocks[whole + i], BLOCK * sizeof(std::uint32_t));
        decode(Stretch{bytes[0][0], bytes[1][0], WIDTH, copy, places});
        for (std::size_t i = 0; i < rest; ++i)
            __builtin_memcpy(pixels + rows.blocks[whole + i], copy + i * BLOCK, BLOCK * sizeof(std::uint32_t));
    }
}

template <unsigned planes, Store how, bool shifted>
void walkOne(const Mpx3Rows& rows)
{
    walk(rows, [&rows](const Stretch& at) { decodeOne<planes, how, shifted>(at, rows); });
}

template <Store how, unsigned position>
void walkBoth(const Mpx3Rows& rows)
{
    walk(rows, [&rows](const Stretch& at) { decodeBoth<how, position>(at, rows); });
}

template <unsigned planes>
void decodePlanes(const Mpx3Rows& rows)
{
    if (rows.store == Store::Count)
        walkOne<planes, Store::Count, false>(rows);
    else if (rows.store == Store::Or && rows.position == 0)
        walkOne<planes, Store::Or, false>(rows);
    else if (rows.store == Store::Or)
        walkOne<planes, Store::Or, true>(rows);
    else
        walkOne<planes, Store::Replace, false>(rows);
}

void decode(const Mpx3Rows& rows)
{
    if (rows.second && rows.position < WORD_PLANES)
        return (rows.store == Store::Count ? walkBoth<Store::Count, COUNTER_PLANES>
                                           : walkBoth<Store::Replace, COUNTER_PLANES>)(rows);
    if (rows.second)
        return (rows.store == Store::Count ? walkBoth<Store::Count, WORD_PLANES>
                                           : walkBoth<Store::Replace, WORD_PLANES>)(rows);
    switch (rows.planes) {
    case 1:
        return decodePlanes<1>(rows);
    case 6:
        return decodePlanes<6>(rows);
    case COUNTER_PLANES:
        return decodePlanes<COUNTER_PLANES>(rows);
    default:
        return decodePlanes<ANY_PLANES>(rows);
    }
}

/// One counter of the block at `pixels`, as words; `step` pixels further on that of the second lane.
KERNEL_INLINE Bytes loadBlock(const std::uint32_t* pixels, std::ptrdiff_t step, bool high)
{
    Words left = (Words)loadLanes(pixels, pixels + step);
    Words right = (Words)loadLanes(pixels + BLOCK / 2, pixels + BLOCK / 2 + step);
    if (high) {
        left = (Words)((Longs)left >> WORD_PLANES);
        right = (Words)((Longs)right >> WORD_PLANES);
    }
    return (Bytes)evenWords(left, right);
}

void encode(const std::uint32_t* matrix, std::size_t rows, bool high, unsigned char* out)
{
    constexpr std::ptrdiff_t LANE_STEP = -static_cast<std::ptrdiff_t>((LANES - 1) * LANE * BLOCK);
    for (std::size_t r = 0; r < rows; ++r, matrix += SIDE, out += ROW_BYTES)
        for (std::size_t first = 0; first < PLANE_BYTES; first += WIDTH) {
            Bytes blocks[WORD_BLOCKS];
            Bytes planes[WORD_PLANES];
            for (unsigned i = 0; i < WORD_BLOCKS; ++i)
                blocks[i] = loadBlock(matrix + SIDE - BLOCK * (1 + first + i), LANE_STEP, high);
            scatterBlocks(blocks, planes, planes + BYTE_PLANES);
            transposeBits(planes);
            transposeBits(planes + BYTE_PLANES);
            storePlanes<COUNTER_PLANES>(planes, out + first, PLANE_BYTES);
        }
}

} // namespace mpx3
} // namespace
