// The trigger input of a readout board.
#include "sim/world/triggerinput.h"

#include "sim/jsonkeys.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint8_t CONDITION = 3;
constexpr std::uint8_t AT_EDGE = 2; ///< conditions from here on are edges, those below are levels
constexpr std::uint8_t WAIT_READY = 4;
constexpr std::uint8_t IS_MASTER = 8;

} // namespace

TriggerInput::TriggerInput(const nlohmann::json& board) : idleLevel(readKey(board, "trigger_idle", 1U) != 0)
{
    if (!board.contains("trigger_line"))
        return;
    line = TriggerLine::named(readKey<std::string>(board, "trigger_line"));
    line->join(this);
}

TriggerInput::~TriggerInput()
{
    if (line)
        line->leave(this);
}

void TriggerInput::disarm()
{
    if (line)
        line->disarm(this);
}

/// True when the input at rest has the level that frames start at, so that nothing is waited for.
bool TriggerInput::rests() const
{
    return (settings & CONDITION) == (idleLevel ? 1 : 0);
}

void TriggerInput::serve(Shutter& shutter, Time now)
{
    const bool master = (settings & IS_MASTER) != 0;
    if (shutter.waiting()) {
        const Time since = shutter.sinceWhen();
        if (master && (settings & CONDITION) < AT_EDGE) {
            const bool asksOthers = line && (settings & WAIT_READY) != 0;
            const auto ready = asksOthers ? line->othersReady(this) : std::optional(since);
            if (ready)
                shutter.trigger(std::max(since, *ready));
        } else if (line && !master) {
            const auto fired = line->await(this, since);
            if (fired && *fired <= now)
                shutter.trigger(*fired);
        } else if (rests()) {
            shutter.trigger(since);
        }
    }
    if (shutter.takeOpened() && line && master)
        line->fire(shutter.sinceWhen());
}

} // namespace sim
