// Waits that take their time, threads that are gone when they are waited for, and the host that is called unlocked.
#include "shared/fileops.h"
#include "shared/hweventdispatcher.h"
#include "shared/osdepend.h"
#include "support/tempfolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

std::ptrdiff_t threadCount()
{
    return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/task"));
}

/// A thread that runs `work`, which must outlive it.
void start(std::function<void()>& work)
{
    ASSERT_NE(createThread([](void* arg) { (*static_cast<std::function<void()>*>(arg))(); }, &work), 0U);
}

/// What a dispatcher's callback is to do with each event.
struct Handler {
    explicit Handler(HwEventDispatcher& dispatcher) { dispatcher.setFunc(&Handler::onEvent, this); }
    static void onEvent(unsigned int type, long, void* user)
    {
        auto* self = static_cast<Handler*>(user);
        self->threads.push_back(getCurThreadId());
        self->types.push_back(type);
        if (self->work)
            self->work(type);
    }

    std::function<void(unsigned int)> work;
    std::vector<unsigned int> types;
    std::vector<pthread_t> threads;
};

/// Takes from the system what new threads need, for its life.
class NoThreads {
public:
    NoThreads()
    {
        pthread_getattr_default_np(&before);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::size_t{1} << 46);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }
    ~NoThreads()
    {
        pthread_setattr_default_np(&before);
        pthread_attr_destroy(&before);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t before;
};

TEST(Event, WaitsItsTimeAcrossTheTurnOfASecond)
{
    constexpr auto LIMIT = std::chrono::milliseconds(30);
    Event event;
    for (const auto end = Clock::now() + std::chrono::milliseconds(1100); Clock::now() < end;) {
        const auto begin = Clock::now();
        EXPECT_FALSE(event.wait(LIMIT.count()));
        EXPECT_GE(Clock::now() - begin, LIMIT);
    }
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

TEST(HwEventDispatcher, CallsTheHostWithNoLockOfOurs)
{
    HwEventDispatcher dispatcher;
    Handler handler(dispatcher);
    ThreadSyncObject hostLock; // the thread sanitizer tells of two orders of it and a lock of the dispatcher
    Event ready;
    Event done;
    handler.work = [&](unsigned int) {
        std::function<void()> other = [&] {
            dispatcher.setFunc(&Handler::onEvent, &handler);
            dispatcher.startThread(); // keeps the worker
            done.set();
        };
        start(other);
        EXPECT_TRUE(done.wait(10000)) << "the callback may wait for a thread that makes these calls";
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
    EXPECT_EQ(handler.types, (std::vector<unsigned int>{1, 2}));
}

TEST(HwEventDispatcher, StopsWithinItsCallbackAndAfterAnException)
{
    HwEventDispatcher dispatcher;
    Handler handler(dispatcher);
    Event over;
    handler.work = [&](unsigned int type) {
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
    EXPECT_EQ(handler.types, (std::vector<unsigned int>{1, 2}));
}

TEST(HwEventDispatcher, LosesNothingWhereTheSystemHasNoThread)
{
    HwEventDispatcher dispatcher;
    Handler handler(dispatcher);
    {
        const NoThreads none;
        EXPECT_FALSE(dispatcher.startThread());
    }
    dispatcher.setEvent(1, 0, true);
    dispatcher.stopThread();
    dispatcher.setEvent(2, 0, true); // as ever: behind a stop there is no worker, and the next start drops it
    EXPECT_TRUE(dispatcher.startThread());
    dispatcher.setEvent(3, 0, true);
    dispatcher.setEvent(4, 0, false); // behind the one that the worker has still to take
    dispatcher.stopThreadAndWait();
    EXPECT_EQ(handler.types, (std::vector<unsigned int>{1, 3, 4}));
    EXPECT_EQ(handler.threads[0], getCurThreadId());
}

TEST(Files, AreClosedInProgramsThatAreStarted)
{
    const support::TempFolder dir;
    for (const char* mode : {"w", "a+b", "rb"}) {
        const std::string path = dir / "file";
        const File file(path.c_str(), mode);
        ASSERT_NE(static_cast<FILE*>(file), nullptr);
        EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0) << mode;
    }
}

} // namespace
