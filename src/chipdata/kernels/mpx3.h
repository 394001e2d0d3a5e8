// Medipix3 matrices: rows of planes of one or of both counters, 32-bit pixels.
#pragma once

#include "chipdata/kernels/kernels.h"
#include "chipdata/kernels/mpx3counter.h"
#include "chipdata/kernels/planes.h"

namespace {
namespace mpx3 {

using kernels::Mpx3Rows;
using kernels::Store;

constexpr unsigned COUNTER_PLANES = 12;
constexpr unsigned ANY_PLANES = WORD_PLANES; // a kernel for as many planes as the rows have
constexpr std::size_t ROW_BYTES = COUNTER_PLANES * PLANE_BYTES;

/// Stores a part of a block.
template <Store how, class V>
KERNEL_INLINE void storePixels(std::uint32_t* to, V pixels)
{
    if constexpr (how == Store::Or)
        pixels |= load<V>(to);
    store(to, pixels);
}

/// Stores a block of words in bits `shift` up.
template <Store how, bool shifted>
KERNEL_INLINE void storeWords(std::uint32_t* to, ByteLane words, unsigned shift)
{
#ifdef __AVX2__
    Longs pixels = (Longs)_mm256_cvtepu16_epi32((__m128i)words);
    if constexpr (shifted)
        pixels <<= shift;
    storePixels<how>(to, pixels);
#else
    LongLane left = (LongLane)unpackLow<Words>(words, Bytes{});
    LongLane right = (LongLane)unpackHigh<Words>(words, Bytes{});
    if constexpr (shifted) {
        left <<= shift;
        right <<= shift;
    }
    storePixels<how>(to, left);
    storePixels<how>(to + BLOCK / 2, right);
#endif
}

/// The same for a block of bytes.
template <Store how, bool shifted>
KERNEL_INLINE void storeBytes(std::uint32_t* to, const unsigned char* bytes, unsigned shift)
{
#ifdef __AVX2__
    Longs pixels = (Longs)_mm256_cvtepu8_epi32(_mm_loadl_epi64((const __m128i*)bytes));
    if constexpr (shifted)
        pixels <<= shift;
    storePixels<how>(to, pixels);
#else
    const Quads block = {load<std::uint64_t>(bytes)};
    storeWords<how, shifted>(to, unpackLow<Bytes>((Bytes)block, Bytes{}), shift);
#endif
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

/// Calls `visit` for the block in each lane of vectors that have one block in a lane. Pixels are written from the left
/// as far as the places tell, since a processor joins stores to the same line of its cache only if they follow each
/// other.
template <class Visit>
KERNEL_INLINE void forEachBlock(Visit visit)
{
    if constexpr (LANES > 1)
        for (unsigned i = WORD_BLOCKS; i-- > 0;)
            visit.template operator()<LANES - 1>(i);
    for (unsigned i = WORD_BLOCKS; i-- > 0;)
        visit.template operator()<0>(i);
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
    gatherWords(words, blocks);
}

#ifdef __AVX2__
constexpr bool COUNTS_FROM_PLANES = true;
#else
constexpr bool COUNTS_FROM_PLANES = false;
#endif

/// wordsOfPlanes from the planes of 12-bit states to the words of counts.
KERNEL_INLINE void countsOfPlanes([[maybe_unused]] Bytes* plane, [[maybe_unused]] Bytes* blocks)
{
#ifdef __AVX2__
    Bytes parts[2 * BYTE_PLANES];
    Bytes words[WORD_BLOCKS];
    splitStates(plane, parts);
    transposeBits<PART_BITS>(parts);
    transposeBits<PART_BITS>(parts + BYTE_PLANES);
#pragma GCC unroll 8
    for (unsigned k = 0; k < BLOCK; ++k)
        countsOfParts(parts[k], parts[k + BYTE_PLANES], words[k], words[k + BLOCK]);
    gatherWords(words, blocks);
#endif
}

/// A stretch of one counter: where it comes from and goes to.
struct Stretch {
    const unsigned char* low;
    const unsigned char* high;
    std::size_t planeStride;
    std::uint32_t* pixels;
    const std::ptrdiff_t* places;
};

/// Decodes one vector of each plane of a counter that fits into bytes.
template <unsigned planes, Store how, bool shifted>
KERNEL_INLINE void decodeBytes(const Stretch& at, const Mpx3Rows& rows)
{
    Bytes plane[BYTE_PLANES];
    Bytes pairs[BYTE_PLANES]; // of blocks
    loadPlanes<planes>(at.low, at.planeStride, plane);
    transposeBits<planes>(plane);
    constexpr bool COUNTED = how == Store::Count && planes == 6 && COUNTS_FROM_PLANES;
    constexpr Store HOW = COUNTED ? Store::Replace : how;
#ifdef __AVX2__
    if constexpr (COUNTED)
        for (unsigned k = 0; k < BLOCK; ++k)
            plane[k] = lookup(SIX_BIT_COUNTS, plane[k]);
#endif
    gatherPixels<Bytes, Words, Longs>(plane, pairs);
    unsigned char pixels[BYTE_PLANES][WIDTH];
    for (unsigned i = 0; i < BYTE_PLANES; ++i)
        store(pixels[i], pairs[i]);
    forEachBlock([&]<std::size_t lane>(unsigned i) KERNEL_LAMBDA {
        const unsigned char* from = &pixels[i / 2][lane * LANE + i % 2 * BLOCK];
        std::uint32_t* to = at.pixels + at.places[i + lane * LANE];
        if constexpr (HOW == Store::Count)
            for (unsigned k = 0; k < BLOCK; ++k)
                to[k] = rows.counts[from[k]];
        else
            storeBytes<HOW, shifted>(to, from, rows.position);
    });
}

/// Decodes one vector of each plane of one counter.
template <unsigned planes, Store how, bool shifted>
KERNEL_INLINE void decodeOne(const Stretch& at, const Mpx3Rows& rows)
{
    constexpr bool COUNTED = how == Store::Count && planes == COUNTER_PLANES && COUNTS_FROM_PLANES;
    constexpr Store HOW = COUNTED ? Store::Replace : how;
    Bytes plane[WORD_PLANES];
    Bytes blocks[WORD_BLOCKS];
    if constexpr (planes == ANY_PLANES)
        for (unsigned p = 0; p < WORD_PLANES; ++p)
            plane[p] = p < rows.planes ? load<Bytes>(at.low + (rows.planes - 1 - p) * at.planeStride) : Bytes{};
    else
        loadPlanes<planes>(at.low, at.planeStride, plane);
    if constexpr (COUNTED)
        countsOfPlanes(plane, blocks);
    else
        wordsOfPlanes<planes>(plane, blocks);
    forEachBlock([&]<std::size_t lane>(unsigned i) KERNEL_LAMBDA {
        std::uint32_t* to = at.pixels + at.places[i + lane * LANE];
        if constexpr (HOW == Store::Count)
            storeCounts<false>(to, laneOf<lane>(blocks[i]), ByteLane{}, rows.counts, 0);
        else
            storeWords<HOW, shifted>(to, laneOf<lane>(blocks[i]), rows.position);
    });
}

/// Two words, or their half-vectors, put together to pixels: the high one from bit `position` up.
template <unsigned position>
KERNEL_INLINE Bytes joinWords(Bytes joined)
{
    if constexpr (position == WORD_PLANES)
        return joined;
    const Longs pixels = (Longs)joined;
    return (Bytes)((pixels & 0xFFFF) | (pixels >> WORD_PLANES << position));
}

/// Decodes one vector of each plane of both counters. The planes of a 24-bit count are put together as such, unless the
/// halves are states, each of which has a count of its own.
template <Store how, unsigned position>
KERNEL_INLINE void decodeBoth(const Stretch& at, const Mpx3Rows& rows)
{
    constexpr unsigned HIGH_PLACE = how == Store::Count ? WORD_PLANES : position;
    constexpr unsigned LOW_PLANES = HIGH_PLACE < WORD_PLANES ? WORD_PLANES : COUNTER_PLANES;
    constexpr unsigned HIGH_PLANES = HIGH_PLACE + COUNTER_PLANES - WORD_PLANES;
    constexpr bool COUNTED = how == Store::Count && COUNTS_FROM_PLANES;
    Bytes plane[2 * WORD_PLANES];
    Bytes low[WORD_BLOCKS];
    Bytes high[WORD_BLOCKS];
    loadPlanes<COUNTER_PLANES>(at.low, at.planeStride, plane);
    loadPlanes<COUNTER_PLANES>(at.high, at.planeStride, plane + HIGH_PLACE);
    if constexpr (COUNTED) {
        countsOfPlanes(plane + WORD_PLANES, high);
        countsOfPlanes(plane, low);
    } else {
        wordsOfPlanes<HIGH_PLANES>(plane + WORD_PLANES, high);
        wordsOfPlanes<LOW_PLANES>(plane, low);
    }
    forEachBlock([&]<std::size_t lane>(unsigned i) KERNEL_LAMBDA {
        std::uint32_t* to = at.pixels + at.places[i + lane * LANE];
        if constexpr (how == Store::Count && !COUNTED) {
            storeCounts<true>(to, laneOf<lane>(low[i]), laneOf<lane>(high[i]), rows.counts, position);
        } else {
            constexpr unsigned SHIFT = COUNTED ? position : WORD_PLANES;
            storePixels<Store::Replace>(to, laneOf<lane>(joinWords<SHIFT>(unpackLow<Words>(low[i], high[i]))));
            storePixels<Store::Replace>(to + BLOCK / 2,
                                        laneOf<lane>(joinWords<SHIFT>(unpackHigh<Words>(low[i], high[i]))));
        }
    });
}

/// Bytes of a plane that no whole vector takes, of as many rows as one vector has room for: side by side, plane by
/// plane. The room behind them repeats the first byte with its place, so that writing its pixels again changes nothing.
class Rests {
public:
    explicit Rests(const Mpx3Rows& from)
        : rows(from),
          whole(from.planeSize / WIDTH * WIDTH),
          rest(from.planeSize - whole),
          together(rest > 0 ? WIDTH / rest : 0)
    {
    }

    /// Decodes those of all rows.
    template <class Decode>
    KERNEL_INLINE void decodeAll(Decode decode)
    {
        for (std::size_t r = 0; together > 0 && r < rows.rows; r += together) {
            const std::size_t count = rows.rows - r < together ? rows.rows - r : together;
            if (r == 0 || count < together)
                findPlaces(count);
            copyPlanes(rows.source, r, count, low);
            if (rows.second)
                copyPlanes(rows.second, r, count, high);
            decode(Stretch{low[0], high[0], WIDTH, rows.matrix + static_cast<std::ptrdiff_t>(r) * SIDE, places});
        }
    }

private:
    const Mpx3Rows& rows;
    std::size_t whole;
    std::size_t rest;
    std::size_t together; ///< rows whose rests share a vector
    unsigned char low[WORD_PLANES][WIDTH];
    unsigned char high[WORD_PLANES][WIDTH];
    std::ptrdiff_t places[WIDTH];

    void findPlaces(std::size_t count)
    {
        for (std::size_t i = 0; i < WIDTH; ++i)
            places[i] = i < count * rest ? rows.blocks[whole + i % rest] + static_cast<std::ptrdiff_t>(i / rest) * SIDE
                                         : rows.blocks[whole];
    }

    void copyPlanes(const unsigned char* source, std::size_t firstRow, std::size_t count,
                    unsigned char (&to)[WORD_PLANES][WIDTH])
    {
        constexpr std::size_t STEP = 4; // the least that a channel's plane has
        for (std::size_t p = 0; p < rows.planes; ++p) {
            for (std::size_t r = 0; r < count; ++r) {
                const unsigned char* from = source + ((firstRow + r) * rows.planes + p) * rows.planeSize + whole;
                for (std::size_t i = 0; i < rest; i += STEP)
                    __builtin_memcpy(to[p] + r * rest + i, from + i, STEP);
            }
            for (std::size_t i = count * rest; i < WIDTH; ++i)
                to[p][i] = to[p][0];
        }
    }
};

/// Walks the rows: the whole vectors of their planes, and then what is left of them.
template <class Decode>
KERNEL_INLINE void walk(const Mpx3Rows& rows, Decode decode)
{
    const std::size_t rowSize = rows.planes * rows.planeSize;
    Stretch row{rows.source, rows.second, rows.planeSize, rows.matrix, rows.blocks};
    for (std::size_t r = 0; r < rows.rows; ++r) {
        for (std::size_t end = WIDTH; end <= rows.planeSize; end += WIDTH) {
            const std::size_t first = end - WIDTH;
            decode(Stretch{row.low + first, row.high ? row.high + first : nullptr, row.planeStride, row.pixels,
                           row.places + first});
        }
        row.low += rowSize;
        row.high += row.high ? rowSize : 0;
        row.pixels += SIDE;
    }
    Rests(rows).decodeAll(decode);
}

template <unsigned planes, Store how, bool shifted>
void walkOne(const Mpx3Rows& rows)
{
    walk(rows, [&rows](const Stretch& at) {
        if constexpr (planes <= BYTE_PLANES)
            decodeBytes<planes, how, shifted>(at, rows);
        else
            decodeOne<planes, how, shifted>(at, rows);
    });
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
