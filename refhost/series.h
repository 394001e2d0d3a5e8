// Runs a series of frames by the host's rules.
#pragma once

#include "refhost/device.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace refhost {

/// A frame of a series.
struct SeriesFrame {
    long index = 0;      ///< number in the series, from 0, as the device counts
    double arrival = 0;  ///< seconds from the start of the series until the frame was ready
    double exposure = 0; ///< seconds of the exposure, as the device tells it
    FramePtr frame;
};

/// Takes the frames of a series, on the device's thread. It may wait: the device then waits too, as far as its mode
/// can. It throws nothing.
using FrameSink = std::function<void(SeriesFrame)>;

struct SeriesRequest {
    unsigned frames = 1;
    double seconds = 1; ///< exposure of one frame
    /// Longest silence of the device beyond the exposure, before the series is given up. A series that waits for a
    /// trigger is silent for as long as it likes; the limit counts for it only after a stop.
    std::chrono::milliseconds silence{15000};
    /// How long after an error the device may still tell that the series is over.
    std::chrono::milliseconds errorGrace{2000};
    /// Rest after the last event, in which the device's thread finishes. In continuous read-write it drains the link.
    std::chrono::milliseconds rest{100};
    std::chrono::milliseconds restContinuous{1000};
};

enum class SeriesEnd {
    Running,  ///< not over yet
    Finished, ///< by itself
    Stopped,  ///< after a stop
    Failed,   ///< the device reported an error
    Refused,  ///< the device did not start
    Silent,   ///< no sign of life within the limit; the device's threads may still run
};

struct SeriesResult {
    SeriesEnd end = SeriesEnd::Running;
    unsigned frames = 0; ///< frames handed to the sink
    unsigned lost = 0;   ///< frames that the device counted but that did not arrive, gaps in the numbers included
    long errorCode = 0;  ///< data of the error event, or the result of the start
    std::string error;   ///< the device's words; empty when nothing went wrong
};

/// How far a series is.
struct SeriesProgress {
    unsigned frames = 0;
    double elapsed = 0;           ///< seconds since the start
    bool waitsForTrigger = false; ///< for a software trigger
    bool over = false;
};

/// One series on one device. Frames are fetched with `lastData` from inside the event that announces them, and given
/// to the sink. Each object runs one series. Its calls may come from any thread; the destructor stops a series that
/// still runs, and waits for it.
class Series {
public:
    Series(Device& device, SeriesRequest request, FrameSink sink);
    ~Series();
    Series(const Series&) = delete;
    Series& operator=(const Series&) = delete;

    /// Starts the series and returns. Throws Error from inside an event handler: devices send their last event
    /// before they are ready for the next series. A device that refuses shows in `wait`.
    void start();
    /// Asks the device to end the series; returns before it has ended. May be called more than once. With frames
    /// under way it takes as long as the device needs to cut the exposure. A frame of Medipix2 or Timepix chips that
    /// was not fetched by then is dropped, and counts as neither taken nor lost.
    void stop();
    /// Gives a software trigger. One that comes before the device waits counts for its next wait, two do not.
    void trigger();
    /// Waits up to `timeout` for the end. True when the series is over; `result` is then complete.
    bool waitFor(std::chrono::milliseconds timeout);
    /// Waits for the end: the device's last event, or silence beyond the limit.
    SeriesResult wait();

    SeriesProgress progress() const;
    SeriesResult result() const;

private:
    struct State;
    void settle();

    Device& device;
    const std::shared_ptr<State> state; // shared with the event handler, which may outlast this object
};

/// Starts a series and waits for its end.
SeriesResult runSeries(Device& device, const SeriesRequest& request, FrameSink sink);

} // namespace refhost
