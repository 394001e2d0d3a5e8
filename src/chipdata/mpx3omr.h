// The Medipix3 operation mode register: its fields, its image on the wire, and the blocks that carry the image.
#pragma once

#include <array>
#include <cstddef>

constexpr std::size_t MPX3_OMR_SIZE = 10;       ///< bytes of a register image
constexpr std::size_t MPX3_OMR_CHIP_SIZE = 12;  ///< bytes that one chip of a channel is sent
constexpr std::size_t MPX3_OMR_BLOCK_SIZE = 24; ///< bytes of the block for up to two chips of a channel

/// Values of `OMR::M`: what the next shift stream does.
enum Mpx3Mode : unsigned char {
    MPX3_MODE_READ = 0,         ///< read the matrix
    MPX3_MODE_LOAD_DACS = 1,    ///< load the DACs and select the sense DAC
    MPX3_MODE_WRITE_FIRST = 2,  ///< write the matrix, first counter
    MPX3_MODE_READ_SECOND = 4,  ///< the second of the two readout images
    MPX3_MODE_LOAD_CTPR = 5,    ///< load the CTPR
    MPX3_MODE_WRITE_SECOND = 6, ///< write the matrix, second counter
    MPX3_MODE_READ_FUSES = 7,   ///< read the fuses, for chip identifier and chip count
};

/// Image of the operation mode register of a Medipix3 chip: a plain value to copy, change and restore. A field may hold
/// more than reaches the chip; the image takes the low bits of a wide field, and of a one-bit field whether it is 0.
class OMR {
public:
    unsigned char M;              ///< 3 bits: operation of the next shift stream, see Mpx3Mode
    unsigned char CRW_SRW;        ///< 1 bit: continuous read-write
    unsigned char Polarity;       ///< 1 bit: input polarity
    unsigned char PS;             ///< 2 bits: 256 >> PS columns are read
    unsigned char Disc_CSM_SPM;   ///< 1 bit: discriminator selection
    unsigned char Enable_TP;      ///< 1 bit: test pulses
    unsigned char CountL;         ///< 2 bits: counter depth, see bitsCount
    unsigned char ColumnBlock;    ///< 3 bits: first column block, in units of 32 columns
    unsigned char ColumnBlockSel; ///< 1 bit: column block readout
    unsigned char RowBlock;       ///< 3 bits: 1 << RowBlock rows are read in row block readout
    unsigned char RowBlockSel;    ///< 1 bit: row block readout
    unsigned char Equalization;   ///< 1 bit: equalization mode
    unsigned char ColourMode;     ///< 1 bit: colour mode
    unsigned char CSM_SPM;        ///< 1 bit: charge summing mode
    unsigned char InfoHeader;     ///< 1 bit: info header
    unsigned char FuseSel;        ///< 5 bits: fuse selection
    unsigned int FusePulseWidth;  ///< 7 bits: fuse pulse width
    unsigned char Gain;           ///< 2 bits: gain mode
    unsigned char SenseDAC;       ///< 5 bits: DAC on the sense output, a code of MPX3RX_DACS_SENSE
    unsigned char ExtDAC;         ///< 5 bits: DAC driven from outside
    unsigned char ExtBGSel;       ///< 1 bit: external band gap

    OMR() { clear(); }

    /// Restores the state after construction: M 7, Polarity 1, CountL 2, Gain 1, all else 0.
    void clear();
    /// Sets `M`, usually one of Mpx3Mode.
    void setMode(unsigned char mode) { M = mode; }
    /// Writes the MPX3_OMR_SIZE bytes of the image.
    void bytes(unsigned char* out) const;
    /// True if both images are equal; fields may differ in bits that do not reach the chip.
    bool equals(const OMR& other) const;
    /// Rows of a readout: 256, or with RowBlockSel 1 << RowBlock, of which a chip has no more than 256.
    unsigned rowNumber() const;
    /// Columns of a readout: 256 >> PS.
    unsigned colNumber() const;
    /// Bits of a count: 1, 6, 12, 24 for CountL 0, 1, 2, 3, and 12 for any other value.
    unsigned char bitsCount() const;
};

/// The two words of a readout image, as the board's image commands take them in d0 to d3.
struct Mpx3ReadoutImage {
    std::array<unsigned char, 4> first;  ///< image bytes 0 to 3
    std::array<unsigned char, 4> second; ///< image bytes 4 to 7
};

/// The readout image of `omr` with its mode replaced: MPX3_MODE_READ or MPX3_MODE_READ_SECOND. Image bytes 8 and 9 do
/// not travel.
Mpx3ReadoutImage mpx3ReadoutImage(OMR omr, unsigned char mode);

/// The block that loads the register: the image at offset 0 and again at MPX3_OMR_CHIP_SIZE, zeros elsewhere. Of it go
/// MPX3_OMR_CHIP_SIZE bytes out for each chip of the channel.
std::array<unsigned char, MPX3_OMR_BLOCK_SIZE> mpx3OmrBlock(const OMR& omr);
