// The picture behind the sensor and its noise.
#include "sim/boards/mpx3wire.h"

#include <cmath>

namespace sim {
namespace {

TEST(SceneTest, NoiseIsPoisson)
{
    for (const double mean : {0.4, 9.0, 60.0, 900.0}) {
        ReadyWire wire(mpx3Entry({{""}}, {{"scene", {{"flux", mean * 100}, {"seed", 1}}}}));
        const Bytes frame = wire.frame();
        double sum = 0;
        double squares = 0;
        for (unsigned i = 0; i < 65536; ++i) {
            const unsigned count = countIn(frame, {.start = 12}, i / 256, i % 256);
            sum += count;
            squares += (count - mean) * (count - mean);
        }
        EXPECT_NEAR(sum / 65536, mean, 5 * std::sqrt(mean / 65536));
        EXPECT_NEAR(squares / 65536 / mean, 1, 0.04);
        EXPECT_NE(slice(wire.frame(), 9, 98307), slice(frame, 9, 98307)) << "each frame has noise of its own";
    }
}

} // namespace
} // namespace sim
