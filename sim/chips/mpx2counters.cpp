// Counting code of the Medipix2 and Timepix pixels.
#include "sim/chips/mpx2counters.h"

#include <array>

namespace sim {

namespace {

constexpr unsigned width = 14;

struct CountingCode {
    std::array<std::uint16_t, mpx2FullCount + 1> stateOfCount{};
    std::array<std::uint16_t, 1U << width> countOfState{};
};

/// Steps the register: its outermost bits are fed back into the lowest.
CountingCode makeCode()
{
    CountingCode code;
    code.countOfState.fill(mpx2NoCount);
    unsigned state = mpx2ClearState;
    for (unsigned count = 0; count <= mpx2FullCount; ++count) {
        code.stateOfCount[count] = static_cast<std::uint16_t>(state);
        code.countOfState[state] = static_cast<std::uint16_t>(count);
        state = (state << 1U | ((state >> (width - 1) ^ state) & 1U)) & ((1U << width) - 1);
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
