// The Medipix3 readout board: taking frames and reading the chips out.
#include "sim/boards/mpx3board.h"

#include <algorithm>

namespace sim {

namespace {

// Flags of the start command.
constexpr std::uint8_t START_ALWAYS = 1;
constexpr std::uint8_t START_ON_TRIGGER = 2;
constexpr std::uint8_t STOP_ON_TRIGGER = 4;
constexpr std::uint8_t START_CONTINUOUS = 8;

/// Bit of the trigger word: one trigger starts the whole series.
constexpr std::uint8_t TRIGGER_SERIES = 0x20;

constexpr double SECONDS_PER_COUNT = 1e-8;

} // namespace

void Mpx3Board::setTimer(const Frame& frame, Time /*now*/)
{
    constexpr std::uint8_t LOW = 3;
    const std::uint64_t word = frame.word();
    timer = frame.command == LOW ? (timer & ~0xFFFFFFFFULL) | word : (timer & 0xFFFFFFFF) | word << 32U;
}

void Mpx3Board::setTrigger(const Frame& frame, Time /*now*/)
{
    trigger.set(frame.d[3]);
}

void Mpx3Board::startFrames(const Frame& frame, Time now)
{
    if (chipsWait())
        violate("start while an older readout waits for the output", frame.head());
    giveOutput(Output::Chips);
    const std::uint8_t flags = frame.d[0];
    if ((flags & START_ALWAYS) == 0 || ((flags & START_CONTINUOUS) != 0) != continuous)
        violate("start flags that fit no kind of series", frame.head());
    if (!shutter.idle())
        violate("start while a series runs", frame.head());
    if ((pinWord & PIN_POWER) == 0 || !stored) {
        violate("start without power or stream parameters", frame.head());
        return;
    }
    const ShutterPlan plan{.startWaits = (flags & START_ON_TRIGGER) != 0,
                           .stopWaits = (flags & STOP_ON_TRIGGER) != 0,
                           .oneTriggerStarts = (trigger.word() & TRIGGER_SERIES) != 0,
                           .frames = std::uint64_t{frame.word24()} + 1,
                           .period = timer};
    rowSeries = plan.frames > 1 && !continuous && readoutOmr(0).shape().rows == 1;
    pace.reset();
    shutter.start(plan, now);
}

void Mpx3Board::stopFrames(const Frame& /*frame*/, Time now)
{
    giveOutput(Output::Chips);
    pace.resume(shutter, now);
    const auto cut = shutter.stop(now);
    if (cut)
        finishFrame(*cut);
    endSeries();
}

/// Closes the shutter without a word.
void Mpx3Board::endSeries()
{
    shutter.stop({});
    pace.reset();
    trigger.disarm();
}

void Mpx3Board::setBitMode(std::uint8_t mask, std::uint8_t mode, Time now)
{
    InterfaceBoard::setBitMode(mask, mode, now);
    // A host that resets the link expects no series of a former session to colour its own.
    constexpr std::uint8_t BIT_BANG = 0x01;
    if (mode == BIT_BANG)
        continuous = false;
}

void Mpx3Board::externalTrigger(Time now)
{
    advance(now);
    shutter.trigger(now);
    advance(now);
}

void Mpx3Board::run(Time now)
{
    pace.run(
        shutter, trigger, now, [this] { return pending(); }, [this](const ShutterFrame& frame) { finishFrame(frame); });
}

void Mpx3Board::finishFrame(const ShutterFrame& frame)
{
    const unsigned depth = readoutOmr(0).depth();
    const double seconds = static_cast<double>(frame.length) * SECONDS_PER_COUNT;
    for (Mpx3Chain& chain : chains) {
        if (rowSeries)
            chain.exposeRow(frame.index, seconds, depth);
        else
            chain.expose(seconds, depth, frameNumber);
    }
    lastPacket = endPacket(frameNumber, frame.length);
    ++frameNumber;
    deliver(Output::Chips, lastPacket);
    readOut(*stored);
}

void Mpx3Board::readOut(const ReadoutOrder& order)
{
    std::vector<Mpx3Readout::Source> sources;
    for (std::size_t number = 0; number < CHANNEL_COUNT; ++number)
        if ((selectedChannels >> number & 1) != 0)
            sources.push_back({&chains[number], (enabledChannels >> number & 1) != 0});
    const std::size_t packets = enabledChannels == 0 ? 1 : chainLength;
    for (unsigned counter = 0; counter < 2; ++counter) {
        if (!(counter == 0 ? order.first : order.second))
            continue;
        const ReadoutShape shape = readoutOmr(counter).shape();
        deliver(Output::Chips, readout.read(sources, counter, chainLength, shape, order.bits));
        for (std::size_t i = 0; i < packets; ++i)
            deliver(Output::Chips, lastPacket);
    }
}

Mpx3Omr Mpx3Board::readoutOmr(unsigned counter) const
{
    return Mpx3Omr(std::span(images.at(counter)).subspan<2, 6>());
}

} // namespace sim
