// Counting code of the Medipix2 and Timepix pixels.
#include "sim/chips/mpx2counters.h"

#include <array>

namespace sim {

namespace {

constexpr unsigned WIDTH = 14;

struct CountingCode {
    std::array<std::uint16_t, MPX2_FULL_COUNT + 1> stateOfCount{};
    std::array<std::uint16_t, 1U << WIDTH> countOfState{};
};

/// Steps the register: its outermost bits are fed back into the lowest.
CountingCode makeCode()
{
    CountingCode code;
    code.countOfState.fill(MPX2_NO_COUNT);
    unsigned state = MPX2_CLEAR_STATE;
    for (unsigned count = 0; count <= MPX2_FULL_COUNT; ++count) {
        code.stateOfCount[count] = static_cast<std::uint16_t>(state);
        code.countOfState[state] = static_cast<std::uint16_t>(count);
        state = (state << 1U | ((state >> (WIDTH - 1) ^ state) & 1U)) & ((1U << WIDTH) - 1);
    }
    return code;
}

const CountingCode& code()
{
    static const CountingCode made = makeCode();
    return made;
}

} // namespace

std::span<const std::uint16_t> mpx2StateOfCount()
{
    return code().stateOfCount;
}

std::span<const std::uint16_t> mpx2CountOfState()
{
    return code().countOfState;
}

} // namespace sim
