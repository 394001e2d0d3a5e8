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
    mode,
    crwSrw,
    polarity,
    columnCount,
    discCsmSpm,
    enableTp,
    countL,
    columnBlock,
    columnBlockSel,
    rowBlock,
    rowBlockSel,
    equalization,
    colourMode,
    csmSpm,
    infoHeader,
    fuseSel,
    fusePulseWidth,
    gain,
    senseDac,
    extDac,
    extBgSel,
};

/// A field with its width in bits.
struct OmrLayoutRow {
    OmrField field;
    unsigned width;
};

inline constexpr std::array<OmrLayoutRow, 21> omrLayout = {
    {{OmrField::mode, 3},           {OmrField::crwSrw, 1},   {OmrField::polarity, 1},    {OmrField::columnCount, 2},
     {OmrField::discCsmSpm, 1},     {OmrField::enableTp, 1}, {OmrField::countL, 2},      {OmrField::columnBlock, 3},
     {OmrField::columnBlockSel, 1}, {OmrField::rowBlock, 3}, {OmrField::rowBlockSel, 1}, {OmrField::equalization, 1},
     {OmrField::colourMode, 1},     {OmrField::csmSpm, 1},   {OmrField::infoHeader, 1},  {OmrField::fuseSel, 5},
     {OmrField::fusePulseWidth, 7}, {OmrField::gain, 2},     {OmrField::senseDac, 5},    {OmrField::extDac, 5},
     {OmrField::extBgSel, 1}}};

/// Number of bits that are shifted in before a field.
constexpr unsigned omrFirstBit(OmrField field)
{
    unsigned first = 0;
    for (const OmrLayoutRow& row : omrLayout) {
        if (row.field == field)
            break;
        first += row.width;
    }
    return first;
}
static_assert(std::ranges::is_sorted(omrLayout, {}, &OmrLayoutRow::field), "a field's row stands at its number");
static_assert(omrFirstBit(OmrField::extBgSel) == 47, "the fields fill 48 bits");

/// What the `mode` field tells the chip to do with the next shift.
namespace omrmode {
inline constexpr unsigned readCounter0 = 0;
inline constexpr unsigned loadDacs = 1;
inline constexpr unsigned loadCounter0 = 2;
inline constexpr unsigned readCounter1 = 4;
inline constexpr unsigned loadCtpr = 5;
inline constexpr unsigned loadCounter1 = 6;
inline constexpr unsigned readFuses = 7;
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
        const unsigned width = omrLayout[static_cast<std::size_t>(field)].width;
        unsigned value = 0;
        for (unsigned bit = 0; bit < width; ++bit)
            value |= static_cast<unsigned>(bits >> (47 - first - bit) & 1U) << bit;
        return value;
    }

    unsigned mode() const { return get(OmrField::mode); }
    /// Counter depth in bits: 1, 6, 12 or 24.
    unsigned depth() const { return std::array{1U, 6U, 12U, 24U}[get(OmrField::countL)]; }
    ReadoutShape shape() const
    {
        const unsigned columns = 256U >> get(OmrField::columnCount);
        const unsigned blockColumn = get(OmrField::columnBlock) * 32 / columns * columns;
        return {.rows = get(OmrField::rowBlockSel) != 0 ? 1U << get(OmrField::rowBlock) : 256U,
                .columns = columns,
                .firstColumn = get(OmrField::columnBlockSel) != 0 ? blockColumn : 256 - columns,
                .planes = depth() == 24 ? 12U : depth()};
    }

    bool operator==(const Mpx3Omr&) const = default;

private:
    std::uint64_t bits = 0;
};

} // namespace sim
