// Random counts.
#include "sim/world/noise.h"

#include <array>
#include <cmath>

namespace sim {

namespace {

constexpr float SMALL_MEAN = 16;
constexpr std::uint64_t GOLDEN = 0x9E3779B97F4A7C15;

constexpr std::uint64_t scramble(std::uint64_t x)
{
    x = (x ^ x >> 30U) * 0xBF58476D1CE4E5B9;
    x = (x ^ x >> 27U) * 0x94D049BB133111EB;
    return x ^ x >> 31U;
}

constexpr std::uint32_t MOST = 80; ///< no small mean ever gives more

constexpr auto RECIPROCALS = [] {
    std::array<float, MOST + 1> table{};
    for (std::uint32_t n = 1; n <= MOST; ++n)
        table[n] = 1.0F / static_cast<float>(n);
    return table;
}();

/// Walks up the distribution until it has passed a uniform number.
std::uint32_t drawSmall(float mean, float expMinusMean, std::uint64_t random)
{
    const float uniform = static_cast<float>(random >> 40U) * 0x1p-24F;
    float share = expMinusMean;
    float sum = share;
    std::uint32_t count = 0;
    while (uniform >= sum && count < MOST) {
        ++count;
        share *= mean * RECIPROCALS[count];
        sum += share;
    }
    return count;
}

/// A big mean is as good as normally distributed; the sum of four uniform numbers is as good as normal.
std::uint32_t drawBig(float mean, float root, std::uint64_t random)
{
    constexpr float TO_UNIT_VARIANCE = 1.7320508F / 65536;
    const auto sum = static_cast<std::int32_t>((random & 0xFFFF) + (random >> 16U & 0xFFFF) + (random >> 32U & 0xFFFF) +
                                               (random >> 48U));
    const float count = mean + root * TO_UNIT_VARIANCE * static_cast<float>(sum - 2 * 65535) + 0.5F;
    return count < 0 ? 0 : static_cast<std::uint32_t>(count);
}

} // namespace

std::uint64_t mixSeed(std::uint64_t seed, std::uint64_t frame, std::uint64_t chip, std::uint64_t counter)
{
    return scramble(scramble(scramble(seed + GOLDEN) + frame * GOLDEN) + (chip << 8U | counter));
}

void PoissonField::expect(std::vector<float> means)
{
    mean = std::move(means);
    aid.resize(mean.size());
    for (std::size_t i = 0; i < mean.size(); ++i)
        aid[i] = mean[i] < SMALL_MEAN ? std::exp(-mean[i]) : std::sqrt(mean[i]);
}

void PoissonField::draw(std::uint64_t seed, std::span<std::uint32_t> counts) const
{
    for (std::size_t i = 0; i < counts.size(); ++i) {
        seed += GOLDEN;
        const std::uint64_t random = scramble(seed);
        counts[i] = mean[i] < SMALL_MEAN ? drawSmall(mean[i], aid[i], random) : drawBig(mean[i], aid[i], random);
    }
}

void PoissonField::rounded(std::span<std::uint32_t> counts) const
{
    for (std::size_t i = 0; i < counts.size(); ++i)
        counts[i] = static_cast<std::uint32_t>(std::lround(mean[i]));
}

} // namespace sim
