// Readings that a composite's series makes between two frames for a host that polls.
#pragma once

#include "shared/osdepend.h"

#include <atomic>
#include <map>
#include <set>

namespace HwLatixel {

/// The readings that somebody has asked for in a series, and what the ADC told last. A reading is named by its ADC
/// channel, counted through the members, or by one of the constants. Safe from any thread; nothing is held while the
/// boards are asked.
class LadReadings {
public:
    static constexpr unsigned STATUS = 0xFFFF0000;
    static constexpr unsigned STATUS_TEXT = 0xFFFF0001;

    /// A series begins: nothing is asked for, and nothing is read for the first second.
    void begin()
    {
        ThreadLock lock(&sync);
        wishes.clear();
        nextServing = getPreciseTime() + INTERVAL;
    }
    /// Whether something is asked for and may be read by now.
    bool due() const
    {
        ThreadLock lock(&sync);
        return !wishes.empty() && getPreciseTime() >= nextServing;
    }
    /// Asks for a reading, and gives the series up to a tenth of a second for it where it may come in that time.
    /// `serves()` tells whether the series still does.
    template <typename Serves>
    void ask(unsigned reading, bool mayWait, Serves serves)
    {
        const double deadline = getPreciseTime() + PATIENCE;
        {
            ThreadLock lock(&sync);
            wishes.insert(reading);
        }
        while (mayWait && nextServing <= deadline && isWished(reading) && serves() && getPreciseTime() < deadline)
            sleepThread(POLL);
    }
    /// Runs `read(reading)` for each that is asked for.
    template <typename Read>
    void serve(Read read)
    {
        std::set<unsigned> wanted;
        {
            ThreadLock lock(&sync);
            wanted = wishes;
        }
        for (const unsigned reading : wanted)
            read(reading);
        ThreadLock lock(&sync);
        for (const unsigned reading : wanted)
            wishes.erase(reading);
        nextServing = getPreciseTime() + INTERVAL;
    }

    /// Volts at an ADC channel as read last; 0 before.
    double volts(unsigned channel) const
    {
        ThreadLock lock(&sync);
        const auto found = adc.find(channel);
        return found != adc.end() ? found->second : 0.0;
    }
    void setVolts(unsigned channel, double volts)
    {
        ThreadLock lock(&sync);
        adc[channel] = volts;
    }

private:
    static constexpr double INTERVAL = 1.0; ///< seconds between two servings
    static constexpr double PATIENCE = 0.1; ///< seconds that a poll waits for its reading
    static constexpr double POLL = 0.005;   ///< seconds

    bool isWished(unsigned reading) const
    {
        ThreadLock lock(&sync);
        return wishes.contains(reading);
    }

    mutable ThreadSyncObject sync;
    std::set<unsigned> wishes;            ///< sync
    std::map<unsigned, double> adc;       ///< sync
    std::atomic<double> nextServing{0.0}; ///< when the next readings may be made
};

} // namespace HwLatixel
