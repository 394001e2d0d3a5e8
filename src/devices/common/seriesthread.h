// The detached threads of a device's series, for a device that must not go away under them, and stops of a series.
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

/// The stops by the host whose command has not gone to the board yet. A series that sees a stop and empties its link at
/// once would wait for the silence of a board that nobody has told, and keep the command off the link meanwhile.
class StopsUnderWay {
public:
    /// One stop, from before its flag is set until its command is sent.
    class Scope {
    public:
        explicit Scope(StopsUnderWay& stops) : count(stops.count) { ++count; }
        ~Scope() { --count; }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        std::atomic<int>& count;
    };

    /// Waits until there is none. The caller holds no lock that a stop takes.
    void wait() const
    {
        constexpr double POLL = 0.001;
        while (count > 0)
            sleepThread(POLL);
    }

private:
    std::atomic<int> count{0};
};

} // namespace HwLatixel
