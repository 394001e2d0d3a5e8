// The thread that writes frames, so that a series need not wait for the disk.
#pragma once

#include "record/framesink.h"
#include "refhost/series.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

namespace record {

/// A queue with an end. Frames wait in it up to a given number of bytes, two of them in any case; a full queue makes
/// the device's thread wait, which holds the series up but loses no frame that the device can hold back.
class FrameWriter {
public:
    FrameWriter(FrameSink& sink, PictureMaker maker, std::size_t queueBytes);
    /// Writes what waits, and ends the thread.
    ~FrameWriter();
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    /// Takes a frame; waits while the queue is full. After a failure frames are dropped. For the device's thread.
    void push(refhost::SeriesFrame frame);
    /// Writes what waits, ends the thread, and throws what the sink has thrown.
    void finish();
    bool failed() const { return broken; }
    /// Frames that the sink has taken.
    unsigned written() const { return writtenCount; }
    /// Seconds for which `push` waited.
    double held() const;

private:
    void run();
    void writeOne(const refhost::SeriesFrame& frame);
    void join();

    FrameSink& sink; // used by the thread alone until it has ended
    const PictureMaker maker;
    const std::size_t limit;
    std::atomic<bool> broken{false};
    std::atomic<unsigned> writtenCount{0};

    mutable std::mutex mutex; // guards everything below
    std::condition_variable changed;
    std::deque<refhost::SeriesFrame> queue;
    std::size_t queuedBytes = 0;
    bool closing = false;
    double heldSeconds = 0;
    std::exception_ptr failure;

    std::thread thread; // last: it uses all of the above
};

} // namespace record
