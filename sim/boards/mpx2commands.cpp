// The Medipix2 and Timepix readout board: what its own commands do.
#include "sim/boards/mpx2board.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t LONGEST_MODULE = (Mpx2Chip::IMAGE_BYTES + 1) * Mpx2Chain::MOST_CHIPS;

} // namespace

void Mpx2Board::shiftNowhere(const Frame& frame)
{
    violate("transfer to no module", frame.head());
}

/// Clocks a pattern through all modules: each that answers shows 0, 1, 0, 1, ... on its own bit.
void Mpx2Board::showPattern(const Frame& frame, Time /*now*/)
{
    constexpr unsigned PATTERN_BYTES = 14;
    giveOutput(Output::Chips);
    if (!chipsReady(frame, mpx2levels::TEST_PATTERN))
        return;
    Bytes pattern = readout.through({}).head;
    for (unsigned step = 0; step < PATTERN_BYTES; ++step) {
        unsigned lanes = 0;
        for (std::size_t number = 0; number < MODULE_COUNT; ++number)
            lanes |= (chains[number].answers() ? step & 1U : chains[number].restingByte() & 1U) << number;
        pattern.push_back(static_cast<std::uint8_t>(lanes));
    }
    deliver(Output::Chips, pattern);
}

void Mpx2Board::announceReadout(const Frame& frame, Time /*now*/)
{
    giveOutput(Output::Chips);
    announced = frame.word();
}

void Mpx2Board::readMatrix(const Frame& frame, Time /*now*/)
{
    if (!takeOutput(frame, mpx2levels::READ_MATRIX))
        return;
    const auto modules = selectedLines();
    if (!announced || modules.empty()) {
        violate("readout of no module, or of a size that was not announced", frame.head());
        return;
    }
    const Mpx2ReadoutOrder order{.announced = *std::exchange(announced, std::nullopt), .bits = frame.word()};
    const std::size_t wanted = std::size_t{order.announced} + 1;
    const std::size_t size = std::min(wanted, modules.size() * std::min(order.clocked(), LONGEST_MODULE));
    if (!order.chips() || size < wanted)
        violate("readout of bits that fit no chain, or of more bytes than they bring", frame.head());
    deliverReadout(readout.read(modules, order.chips().value_or(Mpx2Chain::MOST_CHIPS), size));
}

} // namespace sim
