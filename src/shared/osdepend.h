// The plug-in's thin layer over POSIX threads: locks, events, threads, flags and the clock.
// Nothing in here throws; everything is safe to call from any thread unless its comment says otherwise.
#pragma once

#include <pthread.h>

#include <atomic>

/// Timeout, in milliseconds, of a wait without a limit.
inline constexpr unsigned int WAIT_FOREVER = 0xFFFFFFFF;

/// Reads a plain flag that other threads set with `storeFlag`. It orders nothing around it: data that goes with
/// the flag needs a lock or an `Event`.
inline bool loadFlag(const bool& flag)
{
    return std::atomic_ref<bool>(const_cast<bool&>(flag)).load(std::memory_order_relaxed);
}

/// Sets a plain flag that other threads poll with `loadFlag`.
inline void storeFlag(bool& flag, bool value)
{
    std::atomic_ref<bool>(flag).store(value, std::memory_order_relaxed);
}

/// A recursive lock. It is taken through one of the guards below.
class ThreadSyncObject {
public:
    ThreadSyncObject();
    virtual ~ThreadSyncObject();
    ThreadSyncObject(const ThreadSyncObject&) = delete;
    ThreadSyncObject& operator=(const ThreadSyncObject&) = delete;

    /// Takes the lock, waiting up to `timeoutMs` milliseconds; 0 is a single try. Returns whether it is held now.
    /// A limited wait tries once a millisecond, so that it needs no timed mutex.
    bool lock(unsigned int timeoutMs = WAIT_FOREVER);
    /// Releases one `lock` of the calling thread and returns true. Aborts the process if the caller is not the owner.
    bool unlock();

private:
    pthread_mutex_t mutex;
    std::atomic<pthread_t> ownerId = 0; ///< 0 when free; written under `mutex`, read without it by `unlock`
    int recurCount = 0;                 ///< unreleased locks of the owner; under `mutex`
};

/// Holds a lock for the life of the guard. Aborts the process on a null lock, like the other two guards.
class ThreadLock {
public:
    explicit ThreadLock(ThreadSyncObject* syncObject);
    ~ThreadLock();
    ThreadLock(const ThreadLock&) = delete;
    ThreadLock& operator=(const ThreadLock&) = delete;

private:
    ThreadSyncObject* sync;
};

/// Holds a lock until `unlock` or the end of the guard. The guard itself belongs to one thread.
class ThreadLockManual {
public:
    /// Takes the lock at once if `lock` is true; otherwise the guard holds nothing.
    ThreadLockManual(ThreadSyncObject* syncObject, bool lock);
    ~ThreadLockManual();
    ThreadLockManual(const ThreadLockManual&) = delete;
    ThreadLockManual& operator=(const ThreadLockManual&) = delete;

    /// Releases early. Returns false when nothing was held.
    bool unlock();

private:
    bool locked;
    ThreadSyncObject* sync;
};

/// Holds a lock that it could get within `timeoutMs` milliseconds; ask `locked` whether it did.
class ThreadLockTimeout {
public:
    ThreadLockTimeout(ThreadSyncObject* syncObject, unsigned int timeoutMs);
    ~ThreadLockTimeout();
    ThreadLockTimeout(const ThreadLockTimeout&) = delete;
    ThreadLockTimeout& operator=(const ThreadLockTimeout&) = delete;

    /// Whether the guard holds the lock.
    bool locked() const { return locked_; }

private:
    ThreadSyncObject* sync;
    bool locked_;
};

/// A waitable event. A set event stays set until one wait has seen it (auto-reset) or until `reset` (manual reset);
/// setting it twice before a wait counts once.
class Event {
public:
    /// `name` is for the reader of the code alone.
    explicit Event(bool initiallySignaled = false, bool resetManually = false, const char* name = nullptr);
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /// Signals the event and wakes one waiter. Returns whether all system calls worked. A waiter that returns from
    /// `wait` with true may destroy the event.
    bool set();
    /// Takes a signal back that nobody has seen yet. Returns whether all system calls worked.
    bool reset();
    /// Waits up to `timeoutMs` milliseconds for the signal; 0 only looks, `WAIT_FOREVER` has no limit.
    /// True if the event was signalled, false when the time is over; setting the system's date changes nothing of it.
    bool wait(unsigned int timeoutMs);

private:
    int waitForSignal(unsigned int timeoutMs);

    pthread_cond_t condition;
    pthread_mutex_t mutex;
    bool signaled; ///< under `mutex`
    const bool manualReset;
};

/// Starts a thread that runs `func(arg)`. Returns its identifier, or 0 if it could not be started. For the caller it is
/// detached: whoever needs its end waits for a flag or an event that `func` sets last. An exception ends `func` alone.
pthread_t createThread(void (*func)(void*), void* arg);

/// Waits up to `timeoutMs` milliseconds until every thread that `createThread` has started is gone, so that none of
/// them runs in this library any more. False if one is left: it takes longer, or it is the calling one, for which
/// nobody can wait; then the others alone are waited for.
bool waitForThreads(unsigned int timeoutMs);

/// Names the calling thread for debuggers and `top`. Names of more than 15 characters are ignored.
void setCurrentThreadName(const char* name);

/// Identifier of the calling thread.
pthread_t getCurThreadId();

/// Sleeps for `seconds`, cut to whole microseconds; the limit is 4294 seconds. Zero and less return at once.
void sleepThread(double seconds);

/// Wall clock in seconds since the epoch, with a resolution of microseconds. The base of all timing.
double getPreciseTime();
