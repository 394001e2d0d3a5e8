// The 6-byte checked frames of the old boards.
#include "sim/wire/oldframes.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t FRAME_SIZE = 6;
constexpr std::uint8_t SYNC_BYTE = 0x55;

} // namespace

std::uint32_t OldFrame::word() const
{
    return std::uint32_t{params[0]} << 16U | std::uint32_t{params[1]} << 8U | params[2];
}

Bytes OldFrame::bytes() const
{
    const auto check = static_cast<std::uint8_t>(command ^ params[0] ^ params[1] ^ params[2]);
    return {SYNC_BYTE, command, params[0], params[1], params[2], check};
}

std::size_t OldFrameParser::take(std::span<const std::uint8_t> bytes, std::optional<OldFrame>& complete,
                                 const Complain& complain)
{
    const std::size_t part = std::min(FRAME_SIZE - collected.size(), bytes.size());
    collected.insert(collected.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(part));
    if (collected.front() != SYNC_BYTE) {
        loseSync("no frame begins here", complain);
    } else if (collected.size() == FRAME_SIZE) {
        OldFrame frame{collected[1], {collected[2], collected[3], collected[4]}, {}};
        if (frame.bytes() == collected) {
            complete = std::move(frame);
            reset();
        } else {
            loseSync("frame with a wrong check byte", complain);
        }
    }
    return part;
}

void OldFrameParser::reset()
{
    collected.clear();
    lost = false;
}

/// Tells the first bytes that are no frame, and drops bytes up to the next that may begin one.
void OldFrameParser::loseSync(const char* what, const Complain& complain)
{
    if (!lost)
        complain(what, collected);
    lost = true;
    collected.erase(collected.begin(), std::find(collected.begin() + 1, collected.end(), SYNC_BYTE));
}

} // namespace sim
