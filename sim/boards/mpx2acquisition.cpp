// What the firmware of all boards with Medipix2 or Timepix chips does alike: taking frames.
#include "sim/boards/mpx2firmware.h"

#include <algorithm>

namespace sim {

namespace {

// Flags of the start command.
constexpr std::uint8_t startOnTrigger = 2;
constexpr std::uint8_t stopOnTrigger = 4;

constexpr double boardClockMhz = 50;
constexpr std::uint64_t shutterTicks = 2; ///< of 10 ns for each tick of the board's clock
constexpr double secondsPerShutterTick = 1e-8;

} // namespace

void Mpx2Firmware::setRegister(const Frame& frame, Time /*now*/)
{
    if (frame.command == acqTimepixDivider && frame.word() == 0) {
        violate("clock divided by 0", frame.head());
        return;
    }
    registers.at(frame.command) = frame.word();
}

double Mpx2Firmware::timepixClockMhz() const
{
    return boardClockMhz / registers[acqTimepixDivider];
}

void Mpx2Firmware::setTrigger(const Frame& frame, Time /*now*/)
{
    trigger.set(frame.d[3]);
}

Clock::duration Mpx2Firmware::preShutterTime() const
{
    const std::uint64_t clocks = std::uint64_t{registers[acqPreCount]} * registers[acqPreDivider];
    const auto ticks = static_cast<std::int64_t>((clocks + registers[acqPreDelay]) * shutterTicks);
    return std::chrono::duration_cast<Clock::duration>(Shutter::Tick(ticks));
}

void Mpx2Firmware::startFrame(const Frame& frame, Time now)
{
    if (!takeOutput(frame, mpx2levels::expose))
        return;
    if (frame.word24() != 1)
        violate("start of another number of frames than one", frame.head());
    openShutter({}, frame, now);
}

void Mpx2Firmware::openShutter(ShutterPlan plan, const Frame& start, Time now)
{
    plan.startWaits = (start.d[0] & startOnTrigger) != 0;
    plan.stopWaits = (start.d[0] & stopOnTrigger) != 0;
    plan.period = std::max(plan.period, timerCount() * build.timerTick);
    pace.reset();
    shutter.start(plan, plan.startWaits ? now : now + preShutterTime());
}

void Mpx2Firmware::stopFrame(const Frame& /*frame*/, Time now)
{
    giveOutput(Output::chips);
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
    return {.seconds = static_cast<double>(frame.length) * secondsPerShutterTick,
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
    deliver(Output::chips, mpx2Packet(periAcq, frame.length / build.timerTick));
}

} // namespace sim
