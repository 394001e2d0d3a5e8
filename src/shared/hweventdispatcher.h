// Carries a device's events to the host's callback, on a thread of its own if asked, so that an acquisition goes on
// while the host works on a frame.
#pragma once

#include "shared/osdepend.h"

/// Holds one pending event and no queue: a newer asynchronous event overwrites one that was not taken yet.
/// All operations may be called from any thread. The callback runs under the dispatcher's lock, which keeps the order
/// of events: another thread that calls `setEvent` or `stopThread` waits for the callback's end, so a callback must
/// not wait for such a thread. The callback itself may call every operation but `stopThreadAndWait`.
class HwEventDispatcher {
public:
    /// Gets an event with its data and the pointer given to `setFunc`.
    using EventFunc = void (*)(unsigned int eventType, long data, void* user);

    HwEventDispatcher() = default;
    /// Stops the worker and waits for its end. Not to be run from the callback.
    virtual ~HwEventDispatcher();
    HwEventDispatcher(const HwEventDispatcher&) = delete;
    HwEventDispatcher& operator=(const HwEventDispatcher&) = delete;

    /// Starts the worker and returns when it runs. A worker that was stopped and has not left yet is kept on instead,
    /// so that there is never a second one. An event stored before is dropped. Thread creation is not checked: if
    /// the system has no thread to give, this waits for ever.
    virtual void startThread();
    /// Tells the worker to end and drops the event that it has not taken. Waits for a callback in progress on another
    /// thread, but not for the worker's end.
    virtual void stopThread();
    /// `stopThread`, then waits for the worker's end. Would wait for itself when called from the worker's callback.
    virtual void stopThreadAndWait();
    /// Delivers an event: through the worker if `async`, else at once on the calling thread, which needs no worker.
    /// Without a callback it does nothing.
    virtual void setEvent(unsigned int type, long data, bool async);

    /// Sets the callback and what it gets as `user`; null for none. May be called at any time: it does not wait for a
    /// callback in progress, which still has the former pair.
    void setFunc(EventFunc newFunc, void* user);

protected:
    /// Body of the worker thread.
    virtual void threadFunc();

private:
    static void threadEntry(void* dispatcher);
    bool dispatchNext();
    bool hasFinished();
    void callFunc(unsigned int type, long data);

    Event finishedEvent;        ///< set when the worker has left its loop
    bool running = false;       ///< set under `sync`; the worker also polls it without
    void* userData = nullptr;   ///< under `funcSync`
    EventFunc func = nullptr;   ///< under `funcSync`
    Event newEvent;             ///< wakes the worker: an event is stored, or `running` has changed
    Event startedEvent;         ///< set when the worker runs
    ThreadSyncObject sync;      ///< held across the callback
    unsigned int eventType = 0; ///< under `sync`, as all below
    long eventData = 0;
    bool finished = true;      ///< there is no worker that could still take an event
    bool eventPending = false; ///< `eventType` and `eventData` wait for the worker
    ThreadSyncObject funcSync; ///< keeps function and user together; never held across the callback; after `sync`
};
