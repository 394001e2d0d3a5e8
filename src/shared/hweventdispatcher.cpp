// The worker thread that delivers a device's events.
#include "shared/hweventdispatcher.h"

namespace {

constexpr unsigned int POLL_MS = 500;
constexpr unsigned int END_POLL_MS = 1;

} // namespace

HwEventDispatcher::~HwEventDispatcher()
{
    HwEventDispatcher::stopThreadAndWait();
}

// A worker that was told to stop leaves only under `sync`, and marks it by `finished`. While that is not set, raising
// `running` again is enough to keep it; a new thread beside it would take half of the events.
void HwEventDispatcher::startThread()
{
    {
        ThreadLock lock(&sync);
        storeFlag(running, true);
        eventPending = false;
        if (!finished)
            return;
        finished = false;
        startedEvent.reset();
        newEvent.reset();
        finishedEvent.reset();
    }
    createThread(&threadEntry, this);
    while (!startedEvent.wait(POLL_MS)) {
    }
}

void HwEventDispatcher::stopThread()
{
    ThreadLock lock(&sync);
    storeFlag(running, false);
    eventPending = false;
    newEvent.set();
}

// `finished` is read under `sync` even after the event: the worker touches this object until it has released `sync`,
// and the caller may destroy the object next.
void HwEventDispatcher::stopThreadAndWait()
{
    HwEventDispatcher::stopThread();
    while (!hasFinished())
        finishedEvent.wait(END_POLL_MS);
}

void HwEventDispatcher::setEvent(unsigned int type, long data, bool async)
{
    ThreadLock lock(&sync);
    if (!async) {
        callFunc(type, data);
        return;
    }
    eventType = type;
    eventData = data;
    eventPending = true;
    newEvent.set();
}

void HwEventDispatcher::setFunc(EventFunc newFunc, void* user)
{
    ThreadLock lock(&funcSync);
    func = newFunc;
    userData = user;
}

void HwEventDispatcher::threadFunc()
{
    startedEvent.set();
    while (dispatchNext()) {
    }
}

void HwEventDispatcher::threadEntry(void* dispatcher)
{
    setCurrentThreadName("hwe_dispatch");
    static_cast<HwEventDispatcher*>(dispatcher)->threadFunc();
}

// Waits for one event and delivers it. Returns false when the worker has to leave; the object may be gone by then.
bool HwEventDispatcher::dispatchNext()
{
    // No limit is needed: a stop sets the event as well. A limited wait would spin, see Event::wait.
    while (loadFlag(running) && !newEvent.wait(WAIT_FOREVER)) {
    }
    ThreadLock lock(&sync);
    if (!loadFlag(running)) {
        finished = true;
        finishedEvent.set();
        return false;
    }
    newEvent.reset();
    if (eventPending) {
        eventPending = false;
        callFunc(eventType, eventData);
    }
    return true;
}

bool HwEventDispatcher::hasFinished()
{
    ThreadLock lock(&sync);
    return finished;
}

void HwEventDispatcher::callFunc(unsigned int type, long data)
{
    EventFunc currentFunc = nullptr;
    void* currentUser = nullptr;
    {
        ThreadLock lock(&funcSync);
        currentFunc = func;
        currentUser = userData;
    }
    if (currentFunc != nullptr)
        currentFunc(type, data, currentUser);
}
