// The turn of a device's link, as its operations ask for it.
#pragma once

#include "devices/common/boardlink.h"
#include "devices/common/devicereport.h"
#include "devices/common/linkturn.h"

#include <algorithm>

namespace HwLatixel {

/// What the calling thread may wait for turns altogether, for the life of the guard: an operation that several devices
/// carry out one after the other waits no longer than that of a single one. An inner guard changes nothing.
class TurnBudget {
public:
    explicit TurnBudget(double seconds) : own(seconds), outer(current)
    {
        if (outer == nullptr)
            current = &own;
    }
    ~TurnBudget() { current = outer; }
    TurnBudget(const TurnBudget&) = delete;
    TurnBudget& operator=(const TurnBudget&) = delete;

    /// As `turn.take`, of what is left.
    static LinkTurn::Answer take(LinkTurn& turn, double limit)
    {
        if (current == nullptr)
            return turn.take(limit);
        const double begin = getPreciseTime();
        const LinkTurn::Answer answer = turn.take(std::min(limit, *current));
        *current -= getPreciseTime() - begin;
        return answer;
    }

private:
    double own; ///< seconds that are left
    double* outer;
    inline static thread_local double* current = nullptr;
};

/// Holds the turn for the life of the guard, or tells why it can't be had. What was reported meanwhile reaches the host
/// once the turn is given back.
class DeviceTurn {
public:
    /// Waits at most `limit` seconds.
    DeviceTurn(LinkTurn& linkTurn, DeviceReport& deviceReport, double limit)
        : turn(linkTurn),
          report(deviceReport),
          result(TurnBudget::take(turn, limit))
    {
    }
    ~DeviceTurn() { release(); }
    DeviceTurn(const DeviceTurn&) = delete;
    DeviceTurn& operator=(const DeviceTurn&) = delete;

    bool taken() const { return result == LinkTurn::Answer::Taken; }
    /// 0, or 1 with a text for a turn that was not to be had.
    int require() const
    {
        switch (result) {
        case LinkTurn::Answer::Taken:
            return 0;
        case LinkTurn::Answer::Busy:
            return report.error(1, "Device is busy");
        case LinkTurn::Answer::Running:
            return report.error(1, "Acquisition is running");
        case LinkTurn::Answer::Closing:
            break;
        }
        return report.error(1, "%s", NOT_CONNECTED);
    }
    /// Gives the turn back early.
    void release()
    {
        if (!taken())
            return;
        result = LinkTurn::Answer::Busy;
        turn.give();
        if (!turn.mine())
            report.tellHost();
    }

private:
    LinkTurn& turn;
    DeviceReport& report;
    LinkTurn::Answer result;
};

} // namespace HwLatixel
