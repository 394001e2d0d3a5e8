// The Medipix3 operation mode register.
#include "chipdata/mpx3omr.h"

#include <gtest/gtest.h>

namespace {

using Image = std::array<unsigned char, MPX3_OMR_SIZE>;

/// A field's place: the position of its bit 0, counted from bit 7 of image byte 2 downward.
struct Place {
    unsigned char OMR::*field;
    int first, bits;
};

constexpr Place PLACES[] = {{&OMR::M, 0, 3},           {&OMR::CRW_SRW, 3, 1},      {&OMR::Polarity, 4, 1},
                            {&OMR::PS, 5, 2},          {&OMR::Disc_CSM_SPM, 7, 1}, {&OMR::Enable_TP, 8, 1},
                            {&OMR::CountL, 9, 2},      {&OMR::ColumnBlock, 11, 3}, {&OMR::ColumnBlockSel, 14, 1},
                            {&OMR::RowBlock, 15, 3},   {&OMR::RowBlockSel, 18, 1}, {&OMR::Equalization, 19, 1},
                            {&OMR::ColourMode, 20, 1}, {&OMR::CSM_SPM, 21, 1},     {&OMR::InfoHeader, 22, 1},
                            {&OMR::FuseSel, 23, 5},    {&OMR::Gain, 35, 2},        {&OMR::SenseDAC, 37, 5},
                            {&OMR::ExtDAC, 42, 5},     {&OMR::ExtBGSel, 47, 1}};

} // namespace

TEST(Mpx3Omr, EveryFieldHasItsPlace)
{
    Image image;
    OMR empty;
    empty.bytes(image.data());
    EXPECT_EQ(image, (Image{0x30, 0x00, 0xE8, 0x20, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00}));
    for (const Place& place : PLACES)
        empty.*place.field = 0;
    for (const Place& place : PLACES)
        for (int bit = 0; bit < 8; ++bit) {
            OMR omr = empty;
            omr.*place.field = static_cast<unsigned char>(1 << bit);
            omr.bytes(image.data());
            const bool reachesChip = bit < place.bits || place.bits == 1; // one-bit fields: set or not
            const int position = 16 + place.first + (place.bits == 1 ? 0 : bit);
            Image expected{0x30};
            if (reachesChip)
                expected[static_cast<std::size_t>(position / 8)] = static_cast<unsigned char>(0x80 >> position % 8);
            EXPECT_EQ(image, expected) << place.first << " bit " << bit;
            EXPECT_EQ(omr.equals(empty), !reachesChip) << place.first << " bit " << bit;
        }
    empty.FusePulseWidth = 0xFFFFFFC1; // positions 28 and 34
    empty.bytes(image.data());
    EXPECT_EQ(image, (Image{0x30, 0x00, 0x00, 0x00, 0x00, 0x08, 0x20}));
}
