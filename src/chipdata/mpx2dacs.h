// The DAC chain of Medipix2 (MXR) and Timepix chips: the streams that load it, and the chip identifiers that come out
// of it.
//
// A DAC set is an array of words, chip after chip. On the wire a chip's record has 32 bytes, which are its 256-bit
// shift register with the highest bit first.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

constexpr int MPX2_MXR_DAC_COUNT = 15; ///< DACs of a Medipix2 chip
constexpr int MPX2_TPX_DAC_COUNT = 14; ///< DACs of a Timepix chip

constexpr std::size_t MPX2_DAC_RECORD_SIZE = 32; ///< bytes of a chip's record
constexpr std::size_t MPX2_DAC_STREAM_SIZE = 33; ///< bytes that a module's transfer takes for each of its chips
constexpr std::size_t MPX2_CHIP_ID_SIZE = 9;     ///< characters of a chip identifier, such as "C05-W0123"

/// Writes the stream that loads the DACs of a module of `chips` Medipix2 chips: a byte 0xFF, and a record for each
/// chip.
///
/// - `dacs`: MPX2_MXR_DAC_COUNT words for each chip. Of a value as many low bits count as its DAC has: 10 for DACs 6
///   and 8, 4 for DACs 7 and 9, 8 for all others.
/// - `out`: MPX2_DAC_STREAM_SIZE bytes for each chip. All are written, with zeros behind the last record; with no chip
///   or a negative number of them nothing is.
/// - `chip`: the chip of the module, from 0 on, whose record takes `senseDac` (4 bits, the DAC on the sense output)
///   and `extDac` (1 or 2, the DACs that an outside voltage replaces; any other value is none). May be no chip at all.
/// - `ctpr`: the test pulse columns, for all chips.
void dacsToStreamMXR(const unsigned short* dacs, unsigned char* out, int chips, int chip, int senseDac, int extDac,
                     unsigned int ctpr);

/// The same for Timepix chips: MPX2_TPX_DAC_COUNT words for each chip, of which 10 bits count for DAC 6, 4 for DAC 7
/// and 8 for all others. The records lie one bit nearer to the start of the stream than those of Medipix2 chips.
void dacsToStreamTPX(const unsigned short* dacs, unsigned char* out, int chips, int chip, int senseDac, int extDac,
                     unsigned int ctpr);

/// dacsToStreamTPX with `timepix`, else dacsToStreamMXR.
void dacsToStreamMPX2(const unsigned short* dacs, unsigned char* out, int chips, bool timepix, int chip, int senseDac,
                      int extDac, unsigned int ctpr);

/// Reads back a stream of dacsToStreamTPX, of which `stream` holds at least 1 + 32 * `chips` bytes, into
/// MPX2_TPX_DAC_COUNT words for each chip at `dacs`. The records in `stream` are changed: they are left as the chips'
/// registers, lowest bit first.
///
/// `ctpr` is that of the last chip. `senseDac` and `extDac` are those of chip `chip`, and left alone if there is no
/// such chip; `extDac` is also left alone if the record selects none, and is 2 if it selects both. With no chip, or a
/// negative number of them, nothing is done.
void streamTPXToDacs(unsigned char* stream, int chips, int chip, int& senseDac, int& extDac, unsigned int& ctpr,
                     unsigned short* dacs);

/// Reads the identifiers of a module's chips from their fuses in what came back from a DAC transfer: `chips` lead bytes
/// and a record for each chip, MPX2_DAC_STREAM_SIZE * `chips` bytes in all.
///
/// An identifier is a letter, the chip's row and its wafer, or "000-W0000" where the fuses are all zero. They are
/// written side by side to `out`, which holds MPX2_CHIP_ID_SIZE * `chips` characters and a closing zero byte. `timepix`
/// tells the type of the last chip with a readable identifier; it is false if there is none.
void getChipIDsFromDACStreamMpx2(const unsigned char* stream, unsigned int chips, char* out, bool* timepix);

/// The same, with the identifiers appended to `ids`.
void getChipIDsFromDACStreamMpx2(const unsigned char* stream, unsigned int chips, bool* timepix,
                                 std::vector<std::string>& ids);
