// Bit and byte order helpers that the chip streams and the timer commands share.
#pragma once

/// The byte with its eight bits mirrored: bit 0 becomes bit 7.
constexpr unsigned char reverseBits(unsigned char value)
{
    unsigned mirrored = 0;
    for (int bit = 0; bit < 8; ++bit)
        mirrored = mirrored << 1 | (value >> bit & 1U);
    return static_cast<unsigned char>(mirrored);
}

/// The same under the name that the Medipix2 side uses.
constexpr unsigned char reverseBitsInByte(unsigned char value)
{
    return reverseBits(value);
}

/// Shifts the `size` bytes at `data` as one long number whose first byte is the most significant: toward the first byte
/// for negative `bits`, toward the last for positive ones. What leaves at one end is lost, zeros enter at the other.
/// `bits` is -7 to 7; with any other value nothing is done.
void shiftBits(unsigned char* data, unsigned int size, int bits);

namespace HwLatixel {

/// Splits a count, rounded down, into six bytes at `bytes`, least significant first. What does not fit into 48 bits is
/// cut off at the top, a negative count is stored as two's complement, and one that is not finite as 0.
void doubleToInt48(double value, unsigned char* bytes);

} // namespace HwLatixel
