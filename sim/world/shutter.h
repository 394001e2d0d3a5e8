// The shutter of a readout board: opens and closes for one frame or a series of them, by its timer or by triggers.
#pragma once

#include "sim/api.h"
#include "sim/types.h"

#include <optional>

namespace sim {

/// How frames begin and end.
struct ShutterPlan {
    bool startWaits = false;       ///< each frame begins with a trigger
    bool stopWaits = false;        ///< each frame ends with a trigger, and not with the timer
    bool oneTriggerStarts = false; ///< a trigger starts the whole series instead of one frame
    std::uint64_t frames = 1;
    std::uint64_t period = 0; ///< length of a frame in units of 10 ns
};

/// A frame whose shutter has closed.
struct ShutterFrame {
    std::uint64_t index = 0;  ///< within the series
    std::uint64_t length = 0; ///< time that the shutter was open, in units of 10 ns
    Time end{};
};

class LATIXELSIM_API Shutter {
public:
    using Tick = std::chrono::duration<std::int64_t, std::ratio<1, 100'000'000>>;

    /// Begins a series, in place of one that runs.
    void start(const ShutterPlan& plan, Time now);
    /// Ends the series. Returns the frame that this cut short, if the shutter was open.
    std::optional<ShutterFrame> stop(Time now);
    /// A trigger arrives: it opens a shutter that waits for it, or closes one that does.
    void trigger(Time at);
    /// The next frame that ended at `now` or before; the one after it begins at its end.
    std::optional<ShutterFrame> next(Time now);
    /// The board could not go on for a while: what would begin or run now begins at `now`.
    void resume(Time now) { since = now; }

    bool idle() const { return state == State::Idle; }
    bool open() const { return state == State::Open; }
    bool waiting() const { return state == State::Waiting; }
    /// True once per opening: the shutter has opened since this was asked last. Its time is `sinceWhen`.
    bool takeOpened();
    /// When the shutter opened, or the wait for its trigger began.
    Time sinceWhen() const { return since; }

private:
    enum class State { Idle, Waiting, Open };

    void begin(Time at);
    ShutterFrame close(Time at);

    ShutterPlan plan;
    State state = State::Idle;
    std::uint64_t index = 0;
    Time since{};
    std::optional<Time> stopAt;
    bool opened = false;
};

} // namespace sim
