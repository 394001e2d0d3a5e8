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

/// Stores vectors of pixels with the words of two blocks, lane by lane: `low` below `high`, with `finish` done to each
/// vector before. Of four vectors those that are side by side go one after the other.
template <Store how, class To, class Finish>
KERNEL_INLINE void storeWords(const Bytes* low, const Bytes* high, To to, Finish finish)
{
    constexpr std::size_t HALF = BLOCK / 2;
    for (std::size_t i = WORD_BLOCKS; i > 0; i -= 2) {
        Longs pixels[2][2]; // of blocks i - 1 and i - 2: those of both lanes, or both halves
        for (std::size_t b = 0; b < 2; ++b) {
            const Bytes lowWords = lanesApart(low[i - 1 - b]);
            const Bytes highWords = high ? lanesApart(high[i - 1 - b]) : Bytes{};
            pixels[b][0] = finish((Longs)unpackLow<Words>(lowWords, highWords));
            pixels[b][1] = finish((Longs)unpackHigh<Words>(lowWords, highWords));
        }
        if constexpr (LANES > 1) {
            for (std::size_t lane = LANES; lane-- > 0;)
                for (std::size_t b = 0; b < 2; ++b)
                    storePixels<how>(to[i - 1 - b + lane * LANE], pixels[b][lane]);
        } else {
            for (std::size_t b = 0; b < 2; ++b)
                for (std::size_t half = 0; half < 2; ++half)
                    storePixels<how>(to[i - 1 - b] + half * HALF, pixels[b][half]);
        }
    }
}

/// Stores a block of bytes in bits `shift` up.
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
    const Bytes words = unpackLow<Bytes>((Bytes)block, Bytes{});
    Longs left = (Longs)unpackLow<Words>(words, Bytes{});
    Longs right = (Longs)unpackHigh<Words>(words, Bytes{});
    if constexpr (shifted) {
        left <<= shift;
        right <<= shift;
    }
    storePixels<how>(to, left);
    storePixels<how>(to + BLOCK / 2, right);
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

/// A stretch of the planes, one vector of each: where it comes from and goes to.
template <class To>
struct Stretch {
    const unsigned char* low;
    const unsigned char* high;
    std::size_t planeStride;
    To to;
};

/// Decodes one vector of each plane of a counter that fits into bytes.
template <unsigned planes, Store how, bool shifted, class To>
KERNEL_INLINE void decodeBytes(const Stretch<To>& at, const Mpx3Rows& rows)
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
        std::uint32_t* to = at.to[i + lane * LANE];
        if constexpr (HOW == Store::Count)
            for (unsigned k = 0; k < BLOCK; ++k)
                to[k] = rows.counts[from[k]];
        else
            storeBytes<HOW, shifted>(to, from, rows.position);
    });
}

/// Decodes one vector of each plane of one counter.
template <unsigned planes, Store how, bool shifted, class To>
KERNEL_INLINE void decodeOne(const Stretch<To>& at, const Mpx3Rows& rows)
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
    if constexpr (HOW == Store::Count)
        forEachBlock([&]<std::size_t lane>(unsigned i) KERNEL_LAMBDA {
            storeCounts<false>(at.to[i + lane * LANE], laneOf<lane>(blocks[i]), ByteLane{}, rows.counts, 0);
        });
    else
        storeWords<HOW>(blocks, nullptr, at.to,
                        [&](Longs pixels) KERNEL_LAMBDA { return shifted ? pixels << rows.position : pixels; });
}

/// Decodes one vector of each plane of both counters. The planes of a 24-bit count are put together as such, unless the
/// halves are states, each of which has a count of its own.
template <Store how, unsigned position, class To>
KERNEL_INLINE void decodeBoth(const Stretch<To>& at, const Mpx3Rows& rows)
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
    if constexpr (how == Store::Count && !COUNTED)
        forEachBlock([&]<std::size_t lane>(unsigned i) KERNEL_LAMBDA {
            storeCounts<true>(at.to[i + lane * LANE], laneOf<lane>(low[i]), laneOf<lane>(high[i]), rows.counts,
                              position);
        });
    else
        storeWords<Store::Replace>(low, high, at.to, [](Longs pixels) KERNEL_LAMBDA {
            // High counts go from their half down to their place; the halves of values are in place already.
            return COUNTED && position < WORD_PLANES ? (pixels & 0xFFFF) | (pixels >> WORD_PLANES << position) : pixels;
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
            decode(Stretch<To>{low[0], high[0], WIDTH, To{rows.matrix, places}.below(r)});
        }
    }

private:
    using To = AnyBlocks<std::uint32_t>;

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

/// Decodes the whole vectors of the rows' planes.
template <class To, class Decode>
KERNEL_INLINE void decodeWhole(To to, const Mpx3Rows& rows, Decode decode)
{
    const std::size_t rowSize = rows.planes * rows.planeSize;
    for (std::size_t r = 0; r < rows.rows; ++r)
        for (std::size_t end = WIDTH; end <= rows.planeSize; end += WIDTH) {
            const std::size_t first = end - WIDTH;
            const std::size_t from = r * rowSize + first;
            decode(Stretch<To>{rows.source + from, rows.second ? rows.second + from : nullptr, rows.planeSize,
                               to.below(r).behind(first)});
        }
}

/// Walks the rows: the whole vectors of their planes, and then what is left of them.
template <class Decode>
KERNEL_INLINE void walk(const Mpx3Rows& rows, Decode decode)
{
    if (rows.channels == 1)
        decodeWhole(BlockRun<std::uint32_t>{rows.matrix + rows.blocks[0]}, rows, decode);
    else
        decodeWhole(AnyBlocks<std::uint32_t>{rows.matrix, rows.blocks}, rows, decode);
    Rests(rows).decodeAll(decode);
}

/// Stores eight pixels, those of the bits of each element of `bits` from `first` on, in bits `shift` up.
template <Store how, bool shifted>
KERNEL_INLINE void storeBits(std::uint32_t* to, Longs bits, unsigned first, unsigned shift)
{
    const auto storePart = [&](unsigned part) KERNEL_LAMBDA {
        const Longs pixels = testBits(bits, first + part);
        storePixels<how>(to + part, shifted ? pixels << shift : pixels);
    };
    storePart(0);
    if constexpr (COUNT<Longs> < BLOCK)
        storePart(COUNT<Longs>);
}

/// Decodes rows of a single plane, channel after channel, so many blocks at a time: four where their bytes are side by
/// side, one where channels are interleaved.
template <Store how, bool shifted, unsigned together>
void walkBits(const Mpx3Rows& rows)
{
    using Together = std::conditional_t<together == 4, std::uint32_t, std::uint8_t>;
    const std::size_t channels = rows.channels;
    const std::size_t blocks = rows.planeSize / channels;
    for (std::size_t r = 0; r < rows.rows; ++r)
        for (std::size_t channel = 0; channel < channels; ++channel) {
            const unsigned char* from = rows.source + r * rows.planeSize + channel;
            const auto row = BlockRun<std::uint32_t>{rows.matrix + rows.blocks[channel]}.below(r);
            for (std::size_t end = blocks; end > 0; end -= together) {
                const auto to = row.behind(end - together);
                const Longs bits = Longs{} + load<Together>(from + (end - together) * channels);
#pragma GCC unroll 4
                for (unsigned block = together; block > 0; --block)
                    storeBits<how, shifted>(to[block - 1], bits, (block - 1) * BYTE_PLANES, rows.position);
            }
        }
}

template <unsigned planes, Store how, bool shifted>
void walkOne(const Mpx3Rows& rows)
{
    walk(rows, [&rows](const auto& at) {
        if constexpr (planes <= BYTE_PLANES)
            decodeBytes<planes, how, shifted>(at, rows);
        else
            decodeOne<planes, how, shifted>(at, rows);
    });
}

template <Store how, unsigned position>
void walkBoth(const Mpx3Rows& rows)
{
    walk(rows, [&rows](const auto& at) { decodeBoth<how, position>(at, rows); });
}

template <unsigned planes, Store how, bool shifted>
void walkPlanes(const Mpx3Rows& rows)
{
    if constexpr (planes == 1 && how != Store::Count)
        (rows.channels == 1 ? walkBits<how, shifted, 4> : walkBits<how, shifted, 1>)(rows);
    else
        walkOne<planes, how, shifted>(rows);
}

template <unsigned planes>
void decodePlanes(const Mpx3Rows& rows)
{
    if (rows.store == Store::Count)
        walkPlanes<planes, Store::Count, false>(rows);
    else if (rows.store == Store::Or && rows.position == 0)
        walkPlanes<planes, Store::Or, false>(rows);
    else if (rows.store == Store::Or)
        walkPlanes<planes, Store::Or, true>(rows);
    else
        walkPlanes<planes, Store::Replace, false>(rows);
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

/// One counter of the block at `pixels`, as words of pixels 0, 4, 1, 5, 2, 6, 3 and 7; `step` pixels further on that of
/// the second lane.
template <bool high>
KERNEL_INLINE Bytes loadBlock(const std::uint32_t* pixels, std::ptrdiff_t step)
{
    const Longs left = (Longs)loadLanes(pixels, pixels + step);
    const Longs right = (Longs)loadLanes(pixels + BLOCK / 2, pixels + BLOCK / 2 + step);
    if constexpr (high)
        return alternateWords((Bytes)(left >> WORD_PLANES), (Bytes)right);
    else
        return alternateWords((Bytes)left, (Bytes)(right << WORD_PLANES));
}

/// Puts bytes of the pixels into the order of the pixels again.
KERNEL_INLINE void sortPixels(Bytes* k)
{
    const Bytes from[BLOCK] = {k[0], k[1], k[2], k[3], k[4], k[5], k[6], k[7]};
    for (unsigned i = 0; i < BLOCK; ++i)
        k[i / 2 + i % 2 * (BLOCK / 2)] = from[i];
}

template <bool high>
void encodeCounter(const std::uint32_t* matrix, std::size_t rows, unsigned char* out)
{
    constexpr std::ptrdiff_t LANE_STEP = -static_cast<std::ptrdiff_t>((LANES - 1) * LANE * BLOCK);
    for (std::size_t r = 0; r < rows; ++r, matrix += SIDE, out += ROW_BYTES)
        for (std::size_t first = 0; first < PLANE_BYTES; first += WIDTH) {
            Bytes blocks[WORD_BLOCKS];
            Bytes planes[WORD_PLANES];
            for (unsigned i = 0; i < WORD_BLOCKS; ++i)
                blocks[i] = loadBlock<high>(matrix + SIDE - BLOCK * (1 + first + i), LANE_STEP);
            scatterBlocks(blocks, planes, planes + BYTE_PLANES);
            sortPixels(planes);
            sortPixels(planes + BYTE_PLANES);
            transposeBits(planes);
            transposeBits(planes + BYTE_PLANES);
            storePlanes<COUNTER_PLANES>(planes, out + first, PLANE_BYTES);
        }
}

void encode(const std::uint32_t* matrix, std::size_t rows, bool high, unsigned char* out)
{
    (high ? encodeCounter<true> : encodeCounter<false>)(matrix, rows, out);
}

} // namespace mpx3
} // namespace
