// A device's events on their way to the host.
#pragma once

#include "devices/common/serieslife.h"
#include "host/ihwdev.h"
#include "shared/contained.h"
#include "shared/hweventdispatcher.h"
#include "shared/osdepend.h"

namespace HwLatixel {

/// Calls the host's event callback, through a dispatcher or at once, with no lock in hand, and marks the thread
/// meanwhile as one that runs a handler of this device. Safe from any thread.
class HostEvents {
public:
    explicit HostEvents(SeriesLife& seriesLife) : life(seriesLife) { worker.setFunc(&deliver, this); }
    HostEvents(const HostEvents&) = delete;
    HostEvents& operator=(const HostEvents&) = delete;

    /// The host's callback, null for none; what is under way still goes to the former one.
    void setFunc(dv::EventFunc newFunc, void* newUser)
    {
        ThreadLock lock(&sync);
        func = newFunc;
        user = newUser;
    }
    /// Runs `hook(owner)` on the thread of each frame event, before the host's callback and also where there is none.
    /// Set before the first event.
    void setBeforeFrame(void (*hook)(void*), void* owner)
    {
        beforeFrame = hook;
        frameOwner = owner;
    }
    /// The same behind the callback.
    void setBehindFrame(void (*hook)(void*)) { behindFrame = hook; }
    /// In order with all other events that go this way; `throughWorker` on the dispatcher's thread.
    void send(unsigned event, long data, bool throughWorker) { worker.setEvent(event, data, throughWorker); }
    /// At once on this thread, beside the order of the others.
    void sendDirectly(unsigned event, long data) { deliver(event, data, this); }
    HwEventDispatcher& dispatcher() { return worker; }

private:
    static void deliver(unsigned event, long data, void* events)
    {
        auto* self = static_cast<HostEvents*>(events);
        if (event == HWEVENT_FRAME_READY && self->beforeFrame != nullptr)
            self->beforeFrame(self->frameOwner);
        dv::EventFunc called = nullptr;
        void* calledUser = nullptr;
        {
            ThreadLock lock(&self->sync);
            called = self->func;
            calledUser = self->user;
        }
        if (called != nullptr) {
            const SeriesLife::Callback callback(self->life);
            contained([&] { called(event, data, calledUser); });
        }
        if (event == HWEVENT_FRAME_READY && self->behindFrame != nullptr)
            self->behindFrame(self->frameOwner);
    }

    SeriesLife& life;
    ThreadSyncObject sync;        ///< keeps callback and user together; never held across a call
    dv::EventFunc func = nullptr; ///< sync
    void* user = nullptr;         ///< sync
    void (*beforeFrame)(void*) = nullptr;
    void (*behindFrame)(void*) = nullptr;
    void* frameOwner = nullptr;
    HwEventDispatcher worker;
};

} // namespace HwLatixel
