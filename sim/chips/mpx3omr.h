// Operation mode register of a Medipix3 chip: 48 bits that say what the next shift does and how pixels are read.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace sim {

/// Fields of the register, in the order in which they are shifted in.
enum class OmrField : std::size_t {
    Mode,
    CrwSrw,
    Polarity,
    ColumnCount,
    DiscCsmSpm,
    EnableTp,
    CountL,
    ColumnBlock,
    ColumnBlockSel,
    RowBlock,
    RowBlockSel,
    Equalization,
    ColourMode,
    CsmSpm,
    InfoHeader,
    FuseSel,
    FusePulseWidth,
    Gain,
    SenseDac,
    ExtDac,
    ExtBgSel,
};

/// A field with its width in bits.
struct OmrLayoutRow {
    OmrField field;
    unsigned width;
};

inline constexpr std::array<OmrLayoutRow, 21> OMR_LAYOUT = {
    {{OmrField::Mode, 3},           {OmrField::CrwSrw, 1},   {OmrField::Polarity, 1},    {OmrField::ColumnCount, 2},
     {OmrField::DiscCsmSpm, 1},     {OmrField::EnableTp, 1}, {OmrField::CountL, 2},      {OmrField::ColumnBlock, 3},
     {OmrField::ColumnBlockSel, 1}, {OmrField::RowBlock, 3}, {OmrField::RowBlockSel, 1}, {OmrField::Equalization, 1},
     {OmrField::ColourMode, 1},     {OmrField::CsmSpm, 1},   {OmrField::InfoHeader, 1},  {OmrField::FuseSel, 5},
     {OmrField::FusePulseWidth, 7}, {OmrField::Gain, 2},     {OmrField::SenseDac, 5},    {OmrField::ExtDac, 5},
     {OmrField::ExtBgSel, 1}}};

/// Number of bits that are shifted in before a field.
constexpr unsigned omrFirstBit(OmrField field)
{
    unsigned first = 0;
    for (const OmrLayoutRow& row : OMR_LAYOUT) {
        if (row.field == field)
            break;
        first += row.width;
    }
    return first;
}
static_assert(std::ranges::is_sorted(OMR_LAYOUT, {}, &OmrLayoutRow::field), "a field's row stands at its number");
static_assert(omrFirstBit(OmrField::ExtBgSel) == 47, "the fields fill 48 bits");

/// What the `mode` field tells the chip to do with the next shift.
namespace omrmode {
inline constexpr unsigned READ_COUNTER0 = 0;
inline constexpr unsigned LOAD_DACS = 1;
inline constexpr unsigned LOAD_COUNTER0 = 2;
inline constexpr unsigned READ_COUNTER1 = 4;
inline constexpr unsigned LOAD_CTPR = 5;
inline constexpr unsigned LOAD_COUNTER1 = 6;
inline constexpr unsigned READ_FUSES = 7;
} // namespace omrmode

/// The part of the matrix that a readout shifts out.
struct ReadoutShape {
    unsigned rows = 256;      ///< from row 0 on
    unsigned columns = 256;   ///< of each row, a multiple of 8
    unsigned firstColumn = 0; ///< lowest column that is shifted out; the highest comes first
    unsigned planes = 12;     ///< bits of a pixel

    std::size_t bytes() const { return std::size_t{rows} * planes * columns / 8; }
    bool operator==(const ReadoutShape&) const = default;
};

class Mpx3Omr {
public:
    Mpx3Omr() = default;
    /// From the six register bytes as they are shifted in.
    explicit Mpx3Omr(std::span<const std::uint8_t, 6> shifted)
    {
        for (const std::uint8_t byte : shifted)
            bits = bits << 8U | byte;
    }

    /// A field's value. Each field comes in with its lowest bit first.
    unsigned get(OmrField field) const
    {
        const unsigned first = omrFirstBit(field);
        const unsigned width = OMR_LAYOUT[static_cast<std::size_t>(field)].width;
        unsigned value = 0;
        for (unsigned bit = 0; bit < width; ++bit)
            value |= static_cast<unsigned>(bits >> (47 - first - bit) & 1U) << bit;
        return value;
    }

    unsigned mode() const { return get(OmrField::Mode); }
    /// Counter depth in bits: 1, 6, 12 or 24.
    unsigned depth() const { return std::array{1U, 6U, 12U, 24U}[get(OmrField::CountL)]; }
    ReadoutShape shape() const
    {
        const unsigned columns = 256U >> get(OmrField::ColumnCount);
        const unsigned blockColumn = get(OmrField::ColumnBlock) * 32 / columns * columns;
        return {.rows = get(OmrField::RowBlockSel) != 0 ? 1U << get(OmrField::RowBlock) : 256U,
                .columns = columns,
                .firstColumn = get(OmrField::ColumnBlockSel) != 0 ? blockColumn : 256 - columns,
                .planes = depth() == 24 ? 12U : depth()};
    }

    bool operator==(const Mpx3Omr&) const = default;

private:
    std::uint64_t bits = 0;
};

} // namespace sim
