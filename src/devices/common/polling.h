// Waiting for what nobody signals.
#pragma once

#include "shared/osdepend.h"

#include <algorithm>

namespace HwLatixel {

/// Waits until `done()` or the time `deadline`; what `done` says last. It is asked often at first, and then every 20 ms,
/// so that a long wait costs next to nothing.
template <typename Done>
bool pollUntil(double deadline, Done done)
{
    constexpr double FIRST_PAUSE = 0.0005; // seconds
    constexpr double LONGEST_PAUSE = 0.02; // seconds
    double pause = FIRST_PAUSE;
    while (!done()) {
        if (getPreciseTime() >= deadline)
            return false;
        sleepThread(pause);
        pause = std::min(2 * pause, LONGEST_PAUSE);
    }
    return true;
}

} // namespace HwLatixel
