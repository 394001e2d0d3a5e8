// The Medipix2 counter code in vectors.
//
// The counter's new bit is the sum of its last bit and the one 13 places before: its bits in the order of time are a
// sequence s over the two numbers 0 and 1 with s[t + 14] = s[t + 13] + s[t]. That rule's polynomial x^14 + x^13 + 1 is
// the product of three, A = x^7 + x^5 + x^2 + x + 1, B = x^5 + x^2 + 1 and C = x^2 + x + 1. Sums of bits that a
// multiple of the polynomial B * C tells of follow the rule A alone, and so for the other two. A state of 14 bits
// thereby splits into states of 7, 5 and 2 bits that run independently, with the periods 127, 31 and 3 and a fixed
// point at 0. Each has few enough states to look its count up, and by the Chinese remainder theorem the three counts
// tell the one below 127 * 31 * 3 = 11811. A state with a part that is 0 is not on the counter's cycle, and no other is
// off it, as there are just 127 * 31 * 3 without one.
#pragma once

#ifdef __AVX2__
#include "chipdata/kernels/planes.h"
#include "chipdata/kernels/sums.h"

namespace {
namespace mpx2 {

constexpr unsigned STATE_BITS = 14;

/// The sums that make up the parts: 7 of part A, 5 of part B, 2 of part C. Bit i of an entry takes s[t + i], where s[t]
/// is the oldest bit of a state, bit 13. Of the multiples of B * C, A * C and A * B these have the fewest terms.
constexpr unsigned PART_SUMS[STATE_BITS] = {0x010D, 0x021A, 0x0434, 0x0868, 0x10D0, 0x21A0, 0x02E1, //
                                            0x084B, 0x1096, 0x1509, 0x212C, 0x2A12,                 //
                                            0x16DB, 0x2DB6};
constexpr unsigned PART_A = 0, PART_B = 7, PART_C = 12; // first sums of the parts

// A count n below 11811 = 93 * 127 is 93 * p + 127 * q modulo 11811 with one p below 127 and one q below 93. p comes
// from part A alone. q is 3 * v + 31 * u modulo 93, where v comes from part B and u from part C.
constexpr unsigned COUNTS = 11811;
constexpr unsigned P_COUNTS = 127, Q_COUNTS = 93, V_COUNTS = 31, U_COUNTS = 3;
/// p of an unknown state, which has q 0: it makes n twice 11811, which the one subtraction makes 11811.
constexpr unsigned UNKNOWN_P = 254;
static_assert(UNKNOWN_P * Q_COUNTS == 2 * COUNTS && P_COUNTS * Q_COUNTS == COUNTS && V_COUNTS * U_COUNTS == Q_COUNTS);

/// The number that is `value` times as much as `factor`, modulo `modulus`.
constexpr unsigned divided(unsigned value, unsigned factor, unsigned modulus)
{
    unsigned quotient = 0;
    while (quotient * factor % modulus != value % modulus)
        ++quotient;
    return quotient;
}

struct PartTables {
    std::uint8_t p[128];
    std::uint8_t threeV[32];
    std::uint8_t manyU[16]; ///< 31 * u
};

constexpr PartTables PART_TABLES = [] {
    PartTables tables{};
    tables.p[0] = UNKNOWN_P;
    unsigned state = MPX2_REGISTER.states - 1; // of a cleared counter
    for (unsigned n = 0; n < P_COUNTS; ++n, state = MPX2_REGISTER.next(state)) {
        const unsigned parts = sumsOfState(PART_SUMS, state);
        const unsigned q = divided(n, P_COUNTS, Q_COUNTS);
        tables.p[parts & 0x7F] = static_cast<std::uint8_t>(divided(n, Q_COUNTS, P_COUNTS));
        tables.threeV[parts >> PART_B & 0x1F] = static_cast<std::uint8_t>(U_COUNTS * divided(q, U_COUNTS, V_COUNTS));
        tables.manyU[parts >> PART_C] = static_cast<std::uint8_t>(V_COUNTS * divided(q, V_COUNTS, U_COUNTS));
    }
    return tables;
}();

constexpr ByteTable<8> P_TABLE(PART_TABLES.p);
constexpr ByteTable<1> V_LOW_TABLE(PART_TABLES.threeV);
constexpr ByteTable<1> V_HIGH_TABLE(PART_TABLES.threeV + LANE);
constexpr ByteTable<1> U_TABLE(PART_TABLES.manyU);

/// Splits the planes of 14-bit states into those of two bytes of parts: part A in bits 0 to 6 of the low byte; of the
/// high byte part B in bits 0 to 3 and 7, so that a look-up sees its top bit, and part C in bits 4 and 5. Unknown
/// states become 0.
KERNEL_INLINE void splitStates(Bytes* planes)
{
    Bytes sums[STATE_BITS];
    sumPlanes(PART_SUMS, planes, sums);
    const Bytes* a = sums + PART_A;
    const Bytes* b = sums + PART_B;
    const Bytes* c = sums + PART_C;
    const Bytes anyA = a[0] | a[1] | a[2] | a[3] | a[4] | a[5] | a[6];
    const Bytes known = anyA & (b[0] | b[1] | b[2] | b[3] | b[4]) & (c[0] | c[1]);
    for (unsigned i = 0; i < 7; ++i)
        planes[i] = a[i] & known;
    planes[7] = Bytes{};
    for (unsigned i = 0; i < 4; ++i)
        planes[8 + i] = b[i] & known;
    planes[12] = c[0] & known;
    planes[13] = c[1] & known;
    planes[14] = Bytes{};
    planes[15] = b[4] & known;
}

/// The counts of pixels whose parts are in two bytes, as splitStates places them: of the lower halves of the lanes in
/// `lower`, of the upper ones in `upper`.
KERNEL_INLINE void countsOfParts(Bytes partA, Bytes partsBC, Bytes& lower, Bytes& upper)
{
    const Bytes p = lookup(P_TABLE, partA);
    const Bytes v = lookup16(V_LOW_TABLE.change[0], partsBC) | lookup16(V_HIGH_TABLE.change[0], partsBC ^ 0x80);
    const Bytes u = lookup16(U_TABLE.change[0], (Bytes)((Words)partsBC >> 4) & 0x03);
    const Bytes sum = v + u;
    const Bytes q = smaller<Bytes>(sum, sum - static_cast<std::uint8_t>(Q_COUNTS));
    const Words low = multiplyAdd(unpackLow<Bytes>(p, q), Q_COUNTS, P_COUNTS);
    const Words high = multiplyAdd(unpackHigh<Bytes>(p, q), Q_COUNTS, P_COUNTS);
    lower = (Bytes)smaller<Words>(low, low - static_cast<std::uint16_t>(COUNTS));
    upper = (Bytes)smaller<Words>(high, high - static_cast<std::uint16_t>(COUNTS));
}

} // namespace mpx2
} // namespace
#endif
