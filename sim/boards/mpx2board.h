// The Medipix2 and Timepix readout board: its firmware with the command tables, and up to five modules of up to ten
// chips behind a multiplexer, written from the wire's point of view.
//
// Keys of its entry in a bench, beside those of sim/boards/mpx2firmware.h:
//   "modules"  list of up to five modules, each a list of up to ten chip identifiers, as [["C07-W0123"], []]
//   "chip"     "timepix" (the default) or "medipix2"
// A CPU that publishes "*BiasSet" makes the bias: "BiasVolt", "BiasCurr" and "TempDet" follow it.
//
// Faults of its own:
//   {"kind": "module_silent", "module": m}
//   {"kind": "chip_missing", "module": m, "position": p}               its neighbours are joined
#pragma once

#include "sim/boards/mpx2firmware.h"

namespace sim {

class LATIXELSIM_API Mpx2Board : public Mpx2Firmware {
public:
    static constexpr std::size_t MODULE_COUNT = 5;

    /// Throws std::runtime_error, with a text for people, for a bad entry.
    Mpx2Board(const nlohmann::json& board, const nlohmann::json& bench);

    bool applyFault(const nlohmann::json& fault) override;
    void powerCycle(Time now) override;

    // What tests look at.
    Mpx2Chain& module(std::size_t number) { return chains.at(number); }
    Mpx2Chip& chip(std::size_t number, std::size_t position = 0) { return chains.at(number).chip(position); }
    std::uint8_t moduleMask() const { return selected; }

private:
    static const std::array<Command<Mpx2Board>, 5> COMMANDS;

    void obeyOwn(const Frame& frame, Time now) override { obeyBy(COMMANDS, *this, frame, now); }
    void shiftNowhere(const Frame& frame) override;

    // Peripheral 1, the chips.
    void showPattern(const Frame& frame, Time now);
    void announceReadout(const Frame& frame, Time now);
    void readMatrix(const Frame& frame, Time now);

    void buildChains(const nlohmann::json& board, const nlohmann::json& bench);
    void followBias(double volts);

    std::optional<std::uint32_t> announced; ///< for the next readout
};

/// Makes a board of the kind "mpx2".
LATIXELSIM_API std::unique_ptr<Board> makeMpx2Board(const nlohmann::json& board, const nlohmann::json& bench);

} // namespace sim
