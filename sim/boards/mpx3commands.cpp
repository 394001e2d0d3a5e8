// The Medipix3 readout board: what each command that is no acquisition does.
#include "sim/boards/mpx3board.h"

#include <algorithm>
#include <bit>

namespace sim {

// Chips.

/// Gives the output back to the chips; with a payload, clocks the chips through a fast clear.
void Mpx3Board::handOutputBack(const Frame& frame, Time /*now*/)
{
    constexpr std::size_t CLEAR_CLOCKS = 80;
    giveOutput(Output::Chips);
    if (!frame.has(FRAME_HAS_PAYLOAD))
        return;
    const bool zeros = std::ranges::all_of(frame.payload, [](std::uint8_t byte) { return byte == 0; });
    if ((pinWord & PIN_FAST_CLEAR) != 0 || frame.payload.size() != CLEAR_CLOCKS || !zeros) {
        violate("fast clear without its pin, or clocked wrongly", frame.head());
        return;
    }
    for (std::size_t number = 0; number < CHANNEL_COUNT; ++number)
        if ((selectedChannels >> number & 1) != 0)
            chains[number].clearCounters();
}

void Mpx3Board::setPins(const Frame& frame, Time /*now*/)
{
    constexpr std::uint8_t WRITE_DONE = 0xF;
    pinWord = frame.d[3];
    applyPower();
    if ((pinWord & PIN_POWER) == 0)
        endSeries();
    if ((pinWord & PIN_RESET) == 0)
        for (Mpx3Chain& chain : chains)
            chain.reset();
    if (pinWord == WRITE_DONE && std::ranges::any_of(chains, &Mpx3Chain::halfWritten))
        violate("matrix write that ends after its first half", frame.head());
}

void Mpx3Board::readNow(const Frame& frame, Time /*now*/)
{
    if (chipsWait())
        violate("readout asked for while an older one waits for the output", frame.head());
    giveOutput(Output::Chips);
    const auto order = ReadoutOrder::fromWord(frame.word());
    if (!order || (pinWord & PIN_POWER) == 0 || !shutter.idle()) {
        violate("readout of no counter, without power, or while the shutter works", frame.head());
        return;
    }
    readOut(*order);
}

void Mpx3Board::selectChannels(const Frame& frame, Time /*now*/)
{
    enabledChannels = frame.d[2];
    selectedChannels = frame.d[3];
    if ((enabledChannels & ~selectedChannels) != 0)
        violate("data enabled on a channel that is not selected", frame.head());
}

void Mpx3Board::storeReadout(const Frame& frame, Time /*now*/)
{
    const auto order = ReadoutOrder::fromWord(frame.word());
    if (order)
        stored = order;
    else
        violate("stream parameters of no counter", frame.head());
}

/// Commands 6 and 5 carry the image for the first counter, 8 and 7 the one for the second: upper half, lower half.
void Mpx3Board::storeImage(const Frame& frame, Time /*now*/)
{
    constexpr unsigned FIRST_IMAGE_COMMAND = 5;
    const unsigned counter = (frame.command - FIRST_IMAGE_COMMAND) / 2;
    const bool upperHalf = (frame.command - FIRST_IMAGE_COMMAND) % 2 != 0;
    auto& image = images.at(counter);
    std::ranges::copy(frame.d, image.begin() + (upperHalf ? 0 : 4));
    if (!upperHalf)
        return;
    const unsigned mode = counter == 0 ? omrmode::READ_COUNTER0 : omrmode::READ_COUNTER1;
    if (image[0] != 0x30 || image[1] != 0 || readoutOmr(counter).mode() != mode)
        violate("readout image with the wrong head or mode", frame.head());
}

void Mpx3Board::setContinuous(const Frame& frame, Time /*now*/)
{
    continuous = frame.d[3] != 0;
    if (!continuous)
        endSeries();
}

void Mpx3Board::setChainLength(const Frame& frame, Time /*now*/)
{
    chainLength = frame.d[3] != 0 ? 2 : 1;
}

void Mpx3Board::shiftChips(const Frame& frame, Time /*now*/)
{
    if ((pinWord & PIN_POWER) == 0) {
        violate("shift into chips without power", frame.head());
        return;
    }
    const bool answered = frame.has(FRAME_TAKES_OUTPUT);
    if (answered)
        giveOutput(Output::Chips);
    if (answered && std::popcount(enabledChannels) != 1)
        violate("answer asked for while not just one channel delivers", frame.head());
    for (std::size_t number = 0; number < CHANNEL_COUNT; ++number) {
        if (answered && (enabledChannels >> number & 1) != 0)
            deliver(Output::Chips, chains[number].answer(frame.payload.size()));
        if ((selectedChannels >> number & 1) != 0)
            chains[number].shift(frame.payload, chainLength, complainAbout());
    }
}

// SPI.

void Mpx3Board::switchDischarge(const Frame& frame, Time /*now*/)
{
    discharged = frame.d[3] != 0;
}

} // namespace sim
