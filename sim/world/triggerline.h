// The trigger wires between boards that take their frames together: one board drives, the others listen. Boards are
// asked at different moments and from different threads; times are what orders the events on a line.
#pragma once

#include "sim/types.h"

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace sim {

class TriggerLine {
public:
    /// The line with that name that boards hang on at present, or a new one.
    static std::shared_ptr<TriggerLine> named(const std::string& name);

    /// A board hangs on the line, and takes leave of it.
    void join(const void* board);
    void leave(const void* board);

    /// The first firing at or after `since`. Where there is none, the listener is armed from `since` on. Both are one
    /// step: a firing in between would leave armed who has been let go, and the next one would not wait for it.
    std::optional<Time> await(const void* board, Time since);
    /// A listener waits no more.
    void disarm(const void* board);
    /// When the last of all others was armed, or none while one of them is not.
    std::optional<Time> othersReady(const void* driver) const;
    /// The driver opens its shutter, which lets all listeners go that are armed.
    void fire(Time at);

private:
    mutable std::mutex mutex;
    std::map<const void*, std::optional<Time>> boards; ///< with the time of arming
    std::deque<Time> firings;
};

} // namespace sim
