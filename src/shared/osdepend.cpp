// Locks, events, threads and the clock over POSIX.
#include "shared/osdepend.h"

#include "shared/contained.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>
#include <new>

// The assertions report a programming error at the lock that it breaks: they stay in a release build.
#undef NDEBUG
#include <cassert>

namespace {

constexpr useconds_t LOCK_POLL_US = 1000;

/// A thread from its creation until it is joined.
struct ThreadRecord {
    void (*func)(void*);
    void* arg;
    pthread_t thread;
    ThreadRecord* next;
};

/// All threads that `createThread` has started. Nothing of it is ever destroyed: threads may still end while the
/// process does.
struct Threads {
    std::mutex mutex;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    ThreadRecord* running = nullptr; ///< under `mutex`, as all below
    ThreadRecord* ended = nullptr;   ///< have nothing left to do but to return; whoever takes one out joins it
    int unjoined = 0;                ///< those of both lists, and those that are being joined
};

constinit Threads threads;

using ThreadsLock = std::unique_lock<std::mutex>;

timespec deadlineAfter(unsigned int timeoutMs)
{
    constexpr long NANOSECONDS = 1000000000;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000;
    if (deadline.tv_nsec >= NANOSECONDS) {
        deadline.tv_nsec -= NANOSECONDS;
        ++deadline.tv_sec;
    }
    return deadline;
}

/// Joins the threads that have ended. It never waits long, and not for the calling thread, which has not ended.
void joinEnded(ThreadsLock& lock)
{
    while (threads.ended != nullptr) {
        const std::unique_ptr<ThreadRecord> record(threads.ended);
        threads.ended = record->next;
        lock.unlock();
        pthread_join(record->thread, nullptr);
        lock.lock();
        --threads.unjoined;
        pthread_cond_broadcast(&threads.changed);
    }
}

/// Marks a thread as ended when it leaves its function, in whatever way.
class ThreadEnd {
public:
    explicit ThreadEnd(ThreadRecord* ending) : record(ending) {}
    // Those that ended before are joined here, so that the ones that wait for it stay few.
    ~ThreadEnd()
    {
        ThreadsLock lock(threads.mutex);
        joinEnded(lock);
        ThreadRecord** place = &threads.running;
        while (*place != record)
            place = &(*place)->next;
        *place = record->next;
        record->next = threads.ended;
        threads.ended = record;
        pthread_cond_broadcast(&threads.changed);
    }
    ThreadEnd(const ThreadEnd&) = delete;
    ThreadEnd& operator=(const ThreadEnd&) = delete;

private:
    ThreadRecord* record;
};

void* runThread(void* started)
{
    auto* record = static_cast<ThreadRecord*>(started);
    const ThreadEnd end(record);
    contained([&] { record->func(record->arg); });
    return nullptr;
}

/// Whether the calling thread is one of `threads`. Needs the lock.
bool isOwnThread()
{
    for (const ThreadRecord* record = threads.running; record != nullptr; record = record->next)
        if (pthread_equal(record->thread, pthread_self()) != 0)
            return true;
    return false;
}

/// When the library is unloaded, or the process ends, without a close: gives threads that are just leaving the time.
class LastWait {
public:
    ~LastWait()
    {
        constexpr unsigned int LIMIT_MS = 200;
        waitForThreads(LIMIT_MS);
    }
};

[[maybe_unused]] LastWait lastWait;

} // namespace

ThreadSyncObject::ThreadSyncObject()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

ThreadSyncObject::~ThreadSyncObject()
{
    pthread_mutex_destroy(&mutex);
}

bool ThreadSyncObject::lock(unsigned int timeoutMs)
{
    if (timeoutMs == WAIT_FOREVER) {
        if (pthread_mutex_lock(&mutex) != 0)
            return false;
    } else {
        while (pthread_mutex_trylock(&mutex) != 0) {
            if (timeoutMs-- == 0)
                return false;
            usleep(LOCK_POLL_US);
        }
    }
    ++recurCount;
    ownerId.store(getCurThreadId(), std::memory_order_relaxed);
    return true;
}

bool ThreadSyncObject::unlock()
{
    if (ownerId.load(std::memory_order_relaxed) != getCurThreadId())
        assert(0);
    --recurCount;
    if (recurCount == 0)
        ownerId.store(0, std::memory_order_relaxed);
    assert(recurCount >= 0);
    pthread_mutex_unlock(&mutex);
    return true;
}

ThreadLock::ThreadLock(ThreadSyncObject* syncObject) : sync(syncObject)
{
    assert(sync);
    sync->lock(WAIT_FOREVER);
}

ThreadLock::~ThreadLock()
{
    sync->unlock();
}

ThreadLockManual::ThreadLockManual(ThreadSyncObject* syncObject, bool lock) : locked(false), sync(syncObject)
{
    assert(sync);
    if (lock)
        locked = sync->lock(WAIT_FOREVER);
}

ThreadLockManual::~ThreadLockManual()
{
    unlock();
}

bool ThreadLockManual::unlock()
{
    if (!locked)
        return false;
    locked = false;
    return sync->unlock();
}

ThreadLockTimeout::ThreadLockTimeout(ThreadSyncObject* syncObject, unsigned int timeoutMs)
    : sync(syncObject),
      locked_(false)
{
    assert(sync);
    locked_ = sync->lock(timeoutMs);
}

ThreadLockTimeout::~ThreadLockTimeout()
{
    if (locked_)
        sync->unlock();
}

Event::Event(bool initiallySignaled, bool resetManually, const char* /*name*/)
    : signaled(initiallySignaled),
      manualReset(resetManually)
{
    pthread_cond_init(&condition, nullptr);
    pthread_mutex_init(&mutex, nullptr);
}

Event::~Event()
{
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

bool Event::set()
{
    const int locking = pthread_mutex_lock(&mutex);
    signaled = true;
    const int signaling = pthread_cond_signal(&condition);
    const int unlocking = pthread_mutex_unlock(&mutex);
    return locking == 0 && signaling == 0 && unlocking == 0;
}

bool Event::reset()
{
    const int locking = pthread_mutex_lock(&mutex);
    signaled = false;
    const int unlocking = pthread_mutex_unlock(&mutex);
    return locking == 0 && unlocking == 0;
}

bool Event::wait(unsigned int timeoutMs)
{
    pthread_mutex_lock(&mutex);
    bool seen = signaled;
    if (!seen && timeoutMs != 0)
        seen = waitForSignal(timeoutMs) == 0;
    if (seen && !manualReset)
        signaled = false;
    pthread_mutex_unlock(&mutex);
    return seen;
}

// A signal that arrives together with the timeout stays set for the next wait.
int Event::waitForSignal(unsigned int timeoutMs)
{
    int result = 0;
    if (timeoutMs == WAIT_FOREVER) {
        while (result == 0 && !signaled)
            result = pthread_cond_wait(&condition, &mutex);
        return result;
    }
    const timespec deadline = deadlineAfter(timeoutMs);
    while (result == 0 && !signaled)
        result = pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &deadline);
    return result;
}

// The lock keeps the record's owner out until the record is complete, however quickly the thread ends.
pthread_t createThread(void (*func)(void*), void* arg)
{
    std::unique_ptr<ThreadRecord> record(new (std::nothrow) ThreadRecord{func, arg, 0, nullptr});
    if (record == nullptr)
        return 0;
    const ThreadsLock lock(threads.mutex);
    if (pthread_create(&record->thread, nullptr, runThread, record.get()) != 0)
        return 0;
    record->next = threads.running;
    threads.running = record.release();
    ++threads.unjoined;
    return threads.running->thread;
}

bool waitForThreads(unsigned int timeoutMs)
{
    const timespec deadline = deadlineAfter(timeoutMs);
    ThreadsLock lock(threads.mutex);
    for (bool inTime = true;;) {
        joinEnded(lock);
        const int own = isOwnThread() ? 1 : 0;
        if (threads.unjoined == own || !inTime)
            return threads.unjoined == 0;
        inTime =
            pthread_cond_clockwait(&threads.changed, threads.mutex.native_handle(), CLOCK_MONOTONIC, &deadline) == 0;
    }
}

void setCurrentThreadName(const char* name)
{
    pthread_setname_np(pthread_self(), name);
}

pthread_t getCurThreadId()
{
    return pthread_self();
}

void sleepThread(double seconds)
{
    constexpr double MAX_MICROSECONDS = std::numeric_limits<useconds_t>::max();
    if (seconds > 0)
        usleep(static_cast<useconds_t>(std::min(seconds * 1000000, MAX_MICROSECONDS)));
}

double getPreciseTime()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000;
}
