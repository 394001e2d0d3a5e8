// The order of events, what gets lost on purpose, the life of the worker, and the host that is called unlocked.
#include "shared/hweventdispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using Events = std::vector<std::pair<unsigned int, long>>;

/// Records what the callback gets. Read the record after `waitForEvents`.
struct Listener {
    explicit Listener(HwEventDispatcher& dispatcher) { dispatcher.setFunc(&Listener::onEvent, this); }
    static void onEvent(unsigned int type, long data, void* user)
    {
        Listener* self = static_cast<Listener*>(user);
        self->events.emplace_back(type, data);
        self->threads.push_back(getCurThreadId());
        if (self->reaction)
            self->reaction(type);
        ++self->count;
    }
    void waitForEvents(unsigned number) const
    {
        while (count < number)
            sleepThread(0.001);
    }

    Events events;
    std::vector<pthread_t> threads;
    std::function<void(unsigned int)> reaction;
    std::atomic<unsigned> count = 0;
};

/// Does something while the system has not what new threads need.
void withoutThreads(const std::function<void()>& act)
{
    pthread_attr_t before;
    pthread_attr_t huge;
    pthread_getattr_default_np(&before);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
    pthread_setattr_default_np(&huge);
    act();
    pthread_setattr_default_np(&before);
}

TEST(HwEventDispatcher, DeliversTheNewestPendingEventOnOneWorker)
{
    HwEventDispatcher dispatcher;
    dispatcher.setEvent(8, 80, false); // nobody listens
    Listener listener(dispatcher);
    listener.reaction = [&](unsigned int type) {
        if (type == 1) {
            dispatcher.setEvent(2, 20, true);
            dispatcher.setEvent(3, 30, true);
        } else if (type == 3) {
            dispatcher.setEvent(4, 40, true); // dropped by the stop
            dispatcher.stopThread();
            dispatcher.startThread();
            dispatcher.setEvent(5, 50, true);
        }
    };
    dispatcher.setEvent(9, 90, true);   // no worker: dropped by the start
    dispatcher.setEvent(7, -70, false); // this one needs none
    dispatcher.startThread();
    dispatcher.setEvent(1, 10, true);
    listener.waitForEvents(4);
    dispatcher.stopThreadAndWait();
    dispatcher.setEvent(6, 60, false);
    dispatcher.setFunc(nullptr, nullptr);
    dispatcher.setEvent(8, 80, false);
    EXPECT_EQ(listener.events, (Events{{7, -70}, {1, 10}, {3, 30}, {5, 50}, {6, 60}}));
    const pthread_t worker = listener.threads[1];
    EXPECT_EQ(listener.threads, (std::vector{getCurThreadId(), worker, worker, worker, getCurThreadId()}));
    EXPECT_NE(worker, getCurThreadId());
}

TEST(HwEventDispatcher, CallsTheHostWithNoLockOfOurs)
{
    HwEventDispatcher dispatcher;
    Listener listener(dispatcher);
    ThreadSyncObject hostLock; // the thread sanitizer tells of two orders of it and a lock of the dispatcher
    Event ready;
    listener.reaction = [&](unsigned int) {
        const auto other = std::async(std::launch::async, [&] {
            dispatcher.setFunc(&Listener::onEvent, &listener);
            dispatcher.startThread(); // keeps the worker
        });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << "the callback may wait for a thread that makes these calls";
        const ThreadLock lock(&hostLock);
        ready.set();
    };
    dispatcher.startThread();
    {
        const ThreadLock lock(&hostLock);
        dispatcher.setEvent(1, 0, true);
    }
    EXPECT_TRUE(ready.wait(10000));
    dispatcher.setEvent(2, 0, false);
    dispatcher.stopThreadAndWait();
    EXPECT_EQ(listener.events, (Events{{1, 0}, {2, 0}}));
}

TEST(HwEventDispatcher, StopsWithinItsCallbackAndAfterAnException)
{
    HwEventDispatcher dispatcher;
    Listener listener(dispatcher);
    Event over;
    listener.reaction = [&](unsigned int type) {
        if (type == 1)
            throw std::runtime_error("the host's own");
        dispatcher.setEvent(3, 0, true); // dropped by the stop
        dispatcher.stopThreadAndWait();
        over.set();
    };
    dispatcher.setEvent(1, 0, false);
    dispatcher.startThread();
    dispatcher.setEvent(2, 0, true);
    EXPECT_TRUE(over.wait(10000));
    dispatcher.stopThreadAndWait();
    EXPECT_EQ(listener.events, (Events{{1, 0}, {2, 0}}));
}

TEST(HwEventDispatcher, LosesNothingWhereTheSystemHasNoThread)
{
    HwEventDispatcher dispatcher;
    Listener listener(dispatcher);
    withoutThreads([&] { EXPECT_FALSE(dispatcher.startThread()); });
    dispatcher.setEvent(1, 0, true);
    dispatcher.stopThread();
    dispatcher.setEvent(2, 0, true); // as ever: behind a stop there is no worker, and the next start drops it
    EXPECT_TRUE(dispatcher.startThread());
    dispatcher.setEvent(3, 0, true);
    dispatcher.setEvent(4, 0, false); // behind the one that the worker has still to take
    dispatcher.stopThreadAndWait();
    EXPECT_EQ(listener.events, (Events{{1, 0}, {3, 0}, {4, 0}}));
    EXPECT_EQ(listener.threads[0], getCurThreadId());
}

} // namespace
