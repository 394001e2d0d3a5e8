// Who may use a board's link: one after the other, and whoever waits longest is next.
#pragma once

#include "shared/osdepend.h"

#include <deque>

namespace HwLatixel {

/// The right to use the link for something that must not be split: an exchange in several parts, a frame from its start
/// command to the last byte of its stream, or a whole series. It belongs to the thread that has taken it, which may
/// take it again inside. Safe from any thread; no lock of its own is held while somebody has the turn.
class LinkTurn {
public:
    /// What became of a request.
    enum class Answer {
        Taken,
        Busy,    ///< nobody gave it up in time
        Running, ///< it belongs to a whole series
        Closing, ///< the device is being closed
    };

    LinkTurn() = default;
    LinkTurn(const LinkTurn&) = delete;
    LinkTurn& operator=(const LinkTurn&) = delete;

    /// Waits for the turn at most `limit` seconds, 0 or less not at all. Each `Taken` wants a `give`.
    Answer take(double limit);
    /// Waits for the turn as a series does: as long as it takes, and not refused by its own reservation. False where
    /// the device is being closed.
    bool takeForSeries();
    /// Gives one `take` of this thread back; with the last one the turn goes to whoever waits longest.
    void give();
    /// Whether somebody waits for it.
    bool wanted() const;
    /// Whether the calling thread has it.
    bool mine() const;

    /// For a series that is one turn as a whole: from now on everybody is refused with `Running`, those who wait and
    /// the series' own thread as well, since the host's handlers run on it.
    void beginWholeSeries();
    /// Who asks from now on waits again.
    void endWholeSeries();

    /// For a series that gives the turn back while it calls the host: from now on nobody else gets it, though they may
    /// wait for it. The thread that takes it for the series first is the series'; from its handlers it is refused.
    void reserve();
    void endReservation();

    /// From now on everybody but the calling thread is refused with `Closing`, those who wait as well.
    void beginClosing();
    void endClosing();

private:
    struct Waiter {
        pthread_t thread;
        bool forSeries = false;
        Answer answer = Answer::Busy;
        Event answered{false, false, "linkTurn"};
    };

    bool refuses(Answer* answer) const;
    void dismiss(Answer answer);
    void passOn();
    bool mayHave(const Waiter& waiter) const { return !reserved || waiter.forSeries; }

    mutable ThreadSyncObject sync; ///< guards everything below
    std::deque<Waiter*> row;       ///< who waits, the longest first
    pthread_t holder = 0;          ///< valid while `depth` is not 0
    int depth = 0;                 ///< takes of the holder that were not given back
    bool wholeSeries = false;
    bool reserved = false;
    bool reserverKnown = false;
    pthread_t reserver = 0; ///< the series' thread; valid while `reserverKnown`
    bool closing = false;
    pthread_t closer = 0; ///< valid while `closing`
};

} // namespace HwLatixel
