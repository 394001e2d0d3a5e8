// Colour tables, computed at compile time from polynomials that follow the well-known maps.
#include "record/picture/colormap.h"

#include <span>

namespace record {
namespace {

using Rgb = std::array<double, 3>;

// Coefficients of rising powers of the brightness, 0 to 1.
constexpr std::array<Rgb, 7> VIRIDIS_POWERS{{{0.2777273272234177, 0.005407344544966578, 0.3340998053353061},
                                             {0.1050930431085774, 1.404613529898575, 1.384590162594685},
                                             {-0.3308618287255563, 0.214847559468213, 0.09509516302823659},
                                             {-4.634230498983486, -5.799100973351585, -19.33244095627987},
                                             {6.228269936347081, 14.17993336680509, 56.69055260068105},
                                             {4.776384997670288, -13.74514537774601, -65.35303263337234},
                                             {-5.435455855934631, 4.645852612178535, 26.3124352495832}}};

constexpr std::array<Rgb, 7> INFERNO_POWERS{{{0.0002189403691192265, 0.001651004631001012, -0.01948089843709184},
                                             {0.1065134194856116, 0.5639564367884091, 3.932712388889277},
                                             {11.60249308247187, -3.972853965665698, -15.9423941062914},
                                             {-41.70399613139459, 17.43639888205313, 44.35414519872813},
                                             {77.162935699427, -33.40235894210092, -81.80730925738993},
                                             {-71.31942824499214, 32.62606426397723, 73.20951985803202},
                                             {25.13112622477341, -12.24266895238567, -23.07032500287172}}};

constexpr std::array<Rgb, 2> GREY_POWERS{{{0, 0, 0}, {1, 1, 1}}};

constexpr std::uint8_t channel(std::span<const Rgb> powers, std::size_t which, double brightness)
{
    double sum = 0;
    for (std::size_t power = powers.size(); power-- > 0;)
        sum = sum * brightness + powers[power][which];
    const double clamped = sum < 0 ? 0 : (sum > 1 ? 1 : sum);
    return static_cast<std::uint8_t>(clamped * 255.999);
}

constexpr Colormap table(std::span<const Rgb> powers, Colour bad)
{
    Colormap map{};
    for (std::size_t i = 0; i < Colormap::STEPS; ++i) {
        const double brightness = static_cast<double>(i) / (Colormap::STEPS - 1);
        map.colours[i] = {channel(powers, 0, brightness), channel(powers, 1, brightness),
                          channel(powers, 2, brightness)};
    }
    map.colours[Colormap::BAD_INDEX] = bad;
    return map;
}

constexpr Colormap VIRIDIS = table(VIRIDIS_POWERS, {255, 0, 255});
constexpr Colormap INFERNO = table(INFERNO_POWERS, {0, 255, 255});
constexpr Colormap GREY = table(GREY_POWERS, {255, 0, 0});

} // namespace

const Colormap& colormap(ColormapName name)
{
    switch (name) {
    case ColormapName::Grey:
        return GREY;
    case ColormapName::Inferno:
        return INFERNO;
    case ColormapName::Viridis:
        break;
    }
    return VIRIDIS;
}

} // namespace record
