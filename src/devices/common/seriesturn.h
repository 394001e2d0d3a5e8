// The link's turn as the thread of a series has it: for a frame, with the turn given back while the host is called.
#pragma once

#include "devices/common/devicereport.h"
#include "devices/common/linkturn.h"

namespace HwLatixel {

/// One stretch of a series on the link. Belongs to the series' thread.
class SeriesTurn {
public:
    SeriesTurn(LinkTurn& linkTurn, DeviceReport& deviceReport) : turn(linkTurn), report(deviceReport)
    {
        held = turn.takeForSeries();
    }
    ~SeriesTurn() { release(); }
    SeriesTurn(const SeriesTurn&) = delete;
    SeriesTurn& operator=(const SeriesTurn&) = delete;

    /// False where the device is being closed: the series ends without another command.
    bool taken() const { return held; }
    /// Gives it back early.
    void release()
    {
        if (!held)
            return;
        held = false;
        turn.give();
        report.tellHost();
    }

private:
    LinkTurn& turn;
    DeviceReport& report;
    bool held;
};

} // namespace HwLatixel
