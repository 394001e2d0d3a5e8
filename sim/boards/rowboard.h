// The row board: its firmware with the command tables, and up to seven Timepix chips side by side, each on a channel of
// its own, written from the wire's point of view. The channels are clocked together and delivered byte by byte in turn.
// What every byte of a readout and of a block of rows is stands in sim/boards/mpx2readout.h.
//
// In a continuous series the shutter stays open, and the charges move over the chips with the rows: at each step of the
// timer a block of rows is read, and all others move up. A step takes no less than 10 ns for each bit that it clocks.
// With the start trigger the series waits for one pulse; with the stop trigger each pulse ends a step in place of the
// timer, as the encoder of a belt does. A stop reads the block that it cuts; a series of no blocks has ended at once.
//
// Keys of its entry in a bench, beside those of sim/boards/mpx2firmware.h:
//   "channels"  list of up to seven chip identifiers, as ["C07-W0123", ""]; "" stands for a channel without a chip
//
// Faults of its own:
//   {"kind": "chip_missing", "channel": c}               nothing drives its line
#pragma once

#include "sim/boards/mpx2firmware.h"

namespace sim {

class LATIXELSIM_API RowBoard : public Mpx2Firmware {
public:
    static constexpr std::size_t CHANNEL_COUNT = 7;

    /// Throws std::runtime_error, with a text for people, for a bad entry.
    RowBoard(const nlohmann::json& board, const nlohmann::json& bench);

    void powerCycle(Time now) override;
    bool applyFault(const nlohmann::json& fault) override;

    // What tests look at.
    bool hasChip(std::size_t channel) const { return chains.at(channel).size() > 0; }
    Mpx2Chip& chip(std::size_t channel) { return chains.at(channel).chip(0); }
    std::uint8_t channelMask() const { return selected; }
    /// Bits of each channel that a block of rows clocks, once the host has said it.
    const std::optional<std::uint32_t>& blockBits() const { return rowBits; }

private:
    static const std::array<Command<RowBoard>, 4> COMMANDS;

    void obeyOwn(const Frame& frame, Time now) override { obeyBy(COMMANDS, *this, frame, now); }
    void shiftNowhere(const Frame& frame) override;
    void finishFrame(const ShutterFrame& frame) override;

    // Peripheral 1, the chips.
    void readMatrix(const Frame& frame, Time now);
    void setRowBits(const Frame& frame, Time now);
    // Peripheral 5, acquisition.
    void startFrames(const Frame& frame, Time now);

    void buildChains(const nlohmann::json& board, const nlohmann::json& bench);
    void startSeries(const Frame& frame, Time now);

    std::optional<std::uint32_t> rowBits;
    unsigned blockRows = 0; ///< of the series that runs, or 0 if that is a frame
};

/// Makes a board of the kind "mpxrow".
LATIXELSIM_API std::unique_ptr<Board> makeRowBoard(const nlohmann::json& board, const nlohmann::json& bench);

} // namespace sim
