// The Medipix3 counter code in vectors.
//
// Its zero aside, the 12-bit counter steps through the 4095 other states as powers of a number of the field of 4096
// elements: count c is the power c - 1. The field has one of 64 elements within it, whose 63 powers are the steps of
// 65, and is a plane over it: a state is a pair (a, b) of elements of the small field, and a step of 65 multiplies both
// by the same one. So the quotient a / b tells the count modulo 65, and b, or a, how many times 65 are in it.
// Logarithms in the small field have 63 values, few enough to be looked up, and turn the quotient into a difference.
//
// The pairs are chosen so that b is 0 for the counts 65, 130 and so on up to 4095; then a alone tells which. As it is 0
// for the state 0 alone, that one needs no case of its own.
#pragma once

#ifdef __AVX2__
#include "chipdata/kernels/planes.h"
#include "chipdata/kernels/sums.h"

namespace {
namespace mpx3 {

constexpr unsigned PART_BITS = 6;
constexpr unsigned UNITS = 63;        // elements of the small field but 0
constexpr unsigned QUOTIENTS = 65;    // a / b, with those by 0
constexpr unsigned A_IS_ZERO = UNITS; // stands for the logarithm of a / b where that is 0

/// The sums of a state's bits that make up a and b, the sparsest that do.
constexpr unsigned PAIR_SUMS[2 * PART_BITS] = {0x400, 0x208, 0x083, 0x094, 0x118, 0x122, //
                                               0x800, 0x410, 0x106, 0x128, 0x230, 0x244};

struct PairTables {
    std::uint8_t logA[64]; ///< 1 to 63; 0 for 0
    std::uint8_t logB[64]; ///< the same
    /// By the logarithm of the quotient: the count modulo 65, and what that of b has to be turned by for the rest.
    std::uint8_t rest[64];
    std::uint8_t turn[64];
};

constexpr PairTables PAIR_TABLES = [] {
    PairTables tables{};
    unsigned b[QUOTIENTS]{}; // of the first counts
    unsigned a[QUOTIENTS]{};
    unsigned state = 0;
    for (unsigned count = 0; count < MPX3_12BIT_REGISTER.states; ++count, state = MPX3_12BIT_REGISTER.next(state)) {
        const unsigned sums = sumsOfState(PAIR_SUMS, state);
        if (count < QUOTIENTS) {
            a[count] = sums & (UNITS);
            b[count] = sums >> PART_BITS;
        }
        if (count % QUOTIENTS == 0)
            tables.logA[sums & UNITS] = static_cast<std::uint8_t>(count / QUOTIENTS);
        if (count % QUOTIENTS == 1)
            tables.logB[sums >> PART_BITS] = static_cast<std::uint8_t>(count / QUOTIENTS + 1);
    }
    for (unsigned count = 1; count < QUOTIENTS; ++count) {
        const unsigned logA = tables.logA[a[count]], logB = tables.logB[b[count]];
        const unsigned quotient = a[count] == 0 ? A_IS_ZERO : (logA + UNITS - logB) % UNITS;
        tables.rest[quotient] = static_cast<std::uint8_t>(count);
        tables.turn[quotient] = static_cast<std::uint8_t>(UNITS - logB);
    }
    return tables;
}();

constexpr ByteTable<4> LOG_A(PAIR_TABLES.logA);
constexpr ByteTable<4> LOG_B(PAIR_TABLES.logB);
constexpr ByteTable<4> REST(PAIR_TABLES.rest);
constexpr ByteTable<4> TURN(PAIR_TABLES.turn);

/// Splits the planes of 12-bit states into those of a, in a low byte, and of b, in a high one.
KERNEL_INLINE void splitStates(const Bytes* planes, Bytes* parts)
{
    Bytes sums[2 * PART_BITS];
    sumPlanes(PAIR_SUMS, planes, sums);
    for (unsigned i = 0; i < PART_BITS; ++i) {
        parts[i] = sums[i];
        parts[BYTE_PLANES + i] = sums[PART_BITS + i];
    }
}

/// `value` modulo 63, below twice that.
KERNEL_INLINE Bytes modUnits(Bytes value)
{
    return smaller<Bytes>(value, value - static_cast<std::uint8_t>(UNITS));
}

/// The counts of pixels with the pairs (a, b): of the lower halves of the lanes in `lower`, of the upper ones in
/// `upper`.
KERNEL_INLINE void countsOfParts(Bytes a, Bytes b, Bytes& lower, Bytes& upper)
{
    const Bytes noA = (Bytes)(a == 0);
    const Bytes noB = (Bytes)(b == 0);
    const Bytes logA = lookup(LOG_A, a);
    const Bytes logB = lookup(LOG_B, b);
    const Bytes difference = logA - logB;
    const Bytes quotient = smaller<Bytes>(difference, difference + static_cast<std::uint8_t>(UNITS));
    // Without b the index is 255, for which the look-ups give 0.
    const Bytes index = ((quotient | noA) & static_cast<std::uint8_t>(A_IS_ZERO)) | noB;
    const Bytes times = modUnits(logB + lookup(TURN, index)) | (logA & noB);
    const Bytes rest = lookup(REST, index);
    lower = (Bytes)multiplyAdd(unpackLow<Bytes>(times, rest), QUOTIENTS, 1);
    upper = (Bytes)multiplyAdd(unpackHigh<Bytes>(times, rest), QUOTIENTS, 1);
}

struct SixBitCounts {
    std::uint8_t counts[MPX3_6BIT_REGISTER.states];
};

constexpr SixBitCounts SIX_BIT_STATES = [] {
    SixBitCounts table{};
    for (unsigned count = 0, state = 0; count < MPX3_6BIT_REGISTER.states;
         ++count, state = MPX3_6BIT_REGISTER.next(state))
        table.counts[state] = static_cast<std::uint8_t>(count);
    return table;
}();

constexpr ByteTable<4> SIX_BIT_COUNTS(SIX_BIT_STATES.counts);

} // namespace mpx3
} // namespace
#endif
