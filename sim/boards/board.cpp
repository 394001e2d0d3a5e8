// What all virtual boards share: the output towards the FTDI chip, and the list of violations.
#include "sim/boards/board.h"

#include <nlohmann/json.hpp>

namespace sim {

void Board::externalTrigger(Time /*now*/) {}

bool Board::applyFault(const nlohmann::json& /*fault*/)
{
    return false;
}

void Board::clearFaults() {}

std::size_t Board::take(std::span<std::uint8_t> room)
{
    return output.pop(room);
}

void Board::emit(std::span<const std::uint8_t> bytes)
{
    output.push(bytes);
}

void Board::violate(std::string what, std::span<const std::uint8_t> bytes)
{
    recorded.push_back({usbDescription, std::move(what), Bytes(bytes.begin(), bytes.end())});
}

} // namespace sim
