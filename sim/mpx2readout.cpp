// What a Medipix2 or Timepix board sends when its matrix is read.
#include "sim/mpx2readout.h"

namespace sim {

Mpx2Packet mpx2Packet(std::uint8_t peripheral, std::uint64_t number)
{
    Mpx2Packet packet = {0x55, peripheral, 0, 0, 0, 0, 0, 0, 0xAA};
    for (std::size_t i = 0; i < 6; ++i)
        packet[2 + i] = static_cast<std::uint8_t>(number >> 8 * (5 - i));
    return packet;
}

std::optional<std::size_t> Mpx2ReadoutOrder::chips() const
{
    constexpr std::uint64_t chipBits = (Mpx2Chip::imageBytes + 1) * 8;
    const std::uint64_t asked = std::uint64_t{bits} + 2;
    if (asked % chipBits != 0 || asked > chipBits * Mpx2Chain::mostChips)
        return std::nullopt;
    return asked / chipBits;
}

const Bytes& Mpx2Readout::read(std::span<Mpx2Chain* const> modules, std::size_t chips, std::size_t size)
{
    std::vector<std::uint64_t> made = {modules.size(), chips, size};
    std::vector<Lane> lanes;
    for (Mpx2Chain* const module : modules) {
        lanes.push_back(module->readMatrix(chips, made));
        lanes.back().head.insert(lanes.back().head.begin(), mpx2LeadByte);
    }
    if (made != lastMade)
        interleave(lanes, size, bytes);
    lastMade = std::move(made);
    return bytes;
}

} // namespace sim
