// The control pins of Medipix2 and Timepix chips.
#pragma once

#include <cstdint>

namespace HwLatixel {

/// The pins of a board, each 0 or 1. Their order is that of the bits in the pin word.
struct TpxPins {
    std::uint8_t PWR = 1;     ///< chip power
    std::uint8_t RST = 0;     ///< chip reset, active low
    std::uint8_t ENIN = 1;    ///< 0 during a transfer to or from the chips
    std::uint8_t M0 = 1;      ///< what a transfer moves, low bit
    std::uint8_t M1 = 0;      ///< what a transfer moves, high bit
    std::uint8_t SHTR = 1;    ///< shutter
    std::uint8_t PS = 0;      ///< parallel readout of the chips, not used: 0 before a readout
    std::uint8_t POL = 1;     ///< input polarity
    std::uint8_t OUTEN = 1;   ///< 1 while a stream is clocked out of the chips
    std::uint8_t COMPRS = 0;  ///< data compression
    std::uint8_t ACQOVER = 0; ///< 1 for the length of an acquisition
    std::uint8_t DESER = 1;   ///< deserialisation on the board
    std::uint8_t DERAN = 0;   ///< derandomisation on the board
};

/// The pins of a row board: the same, with the same defaults.
struct TpxRowPins : TpxPins {};

/// The pin word: bit i from pin i. What is not 0 counts as 1.
constexpr std::uint16_t pinWord(const TpxPins& pins)
{
    const std::uint8_t flags[] = {pins.PWR, pins.RST,   pins.ENIN,   pins.M0,      pins.M1,    pins.SHTR, pins.PS,
                                  pins.POL, pins.OUTEN, pins.COMPRS, pins.ACQOVER, pins.DESER, pins.DERAN};
    unsigned word = 0;
    unsigned bit = 0;
    for (const std::uint8_t flag : flags)
        word |= (flag != 0 ? 1U : 0U) << bit++;
    return static_cast<std::uint16_t>(word);
}

static_assert(pinWord(TpxPins{}) == 0x09AD);

} // namespace HwLatixel
