// What the firmware of all boards with Medipix2 or Timepix chips does alike: taking frames.
#include "sim/boards/mpx2firmware.h"

#include <algorithm>

namespace sim {

namespace {

// Flags of the start command.
constexpr std::uint8_t START_ON_TRIGGER = 2;
constexpr std::uint8_t STOP_ON_TRIGGER = 4;

constexpr double BOARD_CLOCK_MHZ = 50;
constexpr std::uint64_t SHUTTER_TICKS = 2; ///< of 10 ns for each tick of the board's clock
constexpr double SECONDS_PER_SHUTTER_TICK = 1e-8;

} // namespace

void Mpx2Firmware::setRegister(const Frame& frame, Time /*now*/)
{
    if (frame.command == ACQ_TIMEPIX_DIVIDER && frame.word() == 0) {
        violate("clock divided by 0", frame.head());
        return;
    }
    registers.at(frame.command) = frame.word();
}

double Mpx2Firmware::timepixClockMhz() const
{
    return BOARD_CLOCK_MHZ / registers[ACQ_TIMEPIX_DIVIDER];
}

void Mpx2Firmware::setTrigger(const Frame& frame, Time /*now*/)
{
    trigger.set(frame.d[3]);
}

Clock::duration Mpx2Firmware::preShutterTime() const
{
    const std::uint64_t clocks = std::uint64_t{registers[ACQ_PRE_COUNT]} * registers[ACQ_PRE_DIVIDER];
    const auto ticks = static_cast<std::int64_t>((clocks + registers[ACQ_PRE_DELAY]) * SHUTTER_TICKS);
    return std::chrono::duration_cast<Clock::duration>(Shutter::Tick(ticks));
}

void Mpx2Firmware::startFrame(const Frame& frame, Time now)
{
    if (!takeOutput(frame, mpx2levels::EXPOSE))
        return;
    if (frame.word24() != 1)
        violate("start of another number of frames than one", frame.head());
    openShutter({}, frame, now);
}

void Mpx2Firmware::openShutter(ShutterPlan plan, const Frame& start, Time now)
{
    plan.startWaits = (start.d[0] & START_ON_TRIGGER) != 0;
    plan.stopWaits = (start.d[0] & STOP_ON_TRIGGER) != 0;
    plan.period = std::max(plan.period, timerCount() * build.timerTick);
    pace.reset();
    shutter.start(plan, plan.startWaits ? now : now + preShutterTime());
}

void Mpx2Firmware::stopFrame(const Frame& /*frame*/, Time now)
{
    giveOutput(Output::Chips);
    pace.resume(shutter, now);
    if (const auto cut = shutter.stop(now))
        finishFrame(*cut);
    endSeries();
}

void Mpx2Firmware::endSeries()
{
    shutter.stop({});
    pace.reset();
    trigger.disarm();
}

void Mpx2Firmware::externalTrigger(Time now)
{
    advance(now);
    shutter.trigger(now);
    advance(now);
}

void Mpx2Firmware::run(Time now)
{
    pace.run(
        shutter, trigger, now, [this] { return pending(); }, [this](const ShutterFrame& frame) { finishFrame(frame); });
}

Mpx2Exposure Mpx2Firmware::exposureOf(const ShutterFrame& frame) const
{
    return {.seconds = static_cast<double>(frame.length) * SECONDS_PER_SHUTTER_TICK,
            .frame = frameNumber,
            .clockMhz = timepixClockMhz()};
}

void Mpx2Firmware::finishFrame(const ShutterFrame& frame)
{
    for (Mpx2Chain& chain : chains)
        chain.expose(exposureOf(frame));
    closeFrame(frame);
}

void Mpx2Firmware::closeFrame(const ShutterFrame& frame)
{
    ++frameNumber;
    deliver(Output::Chips, mpx2Packet(PERI_ACQ, frame.length / build.timerTick));
}

} // namespace sim
