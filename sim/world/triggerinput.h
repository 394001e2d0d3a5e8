// The trigger input of a readout board, with the line on which boards of one bench hang together.
//
// Keys of a board in a bench:
//   "trigger_idle"  level of the input at rest, 0 or 1 (1); a pulse goes to the other level and back
//   "trigger_line"  name of a line that boards of one bench share: the trigger master drives it, the others listen
#pragma once

#include "sim/world/shutter.h"
#include "sim/world/triggerline.h"

#include <nlohmann/json_fwd.hpp>

namespace sim {

class LATIXELSIM_API TriggerInput {
public:
    /// From a board's entry.
    explicit TriggerInput(const nlohmann::json& board);
    ~TriggerInput();
    TriggerInput(const TriggerInput&) = delete;
    TriggerInput& operator=(const TriggerInput&) = delete;

    /// The trigger word, as the host sends it. Its lowest two bits say at what the input triggers: low, high, rising
    /// edge, falling edge; then come waiting for the others, and master.
    void set(std::uint8_t newWord) { settings = newWord; }
    std::uint8_t word() const { return settings; }

    /// Lets a shutter go that waits for the input, the line, or the other boards on the line; the master tells the
    /// others that its shutter has opened.
    void serve(Shutter& shutter, Time now);
    /// The board waits no more.
    void disarm();

private:
    bool rests() const;

    bool idleLevel;
    std::shared_ptr<TriggerLine> line;
    std::uint8_t settings = 0;
};

} // namespace sim
