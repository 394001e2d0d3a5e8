// Locks, events, threads and the clock over POSIX.
#include "shared/osdepend.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <new>

// The assertions report a programming error at the lock that it breaks: they stay in a release build.
#undef NDEBUG
#include <cassert>

namespace {

constexpr useconds_t LOCK_POLL_US = 1000;

struct ThreadStart {
    void (*func)(void*);
    void* arg;
};

void* runThread(void* record)
{
    const ThreadStart* start = static_cast<ThreadStart*>(record);
    start->func(start->arg);
    delete start;
    return nullptr;
}

// The carry out of the microseconds is dropped, so a deadline in the next second falls one second early and the wait
// ends at once. All callers loop around their waits; such a loop spins until the second is over.
timespec deadlineAfter(unsigned int timeoutMs)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec = ((static_cast<long>(timeoutMs % 1000) * 1000 + now.tv_usec) % 1000000) * 1000;
    return deadline;
}

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
        result = pthread_cond_timedwait(&condition, &mutex, &deadline);
    return result;
}

pthread_t createThread(void (*func)(void*), void* arg)
{
    ThreadStart* start = new (std::nothrow) ThreadStart{func, arg};
    if (start == nullptr)
        return 0;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = 0;
    const int result = pthread_create(&thread, &attributes, runThread, start);
    pthread_attr_destroy(&attributes);
    if (result == 0)
        return thread;
    delete start;
    return 0;
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
