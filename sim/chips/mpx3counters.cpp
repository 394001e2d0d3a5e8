// Counting code of the Medipix3 pixels.
#include "sim/chips/mpx3counters.h"

#include <array>
#include <bit>

namespace sim {

namespace {

template <unsigned Depth>
struct CountingCode {
    static constexpr unsigned STATES = 1U << Depth;
    std::array<std::uint16_t, STATES> stateOfCount{};
    std::array<std::uint16_t, STATES> countOfState{};
};

/// Steps the register from zero. The bits in `taps` are fed back; a further term puts the state of all zeros, which
/// such a register would never leave, between two others.
template <unsigned Depth>
constexpr CountingCode<Depth> code(unsigned taps)
{
    CountingCode<Depth> table;
    constexpr unsigned ALL_BUT_TOP = table.STATES / 2 - 1;
    unsigned state = 0;
    for (unsigned count = 0; count < table.STATES; ++count) {
        table.stateOfCount[count] = static_cast<std::uint16_t>(state);
        table.countOfState[state] = static_cast<std::uint16_t>(count);
        const unsigned feedback = (static_cast<unsigned>(std::popcount(state & taps)) & 1U) ^
                                  static_cast<unsigned>((state & ALL_BUT_TOP) == 0);
        state = (state << 1U | feedback) & (table.STATES - 1);
    }
    return table;
}

constexpr CountingCode<6> CODE6 = code<6>(1U << 5U | 1U);
const CountingCode<12> CODE12 = code<12>(1U << 11U | 1U << 5U | 1U << 3U | 1U);
constexpr std::array<std::uint16_t, 2> PLAIN = {0, 1};

} // namespace

std::span<const std::uint16_t> mpx3StateOfCount(unsigned depth)
{
    if (depth == 1)
        return PLAIN;
    return depth == 6 ? std::span<const std::uint16_t>(CODE6.stateOfCount) : CODE12.stateOfCount;
}

std::span<const std::uint16_t> mpx3CountOfState(unsigned depth)
{
    if (depth == 1)
        return PLAIN;
    return depth == 6 ? std::span<const std::uint16_t>(CODE6.countOfState) : CODE12.countOfState;
}

} // namespace sim
