// Runs a series: the events of the device on one side, the waiting host on the other.
#include "refhost/series.h"

#include "refhost/error.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace refhost {
namespace {

using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

constexpr double LONGEST_EXPOSURE = 1e7;                // seconds; more than any device offers
constexpr auto LONGEST_FETCH = std::chrono::seconds(1); // for which a stop waits: one that hangs may need the stop

constexpr unsigned TRIGGER_MODES =
    dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP | dv::ACQMODE_SOFT_TRIGGER;

} // namespace

/// What the device's threads and the host's threads share.
struct Series::State {
    State(Device& seriesDevice, SeriesRequest seriesRequest, FrameSink frameSink)
        : device(seriesDevice),
          request(seriesRequest),
          sink(std::move(frameSink)),
          triggered((seriesDevice.acqMode() & TRIGGER_MODES) != 0),
          readsAnewAfterStop(!seriesDevice.isMpx3())
    {
    }

    bool isRunning() const;
    void onEvent(const Event& event);
    void onFrame(long index);
    void onFetched();
    bool deliver(SeriesFrame frame);
    void onLastEvent(SeriesEnd how);
    void end(SeriesEnd how); // needs `mutex`
    /// Ends the series if the device has been silent for too long; returns when to look again. Needs `mutex`.
    Clock::time_point watch(Clock::time_point now);

    Device& device;
    const SeriesRequest request;
    const FrameSink sink;
    const bool triggered;
    /// Medipix2 and Timepix devices answer `lastData` after a stop with a new readout, of the exposure that was cut.
    const bool readsAnewAfterStop;

    mutable std::mutex mutex; // guards everything below
    std::condition_variable changed;
    Clock::time_point begin = Clock::now();
    SeriesResult outcome;
    long nextIndex = 0;
    Clock::time_point lastSign = begin; // last event or end of the sink's work
    std::optional<Clock::time_point> failedAt;
    bool stopAsked = false;
    bool inFetch = false;
    bool inSink = false;
    // A wait may be told before the frame that came before it, so the two are counted against each other.
    unsigned triggerWaits = 0;
    unsigned triggersGiven = 0;
    bool started = false;
    bool settled = false;
    double endElapsed = 0;
};

bool Series::State::isRunning() const
{
    const std::lock_guard lock(mutex);
    return started && !settled;
}

void Series::State::onEvent(const Event& event)
{
    if (event.type == dv::HWEVENT_FRAME_READY) {
        onFrame(event.data);
        return;
    }
    if (event.type == dv::HWEVENT_ACQ_FINISHED || event.type == dv::HWEVENT_ACQ_ABORTED) {
        onLastEvent(event.type == dv::HWEVENT_ACQ_FINISHED ? SeriesEnd::Finished : SeriesEnd::Stopped);
        return;
    }
    const std::lock_guard lock(mutex);
    lastSign = Clock::now();
    triggerWaits += event.type == dv::HWEVENT_WAIT_TRIGGER ? 1 : 0;
    if (event.type == dv::HWEVENT_ACQ_FAILED) {
        failedAt = lastSign;
        outcome.errorCode = event.data;
        outcome.error = device.errorLine();
    }
    changed.notify_all();
}

void Series::State::onFrame(long index)
{
    const auto now = Clock::now();
    double arrival = 0;
    bool inOrder = false;
    bool fetches = false;
    {
        const std::lock_guard lock(mutex);
        arrival = secondsBetween(begin, now);
        lastSign = now;
        inOrder = index >= nextIndex && index < static_cast<long>(request.frames);
        if (!inOrder)
            device.host().complain("frame number " + std::to_string(index) + " of " + device.name() +
                                   " is out of order");
        else {
            outcome.lost += static_cast<unsigned>(index - nextIndex);
            nextIndex = index + 1;
        }
        // A frame out of order is fetched too: the device waits for that before it goes on.
        inFetch = fetches = !(stopAsked && readsAnewAfterStop);
        inSink = true;
    }
    SeriesFrame taken{index, arrival, 0, fetches ? device.lastData() : nullptr};
    taken.exposure = device.lastAcqTime();
    onFetched();
    const bool arrived = inOrder && fetches && deliver(std::move(taken));
    const std::lock_guard lock(mutex);
    if (inOrder && fetches)
        ++(arrived ? outcome.frames : outcome.lost);
    inSink = false;
    lastSign = Clock::now();
    changed.notify_all();
}

void Series::State::onFetched()
{
    const std::lock_guard lock(mutex);
    inFetch = false;
    changed.notify_all();
}

bool Series::State::deliver(SeriesFrame taken)
{
    if (taken.frame == nullptr)
        return false;
    const std::size_t expected = std::size_t{device.mpxInfo().chipTotal} * Device::PIXELS_PER_CHIP;
    if (taken.frame->pixelCount() != expected) {
        device.host().complain("a frame of " + std::to_string(taken.frame->pixelCount()) + " pixels from " +
                               device.name() + ", which has " + std::to_string(expected));
        return false;
    }
    if (sink)
        sink(std::move(taken));
    return true;
}

void Series::State::onLastEvent(SeriesEnd how)
{
    const std::lock_guard lock(mutex);
    if (outcome.end != SeriesEnd::Running) {
        device.host().complain(device.name() + " told the end of a series twice");
        return;
    }
    // Frames that never came count as lost only where the device claims to have taken them all.
    if (how == SeriesEnd::Finished && !failedAt)
        outcome.lost += static_cast<unsigned>(static_cast<long>(request.frames) - nextIndex);
    end(failedAt ? SeriesEnd::Failed : how);
}

void Series::State::end(SeriesEnd how)
{
    outcome.end = how;
    endElapsed = secondsBetween(begin, Clock::now());
    changed.notify_all();
}

Clock::time_point Series::State::watch(Clock::time_point now)
{
    if (outcome.end != SeriesEnd::Running)
        return now;
    if (failedAt) {
        if (now >= *failedAt + request.errorGrace)
            end(SeriesEnd::Failed);
        return *failedAt + request.errorGrace;
    }
    if (inSink || (triggered && !stopAsked))
        return now + std::chrono::hours(1);
    auto limit = request.silence;
    if (!stopAsked)
        limit += std::chrono::milliseconds(
            static_cast<long long>(std::clamp(request.seconds, 0.0, LONGEST_EXPOSURE) * 1000));
    if (now >= lastSign + limit) {
        const std::string words = device.errorLine(); // a device that tries for ever tells there what fails
        outcome.error = "no sign of life for " + std::to_string(limit.count() / 1000) + " s" +
                        (words.empty() ? "" : " (" + words + ")");
        end(SeriesEnd::Silent);
    }
    return lastSign + limit;
}

Series::Series(Device& seriesDevice, SeriesRequest request, FrameSink sink)
    : device(seriesDevice),
      state(std::make_shared<State>(seriesDevice, request, std::move(sink)))
{
}

Series::~Series()
{
    if (!state->isRunning())
        return;
    try {
        stop();
        wait();
    } catch (const std::exception& error) {
        device.host().complain(std::string("the end of a series: ") + error.what());
    }
}

void Series::start()
{
    if (Device::insideHandler())
        throw Error("a series cannot be started from within an event of a device");
    {
        const std::lock_guard lock(state->mutex);
        if (state->started)
            throw Error("this series was started before");
        state->started = true;
        state->begin = state->lastSign = Clock::now();
    }
    device.forgetErrorLine();
    device.onEvent([shared = state](const Event& event) { shared->onEvent(event); });
    const int result = device.startAcquisition(state->request.frames, state->request.seconds);
    if (result == 0)
        return;
    const std::lock_guard lock(state->mutex);
    state->outcome.errorCode = result;
    state->outcome.error = device.errorLine();
    state->end(SeriesEnd::Refused);
}

void Series::stop()
{
    {
        std::unique_lock lock(state->mutex);
        if (!state->started || state->outcome.end != SeriesEnd::Running)
            return;
        state->stopAsked = true;
        if (state->readsAnewAfterStop)
            state->changed.wait_for(lock, LONGEST_FETCH, [this] { return !state->inFetch; });
    }
    device.stopAcquisition();
    // The silence that counts from here on is that after the stop.
    const std::lock_guard lock(state->mutex);
    state->lastSign = Clock::now();
    state->changed.notify_all();
}

void Series::trigger()
{
    {
        const std::lock_guard lock(state->mutex);
        state->triggersGiven = std::min(state->triggersGiven, state->triggerWaits) + 1;
    }
    device.softwareTrigger();
}

bool Series::waitFor(std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    {
        std::unique_lock lock(state->mutex);
        if (!state->started)
            throw Error("this series was not started");
        while (state->outcome.end == SeriesEnd::Running) {
            const auto now = Clock::now();
            const auto next = state->watch(now);
            if (state->outcome.end != SeriesEnd::Running)
                break;
            if (now >= deadline)
                return false;
            state->changed.wait_until(lock, std::min(next, deadline));
        }
        if (state->settled)
            return true;
        state->settled = true;
    }
    settle();
    return true;
}

SeriesResult Series::wait()
{
    while (!waitFor(std::chrono::hours(1)))
        continue;
    return result();
}

void Series::settle()
{
    const bool continuous = device.config() && device.config()->continuousRW != 0;
    std::this_thread::sleep_for(continuous ? state->request.restContinuous : state->request.rest);
    device.onEvent({});
    const std::lock_guard lock(state->mutex);
    if (state->outcome.end == SeriesEnd::Failed && state->outcome.error.empty())
        state->outcome.error = "the device failed with code " + std::to_string(state->outcome.errorCode);
    if (state->outcome.end == SeriesEnd::Refused && state->outcome.error.empty())
        state->outcome.error = "the device refused with code " + std::to_string(state->outcome.errorCode);
}

SeriesProgress Series::progress() const
{
    const std::lock_guard lock(state->mutex);
    const bool over = state->outcome.end != SeriesEnd::Running;
    return {state->outcome.frames, over ? state->endElapsed : secondsBetween(state->begin, Clock::now()),
            !over && state->triggerWaits > state->triggersGiven, over};
}

SeriesResult Series::result() const
{
    const std::lock_guard lock(state->mutex);
    return state->outcome;
}

SeriesResult runSeries(Device& device, const SeriesRequest& request, FrameSink sink)
{
    Series series(device, request, std::move(sink));
    series.start();
    return series.wait();
}

} // namespace refhost
