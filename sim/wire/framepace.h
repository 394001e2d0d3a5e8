// Runs a shutter at the pace at which the host takes the frames.
//
// Key of a board in a bench:
//   "fifo_bytes"  a series pauses while more than this lies on the output (16777216)
#pragma once

#include "sim/jsonkeys.h"
#include "sim/world/triggerinput.h"

#include <utility>

namespace sim {

class FramePace {
public:
    /// From a board's entry.
    explicit FramePace(const nlohmann::json& board) : fifoBytes(readKey(board, "fifo_bytes", std::size_t{1} << 24U)) {}

    /// Lets a shutter run up to `now`: finishes its frames one by one with `finish(frame)`, as long as `pending()` says
    /// that the output is not too full. A series that had to pause goes on from `now`.
    template <typename Pending, typename Finish>
    void run(Shutter& shutter, TriggerInput& trigger, Time now, Pending pending, Finish finish)
    {
        if (paused && pending() > fifoBytes)
            return;
        resume(shutter, now);
        while (!paused) {
            trigger.serve(shutter, now);
            const auto frame = shutter.next(now);
            if (!frame)
                return;
            finish(*frame);
            paused = pending() > fifoBytes && !shutter.idle();
        }
    }
    /// Ends a pause, whatever lies on the output.
    void resume(Shutter& shutter, Time now)
    {
        if (std::exchange(paused, false))
            shutter.resume(now);
    }
    /// There is no series any more.
    void reset() { paused = false; }

private:
    std::size_t fifoBytes;
    bool paused = false;
};

} // namespace sim
