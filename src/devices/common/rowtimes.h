// Exposure of each row of a TDI series: the object's image moves along with the rows, so that a row of a frame has
// collected light during the last 256 row times.
#pragma once

#include "host/datatype.h"
#include "host/impxframe.h"
#include "shared/osdepend.h"

#include <array>
#include <cstddef>
#include <deque>

namespace HwLatixel {

/// A sliding window over the last 256 row times of a series, which clears it before its first event; the host's
/// `lastData` moves it on. Safe from any thread.
class RowTimes {
public:
    static constexpr std::size_t ROWS = 256;

    struct Frame {
        std::array<double, ROWS> acqTimes;   ///< seconds that each row was exposed
        std::array<double, ROWS> startTimes; ///< seconds from the start of the series to each row
    };

    /// Begins a series.
    void clear()
    {
        ThreadLock lock(&sync);
        window.clear();
        sum = 0.0;
        start = 0.0;
    }

    /// Moves on by one frame whose rows took `rowTime` seconds each, and tells its times. The rows of the first frame
    /// of a series show a rising exposure, those of all later ones a level one: fullness is looked at once for a frame.
    Frame nextFrame(double rowTime)
    {
        ThreadLock lock(&sync);
        Frame frame;
        const bool full = window.size() >= ROWS;
        for (std::size_t row = 0; row < ROWS; ++row) {
            if (full) {
                sum -= window.front();
                window.pop_front();
            }
            window.push_back(rowTime);
            sum += rowTime;
            frame.acqTimes[row] = sum;
            frame.startTimes[row] = start;
            start += rowTime;
        }
        return frame;
    }

    /// Moves on by a frame of `frameTime` seconds and adds its rows' times to it, 256 doubles each.
    void addNextTo(dv::IMpxFrame& frame, double frameTime)
    {
        const Frame times = nextFrame(frameTime / ROWS);
        frame.addMetaData("RowAcqTimes", "RowAcqTimes", DTYPE_DOUBLE, times.acqTimes.data(), sizeof(times.acqTimes));
        frame.addMetaData("RowStartTimes", "RowStartTimes", DTYPE_DOUBLE, times.startTimes.data(),
                          sizeof(times.startTimes));
    }

private:
    ThreadSyncObject sync;
    std::deque<double> window; ///< the last row times, seconds
    double sum = 0.0;          ///< of the window
    double start = 0.0;        ///< of the next row
};

} // namespace HwLatixel
