// Pictures that move over a chip whose rows are read while the shutter stays open.
#include "sim/world/rowmotion.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace sim {

namespace {

constexpr std::size_t SIDE = 256;

/// For how long each row of the picture lay on the counters that are read as row `row` of a step: n steps before, they
/// lay n times the step's rows further down the chip, and the picture has moved since.
std::array<float, SIDE> secondsOfRows(const Scene& scene, const RowStep& step, unsigned row)
{
    const double rowsPerStep = scene.speed() ? *scene.speed() * step.seconds : step.rows;
    std::array<float, SIDE> seconds{};
    for (std::uint64_t n = 0; n <= step.number && row + n * step.rows < SIDE; ++n) {
        const double seen =
            static_cast<double>(row + n * step.rows) + rowsPerStep * static_cast<double>(step.number - n);
        const double wrapped = seen - std::floor(seen / SIDE) * SIDE;
        seconds[std::min(static_cast<std::size_t>(wrapped), SIDE - 1)] += static_cast<float>(step.seconds);
    }
    return seconds;
}

} // namespace

std::vector<float> photonsOfRows(const Scene& scene, const std::vector<float>& flux, const RowStep& step)
{
    std::vector<float> photons(step.rows * SIDE);
    for (unsigned row = 0; row < step.rows; ++row) {
        const std::array<float, SIDE> seconds = secondsOfRows(scene, step, row);
        float* const sum = &photons[row * SIDE];
        for (std::size_t seen = 0; seen < SIDE; ++seen)
            if (seconds[seen] > 0)
                for (std::size_t column = 0; column < SIDE; ++column)
                    sum[column] += seconds[seen] * flux[seen * SIDE + column];
    }
    return photons;
}

} // namespace sim
