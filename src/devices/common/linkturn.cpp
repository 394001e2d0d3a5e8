// See linkturn.h.
#include "devices/common/linkturn.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace HwLatixel {

namespace {

/// Milliseconds up to `deadline`, at least one: a wait of 0 would only look.
unsigned millisecondsTo(double deadline)
{
    constexpr double LONGEST = 1e6;
    return static_cast<unsigned>(std::clamp(std::ceil((deadline - getPreciseTime()) * 1000), 1.0, LONGEST));
}

} // namespace

LinkTurn::Answer LinkTurn::take(double limit)
{
    const double deadline = getPreciseTime() + limit;
    Waiter waiter{.thread = getCurThreadId()};
    {
        ThreadLock lock(&sync);
        if (Answer answer; refuses(&answer))
            return answer;
        const bool own = depth > 0 && holder == waiter.thread;
        if (own || (depth == 0 && row.empty() && mayHave(waiter))) {
            holder = waiter.thread;
            ++depth;
            return Answer::Taken;
        }
        if (limit <= 0)
            return Answer::Busy;
        row.push_back(&waiter);
    }
    while (!waiter.answered.wait(millisecondsTo(deadline))) {
        if (getPreciseTime() < deadline)
            continue;
        ThreadLock lock(&sync);
        // The answer may have come between the wait and the lock.
        if (std::erase(row, &waiter) != 0)
            return Answer::Busy;
    }
    return waiter.answer;
}

bool LinkTurn::takeForSeries()
{
    Waiter waiter{.thread = getCurThreadId(), .forSeries = true};
    {
        ThreadLock lock(&sync);
        if (closing && closer != waiter.thread)
            return false;
        if (reserved && !reserverKnown) {
            reserverKnown = true;
            reserver = waiter.thread;
        }
        // With a reservation those who wait can't have it.
        const bool own = depth > 0 && holder == waiter.thread;
        if (own || (depth == 0 && (reserved || row.empty()))) {
            holder = waiter.thread;
            ++depth;
            return true;
        }
        row.push_back(&waiter);
    }
    while (!waiter.answered.wait(WAIT_FOREVER)) {
    }
    return waiter.answer == Answer::Taken;
}

void LinkTurn::give()
{
    ThreadLock lock(&sync);
    if (--depth == 0)
        passOn();
}

bool LinkTurn::wanted() const
{
    ThreadLock lock(&sync);
    return !row.empty();
}

bool LinkTurn::mine() const
{
    ThreadLock lock(&sync);
    return depth > 0 && holder == getCurThreadId();
}

void LinkTurn::beginWholeSeries()
{
    ThreadLock lock(&sync);
    wholeSeries = true;
    dismiss(Answer::Running);
}

void LinkTurn::endWholeSeries()
{
    ThreadLock lock(&sync);
    wholeSeries = false;
}

void LinkTurn::reserve()
{
    ThreadLock lock(&sync);
    reserved = true;
    reserverKnown = false;
}

void LinkTurn::endReservation()
{
    ThreadLock lock(&sync);
    reserved = false;
    reserverKnown = false;
    if (depth == 0)
        passOn();
}

void LinkTurn::beginClosing()
{
    ThreadLock lock(&sync);
    closing = true;
    closer = getCurThreadId();
    dismiss(Answer::Closing);
}

void LinkTurn::endClosing()
{
    ThreadLock lock(&sync);
    closing = false;
}

/// Whether nobody like the calling thread may wait now, and what it is told.
bool LinkTurn::refuses(Answer* answer) const
{
    const bool closes = closing && closer == getCurThreadId();
    if (closes)
        return false;
    if (closing)
        *answer = Answer::Closing;
    else if (wholeSeries)
        *answer = Answer::Running;
    const bool ownSeries = reserverKnown && depth == 0 && reserver == getCurThreadId();
    if (!closing && !wholeSeries && ownSeries)
        *answer = Answer::Running;
    return closing || wholeSeries || ownSeries;
}

/// Answers all who wait.
void LinkTurn::dismiss(Answer answer)
{
    std::deque<Waiter*> staying;
    for (Waiter* waiter : row) {
        if (answer == Answer::Running && waiter->forSeries) {
            staying.push_back(waiter);
            continue;
        }
        waiter->answer = answer;
        waiter->answered.set();
    }
    row = std::move(staying);
}

/// Gives the free turn to the first in the row that may have it. The waiter may be gone once its event is set.
void LinkTurn::passOn()
{
    const auto first = std::ranges::find_if(row, [this](const Waiter* waiter) { return mayHave(*waiter); });
    if (first == row.end())
        return;
    Waiter* next = *first;
    row.erase(first);
    holder = next->thread;
    depth = 1;
    next->answer = Answer::Taken;
    next->answered.set();
}

} // namespace HwLatixel
