// The SPI peripheral of an interface board.
#include "sim/wire/spi.h"

namespace sim {

void SpiBus::set(std::uint8_t newMode, std::uint32_t newDivider)
{
    mode = newMode;
    divider = newDivider;
}

void SpiBus::reset()
{
    set(0, 0);
    selected = 0;
    held.reset();
}

Bytes SpiBus::send(const Complain& complain)
{
    if (!held) {
        complain("SPI send without a payload", {});
        return {};
    }
    const Bytes bytes = std::move(*held);
    held.reset();
    return exchange(bytes, complain);
}

Bytes SpiBus::exchange(std::span<const std::uint8_t> bytes, const Complain& complain)
{
    const auto found = slaves.find(selected);
    if (found == slaves.end()) {
        complain("SPI exchange with no slave at chip select " + std::to_string(selected), bytes);
        return Bytes(bytes.size());
    }
    SpiSlave& slave = *found->second;
    if (mode != slave.mode || divider != slave.divider) {
        complain(std::string(slave.name) + " clocked with mode " + std::to_string(mode) + ", divider " +
                     std::to_string(divider),
                 bytes);
        return Bytes(bytes.size(), 0xFF);
    }
    return slave.exchange(bytes, complain);
}

} // namespace sim
