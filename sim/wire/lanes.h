// Data lanes that a readout board takes together, byte by byte from each in turn.
#pragma once

#include "sim/types.h"

#include <span>

namespace sim {

/// What one lane delivers.
struct Lane {
    Bytes head;                                      ///< comes first
    std::vector<std::span<const std::uint8_t>> body; ///< comes behind it, as long as what it was taken from stays
    std::uint8_t rest = 0;                           ///< all bytes behind that
};

/// Replaces `out` by `size` bytes: one of the first lane, one of the second, and so on around.
void interleave(std::span<const Lane> lanes, std::size_t size, Bytes& out);

} // namespace sim
