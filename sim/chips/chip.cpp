// What all readout chips have in common.
#include "sim/chips/chip.h"

#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace sim {

namespace {

/// A number that is nothing but digits.
std::optional<unsigned> digits(std::string_view text)
{
    unsigned number = 0;
    if (text.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

} // namespace

ChipId readChipId(const std::string& id, unsigned lastPosition, unsigned lastWafer)
{
    const std::string_view text = id;
    const std::string_view form = "C07-W0123";
    if (text.size() == form.size() && text[0] >= 'A' && text[0] <= 'O' && text.substr(3, 2) == form.substr(3, 2)) {
        const auto position = digits(text.substr(1, 2));
        const auto wafer = digits(text.substr(5));
        if (position && wafer && *position <= lastPosition && *wafer <= lastWafer)
            return {.letter = static_cast<unsigned>(text[0]) - 0x40U, .position = *position, .wafer = *wafer};
    }
    throw std::runtime_error("A chip identifier reads like \"C07-W0123\", not \"" + id + "\".");
}

std::uint8_t lowestBitFirst(unsigned byte)
{
    unsigned turned = 0;
    for (unsigned bit = 0; bit < 8; ++bit)
        turned |= (byte >> bit & 1U) << (7 - bit);
    return static_cast<std::uint8_t>(turned);
}

} // namespace sim
