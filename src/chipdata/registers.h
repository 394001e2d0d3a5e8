// The shift registers that pixels count with.
#pragma once

#include <bit>

/// A shift register whose new bit 0 is the parity of the tapped bits of its state.
struct ShiftRegister {
    unsigned states; ///< 2 to the number of its bits
    unsigned taps;
    unsigned
        insertZero; ///< bits that must all be 0 for the new bit to flip, which takes the state 0 into the cycle; or 0

    constexpr unsigned next(unsigned state) const
    {
        const unsigned parity = static_cast<unsigned>(std::popcount(state & taps)) & 1U;
        const unsigned flip = insertZero != 0 && (state & insertZero) == 0;
        return (state << 1 | (parity ^ flip)) & (states - 1);
    }
};

constexpr ShiftRegister MPX2_REGISTER{1U << 14, 0x2001, 0};          ///< begins with all bits set
constexpr ShiftRegister MPX3_6BIT_REGISTER{1U << 6, 0x21, 0x1F};     ///< begins with 0
constexpr ShiftRegister MPX3_12BIT_REGISTER{1U << 12, 0x829, 0x7FF}; ///< begins with 0
