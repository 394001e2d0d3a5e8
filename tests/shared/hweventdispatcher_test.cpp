// The order of events, what gets lost on purpose, and the life of the worker.
#include "shared/hweventdispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
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
        self->arrived.set();
    }
    void waitForEvents(unsigned number)
    {
        while (count < number)
            arrived.wait(WAIT_FOREVER);
    }

    Events events;
    std::vector<pthread_t> threads;
    std::function<void(unsigned int)> reaction;
    std::atomic<unsigned> count = 0;
    Event arrived;
};

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

TEST(HwEventDispatcher, SurvivesQuickRestartsAndItsEndRightAfterAStop)
{
    for (unsigned round = 0; round < 40; ++round) {
        auto dispatcher = std::make_unique<HwEventDispatcher>();
        Listener listener(*dispatcher);
        Events expected;
        for (long series = 0; series < 5; ++series) {
            dispatcher->startThread();
            dispatcher->setEvent(1, series, true);
            listener.waitForEvents(static_cast<unsigned>(2 * series + 1));
            dispatcher->stopThread();
            dispatcher->setEvent(2, series, false);
            expected.insert(expected.end(), {{1, series}, {2, series}});
        }
        dispatcher.reset();
        EXPECT_EQ(listener.events, expected);
    }
}

} // namespace
