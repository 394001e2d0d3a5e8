// Who delivers a device's events, and the worker thread among them.
#include "shared/hweventdispatcher.h"

#include "shared/contained.h"

/// Makes the calling thread the one that delivers, with the lock released meanwhile.
class HwEventDispatcher::Delivery {
public:
    Delivery(HwEventDispatcher& dispatcher, Lock& held) : owner(dispatcher), lock(held)
    {
        owner.deliverer = getCurThreadId();
        ++owner.depth;
        lock.unlock();
    }
    ~Delivery()
    {
        lock.lock();
        --owner.depth;
        owner.changed.notify_all();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

private:
    HwEventDispatcher& owner;
    Lock& lock;
};

HwEventDispatcher::~HwEventDispatcher()
{
    HwEventDispatcher::stopThreadAndWait();
}

// A worker that was told to stop leaves only under `sync`, and marks it by `finished`. While that is not set, raising
// `running` again is enough to keep it; a new thread beside it would take half of the events.
bool HwEventDispatcher::startThread()
{
    Lock lock(sync);
    eventPending = false;
    workerless = false;
    running = true;
    if (!finished)
        return true;
    finished = false;
    started = false;
    if (createThread(&threadEntry, this) == 0) {
        running = false;
        finished = true;
        workerless = true;
        return false;
    }
    changed.wait(lock, [this] { return started; });
    return true;
}

// What the next series may start while this waits stays as it is.
void HwEventDispatcher::stopThread()
{
    Lock lock(sync);
    running = false;
    workerless = false;
    eventPending = false;
    changed.notify_all();
    changed.wait(lock, [this] { return !othersDeliver(); });
}

// The worker touches this object until it has released `sync` behind `finished`; the caller, who may destroy the object
// next, has had it since.
void HwEventDispatcher::stopThreadAndWait()
{
    HwEventDispatcher::stopThread();
    Lock lock(sync);
    if (started && !finished && pthread_equal(worker, getCurThreadId()) != 0)
        return;
    changed.wait(lock, [this] { return finished; });
}

void HwEventDispatcher::setEvent(unsigned int type, long data, bool async)
{
    Lock lock(sync);
    changed.wait(lock, [this] { return !othersDeliver(); });
    if (async && !workerless) {
        eventType = type;
        eventData = data;
        eventPending = true;
        changed.notify_all();
        return;
    }
    changed.wait(lock, [this] { return depth > 0 ? !othersDeliver() : !eventPending || !running; });
    deliver(lock, type, data);
}

void HwEventDispatcher::awaitDelivery()
{
    Lock lock(sync);
    changed.wait(lock, [this] { return !othersDeliver() && (!eventPending || !running); });
}

void HwEventDispatcher::setFunc(EventFunc newFunc, void* user)
{
    const Lock lock(sync);
    func = newFunc;
    userData = user;
}

void HwEventDispatcher::threadFunc()
{
    Lock lock(sync);
    worker = getCurThreadId();
    started = true;
    changed.notify_all();
    for (;;) {
        changed.wait(lock, [this] { return !running || (eventPending && depth == 0); });
        if (!running)
            break;
        eventPending = false;
        deliver(lock, eventType, eventData);
    }
    finished = true;
    changed.notify_all();
}

void HwEventDispatcher::threadEntry(void* dispatcher)
{
    setCurrentThreadName("hwe_dispatch");
    static_cast<HwEventDispatcher*>(dispatcher)->threadFunc();
}

bool HwEventDispatcher::othersDeliver() const
{
    return depth > 0 && pthread_equal(deliverer, getCurThreadId()) == 0;
}

// Calls the host. Needs the lock and that no other thread delivers.
void HwEventDispatcher::deliver(Lock& lock, unsigned int type, long data)
{
    const EventFunc currentFunc = func;
    void* currentUser = userData;
    if (currentFunc == nullptr)
        return;
    const Delivery delivery(*this, lock);
    contained([&] { currentFunc(type, data, currentUser); });
}
