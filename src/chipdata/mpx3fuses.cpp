// The Medipix3 fuses, see mpx3fuses.h.
#include "chipdata/mpx3fuses.h"

#include "chipdata/bits.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr unsigned char REQUEST_HEADER = 0xA0;
constexpr std::size_t ID_OFFSET = 23;    // of the identifier in a chip's answer
constexpr std::ptrdiff_t ID_CHECKED = 4; // identifier bytes that tell a working channel

} // namespace

std::array<unsigned char, MPX3_FUSE_BLOCK_SIZE> mpx3FuseRequest()
{
    std::array<unsigned char, MPX3_FUSE_BLOCK_SIZE> request{};
    request[0] = request[MPX3_FUSE_RECORD_SIZE] = REQUEST_HEADER;
    return request;
}

Mpx3FuseId mpx3FuseId(const unsigned char* answer, int chip)
{
    Mpx3FuseId id;
    const unsigned char* fuses = answer + static_cast<std::size_t>(chip) * MPX3_FUSE_RECORD_SIZE + ID_OFFSET;
    std::transform(fuses, fuses + id.size(), id.begin(), reverseBits);
    return id;
}

bool mpx3FuseIdValid(const Mpx3FuseId& id)
{
    const auto all = [&id](unsigned char value) { return std::count(id.begin(), id.begin() + ID_CHECKED, value); };
    return all(0x00) != ID_CHECKED && all(0xFF) != ID_CHECKED;
}

std::string getFuseText(const unsigned char* id, int* wafer, int* position)
{
    const int waferNumber = id[1] + 256 * (id[2] & 0x0F);
    const int chipPosition = id[0] & 0x0F;
    if (wafer)
        *wafer = waferNumber;
    if (position)
        *position = chipPosition;
    char text[16];
    std::snprintf(text, sizeof(text), "%c%02d-W%04d", 0x40 + (id[0] >> 4), chipPosition, waferNumber);
    return text;
}
