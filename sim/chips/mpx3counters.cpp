// Counting code of the Medipix3 pixels.
#include "sim/chips/mpx3counters.h"

#include <array>
#include <bit>

namespace sim {

namespace {

template <unsigned Depth>
struct CountingCode {
    static constexpr unsigned states = 1U << Depth;
    std::array<std::uint16_t, states> stateOfCount{};
    std::array<std::uint16_t, states> countOfState{};
};

/// Steps the register from zero. The bits in `taps` are fed back; a further term puts the state of all zeros, which
/// such a register would never leave, between two others.
template <unsigned Depth>
constexpr CountingCode<Depth> code(unsigned taps)
{
    CountingCode<Depth> table;
    constexpr unsigned allButTop = table.states / 2 - 1;
    unsigned state = 0;
    for (unsigned count = 0; count < table.states; ++count) {
        table.stateOfCount[count] = static_cast<std::uint16_t>(state);
        table.countOfState[state] = static_cast<std::uint16_t>(count);
        const unsigned feedback =
            (static_cast<unsigned>(std::popcount(state & taps)) & 1U) ^ static_cast<unsigned>((state & allButTop) == 0);
        state = (state << 1U | feedback) & (table.states - 1);
    }
    return table;
}

constexpr CountingCode<6> code6 = code<6>(1U << 5U | 1U);
const CountingCode<12> code12 = code<12>(1U << 11U | 1U << 5U | 1U << 3U | 1U);
constexpr std::array<std::uint16_t, 2> plain = {0, 1};

} // namespace

std::span<const std::uint16_t> mpx3StateOfCount(unsigned depth)
{
    if (depth == 1)
        return plain;
    return depth == 6 ? std::span<const std::uint16_t>(code6.stateOfCount) : code12.stateOfCount;
}

std::span<const std::uint16_t> mpx3CountOfState(unsigned depth)
{
    if (depth == 1)
        return plain;
    return depth == 6 ? std::span<const std::uint16_t>(code6.countOfState) : code12.countOfState;
}

} // namespace sim
