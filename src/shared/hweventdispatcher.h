// Carries a device's events to the host's callback, on a thread of its own if asked, so that an acquisition goes on
// while the host works on a frame.
#pragma once

#include "shared/osdepend.h"

#include <condition_variable>
#include <mutex>

/// Holds one pending event and no queue: a newer asynchronous event overwrites one that was not taken yet.
/// All operations may be called from any thread. One callback runs at a time, with no lock held: another thread that
/// calls `setEvent` or `stopThread` waits until it has returned, which keeps the order of events. The callback itself
/// may call every operation; an event that it sends on its own thread is delivered at once, within it.
class HwEventDispatcher {
public:
    /// Gets an event with its data and the pointer given to `setFunc`. An exception that it throws is dropped.
    using EventFunc = void (*)(unsigned int eventType, long data, void* user);

    HwEventDispatcher() = default;
    /// Stops the worker and waits for its end. Not to be run from the callback.
    virtual ~HwEventDispatcher();
    HwEventDispatcher(const HwEventDispatcher&) = delete;
    HwEventDispatcher& operator=(const HwEventDispatcher&) = delete;

    /// Starts the worker and returns when it runs. A worker that was stopped and has not left yet is kept on instead,
    /// so that there is never a second one. An event stored before is dropped. False if the system has no thread to
    /// give: until the next stop or start, asynchronous events are delivered as synchronous ones then.
    virtual bool startThread();
    /// Tells the worker to end and drops the event that it has not taken. Waits for a callback in progress on another
    /// thread, but not for the worker's end.
    virtual void stopThread();
    /// `stopThread`, then waits for the worker's end; on the worker itself, within its callback, it does not wait.
    virtual void stopThreadAndWait();
    /// Delivers an event: through the worker if `async`, else at once on the calling thread, which needs no worker.
    /// One that the worker has still to take comes first. Without a callback it does nothing.
    virtual void setEvent(unsigned int type, long data, bool async);

    /// Waits until the worker has delivered what it was given. Not to be run from the callback.
    void awaitDelivery();

    /// Sets the callback and what it gets as `user`; null for none. May be called at any time: it does not wait for a
    /// callback in progress, which still has the former pair.
    void setFunc(EventFunc newFunc, void* user);

protected:
    /// Body of the worker thread.
    virtual void threadFunc();

private:
    using Lock = std::unique_lock<std::mutex>;
    class Delivery;

    static void threadEntry(void* dispatcher);
    bool othersDeliver() const;
    void deliver(Lock& lock, unsigned int type, long data);

    std::mutex sync;                 ///< never held across the callback
    std::condition_variable changed; ///< tells of every change of the fields below, which are all under `sync`
    EventFunc func = nullptr;
    void* userData = nullptr;
    unsigned int eventType = 0;
    long eventData = 0;
    bool eventPending = false; ///< `eventType` and `eventData` wait for the worker
    bool running = false;      ///< false tells the worker to leave
    bool started = false;      ///< the worker runs
    bool finished = true;      ///< there is no worker that could still take an event
    bool workerless = false;   ///< there should be a worker, but the system gave none
    pthread_t worker = 0;      ///< once `started`
    unsigned int depth = 0;    ///< callbacks in progress, one within the other
    pthread_t deliverer = 0;   ///< the thread that they run on; not 0 where `depth` is not
};
