// Counting code of the Medipix2 and Timepix pixels: a shift register of 14 bits with feedback, which counts from all
// ones on and stops when it is full.
#pragma once

#include <cstdint>
#include <span>

namespace sim {

constexpr std::uint32_t MPX2_FULL_COUNT = 11810;
constexpr std::uint16_t MPX2_CLEAR_STATE = 0x3FFF;
/// Stands for a state that counting never reaches.
constexpr std::uint16_t MPX2_NO_COUNT = 0xFFFF;

/// State of a counter after n counts, for n from 0 to `mpx2FullCount`.
std::span<const std::uint16_t> mpx2StateOfCount();
/// Count at which a counter has a state, by state, or `mpx2NoCount`.
std::span<const std::uint16_t> mpx2CountOfState();

} // namespace sim
