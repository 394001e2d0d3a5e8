// The picture behind the sensor: how many photons a second fall on each pixel of each chip.
#pragma once

#include "sim/api.h"

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace sim {

/// Counts per second of the 256 x 256 pixels of one chip, row by row from the top.
using FluxMap = std::shared_ptr<const std::vector<float>>;

/// A picture with its flux, and what the sensor and the discriminators make of it.
class LATIXELSIM_API Scene {
public:
    /// From {"kind": "flat" | "gradient" | "star" | "shadow", "flux": counts per pixel and second in the open beam,
    /// "noise", "seed", "layout": "per_chip" | "span", "columns", "speed", "cutoff", "width", "adjust_step"}.
    /// All keys may be missing. Throws std::runtime_error for an unknown kind or layout.
    explicit Scene(const nlohmann::json& scene);

    /// The scene behind a board: the one in its entry, or the one that the bench has for all boards.
    static std::shared_ptr<const Scene> behind(const nlohmann::json& board, const nlohmann::json& bench);

    /// Share of the open beam, 0 to 1, that reaches a point. x runs from 0 at the left to 1 at the right, y from 0 at
    /// the top to 1 at the bottom.
    double transmission(double x, double y) const;

    /// What falls on a chip. Each chip sees the whole picture, or its part of it, by the layout.
    FluxMap flux(unsigned chip, unsigned chips) const;

    /// Share of the photons that a discriminator counts at a threshold code: half of them at "cutoff".
    double counted(double thresholdCode) const;
    /// Threshold codes that one step of a pixel's adjustment bits is worth.
    double adjustStep() const { return adjustment; }

    bool noisy() const { return noise; }
    std::uint64_t seed() const { return seedValue; }
    /// Speed of the picture along the columns in rows per second. None: it moves with the rows that are read, as a
    /// synchronised belt does. It moves only while single rows are read.
    std::optional<double> speed() const { return rowsPerSecond; }

private:
    using Picture = double (*)(double x, double y);

    FluxMap part(unsigned column, unsigned row, unsigned across, unsigned down) const;

    Picture picture;
    double fluxValue;
    bool noise;
    std::uint64_t seedValue;
    bool spans;
    unsigned spanColumns; ///< chips side by side in a wide picture; 0: all of them
    std::optional<double> rowsPerSecond;
    double cutoff;
    double width;
    double adjustment;
    mutable FluxMap wholePicture; ///< worked out once for all chips that see the same
};

} // namespace sim
