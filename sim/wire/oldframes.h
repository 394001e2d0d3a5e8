// The 6-byte checked frames that boards of the old generation and their host exchange, in both directions:
// 55, the command, three parameters, and the exclusive or of the four.
#pragma once

#include "sim/wire/frames.h"

#include <optional>

namespace sim {

using OldParams = std::array<std::uint8_t, 3>;

/// One frame. Those that a board has seen hold the data that came after them, if the command takes any.
struct LATIXELSIM_API OldFrame {
    std::uint8_t command = 0;
    OldParams params{};
    Bytes data;

    /// The parameters as one big-endian number.
    std::uint32_t word() const;
    /// The six bytes of the frame.
    Bytes bytes() const;
};

/// Cuts a byte stream into frames. Bytes that are no frame are told once, and skipped up to the next good frame.
class OldFrameParser {
public:
    /// Takes bytes up to the end of a frame at most; returns their number. `complete` gets a good frame that they end.
    std::size_t take(std::span<const std::uint8_t> bytes, std::optional<OldFrame>& complete, const Complain& complain);
    /// Forgets what has begun.
    void reset();

private:
    void loseSync(const char* what, const Complain& complain);

    Bytes collected; ///< start of a frame
    bool lost = false;
};

} // namespace sim
