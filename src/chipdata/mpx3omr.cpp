// The Medipix3 operation mode register, see mpx3omr.h.
#include "chipdata/mpx3omr.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr std::size_t HEADER_SIZE = 2;   // bytes of the image before the register
constexpr std::size_t REGISTER_SIZE = 6; // bytes of the register itself
constexpr unsigned char SYNC = 0x30;     // first byte of the image

/// A field of the register: all but one are bytes.
struct Field {
    constexpr Field(unsigned char OMR::*member, int width, unsigned char value)
        : byte(member),
          bits(width),
          initial(value)
    {
    }
    constexpr Field(unsigned int OMR::*member, int width, unsigned char value)
        : word(member),
          bits(width),
          initial(value)
    {
    }
    constexpr unsigned value(const OMR& omr) const { return byte ? omr.*byte : omr.*word; }
    constexpr void reset(OMR& omr) const
    {
        if (byte)
            omr.*byte = initial;
        else
            omr.*word = initial;
    }

    unsigned char OMR::*byte = nullptr;
    unsigned int OMR::*word = nullptr;
    int bits;              ///< bits that reach the chip
    unsigned char initial; ///< value after clear
};

/// The register in the order in which it is shifted in.
constexpr Field FIELDS[] = {
    {&OMR::M, 3, 7},          {&OMR::CRW_SRW, 1, 0},        {&OMR::Polarity, 1, 1},
    {&OMR::PS, 2, 0},         {&OMR::Disc_CSM_SPM, 1, 0},   {&OMR::Enable_TP, 1, 0},
    {&OMR::CountL, 2, 2},     {&OMR::ColumnBlock, 3, 0},    {&OMR::ColumnBlockSel, 1, 0},
    {&OMR::RowBlock, 3, 0},   {&OMR::RowBlockSel, 1, 0},    {&OMR::Equalization, 1, 0},
    {&OMR::ColourMode, 1, 0}, {&OMR::CSM_SPM, 1, 0},        {&OMR::InfoHeader, 1, 0},
    {&OMR::FuseSel, 5, 0},    {&OMR::FusePulseWidth, 7, 0}, {&OMR::Gain, 2, 1},
    {&OMR::SenseDAC, 5, 0},   {&OMR::ExtDAC, 5, 0},         {&OMR::ExtBGSel, 1, 0},
};

constexpr int registerBits()
{
    int bits = 0;
    for (const Field& field : FIELDS)
        bits += field.bits;
    return bits;
}
static_assert(registerBits() == REGISTER_SIZE * 8, "the fields fill the register");

constexpr unsigned char DEPTH_OF_COUNTL[] = {1, 6, 12, 24};
constexpr unsigned char DEFAULT_DEPTH = 12;
constexpr unsigned FULL_SIDE_LOG2 = 8;
constexpr unsigned FULL_SIDE = 1U << FULL_SIDE_LOG2;
constexpr unsigned MAX_SHIFT = 31; // of a 32-bit word

} // namespace

void OMR::clear()
{
    for (const Field& field : FIELDS)
        field.reset(*this);
}

void OMR::bytes(unsigned char* out) const
{
    std::fill_n(out, MPX3_OMR_SIZE, static_cast<unsigned char>(0));
    out[0] = SYNC;
    std::size_t position = HEADER_SIZE * 8;
    for (const Field& field : FIELDS) {
        const unsigned value = field.bits == 1 ? field.value(*this) != 0 : field.value(*this);
        for (int bit = 0; bit < field.bits; ++bit, ++position) {
            const unsigned shifted = (value >> bit & 1U) << (7 - position % 8);
            out[position / 8] = static_cast<unsigned char>(out[position / 8] | shifted);
        }
    }
}

bool OMR::equals(const OMR& other) const
{
    std::array<unsigned char, MPX3_OMR_SIZE> mine;
    std::array<unsigned char, MPX3_OMR_SIZE> theirs;
    bytes(mine.data());
    other.bytes(theirs.data());
    return mine == theirs;
}

unsigned OMR::rowNumber() const
{
    return RowBlockSel ? 1U << std::min<unsigned>(RowBlock, FULL_SIDE_LOG2) : FULL_SIDE;
}

unsigned OMR::colNumber() const
{
    return FULL_SIDE >> std::min<unsigned>(PS, MAX_SHIFT);
}

unsigned char OMR::bitsCount() const
{
    return CountL < std::size(DEPTH_OF_COUNTL) ? DEPTH_OF_COUNTL[CountL] : DEFAULT_DEPTH;
}

Mpx3ReadoutImage mpx3ReadoutImage(OMR omr, unsigned char mode)
{
    std::array<unsigned char, MPX3_OMR_SIZE> image;
    omr.setMode(mode);
    omr.bytes(image.data());
    return {{image[0], image[1], image[2], image[3]}, {image[4], image[5], image[6], image[7]}};
}

std::array<unsigned char, MPX3_OMR_BLOCK_SIZE> mpx3OmrBlock(const OMR& omr)
{
    std::array<unsigned char, MPX3_OMR_BLOCK_SIZE> block{};
    omr.bytes(block.data());
    omr.bytes(block.data() + MPX3_OMR_CHIP_SIZE);
    return block;
}
