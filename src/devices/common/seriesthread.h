// The detached threads of a device's series, for a device that must not go away under them.
#pragma once

#include "shared/osdepend.h"

#include <atomic>

namespace HwLatixel {

/// Counts the threads that run a device's series.
class SeriesThreads {
public:
    /// Starts a detached thread that runs `func(device)`; `func` calls `left` as its last touch of the device. False
    /// where the system has no thread to give.
    bool start(void (*func)(void*), void* device)
    {
        ++running;
        if (createThread(func, device) != 0)
            return true;
        --running;
        return false;
    }
    void left() { --running; }
    /// Whether there is a thread that has not left.
    bool active() const { return running > 0; }

    /// Waits until no thread is left, at most `limit` seconds. Meanwhile calls `nudge` again and again, with true once
    /// a second: it gives the series whatever it waits for, and with true tells the board to stop.
    template <typename Nudge>
    void waitForEnd(double limit, Nudge nudge) const
    {
        constexpr double STOP_INTERVAL = 1.0;
        constexpr double POLL = 0.001;
        const double start = getPreciseTime();
        double nextStop = start;
        while (running > 0 && getPreciseTime() - start < limit) {
            // More than once, since the series may just be starting.
            const bool stopBoard = getPreciseTime() >= nextStop;
            nudge(stopBoard);
            if (stopBoard)
                nextStop += STOP_INTERVAL;
            sleepThread(POLL);
        }
    }

private:
    std::atomic<int> running{0};
};

} // namespace HwLatixel
