// The vectors that the kernels work on: as wide as the registers of the instruction set that the file is compiled for.
// They are the compiler's own vectors, so that the same source serves every processor; the few operations that only x86
// has a single instruction for are spelled out below.
//
// All that is in the kernels' headers has internal linkage: each instruction set gets a copy of its own, and the linker
// can't put one set's code into the other's place. For the same reason they use nothing of the standard library that
// leaves code behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#ifdef __SSE2__
#include <immintrin.h>
#endif

#define KERNEL_INLINE [[gnu::always_inline]] inline
#define KERNEL_LAMBDA __attribute__((always_inline)) // behind the parameters

namespace {

#ifdef __AVX2__
constexpr std::size_t WIDTH = 32; // bytes of a vector
#else
constexpr std::size_t WIDTH = 16;
#endif
constexpr std::size_t LANE = 16; // bytes of the lanes that unpacking stays within
constexpr std::size_t LANES = WIDTH / LANE;

using Bytes [[gnu::vector_size(WIDTH)]] = std::uint8_t;
using Words [[gnu::vector_size(WIDTH)]] = std::uint16_t;
using Longs [[gnu::vector_size(WIDTH)]] = std::uint32_t;
using Quads [[gnu::vector_size(WIDTH)]] = std::uint64_t;
using ByteLane [[gnu::vector_size(LANE)]] = std::uint8_t;
using WordLane [[gnu::vector_size(LANE)]] = std::uint16_t;

template <class V>
KERNEL_INLINE V load(const void* from)
{
    V value;
    __builtin_memcpy(&value, from, sizeof(V));
    return value;
}

template <class V>
KERNEL_INLINE void store(void* to, V value)
{
    __builtin_memcpy(to, &value, sizeof(V));
}

template <class V>
constexpr unsigned COUNT = sizeof(V) / sizeof(V{}[0]);

/// Element `i` of unpack<high>: the elements of a lane's half are taken from the two vectors in turn.
template <class V, bool high>
constexpr int unpackIndex(std::size_t i)
{
    constexpr std::size_t PER_LANE = LANE / sizeof(V{}[0]);
    const std::size_t within = i % PER_LANE;
    return static_cast<int>(i - within + (high ? PER_LANE / 2 : 0) + within / 2 + (within % 2 ? COUNT<V> : 0));
}

template <class V, bool high, std::size_t... i>
KERNEL_INLINE V unpackWith(V a, V b, std::index_sequence<i...>)
{
    return __builtin_shufflevector(a, b, unpackIndex<V, high>(i)...);
}

/// The lower halves of both vectors' lanes, element by element in turn, as vectors of V see the elements.
template <class V>
KERNEL_INLINE Bytes unpackLow(Bytes a, Bytes b)
{
    return (Bytes)unpackWith<V, false>((V)a, (V)b, std::make_index_sequence<COUNT<V>>{});
}

/// The same for the upper halves.
template <class V>
KERNEL_INLINE Bytes unpackHigh(Bytes a, Bytes b)
{
    return (Bytes)unpackWith<V, true>((V)a, (V)b, std::make_index_sequence<COUNT<V>>{});
}

/// Lane number `lane` of a vector.
template <std::size_t lane>
KERNEL_INLINE ByteLane laneOf(Bytes v)
{
    static_assert(lane < LANES);
#ifdef __AVX2__
    return (ByteLane)_mm256_extracti128_si256((__m256i)v, lane);
#else
    return v;
#endif
}

/// A vector's quarters so ordered that unpackLow takes from what was lane 0, and unpackHigh from what was lane 1. Of a
/// vector of one lane they take its halves as it is.
KERNEL_INLINE Bytes lanesApart(Bytes v)
{
#ifdef __AVX2__
    return (Bytes)__builtin_shufflevector((Quads)v, (Quads)v, 0, 2, 1, 3);
#else
    return v;
#endif
}

/// Element i is bit `first` + i of the vector's element i.
KERNEL_INLINE Longs testBits(Longs v, unsigned first)
{
#ifdef __AVX2__
    constexpr Longs PLACES = {0, 1, 2, 3, 4, 5, 6, 7};
    return (v >> (PLACES + first)) & 1;
#else
    constexpr Longs PLACES = {1, 2, 4, 8};
    const Longs masks = PLACES << first;
    return (Longs)((v & masks) == masks) & 1;
#endif
}

/// A vector from the 16 bytes at each of the addresses `low` and `high`; a vector of one lane takes `low` alone.
KERNEL_INLINE Bytes loadLanes(const void* low, [[maybe_unused]] const void* high)
{
#ifdef __AVX2__
    return (Bytes)_mm256_loadu2_m128i((const __m128i*)high, (const __m128i*)low);
#else
    return load<Bytes>(low);
#endif
}

#ifdef __AVX2__

/// A table of `16 * rows` bytes that a vector of indexes is looked up in. The instruction takes an index of four bits
/// and gives 0 where the index's bit 7 is set. So row r holds what it has to change in row r - 1, and is looked up with
/// the index less 16 * r: the changes up to the index's own row add up, and the rows behind it give 0.
template <std::size_t rows>
struct ByteTable {
    alignas(WIDTH) std::uint8_t change[rows][WIDTH];

    /// From the table's values, `16 * rows` of them.
    constexpr explicit ByteTable(const std::uint8_t* values) : change{}
    {
        for (std::size_t row = 0; row < rows; ++row)
            for (std::size_t i = 0; i < WIDTH; ++i) {
                const unsigned before = row > 0 ? values[(row - 1) * LANE + i % LANE] : 0U;
                change[row][i] = static_cast<std::uint8_t>(values[row * LANE + i % LANE] ^ before);
            }
    }
};

/// The elements of a table of 16 whose numbers are in the low four bits of `index`; 0 where bit 7 is set.
KERNEL_INLINE Bytes lookup16(const std::uint8_t* table, Bytes index)
{
    return (Bytes)_mm256_shuffle_epi8((__m256i)load<Bytes>(table), (__m256i)index);
}

/// The elements of a table whose numbers are `index`, all below 16 * rows and that at most 128.
template <std::size_t rows>
KERNEL_INLINE Bytes lookup(const ByteTable<rows>& table, Bytes index)
{
    static_assert(rows <= 8);
    Bytes found = lookup16(table.change[0], index);
    for (std::size_t row = 1; row < rows; ++row) {
        index -= static_cast<std::uint8_t>(LANE);
        found ^= lookup16(table.change[row], index);
    }
    return found;
}

/// The even bytes times `even` plus the odd ones times `odd`, as words; both factors are below 128 and the sums below
/// 32768.
KERNEL_INLINE Words multiplyAdd(Bytes bytes, unsigned even, unsigned odd)
{
    return (Words)_mm256_maddubs_epi16((__m256i)bytes, _mm256_set1_epi16(static_cast<short>(odd << 8 | even)));
}

#endif

/// The even bytes of two vectors, lane by lane, those of `a` in the lower halves of the lanes.
KERNEL_INLINE Bytes evenBytes(Bytes a, Bytes b)
{
#ifdef __AVX2__
    const Words mask = Words{} + static_cast<std::uint16_t>(0xFF);
    return (Bytes)_mm256_packus_epi16((__m256i)((Words)a & mask), (__m256i)((Words)b & mask));
#elif defined(__SSE2__)
    const Words mask = Words{} + static_cast<std::uint16_t>(0xFF);
    return (Bytes)_mm_packus_epi16((__m128i)((Words)a & mask), (__m128i)((Words)b & mask));
#else
    return __builtin_shufflevector(a, b, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
#endif
}

/// The even 16-bit words of one vector, the odd ones of another.
KERNEL_INLINE Bytes alternateWords(Bytes even, Bytes odd)
{
#ifdef __AVX2__
    return (Bytes)_mm256_blend_epi16((__m256i)even, (__m256i)odd, 0xAA);
#else
    return (Bytes)(((Longs)even & 0xFFFFU) | ((Longs)odd & 0xFFFF0000U));
#endif
}

/// The smaller of both for each element.
template <class V>
KERNEL_INLINE V smaller(V a, V b)
{
    return a < b ? a : b;
}

} // namespace
