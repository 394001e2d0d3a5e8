// The chip streams decoded and encoded bit by bit, as their layout reads. The kernels are measured against these.
#pragma once

#include <cstddef>
#include <cstring>

namespace naive {

constexpr unsigned char BYTE_MASK[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
constexpr std::size_t SIDE = 256;
constexpr std::size_t CHIP = SIDE * SIDE;
constexpr std::size_t PLANE = SIDE / 8;

/// Which pixel of a row a bit of a plane is in the parallel form; bit 0 is the most significant of its byte.
constexpr std::size_t parallelPixel(std::size_t byte, std::size_t bit)
{
    return 64 * (byte % 4) + 8 * (7 - bit) + 7 - byte / 4;
}

inline std::size_t mpx2Pixel(std::size_t byte, std::size_t bit, bool serial)
{
    return serial ? SIDE - 1 - (8 * byte + bit) : parallelPixel(byte, bit);
}

/// Sets the bits of one of `streams` interleaved chips in a cleared matrix.
inline void decodeMpx2(const unsigned char* stream, std::size_t streams, bool serial, unsigned short* matrix)
{
    for (std::size_t row = 0; row < SIDE; ++row)
        for (int plane = 13; plane >= 0; --plane)
            for (std::size_t byte = 0; byte < PLANE; ++byte, stream += streams)
                for (std::size_t bit = 0; bit < 8; ++bit)
                    if (*stream & BYTE_MASK[bit])
                        matrix[row * SIDE + mpx2Pixel(byte, bit, serial)] |= static_cast<unsigned short>(1 << plane);
}

inline void encodeMpx2(const unsigned short* matrix, bool serial, unsigned char* out)
{
    std::memset(out, 0, SIDE * 14 * PLANE);
    for (std::size_t row = 0; row < SIDE; ++row)
        for (int plane = 13; plane >= 0; --plane)
            for (std::size_t byte = 0; byte < PLANE; ++byte, ++out)
                for (std::size_t bit = 0; bit < 8; ++bit)
                    if (matrix[row * SIDE + mpx2Pixel(byte, bit, serial)] & 1 << plane)
                        *out |= BYTE_MASK[bit];
}

/// Sets the bits of one counter of interleaved channels in a cleared matrix.
inline void decodeMpx3(const unsigned char* stream, std::size_t channels, int planes, int position, unsigned* matrix)
{
    for (std::size_t channel = 0; channel < channels; ++channel) {
        const unsigned char* cursor = stream + channel;
        for (std::size_t row = 0; row < SIDE; ++row)
            for (int plane = planes - 1; plane >= 0; --plane)
                for (std::size_t byte = 0; byte < PLANE; ++byte, cursor += channels)
                    for (std::size_t bit = 0; bit < 8; ++bit)
                        if (*cursor & BYTE_MASK[bit])
                            matrix[channel * CHIP + row * SIDE + SIDE - 1 - (8 * byte + bit)] |= 1U
                                                                                                 << (plane + position);
    }
}

inline void encodeMpx3(const unsigned* matrix, unsigned char* out)
{
    std::memset(out, 0, SIDE * 12 * PLANE);
    for (std::size_t row = 0; row < SIDE; ++row)
        for (int plane = 11; plane >= 0; --plane)
            for (std::size_t byte = 0; byte < PLANE; ++byte, ++out)
                for (std::size_t bit = 0; bit < 8; ++bit)
                    if (matrix[row * SIDE + SIDE - 1 - (8 * byte + bit)] & 1U << plane)
                        *out |= BYTE_MASK[bit];
}

} // namespace naive
