// Pictures that move over a chip whose rows are read while the shutter stays open: time-delayed integration.
#pragma once

#include "sim/world/scene.h"

namespace sim {

/// One step of a series of rows: the shutter was open for a while, and then the counters of all pixels move on by some
/// rows, of which those that lay first are read.
struct RowStep {
    std::uint64_t number = 0; ///< within the series
    unsigned rows = 1;        ///< 256 at most
    double seconds = 0;
};

/// Photons that have fallen on the rows that a step reads, on their way over the chip: row by row, 256 columns each.
/// The picture moves as the scene's speed says, or with the rows; what has left the chip comes in again on the other
/// side. `flux` is what falls on the chip at rest.
std::vector<float> photonsOfRows(const Scene& scene, const std::vector<float>& flux, const RowStep& step);

} // namespace sim
