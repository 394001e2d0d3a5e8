// The software trigger of a series.
#pragma once

#include "host/records.h"
#include "shared/hweventdispatcher.h"
#include "shared/osdepend.h"

namespace HwLatixel {

/// Set by the host's `doSoftwareTrigger`, waited for by the acquisition thread. Safe from any thread.
class SoftTrigger {
public:
    /// Ends one wait, also one that begins later.
    void fire() { event.set(); }
    /// Tells the host by HWEVENT_WAIT_TRIGGER, and waits for the trigger, or until `*stop` is true where `stop` is
    /// given.
    void wait(HwEventDispatcher& dispatcher, const bool* stop)
    {
        wait(dispatcher, stop, [] { return true; });
    }
    /// The same; `goOn()` runs ten times a second meanwhile, and ends the wait by false.
    template <typename GoOn>
    void wait(HwEventDispatcher& dispatcher, const bool* stop, GoOn goOn)
    {
        constexpr unsigned POLL_MS = 100;
        dispatcher.setEvent(HWEVENT_WAIT_TRIGGER, 0, false);
        while (!event.wait(POLL_MS)) {
            if (stop != nullptr && loadFlag(*stop))
                return;
            if (!goOn())
                return;
        }
    }

private:
    Event event{false, false, "softTrigger"};
};

} // namespace HwLatixel
