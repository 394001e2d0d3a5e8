// The Medipix2 and Timepix readout board: taking frames.
#include "sim/mpx2board.h"

namespace sim {

namespace {

// Flags of the start command.
constexpr std::uint8_t startOnTrigger = 2;
constexpr std::uint8_t stopOnTrigger = 4;

constexpr double boardClockMhz = 50;
constexpr std::uint64_t shutterTicks = 2; ///< of 10 ns for each tick of the board's clock
constexpr double secondsPerShutterTick = 1e-8;

} // namespace

void Mpx2Board::setRegister(const Frame& frame, Time /*now*/)
{
    if (frame.command == acqTimepixDivider && frame.word() == 0) {
        violate("clock divided by 0", frame.head());
        return;
    }
    registers.at(frame.command) = frame.word();
}

double Mpx2Board::timepixClockMhz() const
{
    return boardClockMhz / registers[acqTimepixDivider];
}

void Mpx2Board::setTrigger(const Frame& frame, Time /*now*/)
{
    trigger.set(frame.d[3]);
}

/// Before a shutter opens by itself, the chips get some clocks and a rest.
Clock::duration Mpx2Board::preShutterTime() const
{
    const std::uint64_t clocks = std::uint64_t{registers[acqPreCount]} * registers[acqPreDivider];
    const auto ticks = static_cast<std::int64_t>((clocks + registers[acqPreDelay]) * shutterTicks);
    return std::chrono::duration_cast<Clock::duration>(Shutter::Tick(ticks));
}

void Mpx2Board::startFrame(const Frame& frame, Time now)
{
    if (chipsWait())
        violate("start while something waits for the output", frame.head());
    giveOutput(Output::chips);
    if (!chipsReady(frame, mpx2levels::expose))
        return;
    if (frame.word24() != 1)
        violate("start of another number of frames than one", frame.head());
    const ShutterPlan plan{.startWaits = (frame.d[0] & startOnTrigger) != 0,
                           .stopWaits = (frame.d[0] & stopOnTrigger) != 0,
                           .period = timerCount() * shutterTicks};
    shutter.start(plan, plan.startWaits ? now : now + preShutterTime());
}

void Mpx2Board::stopFrame(const Frame& /*frame*/, Time now)
{
    giveOutput(Output::chips);
    if (const auto cut = shutter.stop(now))
        finishFrame(*cut);
    endSeries();
}

void Mpx2Board::endSeries()
{
    shutter.stop({});
    trigger.disarm();
}

void Mpx2Board::externalTrigger(Time now)
{
    advance(now);
    shutter.trigger(now);
    advance(now);
}

void Mpx2Board::run(Time now)
{
    trigger.serve(shutter, now);
    while (const auto frame = shutter.next(now))
        finishFrame(*frame);
}

/// The shutter has closed: the chips have counted, and the host is told for how long.
void Mpx2Board::finishFrame(const ShutterFrame& frame)
{
    const Mpx2Exposure exposure{.seconds = static_cast<double>(frame.length) * secondsPerShutterTick,
                                .frame = frameNumber,
                                .clockMhz = timepixClockMhz()};
    for (Mpx2Chain& chain : chains)
        chain.expose(exposure);
    ++frameNumber;
    deliver(Output::chips, mpx2Packet(periAcq, frame.length / shutterTicks));
}

} // namespace sim
