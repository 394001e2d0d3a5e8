// Sums of the bits of a shift register's state, one for each entry of a table of masks. Bit i of a mask takes s[t + i],
// where s is the sequence of the register's bits in the order of time and s[t] is the oldest bit of the state, its
// highest.
#pragma once

#include "chipdata/kernels/vector.h"
#include "chipdata/registers.h"

#include <bit>

namespace {

/// The sums of one state, sum i as bit i.
template <std::size_t bits>
constexpr unsigned sumsOfState(const unsigned (&masks)[bits], unsigned state)
{
    unsigned inTime = 0; // oldest bit first
    for (std::size_t i = 0; i < bits; ++i)
        inTime |= (state >> (bits - 1 - i) & 1U) << i;
    unsigned sums = 0;
    for (std::size_t sum = 0; sum < bits; ++sum)
        sums |= (static_cast<unsigned>(std::popcount(masks[sum] & inTime)) & 1U) << sum;
    return sums;
}

/// The sums of many states, from the planes of their bits, bit 0 first.
template <std::size_t bits>
KERNEL_INLINE void sumPlanes(const unsigned (&masks)[bits], const Bytes* planes, Bytes* sums)
{
#pragma GCC unroll 14
    for (std::size_t sum = 0; sum < bits; ++sum) {
        sums[sum] = Bytes{};
#pragma GCC unroll 14
        for (std::size_t i = 0; i < bits; ++i)
            if (masks[sum] >> i & 1)
                sums[sum] ^= planes[bits - 1 - i];
    }
}

} // namespace
