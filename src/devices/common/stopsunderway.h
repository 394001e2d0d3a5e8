// Stops of a series on their way to the board.
#pragma once

#include "devices/common/polling.h"

#include <atomic>
#include <limits>

namespace HwLatixel {

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
        pollUntil(std::numeric_limits<double>::infinity(), [this] { return count == 0; });
    }

private:
    std::atomic<int> count{0};
};

} // namespace HwLatixel
