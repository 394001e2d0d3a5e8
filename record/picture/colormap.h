// Colours for counts.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace record {

struct Colour {
    std::uint8_t red = 0;
    std::uint8_t green = 0;
    std::uint8_t blue = 0;
    bool operator==(const Colour&) const = default;
};

enum class ColormapName { Viridis, Grey, Inferno };

/// 255 colours from the lowest count to the highest, and behind them one that stands out for bad pixels.
struct Colormap {
    static constexpr std::size_t STEPS = 255;
    static constexpr std::uint8_t BAD_INDEX = 255;

    std::array<Colour, STEPS + 1> colours;
};

/// The table of that name.
const Colormap& colormap(ColormapName name);

} // namespace record
