// The threads that encode and write frames, so that a series need not wait for the disk.
#pragma once

#include "record/framesink.h"
#include "refhost/series.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace record {

/// What became of the frames of a series, and of the time.
struct WriterCounts {
    unsigned written = 0;
    unsigned incomplete = 0;     ///< of those written: bytes are missing in them
    unsigned inHurry = 0;        ///< of those written: stored larger than they could be, to keep pace
    unsigned zero = 0;           ///< of those written: all of their pixels are zero
    unsigned longestZero = 0;    ///< most of those in a row, behind one that was not
    double mostSaturated = 0;    ///< largest share of the pixels of a frame
    std::uint64_t saturated = 0; ///< pixels
    double held = 0;             ///< seconds for which `push` waited
};

/// A pipe with an end: frames wait for the encoding threads, and then for the one that writes them in their order. A
/// frame counts against the limit until it is written; two of them are taken in any case. A full pipe makes the
/// device's thread wait, which holds the series up but loses no frame that the device can hold back. When it is half
/// full, frames are encoded in a hurry.
///
/// `push` comes from the device's thread; everything else from the thread that made this.
class FrameWriter {
public:
    /// `threads` encode; 0 for as many as there are cores.
    FrameWriter(std::shared_ptr<FrameSink> sink, PictureMaker maker, std::size_t queueBytes, unsigned threads = 0);
    /// Writes what waits, and ends the threads.
    ~FrameWriter();
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    /// Takes a frame; waits while the pipe is full. After a failure frames are dropped. For the device's thread.
    void push(refhost::SeriesFrame frame);
    /// Writes what waits and finishes the sink, with the frames that are in it where writing has failed. Throws what
    /// the sink has thrown first. A disk that takes nothing for `patience` is given up, with an OutputError.
    void finish(const SeriesSummary& summary, std::chrono::milliseconds patience = std::chrono::hours(24));
    bool failed() const;
    WriterCounts counts() const;
    /// Seconds for which the sink has been at the same piece of work; 0 when it has none.
    double blocked() const;
    /// Drops what waits, and lets a `push` that waits go on: for a disk that may never answer. The thread that waits
    /// for it is left behind with its sink, and the process should end without tidying up.
    void giveUp();

private:
    struct Pipe;
    void join();

    std::shared_ptr<Pipe> pipe; // shared with the threads, one of which may be left behind
    std::vector<std::thread> threads;
};

} // namespace record
