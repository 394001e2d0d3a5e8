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
        double mirrored = 0;
        double upsideDown = 0;
        double turned = 0;
        for (std::size_t row = 0; row < 256; ++row)
            for (std::size_t column = 0; column < 256; ++column) {
                const float here = flux[row * 256 + column];
                mirrored += std::abs(here - flux[row * 256 + 255 - column]);
                upsideDown += std::abs(here - flux[(255 - row) * 256 + column]);
                turned += std::abs(here - flux[column * 256 + row]);
                ASSERT_TRUE(here > 0 && here <= 1.0001F);
            }
        EXPECT_GT(std::min({mirrored, upsideDown, turned}), 400) << kind;
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

std::vector<unsigned> countsOfFrame(ReadyWire& wire)
{
    const Bytes frame = wire.frame();
    std::vector<unsigned> counts(65536);
    for (unsigned i = 0; i < 65536; ++i)
        counts[i] = countIn(frame, {.start = 12}, i / 256, i % 256);
    return counts;
}

TEST(SceneTest, NoiseIsPoissonAndTheSameForTheSameSeed)
{
    const auto entry = [](double mean, int seed) {
        return mpx3Entry({{""}}, {{"scene", {{"flux", mean * 100}, {"seed", seed}}}});
    };
    for (const double mean : {0.4, 9.0, 60.0, 900.0}) {
        ReadyWire wire(entry(mean, 1), 1);
        const std::vector<unsigned> counts = countsOfFrame(wire);
        double sum = 0;
        double squares = 0;
        for (const unsigned count : counts) {
            sum += count;
            squares += (count - mean) * (count - mean);
        }
        const double error = std::sqrt(mean / 65536);
        EXPECT_NEAR(sum / 65536, mean, 5 * error);
        EXPECT_NEAR(squares / 65536 / mean, 1, 0.04);
        if (mean == 9.0) {
            EXPECT_NE(countsOfFrame(wire), counts) << "the next frame";
            ReadyWire same(entry(mean, 1), 1);
            ReadyWire other(entry(mean, 2), 1);
            EXPECT_EQ(countsOfFrame(same), counts);
            EXPECT_NE(countsOfFrame(other), counts);
        }
    }
}

} // namespace
} // namespace sim
