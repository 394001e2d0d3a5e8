// Medipix3 DAC and CTPR streams, see mpx3dacs.h.
#include "chipdata/mpx3dacs.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::array<unsigned char, 3> RECORD_HEADER = {0x00, 0xA0, 0x00};
constexpr std::array<unsigned char, 2> CTPR_HEADER = {0xA0, 0x00};

constexpr int DAC_BITS = std::accumulate(MPX3RX_DACS_DEPTH.begin(), MPX3RX_DACS_DEPTH.end(), 0);
static_assert(DAC_BITS == 226);
static_assert(RECORD_HEADER.size() + (DAC_BITS + 7) / 8 == MPX3_DAC_RECORD_SIZE);
static_assert(MPX3_DAC_RECORD_SIZE <= MPX3_DAC_WIRE_STRIDE && 2 * MPX3_DAC_WIRE_STRIDE == MPX3_DAC_BLOCK_SIZE);
static_assert(CTPR_HEADER.size() + MPX3_CTPR_SIZE <= MPX3_CTPR_STREAM_SIZE);

/// Every code of the sense multiplexer stands in the table once.
constexpr bool senseCodesComplete()
{
    unsigned seen = 0;
    for (const unsigned char code : MPX3RX_DACS_SENSE)
        seen |= 1U << code;
    return seen == 0xFFFFFFFF;
}
static_assert(senseCodesComplete());
static_assert(MPX3RX_DACS_SENSE[15] == 15 && MPX3RX_DACS_SENSE[16] == 30 && MPX3RX_DACS_SENSE[17] == 31 &&
              MPX3RX_DACS_SENSE[18] == 16 && MPX3RX_DACS_SENSE[31] == 29);

} // namespace

void fillMpx3DacRecord(const unsigned short* dacs, unsigned char* record)
{
    unsigned char* out = std::copy(RECORD_HEADER.begin(), RECORD_HEADER.end(), record);
    unsigned pending = 0; // bits not yet written, right aligned
    int count = 0;
    for (int dac = MPX3_DAC_COUNT - 1; dac >= 0; --dac) {
        const int depth = MPX3RX_DACS_DEPTH[static_cast<std::size_t>(dac)];
        pending = pending << depth | (dacs[dac] & ((1U << depth) - 1));
        for (count += depth; count >= 8; count -= 8)
            *out++ = static_cast<unsigned char>(pending >> (count - 8));
    }
    *out = static_cast<unsigned char>(pending << (8 - count));
}

void fillMpx3DacStream(const unsigned short* dacs, unsigned long count, unsigned char* out)
{
    const unsigned long chips = count / MPX3_DAC_COUNT;
    std::fill_n(out, chips * MPX3_DAC_STREAM_1CHIP_SIZE, static_cast<unsigned char>(0));
    for (unsigned long chip = 0; chip < chips; ++chip)
        fillMpx3DacRecord(dacs + chip * MPX3_DAC_COUNT, out + chip * MPX3_DAC_STREAM_1CHIP_SIZE);
}

void fillMpx3CtprStream(const unsigned char* ctpr, unsigned char* out)
{
    std::fill_n(out, MPX3_CTPR_STREAM_SIZE, static_cast<unsigned char>(0));
    std::copy_n(ctpr, MPX3_CTPR_SIZE, std::copy(CTPR_HEADER.begin(), CTPR_HEADER.end(), out));
}
