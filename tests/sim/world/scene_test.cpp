// The picture behind the sensor and its noise.
#include "sim/boards/mpx3wire.h"

#include <cmath>

namespace sim {
namespace {

TEST(SceneTest, PicturesTellTheirOrientation)
{
    for (const char* kind : {"gradient", "star", "shadow"}) {
        const Scene scene(json{{"kind", kind}, {"flux", 1}});
        const std::vector<float> flux = *scene.flux(0, 1);
        const auto differsFrom = [&](auto place) {
            double sum = 0;
            for (std::size_t i = 0; i < flux.size(); ++i)
                sum += std::abs(flux[i] - flux[place(i / 256, i % 256)]);
            return sum;
        };
        EXPECT_GT(differsFrom([](auto row, auto column) { return row * 256 + 255 - column; }), 400) << kind;
        EXPECT_GT(differsFrom([](auto row, auto column) { return (255 - row) * 256 + column; }), 400) << kind;
        EXPECT_GT(differsFrom([](auto row, auto column) { return column * 256 + row; }), 400) << kind;
        EXPECT_TRUE(std::ranges::all_of(flux, [](float here) { return here > 0 && here <= 1.0001F; })) << kind;
    }
    const Scene key(json{{"kind", "shadow"}, {"flux", 1}});
    EXPECT_LT((*key.flux(0, 1))[163 * 256 + 200], 0.1) << "the key's shaft lies below the middle";
    EXPECT_LT((*key.flux(0, 1))[100 * 256 + 148], 0.5) << "the letter stands above it, on the right";
}

TEST(SceneTest, WidePictureGoesOnFromChipToChip)
{
    const Scene whole(json{{"kind", "gradient"}});
    const Scene row(json{{"kind", "gradient"}, {"layout", "span"}});
    const Scene square(json{{"kind", "gradient"}, {"layout", "span"}, {"columns", 2}});
    EXPECT_EQ(whole.flux(0, 4), whole.flux(3, 4));
    EXPECT_NEAR((*row.flux(1, 4))[0] - (*row.flux(0, 4))[255], 600.0 / 1024, 1e-2);
    EXPECT_NEAR((*square.flux(2, 4))[0] - (*square.flux(0, 4))[65280], 300.0 / 512, 1e-2);
    EXPECT_NEAR((*square.flux(3, 4))[65535], 1000 * (0.1 + 0.9 * 511.5 / 512), 1e-2);
}

ReadyWire noisy(double mean, int seed)
{
    return ReadyWire(mpx3Entry({{""}}, {{"scene", {{"flux", mean * 100}, {"seed", seed}}}}));
}

TEST(SceneTest, NoiseIsPoisson)
{
    for (const double mean : {0.4, 9.0, 60.0, 900.0}) {
        const Bytes frame = noisy(mean, 1).frame();
        double sum = 0;
        double squares = 0;
        for (unsigned i = 0; i < 65536; ++i) {
            const unsigned count = countIn(frame, {.start = 12}, i / 256, i % 256);
            sum += count;
            squares += (count - mean) * (count - mean);
        }
        EXPECT_NEAR(sum / 65536, mean, 5 * std::sqrt(mean / 65536));
        EXPECT_NEAR(squares / 65536 / mean, 1, 0.04);
    }
}

TEST(SceneTest, NoiseIsTheSameForTheSameSeed)
{
    const auto frames = [](int seed) {
        ReadyWire wire = noisy(9, seed);
        return std::pair(slice(wire.frame(), 9, 98307), slice(wire.frame(), 9, 98307));
    };
    const auto [first, second] = frames(1);
    EXPECT_NE(first, second);
    EXPECT_EQ(frames(1).first, first);
    EXPECT_NE(frames(2).first, first);
}

} // namespace
} // namespace sim
