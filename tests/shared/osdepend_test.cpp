// Locks and their guards, events, threads.
#include "shared/osdepend.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <utility>

namespace {

struct Job {
    explicit Job(std::function<void()> toDo) : work(std::move(toDo)) { EXPECT_NE(createThread(&Job::run, this), 0U); }
    ~Job() { EXPECT_TRUE(done.wait(WAIT_FOREVER)); }
    static void run(void* arg)
    {
        static_cast<Job*>(arg)->work();
        static_cast<Job*>(arg)->done.set();
    }

    std::function<void()> work;
    Event done;
};

bool freeForOthers(ThreadSyncObject& sync)
{
    bool got = false;
    {
        Job other([&] { got = ThreadLockTimeout(&sync, 0).locked(); });
    }
    return got;
}

TEST(ThreadSyncObject, IsHeldUntilTheLastUnlock)
{
    ThreadSyncObject sync;
    EXPECT_TRUE(sync.lock());
    EXPECT_TRUE(sync.lock(0));
    EXPECT_TRUE(sync.unlock());
    EXPECT_FALSE(freeForOthers(sync));

    Event waiting;
    Job other([&] {
        EXPECT_FALSE(sync.lock(1));
        waiting.set();
        EXPECT_TRUE(ThreadLockTimeout(&sync, 60000).locked());
    });
    while (!waiting.wait(500)) {
    }
    EXPECT_TRUE(sync.unlock());
}

TEST(ThreadSyncObject, ManualGuardsReleaseOnce)
{
    ThreadSyncObject sync;
    ThreadLockManual guard(&sync, true);
    EXPECT_FALSE(freeForOthers(sync));
    EXPECT_TRUE(guard.unlock());
    EXPECT_FALSE(guard.unlock());
    EXPECT_TRUE(freeForOthers(sync));
    EXPECT_FALSE(ThreadLockManual(&sync, false).unlock());
}

TEST(ThreadSyncObjectDeathTest, MisuseEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ThreadSyncObject sync;
    EXPECT_DEATH(sync.unlock(), "Assertion `0' failed");
    EXPECT_DEATH(ThreadLock(nullptr), "Assertion `sync' failed");
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
