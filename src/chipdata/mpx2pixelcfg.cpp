// The pixel configuration of Medipix2 and Timepix chips, see mpx2pixelcfg.h.
#include "chipdata/mpx2pixelcfg.h"

#include <array>
#include <cstddef>

namespace {

/// Where each bit of a configuration byte goes in the pixel's word, from bit 0 on.
using BitMap = std::array<unsigned char, 8>;

constexpr BitMap MXR_MAP = {0, 9, 7, 6, 8, 12, 10, 11};
constexpr BitMap TPX_MAP = {7, 13, 8, 12, 10, 11, 9, 6};
constexpr unsigned INVERTED_BITS = 0x02; // of the byte

/// The word of every byte.
constexpr std::array<unsigned short, 256> wordsOf(const BitMap& map)
{
    std::array<unsigned short, 256> words{};
    for (unsigned byte = 0; byte < words.size(); ++byte) {
        unsigned word = 0;
        for (std::size_t bit = 0; bit < map.size(); ++bit)
            word |= ((byte ^ INVERTED_BITS) >> bit & 1U) << map[bit];
        words[byte] = static_cast<unsigned short>(word);
    }
    return words;
}

constexpr auto MXR_WORDS = wordsOf(MXR_MAP);
constexpr auto TPX_WORDS = wordsOf(TPX_MAP);

constexpr unsigned bitsOf(const BitMap& map)
{
    unsigned bits = 0;
    for (const unsigned char bit : map)
        bits |= 1U << bit;
    return bits;
}
static_assert(bitsOf(MXR_MAP) == 0x1FC1 && bitsOf(TPX_MAP) == 0x3FC0, "no two bits meet");

} // namespace

void pixelCfgToMatrixMpx2(const unsigned char* cfg, unsigned long size, bool timepix, unsigned short* matrix)
{
    const auto& words = timepix ? TPX_WORDS : MXR_WORDS;
    for (unsigned long i = 0; i < size; ++i)
        matrix[i] = words[cfg[i]];
}
