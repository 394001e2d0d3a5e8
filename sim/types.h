// The clock and the bytes that all virtual parts share.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace sim {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using Bytes = std::vector<std::uint8_t>;

} // namespace sim
