// One channel of a Medipix3 board: the chips that hang on it one after the other, and the data line that they share.
#pragma once

#include "sim/chips/mpx3chip.h"
#include "sim/wire/frames.h"

#include <memory>

namespace sim {

class LATIXELSIM_API Mpx3Chain {
public:
    static constexpr std::size_t HALF_MATRIX_BYTES = 49207; ///< of one chip: header, 128 rows, bytes that fall out
    static constexpr std::size_t FUSE_RECORD_BYTES = 38;

    /// Puts a chip at the end of the chain. The chip nearest to the output comes first.
    void add(std::unique_ptr<Mpx3Chip> chip) { chips.push_back(std::move(chip)); }
    std::size_t size() const { return chips.size(); }
    Mpx3Chip& chip(std::size_t position) { return *chips.at(position); }

    /// Shifts bytes into the chips; `length` is the number of chips that the firmware counts on the channel. What the
    /// bytes mean is said by their first byte and by the mode in the register.
    void shift(std::span<const std::uint8_t> bytes, std::size_t length, const Complain& complain);
    /// What the chips hold while bytes are shifted in, as long as these are.
    Bytes answer(std::size_t bytes) const;
    /// Power of the chips. Switching it off resets them; without it they take nothing in and drive no line.
    void setPower(bool on);
    void reset();
    /// True between the two transfers that a matrix is written in.
    bool halfWritten() const { return secondHalf; }
    void expose(double seconds, unsigned depth, std::uint64_t frame);
    void exposeRow(std::uint64_t step, double seconds, unsigned depth);
    void clearCounters();
    /// Shifts a counter of the chip at `position` out. Nothing comes if there is no chip, or the line is stuck.
    const ChipStream* read(std::size_t position, unsigned counter, const ReadoutShape& shape);

    /// Volts that the selected sense output of a chip drives, or none.
    std::optional<double> senseVolts() const;

    /// Level of the data line where no chip drives it.
    std::uint8_t restingByte() const { return stuck.value_or(0); }

    // Faults.
    /// The data line delivers nothing but this byte.
    void stickLine(std::uint8_t byte) { stuck = byte; }
    /// The chip at `position` does not answer, as if its bonds were broken.
    void lose(std::size_t position) { missing.at(position) = true; }
    void clearFaults();

private:
    struct Load; // a kind of stream that the chips take in
    static const std::array<Load, 5> LOADS;

    bool loadOmr(std::span<const std::uint8_t> bytes, std::size_t length);
    bool loadDacs(std::span<const std::uint8_t> bytes, std::size_t length);
    bool loadCtpr(std::span<const std::uint8_t> bytes, std::size_t length);
    bool loadMatrix(std::span<const std::uint8_t> bytes, std::size_t length);
    bool readFuses(std::span<const std::uint8_t> bytes, std::size_t length);

    std::vector<std::unique_ptr<Mpx3Chip>> chips;
    Mpx3Omr omr;             ///< last image that passed
    bool secondHalf = false; ///< the next half matrix is the second of its write
    Bytes held;              ///< what the next fuse read shifts out
    bool powered = false;
    std::optional<std::uint8_t> stuck;
    std::array<bool, 2> missing{};
};

} // namespace sim
