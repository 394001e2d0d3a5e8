// The chip streams decoded and encoded with a table of spread bytes, eight pixels at a time in a 64-bit word: the form
// that the kernels took the place of, for a matrix that was cleared.
#pragma once

#include "bench/bitplanes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tables {

constexpr std::size_t SIDE = 256;
constexpr std::size_t CHIP = SIDE * SIDE;
constexpr std::size_t PLANE = SIDE / 8;

/// A row's pixels, cut into bytes.
struct RowBytes {
    std::array<unsigned char, SIDE> low;
    std::array<unsigned char, SIDE> high;
};

/// Byte of a plane that has the pixels of eight; in the parallel form they are every eighth of 64.
inline std::size_t byteOfGroup(std::size_t group, bool serial)
{
    return serial ? PLANE - 1 - group : group / 8 + 28 - 4 * (group % 8);
}

inline void transposeGroups(std::array<unsigned char, SIDE>& bytes)
{
    for (std::size_t first = 0; first < SIDE; first += 64) {
        std::array<std::uint64_t, 8> words;
        std::memcpy(words.data(), &bytes[first], sizeof(words));
        bitplanes::transpose(words.data());
        std::memcpy(&bytes[first], words.data(), sizeof(words));
    }
}

/// Takes a row of `planes` planes from every `step`-th byte.
template <unsigned planes>
void gatherRow(const unsigned char* row, std::size_t step, bool serial, RowBytes& bytes)
{
    constexpr unsigned LOW = planes < 8 ? planes : 8;
    constexpr unsigned HIGH = planes - LOW;
    for (std::size_t group = 0; group < PLANE; ++group) {
        const unsigned char* byte = row + byteOfGroup(group, serial) * step;
        const std::uint64_t high = bitplanes::gather<HIGH>(byte, PLANE * step);
        const std::uint64_t low = bitplanes::gather<LOW>(byte + HIGH * PLANE * step, PLANE * step);
        std::memcpy(&bytes.high[group * 8], &high, sizeof(high));
        std::memcpy(&bytes.low[group * 8], &low, sizeof(low));
    }
}

template <unsigned planes>
void scatterRow(const RowBytes& bytes, bool serial, unsigned char* row)
{
    constexpr unsigned HIGH = planes - 8;
    for (std::size_t group = 0; group < PLANE; ++group) {
        std::uint64_t high;
        std::uint64_t low;
        std::memcpy(&high, &bytes.high[group * 8], sizeof(high));
        std::memcpy(&low, &bytes.low[group * 8], sizeof(low));
        unsigned char* byte = row + byteOfGroup(group, serial);
        bitplanes::scatter<HIGH>(high, byte, PLANE);
        bitplanes::scatter<8>(low, byte + HIGH * PLANE, PLANE);
    }
}

inline void decodeMpx2(const unsigned char* stream, bool serial, unsigned short* matrix)
{
    for (std::size_t row = 0; row < SIDE; ++row, stream += 14 * PLANE, matrix += SIDE) {
        RowBytes bytes;
        gatherRow<14>(stream, 1, serial, bytes);
        if (!serial) {
            transposeGroups(bytes.low);
            transposeGroups(bytes.high);
        }
        for (std::size_t i = 0; i < SIDE; ++i)
            matrix[i] = static_cast<unsigned short>(matrix[i] + (bytes.low[i] | unsigned{bytes.high[i]} << 8));
    }
}

inline void encodeMpx2(const unsigned short* matrix, bool serial, unsigned char* out)
{
    for (std::size_t row = 0; row < SIDE; ++row, out += 14 * PLANE, matrix += SIDE) {
        RowBytes bytes;
        for (std::size_t i = 0; i < SIDE; ++i) {
            bytes.low[i] = static_cast<unsigned char>(matrix[i]);
            bytes.high[i] = static_cast<unsigned char>(matrix[i] >> 8);
        }
        if (!serial) {
            transposeGroups(bytes.low);
            transposeGroups(bytes.high);
        }
        scatterRow<14>(bytes, serial, out);
    }
}

template <unsigned planes>
void decodeMpx3(const unsigned char* stream, std::size_t channels, unsigned position, unsigned* matrix)
{
    for (std::size_t row = 0; row < SIDE; ++row, stream += planes * PLANE * channels)
        for (std::size_t channel = 0; channel < channels; ++channel) {
            RowBytes bytes;
            gatherRow<planes>(stream + channel, channels, true, bytes);
            unsigned* __restrict pixels = matrix + channel * CHIP + row * SIDE;
            for (std::size_t i = 0; i < SIDE; ++i)
                pixels[i] |= (bytes.low[i] | unsigned{bytes.high[i]} << 8) << position;
        }
}

inline void encodeMpx3(const unsigned* matrix, unsigned char* out)
{
    for (std::size_t row = 0; row < SIDE; ++row, out += 12 * PLANE, matrix += SIDE) {
        RowBytes bytes;
        for (std::size_t i = 0; i < SIDE; ++i) {
            bytes.low[i] = static_cast<unsigned char>(matrix[i]);
            bytes.high[i] = static_cast<unsigned char>(matrix[i] >> 8);
        }
        scatterRow<12>(bytes, true, out);
    }
}

} // namespace tables
