// Bit and byte order helpers, see bits.h.
#include "chipdata/bits.h"

#include <cmath>

void shiftBits(unsigned char* data, unsigned int size, int bits)
{
    constexpr int BYTE = 8;
    if (size == 0 || bits <= -BYTE || bits >= BYTE)
        return;
    if (bits < 0) {
        for (unsigned i = 0; i + 1 < size; ++i)
            data[i] = static_cast<unsigned char>(data[i] << -bits | data[i + 1] >> (BYTE + bits));
        data[size - 1] = static_cast<unsigned char>(data[size - 1] << -bits);
    } else {
        for (unsigned i = size - 1; i > 0; --i)
            data[i] = static_cast<unsigned char>(data[i] >> bits | data[i - 1] << (BYTE - bits));
        data[0] = static_cast<unsigned char>(data[0] >> bits);
    }
}

namespace HwLatixel {

void doubleToInt48(double value, unsigned char* bytes)
{
    constexpr int BYTES = 6;
    double rest = std::isfinite(value) ? std::floor(value) : 0.0;
    for (int i = 0; i < BYTES; ++i) {
        const double upper = std::floor(rest / 256.0);
        bytes[i] = static_cast<unsigned char>(rest - upper * 256.0);
        rest = upper;
    }
}

} // namespace HwLatixel
