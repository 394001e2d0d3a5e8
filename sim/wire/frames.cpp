// The 9-byte command frames, taken out of a byte stream.
#include "sim/wire/frames.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t FRAME_SIZE = 9;
constexpr std::uint8_t SYNC_BYTE = 0x55;
constexpr std::uint8_t END_BYTE = 0xAA;
constexpr std::uint8_t DEFINED_FLAGS = 7;

} // namespace

std::uint32_t Frame::word() const
{
    return std::uint32_t{d[0]} << 24U | std::uint32_t{d[1]} << 16U | std::uint32_t{d[2]} << 8U | d[3];
}

Bytes Frame::head() const
{
    return {SYNC_BYTE, flags, peripheral, command, d[0], d[1], d[2], d[3], END_BYTE};
}

std::string objection(const CommandRule& rule, const Frame& frame)
{
    if ((rule.flagSets >> frame.flags & 1) == 0)
        return std::string(rule.name) + " with flags " + std::to_string(frame.flags);
    if (!frame.has(FRAME_HAS_PAYLOAD) && (frame.word() & ~rule.arguments) != 0)
        return std::string(rule.name) + " with undefined argument bits";
    return {};
}

void FrameParser::feed(std::span<const std::uint8_t> bytes, const std::function<void(Frame&&)>& complete,
                       const Complain& complain)
{
    while (!bytes.empty()) {
        bool done = false;
        if (payloadMissing > 0) {
            bytes = bytes.subspan(takePayload(bytes));
            done = payloadMissing == 0;
        } else {
            const std::size_t part = std::min(FRAME_SIZE - collected.size(), bytes.size());
            collected.insert(collected.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(part));
            bytes = bytes.subspan(part);
            done = takeFrame(complain) && payloadMissing == 0;
        }
        if (done) {
            complete(std::move(frame));
            frame = {};
        }
    }
}

void FrameParser::reset()
{
    collected.clear();
    frame = {};
    payloadMissing = 0;
    lost = false;
}

std::size_t FrameParser::takePayload(std::span<const std::uint8_t> bytes)
{
    const std::size_t part = std::min(payloadMissing, bytes.size());
    frame.payload.insert(frame.payload.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(part));
    payloadMissing -= part;
    return part;
}

/// Looks at the collected bytes. Returns true when they were a good frame, which then stands in `frame`.
bool FrameParser::takeFrame(const Complain& complain)
{
    if (collected.front() != SYNC_BYTE) {
        loseSync("no frame begins here", complain);
        return false;
    }
    if (collected.size() < FRAME_SIZE)
        return false;
    if (collected[8] != END_BYTE || collected[1] > DEFINED_FLAGS) {
        loseSync(collected[8] != END_BYTE ? "frame without its end byte" : "frame with undefined flags", complain);
        return false;
    }
    frame = {collected[1], collected[2], collected[3], {collected[4], collected[5], collected[6], collected[7]}, {}};
    if (frame.has(FRAME_HAS_PAYLOAD) && (frame.word() == 0 || frame.word() > LONGEST_PAYLOAD)) {
        loseSync("absurd payload length", complain);
        return false;
    }
    payloadMissing = frame.has(FRAME_HAS_PAYLOAD) ? frame.word() : 0;
    frame.payload.reserve(payloadMissing);
    collected.clear();
    lost = false;
    return true;
}

/// Tells the first byte that fits no frame, and drops bytes up to the next that may begin one.
void FrameParser::loseSync(const char* what, const Complain& complain)
{
    if (!lost)
        complain(what, collected);
    lost = true;
    collected.erase(collected.begin(), std::find(collected.begin() + 1, collected.end(), SYNC_BYTE));
}

} // namespace sim
