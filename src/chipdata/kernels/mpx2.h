// Medipix2 matrices: rows of 14 planes of 32 bytes, 16-bit pixels.
#pragma once

#include "chipdata/kernels/kernels.h"
#include "chipdata/kernels/mpx2counter.h"
#include "chipdata/kernels/planes.h"

namespace {
namespace mpx2 {

using kernels::Store;

constexpr unsigned PLANES = 14;
constexpr unsigned HIGH_PLANES = PLANES - BYTE_PLANES;
constexpr std::size_t ROW_BYTES = PLANES * PLANE_BYTES;
constexpr std::size_t ROW_VECTORS = PLANE_BYTES / WIDTH; // of a plane

#ifdef __AVX2__
constexpr bool COUNTS_FROM_PLANES = true;
#else
constexpr bool COUNTS_FROM_PLANES = false;
#endif

/// The planes of pixels to their words, as joinBytes makes them. With `states` they are the planes of states, and the
/// words of counts. The planes are used up.
template <bool states>
KERNEL_INLINE void planesToWords(Bytes* planes, Bytes* words)
{
#ifdef __AVX2__
    if constexpr (states) {
        splitStates(planes);
        transposeBits(planes);
        transposeBits(planes + BYTE_PLANES);
#pragma GCC unroll 8
        for (unsigned k = 0; k < BLOCK; ++k)
            countsOfParts(planes[k], planes[k + BYTE_PLANES], words[k], words[k + BLOCK]);
        return;
    }
#endif
    static_assert(!states || COUNTS_FROM_PLANES);
    transposeBits(planes);
    transposeBits<HIGH_PLANES>(planes + BYTE_PLANES);
    joinBytes(planes, planes + BYTE_PLANES, words);
}

/// The way back, from the bytes of the pixels.
KERNEL_INLINE void bytesToPlanes(Bytes* planes)
{
    transposeBits(planes);
    transposeBits(planes + BYTE_PLANES);
}

template <Store how>
KERNEL_INLINE void storeBlock(std::uint16_t* to, ByteLane block, const std::uint16_t* counts)
{
    if constexpr (how == Store::Count) {
        std::uint16_t states[BLOCK];
        store(states, block);
        for (unsigned i = 0; i < BLOCK; ++i)
            to[i] = counts[states[i]];
    } else {
        if constexpr (how == Store::Add)
            block = (ByteLane)((WordLane)block + load<WordLane>(to));
        store(to, block);
    }
}

/// Decodes one vector of each plane. Pixels are written from the left as far as the places tell, since a processor
/// joins stores to the same line of its cache only if they follow each other.
template <Store how, class To>
KERNEL_INLINE void decodeStretch(const unsigned char* from, std::size_t planeStride, To to, const std::uint16_t* counts)
{
    constexpr bool COUNTED = how == Store::Count && COUNTS_FROM_PLANES;
    constexpr Store HOW = COUNTED ? Store::Replace : how;
    Bytes planes[WORD_PLANES];
    Bytes words[WORD_BLOCKS];
    Bytes blocks[WORD_BLOCKS];
    loadPlanes<PLANES>(from, planeStride, planes);
    planesToWords<COUNTED>(planes, words);
    gatherWords(words, blocks);
    if constexpr (LANES > 1)
        for (unsigned i = LANE; i-- > 0;)
            storeBlock<HOW>(to[i + LANE], laneOf<LANES - 1>(blocks[i]), counts);
    for (unsigned i = LANE; i-- > 0;)
        storeBlock<HOW>(to[i], laneOf<0>(blocks[i]), counts);
}

template <Store how, class To>
KERNEL_INLINE void decodeRowsTo(To to, const kernels::Mpx2Rows& rows)
{
    const std::size_t planeStride = PLANE_BYTES * rows.streams;
    for (std::size_t r = 0; r < rows.rows; ++r)
        for (std::size_t first = 0; first < planeStride; first += WIDTH)
            decodeStretch<how>(rows.source + r * PLANES * planeStride + first, planeStride, to.below(r).behind(first),
                               rows.counts);
}

template <Store how>
void decodeRows(const kernels::Mpx2Rows& rows)
{
    if (rows.streams == 1)
        decodeRowsTo<how>(BlockRun<std::uint16_t>{rows.matrix + rows.blocks[0]}, rows);
    else
        decodeRowsTo<how>(AnyBlocks<std::uint16_t>{rows.matrix, rows.blocks}, rows);
}

void decode(const kernels::Mpx2Rows& rows)
{
    switch (rows.store) {
    case Store::Add:
        return decodeRows<Store::Add>(rows);
    case Store::Count:
        return decodeRows<Store::Count>(rows);
    default:
        return decodeRows<Store::Replace>(rows);
    }
}

/// Encodes the rows from the right, as the planes want them.
void encode(const std::uint16_t* matrix, std::size_t rows, unsigned char* out)
{
    for (std::size_t r = 0; r < rows; ++r, matrix += SIDE, out += ROW_BYTES)
        for (std::size_t first = 0; first < PLANE_BYTES; first += WIDTH) {
            Bytes blocks[WORD_BLOCKS];
            Bytes planes[WORD_PLANES];
            for (unsigned i = 0; i < WORD_BLOCKS; ++i) {
                const std::uint16_t* block = matrix + SIDE - BLOCK * (1 + first + i);
                blocks[i] = loadLanes(block, block - (LANES - 1) * LANE * BLOCK);
            }
            scatterBlocks(blocks, planes, planes + BYTE_PLANES);
            bytesToPlanes(planes);
            storePlanes<PLANES>(planes, out + first, PLANE_BYTES);
        }
}

// In the parallel form bit k of byte 4 * q + t of a plane is pixel 64 * t + 8 * k + 7 - q. Once the bytes are sorted by
// t and the pixels from the left, eight bytes side by side hold eight pixels side by side for each k.

/// Sorts the bytes of a plane: byte 4 * q + t goes to 8 * t + 7 - q.
KERNEL_INLINE void sortPlane(Bytes* plane)
{
#ifdef __AVX2__
    const Bytes inLanes =
        __builtin_shufflevector(plane[0], plane[0], 12, 8, 4, 0, 13, 9, 5, 1, 14, 10, 6, 2, 15, 11, 7, 3, //
                                28, 24, 20, 16, 29, 25, 21, 17, 30, 26, 22, 18, 31, 27, 23, 19);
    plane[0] = (Bytes)__builtin_shufflevector((Longs)inLanes, (Longs)inLanes, 4, 0, 5, 1, 6, 2, 7, 3);
#else
    // Each round moves the topmost of the number's five bits to the other end, and turns it over.
    for (unsigned round = 0; round < 3; ++round) {
        const Bytes first = plane[0];
        plane[0] = unpackLow<Bytes>(plane[1], first);
        plane[1] = unpackHigh<Bytes>(plane[1], first);
    }
#endif
}

/// The way back.
KERNEL_INLINE void unsortPlane(Bytes* plane)
{
#ifdef __AVX2__
    const Bytes sorted = (Bytes)__builtin_shufflevector((Longs)plane[0], (Longs)plane[0], 1, 3, 5, 7, 0, 2, 4, 6);
    plane[0] = __builtin_shufflevector(sorted, sorted, 3, 7, 11, 15, 2, 6, 10, 14, 1, 5, 9, 13, 0, 4, 8, 12, //
                                       19, 23, 27, 31, 18, 22, 26, 30, 17, 21, 25, 29, 16, 20, 24, 28);
#else
    for (unsigned round = 0; round < 2; ++round) {
        const Bytes first = plane[0];
        plane[0] = unpackLow<Bytes>(first, plane[1]);
        plane[1] = unpackHigh<Bytes>(first, plane[1]);
    }
    const Bytes first = plane[0];
    plane[0] = (Bytes)__builtin_shufflevector((Longs)plane[1], (Longs)plane[1], 3, 2, 1, 0);
    plane[1] = (Bytes)__builtin_shufflevector((Longs)first, (Longs)first, 3, 2, 1, 0);
#endif
}

/// Where the pixels of t are in a row, for the lanes of vector `vector` of a sorted plane: lane l has t from 2 * l on.
constexpr std::size_t T_PIXELS = 64;
constexpr std::size_t leftOf(std::size_t vector, std::size_t lane)
{
    return 2 * T_PIXELS * (vector * LANES + lane);
}

void decodeParallel(const unsigned char* source, std::size_t rows, std::uint16_t* matrix)
{
    for (std::size_t r = 0; r < rows; ++r, source += ROW_BYTES, matrix += SIDE) {
        Bytes planes[ROW_VECTORS][WORD_PLANES];
        for (unsigned p = 0; p < PLANES; ++p) {
            Bytes plane[ROW_VECTORS];
            for (std::size_t v = 0; v < ROW_VECTORS; ++v)
                plane[v] = load<Bytes>(source + (PLANES - 1 - p) * PLANE_BYTES + v * WIDTH);
            sortPlane(plane);
            for (std::size_t v = 0; v < ROW_VECTORS; ++v)
                planes[v][p] = plane[v];
        }
        for (std::size_t v = 0; v < ROW_VECTORS; ++v) {
            Bytes words[WORD_BLOCKS];
            planesToWords<false>(planes[v], words);
            for (unsigned k = 0; k < WORD_BLOCKS; ++k) {
                std::uint16_t* to = matrix + k / BLOCK * T_PIXELS + k % BLOCK * BLOCK;
                store(to + leftOf(v, 0), laneOf<0>(words[k]));
                if constexpr (LANES > 1)
                    store(to + leftOf(v, 1), laneOf<LANES - 1>(words[k]));
            }
        }
    }
}

void encodeParallel(const std::uint16_t* matrix, std::size_t rows, unsigned char* out)
{
    for (std::size_t r = 0; r < rows; ++r, matrix += SIDE, out += ROW_BYTES) {
        Bytes planes[ROW_VECTORS][WORD_PLANES];
        for (std::size_t v = 0; v < ROW_VECTORS; ++v) {
            for (unsigned k = 0; k < BLOCK; ++k) {
                const std::uint16_t* from = matrix + k * BLOCK + leftOf(v, 0);
                const Bytes first = loadLanes(from, from + leftOf(0, 1));
                const Bytes second = loadLanes(from + T_PIXELS, from + T_PIXELS + leftOf(0, 1));
                planes[v][k] = evenBytes(first, second);
                planes[v][k + BYTE_PLANES] = evenBytes((Bytes)((Words)first >> 8), (Bytes)((Words)second >> 8));
            }
            bytesToPlanes(planes[v]);
        }
        for (unsigned p = 0; p < PLANES; ++p) {
            Bytes plane[ROW_VECTORS];
            for (std::size_t v = 0; v < ROW_VECTORS; ++v)
                plane[v] = planes[v][p];
            unsortPlane(plane);
            for (std::size_t v = 0; v < ROW_VECTORS; ++v)
                store(out + (PLANES - 1 - p) * PLANE_BYTES + v * WIDTH, plane[v]);
        }
    }
}

} // namespace mpx2
} // namespace
