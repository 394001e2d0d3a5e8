// One module of a Medipix2 or Timepix board: chips that pass their data on from one to the next, and their data line.
#pragma once

#include "sim/chips/mpx2chip.h"
#include "sim/wire/frames.h"
#include "sim/wire/lanes.h"

#include <memory>

namespace sim {

class LATIXELSIM_API Mpx2Chain {
public:
    static constexpr std::size_t MOST_CHIPS = 10;

    /// Puts a chip at the end of the chain. The chip nearest to the output comes first.
    void add(std::unique_ptr<Mpx2Chip> chip);
    std::size_t size() const { return chips.size(); }
    Mpx2Chip& chip(std::size_t position) { return *chips.at(position).chip; }
    const Mpx2Chip& chip(std::size_t position) const { return *chips.at(position).chip; }

    /// Power and reset of the chips. Without power they forget all; in reset they do not drive the line.
    void setPower(bool on);
    void setReset(bool active);
    /// True if the module shows a pattern that it is clocked with.
    bool answers() const;
    /// Level of the data line where no chip drives it, in all bits of a byte.
    std::uint8_t restingByte() const { return stuck.value_or(0); }

    /// Sends bytes past the registers: each chip holds one byte of them back. Returns what comes out.
    Lane passBy(std::span<const std::uint8_t> bytes);
    /// Shifts a stream of a lead byte and a record for each chip into the DAC registers. Returns the old contents: a
    /// lead byte for each chip, then the records.
    Lane shiftDacs(std::span<const std::uint8_t> bytes, const Complain& complain);
    /// Shifts a stream of a lead byte and an image for each chip into the matrix.
    void writeMatrix(std::span<const std::uint8_t> bytes, const Complain& complain);
    /// Shifts the matrix of the first `wanted` chips out: a lead byte for each chip of the chain, then the images.
    /// Appends to `made` numbers that are the same again only if the lane has the same bytes.
    Lane readMatrix(std::size_t wanted, std::vector<std::uint64_t>& made);
    /// Shifts rows of the chip nearest to the output out: a lead byte, and then what the chip gives.
    Lane readRows(const Mpx2RowRead& order);
    void expose(const Mpx2Exposure& exposure);

    // Faults.
    void silence() { silent = true; }
    /// The data line delivers nothing but this byte.
    void stickLine(std::uint8_t byte) { stuck = byte; }
    /// The chip at `position` is gone, and its neighbours are joined.
    void lose(std::size_t position);
    void clearFaults();

private:
    struct Member {
        std::unique_ptr<Mpx2Chip> chip;
        bool missing = false;
    };

    bool awake() const { return powered && !inReset; }
    std::vector<Mpx2Chip*> members() const;
    bool fits(std::size_t bytes, std::size_t perChip) const;
    Lane line(Bytes bytes) const;

    std::vector<Member> chips;
    Bytes held; ///< what the chips hold back of the bytes that pass them
    bool powered = false;
    bool inReset = true;
    bool silent = false;
    std::optional<std::uint8_t> stuck;
};

} // namespace sim
