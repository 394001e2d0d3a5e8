// What a Medipix2 or Timepix board sends when its matrix is read.
#include "sim/boards/mpx2readout.h"

namespace sim {

namespace {

constexpr std::size_t BYTES_PER_ROW = Mpx2Chip::ROW_BYTES + 1; ///< that are clocked for it

} // namespace

Mpx2Packet mpx2Packet(std::uint8_t peripheral, std::uint64_t number)
{
    Mpx2Packet packet = {0x55, peripheral, 0, 0, 0, 0, 0, 0, 0xAA};
    for (std::size_t i = 0; i < 6; ++i)
        packet[2 + i] = static_cast<std::uint8_t>(number >> 8 * (5 - i));
    return packet;
}

std::optional<std::size_t> Mpx2ReadoutOrder::chips() const
{
    constexpr std::uint64_t CHIP_BITS = (Mpx2Chip::IMAGE_BYTES + 1) * 8;
    const std::uint64_t asked = std::uint64_t{bits} + 2;
    if (asked % CHIP_BITS != 0 || asked > CHIP_BITS * Mpx2Chain::MOST_CHIPS)
        return std::nullopt;
    return asked / CHIP_BITS;
}

std::optional<unsigned> rowsOfBits(std::uint32_t bits)
{
    const std::uint64_t clocked = std::uint64_t{bits} + 1;
    const std::uint64_t rows = clocked / (BYTES_PER_ROW * 8);
    if (rows * BYTES_PER_ROW * 8 != clocked || rows > Mpx2Chip::ROWS)
        return std::nullopt;
    return static_cast<unsigned>(rows);
}

Lane Mpx2Readout::through(Lane lane) const
{
    lane.head.insert(lane.head.begin(), lead.begin(), lead.end());
    return lane;
}

const Bytes& Mpx2Readout::read(std::span<Mpx2Chain* const> lines, std::size_t chips, std::size_t size)
{
    std::vector<std::uint64_t> made = {lines.size(), chips, size};
    std::vector<Lane> lanes;
    for (Mpx2Chain* const line : lines)
        lanes.push_back(through(line->readMatrix(chips, made)));
    if (made != lastMade)
        interleave(lanes, size, bytes);
    lastMade = std::move(made);
    return bytes;
}

const Bytes& Mpx2Readout::readRows(std::span<Mpx2Chain* const> channels, const Mpx2RowRead& order)
{
    std::vector<Lane> lanes;
    for (Mpx2Chain* const channel : channels)
        lanes.push_back(through(channel->readRows(order)));
    interleave(lanes, channels.size() * order.step.rows * BYTES_PER_ROW, bytes);
    lastMade.clear();
    return bytes;
}

} // namespace sim
