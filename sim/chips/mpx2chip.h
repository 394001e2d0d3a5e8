// One Medipix2 (MXR) or Timepix chip: DAC register, fuses and pixels, and what its pixels count of the scene.
#pragma once

#include "sim/chips/chip.h"
#include "sim/world/noise.h"
#include "sim/world/rowmotion.h"

#include <array>
#include <optional>
#include <string>

namespace sim {

enum class Mpx2Kind { Timepix, Medipix2 };

/// One opening of the shutter.
struct Mpx2Exposure {
    double seconds = 0;
    std::uint64_t frame = 0; ///< picks the noise
    double clockMhz = 0;     ///< what Timepix pixels measure times with

    bool operator==(const Mpx2Exposure&) const = default;
};

/// Rows to be shifted out, with the exposure of the step at whose end they are, if they are read in a series.
struct Mpx2RowRead {
    RowStep step;
    std::optional<Mpx2Exposure> exposure;
};

class LATIXELSIM_API Mpx2Chip {
public:
    static constexpr std::size_t ROWS = 256;
    static constexpr std::size_t ROW_BYTES = 448;      ///< of each row of the matrix
    static constexpr std::size_t RECORD_BYTES = 32;    ///< of the DAC register
    static constexpr std::size_t IMAGE_BYTES = 114720; ///< of the matrix: 256 rows, and 32 bytes behind them
    using Record = std::array<std::uint8_t, RECORD_BYTES>;

    /// `id` is the identifier as people write it, "C07-W0123": letter, position on the wafer (up to 12), wafer (up to
    /// 2047). An empty one stands for fuses that were never blown. Throws std::runtime_error for anything else.
    Mpx2Chip(const std::string& id, Mpx2Kind kind, ChipPlace place, std::shared_ptr<const Scene> scene);

    /// The chip loses its power: registers, configuration and counters hold zeros.
    void powerOff();
    /// The reset pin: clears the DAC register, and leaves the matrix as it is.
    void reset();

    /// Shifts a record in. Returns the old one, in which the fuses stand where no DAC does.
    Record shiftRecord(std::span<const std::uint8_t> record);
    /// Shifts words into the matrix, from the rows of an image, and takes them for the pixels' configuration.
    void loadMatrix(std::span<const std::uint8_t> image);
    /// The shutter was open. What this gives in the counters is worked out when they are read.
    void expose(const Mpx2Exposure& exposure);
    /// Shifts the matrix out, which clears the counters. Valid until the next call.
    const ChipStream& read();
    /// Shifts the first rows of the matrix out, and a byte less behind them than there are rows; all others move up,
    /// and clear ones come in behind them. In a series a row has counted wherever it has been; what its pixels are set
    /// to weighs as the mean of the column, and what they measure as the pixel's by which it leaves. What the rows of a
    /// series that are never read have counted is lost. Valid until the next call.
    const ChipStream& readRows(const Mpx2RowRead& order);

    /// Volts on the sense output, or none when the DAC register selects nothing.
    std::optional<double> senseVolts() const;

    std::size_t dacCount() const { return kind == Mpx2Kind::Timepix ? 14 : 15; }
    unsigned dac(std::size_t number) const;
    std::uint32_t ctpr() const { return field(143, 32); }
    /// The sense selector and the external DAC's, of which 1 and 2 are known.
    unsigned senseDac() const { return field(37, 2) | field(40, 2) << 2U; }
    unsigned extDac() const { return field(42, 2); }
    /// Counter registers of all pixels, row by row.
    const std::vector<std::uint16_t>& registers();
    const std::vector<std::uint16_t>& configuration() const { return config; }

private:
    using Words = std::vector<std::uint16_t>;
    /// What the last stream was made from; the same again gives the same bytes.
    struct Made {
        Mpx2Exposure exposure;
        std::uint64_t generation = 0;

        bool operator==(const Made&) const = default;
    };

    std::uint32_t field(unsigned first, unsigned bits) const;
    void settle();
    std::vector<float> sensitivity() const;
    const std::vector<float>& columnSensitivity();
    const std::vector<float>& falling();
    std::vector<float> means(double seconds);
    void count(const PoissonField& field, const Mpx2Exposure& exposure, std::span<std::uint16_t> states) const;
    std::uint32_t measured(std::uint16_t word, std::uint32_t hits, const Mpx2Exposure& exposure) const;

    Mpx2Kind kind;
    std::array<std::uint8_t, 3> fuses{};
    ChipPlace place;
    std::shared_ptr<const Scene> scene;
    FluxMap flux;

    Record dacRecord{};
    Words config;
    Words state;
    bool cleared = false;
    std::optional<Mpx2Exposure> pending; ///< counted, but not worked out yet
    std::uint64_t generation = 1;        ///< counts changes of what the pixels count by
    PoissonField expected;
    double expectedSeconds = 0;
    std::uint64_t expectedGeneration = 0;
    std::vector<float> columns;      ///< mean sensitivity of each
    std::uint64_t columnsMadeAt = 0; ///< generation
    ChipStream stream;
    std::optional<Made> streamMade;
};

} // namespace sim
