// Rows of pixels as bit planes: the form in which all chips shift their matrix.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sim {

/// Appends the bit planes of one row's pixels: the most significant plane first, and in each plane the last pixel
/// first, in the highest bit of a byte. The number of pixels is a multiple of 8; `planes` is 16 at most.
void appendPlanes(std::span<const std::uint16_t> pixels, unsigned planes, std::vector<std::uint8_t>& out);

/// The way back, for one row: `bytes` holds the planes of all `pixels`.
void takePlanes(std::span<const std::uint8_t> bytes, unsigned planes, std::span<std::uint16_t> pixels);

} // namespace sim
