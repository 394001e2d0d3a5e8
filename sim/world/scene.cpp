// The picture behind the sensor.
#include "sim/world/scene.h"

#include "sim/jsonkeys.h"

#include <array>
#include <cmath>
#include <numbers>

namespace sim {

namespace {

constexpr unsigned SIDE = 256;  ///< pixels along a chip's edge
constexpr unsigned SAMPLES = 3; ///< points looked at along a pixel's edge
constexpr double THROUGH_LEAD = 0.05;

struct Box {
    double left;
    double top;
    double right;
    double bottom;

    bool holds(double x, double y) const { return x >= left && x < right && y >= top && y < bottom; }
};

template <std::size_t N>
bool anyHolds(const std::array<Box, N>& boxes, double x, double y)
{
    for (const Box& box : boxes)
        if (box.holds(x, y))
            return true;
    return false;
}

double flat(double /*x*/, double /*y*/)
{
    return 1;
}

/// Rises from the upper left corner, and more along the rows than down the columns.
double gradient(double x, double y)
{
    return 0.1 + 0.6 * x + 0.3 * y;
}

/// Siemens star of lead, with a block in the upper left corner that tells its orientation.
double star(double x, double y)
{
    constexpr double SPOKES = 24;
    constexpr std::array<Box, 2> CORNER = {{{0.02, 0.02, 0.14, 0.05}, {0.02, 0.05, 0.05, 0.10}}};
    const double dx = x - 0.5;
    const double dy = y - 0.5;
    const double radius = std::hypot(dx, dy);
    const bool spoke = std::sin(std::atan2(dy, dx) * SPOKES) > 0;
    const bool lead = (radius > 0.02 && radius < 0.46 && spoke) || anyHolds(CORNER, x, y);
    return lead ? THROUGH_LEAD : 1;
}

/// Shadow of a key with its bow at the left and its teeth pointing down, and of a letter F above it.
double shadow(double x, double y)
{
    constexpr std::array<Box, 4> KEY = {
        {{0.30, 0.60, 0.94, 0.67}, {0.72, 0.67, 0.77, 0.80}, {0.81, 0.67, 0.85, 0.76}, {0.89, 0.67, 0.94, 0.83}}};
    constexpr std::array<Box, 3> LETTER = {
        {{0.56, 0.10, 0.61, 0.46}, {0.61, 0.10, 0.82, 0.15}, {0.61, 0.25, 0.74, 0.30}}};
    const double bow = std::hypot(x - 0.19, y - 0.635);
    if ((bow > 0.08 && bow < 0.15) || anyHolds(KEY, x, y))
        return THROUGH_LEAD;
    return anyHolds(LETTER, x, y) ? 0.35 : 1;
}

struct PictureKind {
    const char* name;
    double (*at)(double x, double y);
};

constexpr std::array<PictureKind, 4> PICTURES = {
    {{"flat", flat}, {"gradient", gradient}, {"star", star}, {"shadow", shadow}}};

auto pictureNamed(const std::string& name)
{
    for (const PictureKind& kind : PICTURES)
        if (name == kind.name)
            return kind.at;
    badKey("kind", "\"flat\", \"gradient\", \"star\" or \"shadow\"");
}

bool layoutSpans(const std::string& layout)
{
    if (layout != "per_chip" && layout != "span")
        badKey("layout", "\"per_chip\" or \"span\"");
    return layout == "span";
}

} // namespace

Scene::Scene(const nlohmann::json& scene)
    : picture(pictureNamed(readKey<std::string>(scene, "kind", "flat"))),
      fluxValue(readKey(scene, "flux", 1000.0)),
      noise(readKey(scene, "noise", true)),
      seedValue(readKey(scene, "seed", std::uint64_t{1})),
      spans(layoutSpans(readKey<std::string>(scene, "layout", "per_chip"))),
      spanColumns(readKey(scene, "columns", 0U)),
      cutoff(readKey(scene, "cutoff", 300.0)),
      width(readKey(scene, "width", 12.0)),
      adjustment(readKey(scene, "adjust_step", 0.25))
{
    refuseOtherKeys(scene, {"about", "kind", "flux", "noise", "seed", "layout", "columns", "speed", "cutoff", "width",
                            "adjust_step"});
    if (scene.contains("speed"))
        rowsPerSecond = readKey<double>(scene, "speed");
}

std::shared_ptr<const Scene> Scene::behind(const nlohmann::json& board, const nlohmann::json& bench)
{
    return std::make_shared<const Scene>(readObject(board.contains("scene") ? board : bench, "scene"));
}

double Scene::transmission(double x, double y) const
{
    return picture(x, y);
}

FluxMap Scene::flux(unsigned chip, unsigned chips) const
{
    if (!spans) {
        if (!wholePicture)
            wholePicture = part(0, 0, 1, 1);
        return wholePicture;
    }
    const unsigned across = spanColumns > 0 ? spanColumns : chips;
    return part(chip % across, chip / across, across, (chips + across - 1) / across);
}

/// What one of `across` x `down` chips sees of the picture.
FluxMap Scene::part(unsigned column, unsigned row, unsigned across, unsigned down) const
{
    constexpr unsigned POINTS = SIDE * SAMPLES;
    auto map = std::make_shared<std::vector<float>>(std::size_t{SIDE} * SIDE);
    for (unsigned y = 0; y < POINTS; ++y)
        for (unsigned x = 0; x < POINTS; ++x)
            (*map)[std::size_t{y / SAMPLES} * SIDE + x / SAMPLES] += static_cast<float>(
                picture((column * POINTS + x + 0.5) / (across * POINTS), (row * POINTS + y + 0.5) / (down * POINTS)) *
                fluxValue / (SAMPLES * SAMPLES));
    return map;
}

double Scene::counted(double thresholdCode) const
{
    return 1 / (1 + std::exp((thresholdCode - cutoff) / width));
}

} // namespace sim
