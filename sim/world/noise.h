// Random counts: Poisson noise that is the same for the same seed, drawn fast enough for whole frames.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace sim {

/// Mixes numbers into one seed, so that neighbouring frames, chips and counters have unrelated noise.
std::uint64_t mixSeed(std::uint64_t seed, std::uint64_t frame, std::uint64_t chip, std::uint64_t counter);

/// Expected counts of many pixels, with what drawing from them needs worked out once.
class PoissonField {
public:
    /// Sets the expected count of each pixel.
    void expect(std::vector<float> means);
    bool empty() const { return mean.empty(); }

    /// Draws a count for each pixel.
    void draw(std::uint64_t seed, std::span<std::uint32_t> counts) const;
    /// The expected counts, rounded: what is counted when there is no noise.
    void rounded(std::span<std::uint32_t> counts) const;

private:
    std::vector<float> mean;
    std::vector<float> aid; ///< exp(-mean) for a small mean, its root for a big one
};

} // namespace sim
