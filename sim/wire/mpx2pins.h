// The control pins of the Medipix2 and Timepix boards, and how they stand while the chips do something.
#pragma once

#include <cstdint>

namespace sim {

enum Mpx2Pin : std::uint16_t {
    pinPower = 1U << 0U,
    pinReset = 1U << 1U,    ///< low: the chips are in reset
    pinEnableIn = 1U << 2U, ///< low: the chips' registers are shifted; high: data pass them by
    pinM0 = 1U << 3U,
    pinM1 = 1U << 4U,
    pinPs = 1U << 6U,
    pinEnableOut = 1U << 8U, ///< what comes out of the chips goes to the host
    pinAcqOver = 1U << 10U,
};

/// Levels of the pins that matter for something.
struct Mpx2Levels {
    std::uint16_t cared;
    std::uint16_t high;

    constexpr bool hold(std::uint16_t pins) const { return (pins & cared) == high; }
};

namespace mpx2levels {
constexpr std::uint16_t mode = pinM0 | pinM1;
constexpr std::uint16_t shift = mode | pinEnableIn | pinEnableOut;

constexpr Mpx2Levels passBy{.cared = mode | pinEnableIn, .high = pinM0 | pinEnableIn};
constexpr Mpx2Levels passByAnyMode{.cared = pinEnableIn, .high = pinEnableIn};
constexpr Mpx2Levels testPattern{.cared = shift, .high = pinM0 | pinEnableIn};
constexpr Mpx2Levels shiftDacs{.cared = shift, .high = pinM0 | pinEnableOut};
constexpr Mpx2Levels writeMatrix{.cared = shift, .high = pinM1};
constexpr Mpx2Levels readMatrix{.cared = shift | pinPs, .high = pinEnableOut};
constexpr Mpx2Levels expose{.cared = pinEnableIn | pinEnableOut | pinAcqOver, .high = pinEnableIn | pinAcqOver};
constexpr Mpx2Levels exposeRows{.cared = shift | pinAcqOver, .high = pinEnableIn | pinAcqOver};
} // namespace mpx2levels

} // namespace sim
