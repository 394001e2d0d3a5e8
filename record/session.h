// A series from the device to the file: what every recorder does, whoever asks for it.
#pragma once

#include "record/framewriter.h"
#include "refhost/device.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <variant>

namespace record {

/// What is to be taken, on a device that has its settings already.
struct SessionSettings {
    unsigned frames = 1;
    double seconds = 1; ///< exposure of a frame
    Layout layout;
    Counting counting = Counting::Single;
    std::uint32_t highestCount = 0; ///< of a pixel's counter; 0 where it is not known
    std::size_t queueBytes = std::size_t{256} << 20;
};

/// How far a session is. Comes fifty times a second.
struct SessionProgress {
    unsigned frames = 0;
    double elapsed = 0; ///< seconds
    bool waitsForTrigger = false;
    bool stopping = false;
};
/// The disk has taken nothing for so many seconds, and the series waits for it. Comes once each time.
struct DiskBlocked {
    double seconds = 0;
};
/// So many frames in a row hold nothing but zeros, though earlier ones did not. Comes once.
struct OnlyZeros {
    unsigned frames = 0;
};
/// That share of a frame's pixels is at the highest count. Comes once.
struct Saturated {
    double share = 0;
};
using SessionEvent = std::variant<SessionProgress, DiskBlocked, OnlyZeros, Saturated>;

enum class SessionEnd {
    Finished,
    Stopped,    ///< after `stop`, or because the output failed
    Failed,     ///< the device reported an error
    Refused,    ///< the device did not start
    Silent,     ///< no sign of life; the device's threads may still run
    Overheated, ///< the device is too hot
    Lost,       ///< the device no longer answers on its bus
};

/// What became of a session, and of each of its frames.
struct SessionResult {
    SessionEnd end = SessionEnd::Failed;
    std::string error;        ///< the device's words; empty when nothing went wrong
    double elapsed = 0;       ///< seconds of the series
    unsigned requested = 0;   ///< frames
    unsigned received = 0;    ///< from the device
    unsigned lost = 0;        ///< that the device took and did not deliver
    WriterCounts counts;      ///< what became of those received
    std::size_t safe = 0;     ///< frames in the output
    std::string gaps;         ///< numbers of frames that were not received, up to the last one that was: "3, 7-9"
    std::string diskFailure;  ///< one line; empty when the output took all
    bool diskIsStuck = false; ///< a thread still waits for the disk: the process should end without tidying up

    /// All frames asked for are in the output, with all of their bytes.
    bool isWhole() const { return safe == requested && counts.incomplete == 0 && diskFailure.empty(); }
};

/// Takes one series. Polls the device's status once a second, without which devices do not notice that they are too
/// hot. Ends the series when the output fails.
class Session {
public:
    /// Called on the thread of `run`. It may call `stop` and `trigger`.
    using Handler = std::function<void(const SessionEvent&)>;

    Session(refhost::Device& device, const SessionSettings& settings, std::shared_ptr<FrameSink> sink);

    /// Returns when the series is over and its file is closed. Throws FrameError when a frame is not what the device
    /// has chips for, and OutputError when the output does not begin. Once for each object.
    SessionResult run(const Handler& handler);
    /// Ends the series early; the frames taken are kept. From any thread.
    void stop() { stopAsked = true; }
    /// Gives a software trigger to a series that runs. From the handler.
    void trigger();

private:
    void begin() const;
    void watch(const Handler& handler);
    void pollStatus();
    void warn(const Handler& handler);
    void watchDisk(const Handler& handler);
    SessionResult finish();
    SessionEnd endOf(const refhost::SeriesResult& series) const;
    bool answers() const;

    refhost::Device& device;
    const SessionSettings settings;
    const std::shared_ptr<FrameSink> sink;
    const PictureMaker maker;
    std::atomic<bool> stopAsked{false};

    // Of the thread of `run`, but for `numbers`, which the device's thread fills until the series is over.
    std::unique_ptr<FrameWriter> writer;
    std::unique_ptr<refhost::Series> series;
    std::vector<std::int64_t> numbers;
    bool stopping = false;
    bool blockTold = false;
    bool zerosTold = false;
    bool saturationTold = false;
    bool diskIsStuck = false;
    std::chrono::steady_clock::time_point nextPoll;
};

} // namespace record
