// Counting code of the Medipix3 pixels: a counter is a shift register with feedback that steps through all its states.
#pragma once

#include <cstdint>
#include <span>

namespace sim {

/// State of a counter of `depth` bits (1, 6 or 12) after n counts, for n from 0 to the highest count.
std::span<const std::uint16_t> mpx3StateOfCount(unsigned depth);
/// Count at which a counter of `depth` bits (1, 6 or 12) has a state, by state.
std::span<const std::uint16_t> mpx3CountOfState(unsigned depth);

} // namespace sim
