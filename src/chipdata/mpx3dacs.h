// The Medipix3 DAC chain and CTPR: tables, and the streams that load them.
#pragma once

#include <array>
#include <cstddef>

constexpr int MPX3_DAC_COUNT = 27;       ///< DACs of a chip
constexpr int MPX3_SENSE_DAC_COUNT = 32; ///< outputs that the sense multiplexer can select
constexpr int MPX3_DAC_BANDGAP_IDX = 28; ///< sense output of the band gap
constexpr int MPX3_DAC_TEMP_IDX = 29;    ///< sense output of the temperature sensor

constexpr std::size_t MPX3_DAC_RECORD_SIZE = 32;       ///< bytes of a chip's record that carry something
constexpr std::size_t MPX3_DAC_WIRE_STRIDE = 37;       ///< bytes from chip to chip in what the device sends
constexpr std::size_t MPX3_DAC_BLOCK_SIZE = 74;        ///< bytes of the device's block, for up to two chips
constexpr std::size_t MPX3_DAC_STREAM_1CHIP_SIZE = 39; ///< bytes from chip to chip in fillMpx3DacStream

/// Bits of each DAC, by DAC index; 226 in all.
constexpr std::array<unsigned char, MPX3_DAC_COUNT> MPX3RX_DACS_DEPTH = {9, 9, 9, 9, 9, 9, 9, 9, 8, 8, 8, 8, 8, 8,
                                                                         8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 9, 9};

/// Codes for `OMR::SenseDAC`. DAC d is sensed by entry d + 1.
constexpr std::array<unsigned char, MPX3_SENSE_DAC_COUNT> MPX3RX_DACS_SENSE = {
    0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15,
    30, 31, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29};

constexpr std::size_t MPX3_CTPR_SIZE = 32;        ///< bytes of the CTPR, one bit for each column
constexpr std::size_t MPX3_CTPR_STREAM_SIZE = 36; ///< bytes of the stream that loads it

/// Writes one chip's record, MPX3_DAC_RECORD_SIZE bytes at `record`, from the 27 values at `dacs`. Of a value as many
/// low bits count as MPX3RX_DACS_DEPTH gives. What lies between this record and the next is the caller's to clear.
void fillMpx3DacRecord(const unsigned short* dacs, unsigned char* record);

/// Writes the records of `count` / 27 chips (rounded down) from `count` values, MPX3_DAC_STREAM_1CHIP_SIZE bytes each,
/// zeros behind each record. The device itself sends records at MPX3_DAC_WIRE_STRIDE.
void fillMpx3DacStream(const unsigned short* dacs, unsigned long count, unsigned char* out);

/// Writes the MPX3_CTPR_STREAM_SIZE bytes of the stream that loads the MPX3_CTPR_SIZE bytes at `ctpr`.
void fillMpx3CtprStream(const unsigned char* ctpr, unsigned char* out);
