// See serieslife.h.
#include "devices/common/serieslife.h"

#include "devices/common/polling.h"

#include <memory>

namespace HwLatixel {

namespace {

struct ThreadStart {
    void (*func)(void*);
    void* device;
    const SeriesLife* life;
};

/// What the calling thread does for a series.
struct ThreadRole {
    const SeriesLife* runs = nullptr; ///< whose series it runs
    bool tellsEnd = false;            ///< and only its last event is left
    const SeriesLife::Callback* handler = nullptr;
};
thread_local ThreadRole role;

} // namespace

// What is not listed changes nothing.
const SeriesLife::Transition SeriesLife::TABLE[] = {
    {State::Idle, Happening::Begin, State::Preparing},  {State::Preparing, Happening::GiveUp, State::Idle},
    {State::Preparing, Happening::Run, State::Running}, {State::Preparing, Happening::Stop, State::Stopping},
    {State::Running, Happening::Stop, State::Stopping}, {State::Running, Happening::FramesOver, State::Ending},
    {State::Stopping, Happening::GiveUp, State::Idle},  {State::Stopping, Happening::FramesOver, State::Ending},
    {State::Ending, Happening::Finished, State::Idle},
};

bool SeriesLife::follow(Happening what)
{
    for (const Transition& transition : TABLE) {
        if (transition.from != now || transition.what != what)
            continue;
        now = transition.to;
        return true;
    }
    return false;
}

SeriesLife::State SeriesLife::state() const
{
    ThreadLock lock(&sync);
    return now;
}

SeriesLife::Caller SeriesLife::caller() const
{
    if (!inCallback())
        return Caller::Host;
    return role.runs == this && role.tellsEnd ? Caller::LastEvent : Caller::Handler;
}

bool SeriesLife::inCallback() const
{
    for (const Callback* callback = role.handler; callback != nullptr; callback = callback->outer)
        if (callback->life == this)
            return true;
    return false;
}

SeriesLife::Start SeriesLife::begin()
{
    const double deadline = getPreciseTime() + START_LIMIT;
    const bool handler = caller() == Caller::Handler;
    Start answer = Start::Late;
    pollUntil(deadline, [&] {
        answer = tryBegin(deadline);
        return answer != Start::Late || handler;
    });
    return answer == Start::Late && handler ? Start::InCallback : answer;
}

/// `Late` where something is left of the series before.
SeriesLife::Start SeriesLife::tryBegin(double deadline)
{
    ThreadLock lock(&sync);
    if (!lastEventPending(deadline) && follow(Happening::Begin)) {
        storeFlag(stopFlag, false);
        return Start::Accepted;
    }
    return now == State::Preparing || now == State::Running ? Start::Running : Start::Late;
}

/// Whether a thread of a series that is over still has its last event to tell. A handler doesn't wait for that.
bool SeriesLife::lastEventPending(double deadline) const
{
    return now == State::Idle && threads > 0 && !inCallback() && getPreciseTime() < deadline;
}

void SeriesLife::giveUp()
{
    ThreadLock lock(&sync);
    follow(Happening::GiveUp);
}

bool SeriesLife::run(void (*func)(void*), void* device)
{
    auto start = std::make_unique<ThreadStart>(func, device, this);
    {
        ThreadLock lock(&sync);
        // A stop during the preparation stays: the series sees it before its first frame.
        follow(Happening::Run);
        ++threads;
    }
    if (createThread(threadEntry, start.get()) != 0) {
        start.release(); // the thread's now
        return true;
    }
    ThreadLock lock(&sync);
    --threads;
    now = State::Idle;
    return false;
}

void SeriesLife::threadEntry(void* record)
{
    const std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(record));
    role.runs = start->life;
    start->func(start->device);
}

bool SeriesLife::stop()
{
    ThreadLock lock(&sync);
    storeFlag(stopFlag, true);
    follow(Happening::Stop);
    return now != State::Idle;
}

void SeriesLife::framesOver()
{
    ThreadLock lock(&sync);
    follow(Happening::FramesOver);
}

void SeriesLife::finished()
{
    ThreadLock lock(&sync);
    follow(Happening::Finished);
    role.tellsEnd = true;
}

bool SeriesLife::left()
{
    ThreadLock lock(&sync);
    return --threads == 0 && abandoned;
}

bool SeriesLife::abandon()
{
    ThreadLock lock(&sync);
    abandoned = threads > 0;
    return !abandoned;
}

bool SeriesLife::awaitThreads(double limit)
{
    const int own = role.runs == this ? 1 : 0;
    return pollUntil(getPreciseTime() + limit, [&] {
        ThreadLock lock(&sync);
        return threads <= own;
    });
}

SeriesLife::Callback::Callback(SeriesLife& seriesLife) : life(&seriesLife), outer(role.handler)
{
    role.handler = this;
}

SeriesLife::Callback::~Callback()
{
    role.handler = outer;
}

} // namespace HwLatixel
