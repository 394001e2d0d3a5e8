// Locks and their guards, events, threads.
#include "shared/osdepend.h"

#include <gtest/gtest.h>

#include <future>
#include <limits>

namespace {

bool freeForOthers(ThreadSyncObject& sync)
{
    return std::async(std::launch::async, [&] { return ThreadLockTimeout(&sync, 0).locked(); }).get();
}

TEST(ThreadSyncObject, IsHeldUntilTheLastUnlock)
{
    ThreadSyncObject sync;
    EXPECT_TRUE(sync.lock());
    ThreadLockManual guard(&sync, true);
    EXPECT_TRUE(guard.unlock());
    EXPECT_FALSE(guard.unlock()) << "a guard releases once";
    EXPECT_FALSE(freeForOthers(sync));

    Event waiting;
    auto other = std::async(std::launch::async, [&] {
        EXPECT_FALSE(sync.lock(1));
        waiting.set();
        return ThreadLockTimeout(&sync, 60000).locked();
    });
    EXPECT_TRUE(waiting.wait(WAIT_FOREVER));
    EXPECT_TRUE(sync.unlock());
    EXPECT_TRUE(other.get());
}

TEST(Event, KeepsASignalForOneWait)
{
    Event event(false, false, "test");
    EXPECT_TRUE(event.set() && event.set());
    EXPECT_TRUE(event.wait(0));
    EXPECT_FALSE(event.wait(0));
    EXPECT_FALSE(event.wait(1));
    EXPECT_TRUE(event.set() && event.reset());
    EXPECT_FALSE(event.wait(0));

    Event manual(true, true);
    EXPECT_TRUE(manual.wait(0));
    EXPECT_TRUE(manual.wait(WAIT_FOREVER));
    EXPECT_TRUE(manual.reset());
    EXPECT_FALSE(manual.wait(0));
}

TEST(Clock, SleepTakesItsTimeAndNonsenseToo)
{
    const double start = getPreciseTime();
    sleepThread(0.002);
    EXPECT_GE(getPreciseTime() - start, 0.002);
    sleepThread(-1);
    sleepThread(std::numeric_limits<double>::quiet_NaN());
}

} // namespace
