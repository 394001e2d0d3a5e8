// Locks and their guards, events, threads.
#include "shared/osdepend.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

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

std::ptrdiff_t threadCount()
{
    return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/task"));
}

/// A thread that runs `work`, which must outlive it.
void start(std::function<void()>& work)
{
    ASSERT_NE(createThread([](void* arg) { (*static_cast<std::function<void()>*>(arg))(); }, &work), 0U);
}

TEST(Threads, AreGoneWhenTheyHaveBeenWaitedFor)
{
    std::thread([] {}).join(); // with the first one a sanitizer starts a thread of its own
    const auto before = threadCount();
    Event release;
    std::function<void()> blocked = [&] { release.wait(WAIT_FOREVER); };
    std::function<void()> throwing = [] { throw std::runtime_error("not to leave the thread"); };
    bool ownSeen = true;
    std::function<void()> waiting = [&] { ownSeen = waitForThreads(60000); };
    start(blocked);
    for (int i = 0; i < 20; ++i)
        start(throwing);
    EXPECT_FALSE(waitForThreads(50)) << "one is blocked";
    EXPECT_EQ(threadCount(), before + 1) << "but the others are gone";
    start(waiting);
    release.set();
    EXPECT_TRUE(waitForThreads(60000));
    EXPECT_EQ(threadCount(), before);
    EXPECT_FALSE(ownSeen) << "nobody waits for himself";
}

TEST(Event, WaitsItsTimeAcrossTheTurnOfASecond)
{
    Event event;
    for (const double end = getPreciseTime() + 1.1; getPreciseTime() < end;) {
        const double begin = getPreciseTime();
        EXPECT_FALSE(event.wait(30));
        EXPECT_GE(getPreciseTime() - begin, 0.0299); // of two clocks
    }
}

TEST(Event, KeepsASignalForOneWait)
{
    Event event(false, false, "test");
    EXPECT_TRUE(event.set() && event.set());
    EXPECT_TRUE(event.wait(0));
    EXPECT_FALSE(event.wait(1));
    EXPECT_TRUE(event.set() && event.reset());
    EXPECT_FALSE(event.wait(0));

    Event manual(true, true);
    EXPECT_TRUE(manual.wait(0));
    EXPECT_TRUE(manual.wait(WAIT_FOREVER));
    EXPECT_TRUE(manual.reset());
    EXPECT_FALSE(manual.wait(0));
}

} // namespace
