// One Medipix3 chip: registers, DACs, fuses and pixels, and what its pixels count of the scene.
#pragma once

#include "sim/chips/chip.h"
#include "sim/chips/mpx3omr.h"
#include "sim/chips/mpx3pixels.h"
#include "sim/world/noise.h"
#include "sim/world/scene.h"

#include <array>
#include <optional>
#include <string>

namespace sim {

class LATIXELSIM_API Mpx3Chip {
public:
    static constexpr std::size_t DAC_COUNT = 27;
    static constexpr std::size_t DAC_RECORD_BYTES = 37; ///< header, 226 bits, zeros
    static constexpr std::size_t CTPR_BYTES = 32;
    static constexpr std::size_t FUSE_BYTES = 5;

    /// `id` is the identifier as people write it, "C07-W0123": letter, position on the wafer, wafer. An empty one
    /// stands for fuses that were never blown. Throws std::runtime_error for anything else.
    Mpx3Chip(const std::string& id, ChipPlace place, std::shared_ptr<const Scene> scene);

    /// The chip loses its power, or is reset: registers, DACs, configuration and counters are zero.
    void reset();

    void loadOmr(const Mpx3Omr& image) { omrImage = image; }
    /// Takes the 34 bytes behind a DAC record's header.
    void loadDacs(std::span<const std::uint8_t> stream);
    void loadCtpr(std::span<const std::uint8_t> bytes);
    /// Takes 128 rows for a counter. The second half of the second counter also sets the pixel configuration.
    void loadHalf(unsigned counter, bool secondHalf, std::span<const std::uint8_t> planes);
    void clearCounters();

    /// The shutter was open. What this gives in the counters is worked out when they are read.
    void expose(double seconds, unsigned depth, std::uint64_t frame);
    /// The shutter was open for one step of a series of single rows, in which the counters move on by one row in each
    /// step: the row that is read has counted in up to 256 steps, and in each at another row of the chip.
    void exposeRow(std::uint64_t step, double seconds, unsigned depth);
    /// Shifts a counter out, which clears it. Valid until the next call.
    const ChipStream& read(unsigned counter, const ReadoutShape& shape);

    const Mpx3Omr& omr() const { return omrImage; }
    const std::array<std::uint16_t, DAC_COUNT>& dacs() const { return dacCodes; }
    const std::array<std::uint8_t, CTPR_BYTES>& ctpr() const { return ctprBits; }
    /// Fuse bits as they are shifted out: in each byte the lowest bit first.
    std::array<std::uint8_t, FUSE_BYTES> fuses() const;
    /// Counter registers of all pixels, row by row.
    const std::vector<std::uint16_t>& registers(unsigned counter);
    const std::vector<std::uint16_t>& configuration() const { return pixels.configuration(); }
    /// Volts on the sense output, or none when the register selects nothing.
    std::optional<double> senseVolts() const;

private:
    struct Exposure {
        double seconds = 0;
        unsigned depth = 12;
        std::uint64_t frame = 0;
        bool row = false;

        bool operator==(const Exposure&) const = default;
    };
    /// What the last stream of a counter was made from; the same again gives the same bytes.
    struct Made {
        double seconds = 0;
        unsigned depth = 0;
        ReadoutShape shape;
        std::uint64_t generation = 0;

        bool operator==(const Made&) const = default;
    };
    struct Counter {
        std::optional<Exposure> pending; ///< counted, but not worked out yet
        PoissonField field;
        Made fieldMade;
        Made streamMade;
        bool streamRepeats = false;
        ChipStream stream;
        std::vector<float> columns;
        std::uint64_t columnsMadeAt = 0; ///< generation
    };

    void settle(unsigned counter);
    void count(unsigned counter, const Exposure& exposure, const PoissonField& field,
               std::span<std::uint32_t> counts) const;
    std::vector<float> frameMeans(unsigned counter, const Exposure& exposure) const;
    std::vector<float> rowMeans(unsigned counter, const Exposure& exposure);
    const std::vector<float>& columnSensitivity(unsigned counter, unsigned depth);
    std::vector<float> sensitivity(unsigned counter, unsigned depth) const;
    const std::vector<float>& flux() const;
    void shiftRow(unsigned counter, const ReadoutShape& shape);

    std::array<std::uint8_t, FUSE_BYTES> fuseBits{};
    ChipPlace place;
    std::shared_ptr<const Scene> scene;
    mutable FluxMap fluxMap;

    Mpx3Omr omrImage;
    std::array<std::uint16_t, DAC_COUNT> dacCodes{};
    std::array<std::uint8_t, CTPR_BYTES> ctprBits{};
    Mpx3Pixels pixels;
    std::uint64_t generation = 1; ///< counts changes of what the pixels count by
    std::array<Counter, 2> counters;
    std::uint64_t versions = 0;
};

} // namespace sim
