// A series from the device to the file.
#include "record/session.h"

#include "record/check.h"
#include "record/devicesettings.h"
#include "record/error.h"
#include "record/text.h"

#include <algorithm>

namespace record {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto LOOK_INTERVAL = 20ms;
constexpr auto STATUS_INTERVAL = 1s;
constexpr double TELLING_BLOCK = 5;       // seconds for which a write may take before it is told
constexpr auto PATIENCE = 4s;             // with such a write once the series has been stopped
constexpr auto LONG_PATIENCE = 24h;       // with one while nobody waits
constexpr unsigned SUSPICIOUS_ZEROS = 10; // frames in a row
constexpr double SUSPICIOUS_SHARE = 0.01; // of the pixels
constexpr unsigned WIDE_PIXEL = 32;       // bits
constexpr unsigned NARROW_PIXEL = 16;     // bits

std::string wordsFor(const refhost::SeriesResult& series)
{
    switch (series.end) {
    case refhost::SeriesEnd::Finished:
        return "finished";
    case refhost::SeriesEnd::Stopped:
        return "stopped";
    default:
        return series.error;
    }
}

} // namespace

Session::Session(refhost::Device& hwDevice, const SessionSettings& given, std::shared_ptr<FrameSink> frameSink)
    : device(hwDevice),
      settings(given),
      sink(std::move(frameSink)),
      maker(device.chipCount(), settings.layout, settings.counting, settings.highestCount)
{
}

SessionResult Session::run(const Handler& handler)
{
    begin();
    writer = std::make_unique<FrameWriter>(sink, maker, settings.queueBytes);
    refhost::SeriesRequest request;
    request.frames = settings.frames;
    request.seconds = settings.seconds;
    series = std::make_unique<refhost::Series>(device, request, [this](refhost::SeriesFrame frame) {
        numbers.push_back(frame.index);
        writer->push(std::move(frame));
    });
    watch(handler);
    return finish();
}

void Session::begin() const
{
    SeriesInfo info = describe(device);
    info.startTime = timeStamp();
    info.width = maker.width();
    info.height = maker.height();
    info.picturesPerFrame = maker.picturesPerFrame();
    info.bitsPerPixel = settings.counting == Counting::Short ? NARROW_PIXEL : WIDE_PIXEL;
    info.highestCount = settings.highestCount;
    info.frames = settings.frames;
    info.seconds = settings.seconds;
    sink->begin(info);
}

/// Waits for the end of the series; meanwhile tells how it goes, and ends it where there is reason.
void Session::watch(const Handler& handler)
{
    nextPoll = Clock::now() + STATUS_INTERVAL;
    series->start();
    while (!series->waitFor(LOOK_INTERVAL)) {
        watchDisk(handler);
        if (!stopping && (stopAsked || writer->failed())) {
            stopping = true;
            series->stop();
        }
        pollStatus();
        warn(handler);
        const auto now = series->progress();
        handler(SessionProgress{now.frames, now.elapsed, now.waitsForTrigger, stopping});
    }
    warn(handler);
}

void Session::watchDisk(const Handler& handler)
{
    const double blocked = writer->blocked();
    if (blocked > TELLING_BLOCK && !blockTold)
        handler(DiskBlocked{blocked});
    blockTold = blocked > TELLING_BLOCK;
    if (stopping && blockTold) {
        diskIsStuck = true;
        writer->giveUp(); // the device may wait for room in the queue
    }
}

/// A device looks whether it is too hot when it is asked for its status, and then ends the series by itself.
void Session::pollStatus()
{
    const auto now = Clock::now();
    if (now < nextPoll)
        return;
    nextPoll = now + STATUS_INTERVAL;
    device.status();
}

void Session::warn(const Handler& handler)
{
    const WriterCounts counts = writer->counts();
    if (!zerosTold && counts.longestZero >= SUSPICIOUS_ZEROS) {
        zerosTold = true;
        handler(OnlyZeros{counts.longestZero});
    }
    if (!saturationTold && counts.mostSaturated > SUSPICIOUS_SHARE) {
        saturationTold = true;
        handler(Saturated{counts.mostSaturated});
    }
}

void Session::trigger()
{
    if (series != nullptr)
        series->trigger();
}

SessionResult Session::finish()
{
    const refhost::SeriesResult taken = series->result();
    SessionResult result;
    result.end = endOf(taken);
    result.error = taken.error;
    result.elapsed = series->progress().elapsed;
    result.requested = settings.frames;
    result.received = taken.frames;
    result.lost = taken.lost;
    try {
        writer->finish({timeStamp(), wordsFor(taken)}, stopAsked ? PATIENCE : LONG_PATIENCE);
    } catch (const OutputError& error) {
        result.diskFailure = error.what();
    }
    result.diskIsStuck = diskIsStuck || writer->blocked() > 0;
    result.counts = writer->counts();
    result.safe = sink->safeFrames();
    if (result.end != SessionEnd::Silent && !numbers.empty())
        result.gaps = gapsIn(numbers, static_cast<std::uint64_t>(numbers.back()) + 1);
    return result;
}

SessionEnd Session::endOf(const refhost::SeriesResult& taken) const
{
    switch (taken.end) {
    case refhost::SeriesEnd::Finished:
        return SessionEnd::Finished;
    case refhost::SeriesEnd::Stopped:
        return SessionEnd::Stopped;
    case refhost::SeriesEnd::Refused:
        return SessionEnd::Refused;
    case refhost::SeriesEnd::Silent:
        return SessionEnd::Silent;
    default:
        break;
    }
    if (taken.errorCode == dv::RESULT_OVERHEATED)
        return SessionEnd::Overheated;
    return answers() ? SessionEnd::Failed : SessionEnd::Lost;
}

/// Whether the device can still measure something, which tells a link that is gone from a frame that failed.
bool Session::answers() const
{
    if (device.adcCount() == 0)
        return true;
    device.forgetErrorLine();
    device.adc(0);
    return device.errorLine().empty();
}

} // namespace record
