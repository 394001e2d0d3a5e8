// The shutter of a readout board.
#include "sim/world/shutter.h"

#include <algorithm>
#include <utility>

namespace sim {

void Shutter::start(const ShutterPlan& newPlan, Time now)
{
    plan = newPlan;
    index = 0;
    begin(now);
}

void Shutter::begin(Time at)
{
    const bool waits = plan.startWaits && !(plan.oneTriggerStarts && index > 0);
    state = waits ? State::Waiting : State::Open;
    opened = !waits;
    since = at;
    stopAt.reset();
}

bool Shutter::takeOpened()
{
    return std::exchange(opened, false);
}

void Shutter::trigger(Time at)
{
    if (state == State::Waiting && at >= since) {
        state = State::Open;
        opened = true;
        since = at;
    } else if (state == State::Open && plan.stopWaits && !stopAt) {
        stopAt = std::max(at, since);
    }
}

std::optional<ShutterFrame> Shutter::next(Time now)
{
    if (state != State::Open)
        return std::nullopt;
    if (plan.stopWaits)
        return stopAt && *stopAt <= now ? std::optional(close(*stopAt)) : std::nullopt;
    const Time end = since + Tick(static_cast<std::int64_t>(plan.period));
    return end <= now ? std::optional(close(end)) : std::nullopt;
}

std::optional<ShutterFrame> Shutter::stop(Time now)
{
    std::optional<ShutterFrame> cut;
    if (state == State::Open)
        cut = close(std::max(now, since));
    state = State::Idle;
    opened = false;
    return cut;
}

/// Closes the shutter and goes on to the next frame of the series.
ShutterFrame Shutter::close(Time at)
{
    const auto length = std::chrono::duration_cast<Tick>(at - since).count();
    const ShutterFrame frame{index, static_cast<std::uint64_t>(length), at};
    ++index;
    if (index < plan.frames)
        begin(at);
    else
        state = State::Idle;
    return frame;
}

} // namespace sim
