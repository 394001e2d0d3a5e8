// Which counts a picture shows as dark and as bright.
#include "record/picture/contrast.h"

#include "record/picture/colormap.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace record {
namespace {

constexpr double DARK_SHARE = 0.01;
constexpr double BRIGHT_SHARE = 0.003;

std::uint32_t quantile(std::vector<std::uint32_t>& counts, double share)
{
    const auto rank = std::ptrdiff_t{std::lround(share * static_cast<double>(counts.size() - 1))};
    std::nth_element(counts.begin(), counts.begin() + rank, counts.end());
    return counts[static_cast<std::size_t>(rank)];
}

std::optional<double> number(const char* begin, const char* end)
{
    double value = 0;
    const auto [rest, error] = std::from_chars(begin, end, value);
    if (error != std::errc{} || rest != end || !std::isfinite(value))
        return std::nullopt;
    return value;
}

} // namespace

ContrastRange automaticRange(const Picture& picture)
{
    std::vector<std::uint32_t> counts;
    counts.reserve(picture.pixels.size());
    std::copy_if(picture.pixels.begin(), picture.pixels.end(), std::back_inserter(counts),
                 [](std::uint32_t count) { return count != Picture::BAD; });
    if (counts.empty())
        return {};
    const double low = quantile(counts, DARK_SHARE);
    const double high = quantile(counts, 1 - BRIGHT_SHARE);
    return {low, std::max(high, low + 1)};
}

std::optional<ContrastRange> parseRange(const std::string& text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos)
        return std::nullopt;
    const auto low = number(text.data(), text.data() + colon);
    const auto high = number(text.data() + colon + 1, text.data() + text.size());
    if (!low || !high || *low >= *high)
        return std::nullopt;
    return ContrastRange{*low, *high};
}

std::vector<std::uint8_t> colourIndexes(const Picture& picture, ContrastRange range)
{
    constexpr double TOP = Colormap::STEPS - 1;
    const double scale = TOP / (range.high - range.low);
    std::vector<std::uint8_t> indexes(picture.pixels.size());
    std::transform(picture.pixels.begin(), picture.pixels.end(), indexes.begin(), [&](std::uint32_t count) {
        if (count == Picture::BAD)
            return Colormap::BAD_INDEX;
        return static_cast<std::uint8_t>(std::clamp((count - range.low) * scale + 0.5, 0.0, TOP));
    });
    return indexes;
}

} // namespace record
