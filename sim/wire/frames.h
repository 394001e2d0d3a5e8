// The 9-byte command frames of the newer interface boards, taken out of a byte stream. The parser knows frames and
// payloads; which commands there are is a board's own table.
#pragma once

#include "sim/api.h"
#include "sim/types.h"

#include <array>
#include <functional>
#include <span>
#include <string>

namespace sim {

/// Bits of a frame's flags.
enum FrameFlag : std::uint8_t {
    FRAME_HAS_PAYLOAD = 1,  ///< D: the argument bytes hold the length of a payload that follows
    FRAME_TAKES_OUTPUT = 2, ///< O: the addressed peripheral takes the output to the host
    FRAME_ACTS_AT_ONCE = 4, ///< A: the payload is acted on at once
};

/// One command frame as it came in, with its payload.
struct LATIXELSIM_API Frame {
    std::uint8_t flags = 0;
    std::uint8_t peripheral = 0;
    std::uint8_t command = 0;
    std::array<std::uint8_t, 4> d{};
    Bytes payload;

    bool has(FrameFlag flag) const { return (flags & flag) != 0; }
    /// The argument bytes as one big-endian number.
    std::uint32_t word() const;
    /// The low three argument bytes as one big-endian number.
    std::uint32_t word24() const { return word() & 0xFFFFFF; }
    /// The nine bytes of the frame.
    Bytes head() const;
};

/// Takes a complaint: what is wrong, and the bytes it came in.
using Complain = std::function<void(std::string what, std::span<const std::uint8_t> bytes)>;

/// What one command may look like. A board lists all its commands.
struct CommandRule {
    std::uint8_t peripheral;
    std::uint8_t command;
    const char* name;
    std::uint8_t flagSets;   ///< bit n set: the flags value n is understood
    std::uint32_t arguments; ///< bits of the argument word that may be set; not looked at for a payload's length
};

/// What the frame has against the rule, or an empty text.
std::string objection(const CommandRule& rule, const Frame& frame);

/// Cuts a byte stream into frames. Bytes that are no frame are told once, and skipped up to the next good frame.
class FrameParser {
public:
    /// Longest payload that a board has memory for, in bytes.
    static constexpr std::size_t LONGEST_PAYLOAD = 1U << 21U;

    /// Takes the next bytes of the stream, in pieces of any size, and hands on each frame that is complete.
    void feed(std::span<const std::uint8_t> bytes, const std::function<void(Frame&&)>& complete,
              const Complain& complain);
    /// True between two frames: no frame and no payload has begun.
    bool idle() const { return collected.empty() && payloadMissing == 0; }
    /// Forgets what has begun.
    void reset();

private:
    std::size_t takePayload(std::span<const std::uint8_t> bytes);
    bool takeFrame(const Complain& complain);
    void loseSync(const char* what, const Complain& complain);

    Bytes collected; ///< start of a frame
    Frame frame;
    std::size_t payloadMissing = 0;
    bool lost = false; ///< skipping to the next good frame
};

} // namespace sim
