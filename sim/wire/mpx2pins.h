// The control pins of the Medipix2 and Timepix boards, and how they stand while the chips do something.
#pragma once

#include <cstdint>

namespace sim {

enum Mpx2Pin : std::uint16_t {
    PIN_POWER = 1U << 0U,
    PIN_RESET = 1U << 1U,     ///< low: the chips are in reset
    PIN_ENABLE_IN = 1U << 2U, ///< low: the chips' registers are shifted; high: data pass them by
    PIN_M0 = 1U << 3U,
    PIN_M1 = 1U << 4U,
    PIN_PS = 1U << 6U,
    PIN_ENABLE_OUT = 1U << 8U, ///< what comes out of the chips goes to the host
    PIN_ACQ_OVER = 1U << 10U,
};

/// Levels of the pins that matter for something.
struct Mpx2Levels {
    std::uint16_t cared;
    std::uint16_t high;

    constexpr bool hold(std::uint16_t pins) const { return (pins & cared) == high; }
};

namespace mpx2levels {
constexpr std::uint16_t MODE = PIN_M0 | PIN_M1;
constexpr std::uint16_t SHIFT = MODE | PIN_ENABLE_IN | PIN_ENABLE_OUT;

constexpr Mpx2Levels PASS_BY{.cared = MODE | PIN_ENABLE_IN, .high = PIN_M0 | PIN_ENABLE_IN};
constexpr Mpx2Levels PASS_BY_ANY_MODE{.cared = PIN_ENABLE_IN, .high = PIN_ENABLE_IN};
constexpr Mpx2Levels TEST_PATTERN{.cared = SHIFT, .high = PIN_M0 | PIN_ENABLE_IN};
constexpr Mpx2Levels SHIFT_DACS{.cared = SHIFT, .high = PIN_M0 | PIN_ENABLE_OUT};
constexpr Mpx2Levels WRITE_MATRIX{.cared = SHIFT, .high = PIN_M1};
constexpr Mpx2Levels READ_MATRIX{.cared = SHIFT | PIN_PS, .high = PIN_ENABLE_OUT};
constexpr Mpx2Levels EXPOSE{.cared = PIN_ENABLE_IN | PIN_ENABLE_OUT | PIN_ACQ_OVER,
                            .high = PIN_ENABLE_IN | PIN_ACQ_OVER};
constexpr Mpx2Levels EXPOSE_ROWS{.cared = SHIFT | PIN_ACQ_OVER, .high = PIN_ENABLE_IN | PIN_ACQ_OVER};
} // namespace mpx2levels

} // namespace sim
