// The life of a device's series: its states, what leads from one to the next, and the threads that run it.
#pragma once

#include "shared/osdepend.h"

namespace HwLatixel {

/// What a series is doing, and what a start, a stop or a closing may do about it. One for each device. Safe from any
/// thread; no lock of its own is held while a call returns.
///
/// A series begins on the host's thread (`begin`, then `run` or `giveUp`) and ends on its own (`framesOver`, then
/// `finished` before its last event). A stop asks for the end in every state; the flag stays until the next series
/// begins. The host's event handlers run under a `Callback`, so that a call from inside one is known.
class SeriesLife {
public:
    enum class State {
        Idle,
        Preparing, ///< the host's thread prepares the board
        Running,
        Stopping, ///< a stop has come; the series has not seen it yet, or cuts its frame
        Ending,   ///< no frame is taken any more; the link and the chips are put in order
    };
    /// What becomes of a start.
    enum class Start {
        Accepted,
        Running,    ///< there is a series that nobody has stopped
        InCallback, ///< the handler that asks holds up the end of the series before
        Late,       ///< the series before has not ended in time
    };
    /// Where a call comes from.
    enum class Caller {
        Host,      ///< none of this device's threads
        LastEvent, ///< the handler of a series' last event: the series is over, and its thread waits for the handler
        Handler,   ///< another handler of this device's events
    };

    /// Seconds that a start waits for what is left of a stopped series.
    static constexpr double START_LIMIT = 5.0;

    SeriesLife() = default;
    SeriesLife(const SeriesLife&) = delete;
    SeriesLife& operator=(const SeriesLife&) = delete;

    State state() const;
    Caller caller() const;
    /// Whether the end of the series was asked for.
    bool stopped() const { return loadFlag(stopFlag); }
    /// For waits that poll it.
    const bool* stopRequested() const { return &stopFlag; }

    /// Begins a series where none runs; right behind a stop it waits for the end of the former one, its last event
    /// included, so that no event of the new series comes before that. A last event that goes on for the whole limit
    /// waits for the new series, perhaps, and is not waited for any longer.
    Start begin();
    /// The preparation has failed.
    void giveUp();
    /// Runs the prepared series: `func(device)` on a thread of its own, which calls `left` as its last act. False where
    /// the system has no thread to give; then there is no series.
    bool run(void (*func)(void*), void* device);
    /// Asks for the end. Whether there is a series whose board is to be told.
    bool stop();
    void framesOver();
    /// The board is free again; only the last event is left to tell.
    void finished();
    /// The thread's last act. True where nobody else frees the device any more: the thread does it.
    bool left();
    /// The device is to be freed: by the caller where no thread of a series is left (true), else by the last of them.
    bool abandon();

    /// Waits until the threads of all series but the calling one are gone, at most `limit` seconds. Whether they are.
    bool awaitThreads(double limit);

    /// Marks the calling thread as one that runs a handler of the host for this device, as long as it lives.
    class Callback {
    public:
        explicit Callback(SeriesLife& life);
        ~Callback();
        Callback(const Callback&) = delete;
        Callback& operator=(const Callback&) = delete;

    private:
        friend class SeriesLife;
        const SeriesLife* life;
        const Callback* outer;
    };

private:
    enum class Happening { Begin, GiveUp, Run, Stop, FramesOver, Finished };
    struct Transition {
        State from;
        Happening what;
        State to;
    };
    static const Transition TABLE[];

    bool follow(Happening what);
    Start tryBegin(double deadline);
    bool inCallback() const;
    bool lastEventPending(double deadline) const;

    mutable ThreadSyncObject sync; ///< guards the fields below; never held during a wait
    State now = State::Idle;
    int threads = 0; ///< of series that have not left
    bool abandoned = false;
    bool stopFlag = false; ///< polled; set under `sync`

    static void threadEntry(void* record);
};

} // namespace HwLatixel
