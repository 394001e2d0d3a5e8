// Medipix3 matrix streams: bit planes on the wire to and from 32-bit pixel words.
//
// A matrix has 65536 words for each chip, chip after chip, row by row, 256 words a row. A word holds the low counter in
// bits 0 to 11 and the high counter in bits 16 to 27, or one 24-bit count in bits 0 to 23.
//
// On the wire a row is `depth` planes (12 for a 24-bit count, which comes in two halves), most significant first, of
// columns / 8 bytes; the first bit on the wire is the rightmost column. Channels are interleaved byte by byte.
#pragma once

#include "chipdata/mpx3omr.h"

#include <cstddef>
#include <span>

constexpr int MPX3_SIDE = 256;                         ///< rows and columns of a chip
constexpr int MPX3_CHIP_PIXELS = 65536;                ///< pixels of a chip
constexpr int MPX3_COUNTER_BITS = 12;                  ///< bits of one of a pixel's two counters
constexpr std::size_t MPX3_MATRIX_STREAM_SIZE = 98304; ///< bytes of all 12 planes of one counter of a chip

/// What of the chips travels in a readout, and over which wires.
struct Mpx3StreamShape {
    OMR omr;               ///< the register image that the readout was made with
    int channels = 1;      ///< channels interleaved in the stream
    bool twoChips = false; ///< two chips stand behind each channel
    bool tdi = false;      ///< a TDI series runs: single-row records instead of a frame
};

/// Bits of one counter's readout of one channel, as the erase command takes them:
/// rows * columns * min(depth, 12) + 34, and 8 more with two chips on a channel.
unsigned long long mpx3ReadBits(const OMR& omr, bool twoChips);

/// Bits that the commands for a matrix read take: mpx3ReadBits, and 5 more with two chips on a channel.
unsigned long long mpx3ReadCommandBits(const OMR& omr, bool twoChips);

/// Bytes of a matrix read of `channels` channels, with its end-of-frame packets; `bothCounters` doubles them, and so do
/// two chips on a channel.
std::size_t mpx3ReadSize(const OMR& omr, bool twoChips, int channels, bool bothCounters);

/// Bytes of one record of a TDI series: one row, or with `bothCounters` a pair of them.
std::size_t mpx3TdiRecordSize(const OMR& omr, bool twoChips, int channels, bool bothCounters);

/// Decodes one counter of `chips` interleaved channels. Bits are or-ed into the matrix: clear it first, and call again
/// to add the other counter.
///
/// `depth` is 1 to 16 bits, or 24 for one half of a 24-bit count; any other decodes nothing. `lowCounter` puts the
/// planes at bit 0 up, else they go to bit 16 up, and the upper half of a 24-bit count to bit 12 up. Channel c's rows
/// go to chip c * `chipStride` + `chipOffset`. The other five arguments are the fields of OMR of those names; `ps` 1,
/// 2, 3 gives 128, 64, 32 columns and any other value 256.
///
/// `stream` begins with the first plane of row 0 and holds rows * planes * columns / 8 * `chips` bytes. `matrix`
/// reaches to the last chip written; a column block beyond the row spills into the next rows, but never leaves the
/// matrix. Returns 0.
int deserializeMpx3MultiChannel(const unsigned char* stream, unsigned int* matrix, unsigned long depth,
                                unsigned char rowBlockSel, unsigned char rowBlock, unsigned char columnBlockSel,
                                unsigned char columnBlock, unsigned char ps, bool lowCounter, int chips, int chipStride,
                                int chipOffset);

/// The same with depth, row and column block from a register image.
int deserializeMpx3MultiChannel(const unsigned char* stream, unsigned int* matrix, OMR omr, bool lowCounter, int chips,
                                int chipStride, int chipOffset);

/// The same for a stream and matrix of one chip.
int deserializeMpx3(const unsigned char* stream, unsigned int* matrix, unsigned long depth, unsigned char rowBlockSel,
                    unsigned char rowBlock, unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps,
                    bool lowCounter);

/// Decodes the records of a TDI series, which lie side by side from the start of `stream`, into one frame of `chips`
/// chips. Bits are or-ed into the matrix.
///
/// With `depth` 24 or `counters` 2 there are 512 records of 12 planes, two for each row: the upper half or high
/// counter, then the low one. Else there are 256 records of `depth` planes, which go to the low counter with
/// `lowCounter` and to the high one without. A record has 9 + 3 * `chips` bytes before its data (3 * `chips` in the
/// second of a pair) and 14 behind; the 14 agree with what the board sends only when five channels are read.
///
/// `stream` holds all records. Returns the number of records, 256 or 512.
int deserializeMpx3Tdi(const unsigned char* stream, unsigned int* matrix, unsigned long depth,
                       unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps, int counters,
                       bool lowCounter, int chips);

/// Decodes a readout as it was received, both counters if `counters` is above 1, and with `convert` turns raw states
/// into counts (see convertCountsMpx3). Nothing is done if `matrix` has no data.
///
/// - `stream`: the buffer that the readout was received into.
/// - `received`: bytes of the readout that came. Nothing behind them is decoded, and the low counter of a two-counter
///   readout is taken to begin at their half. A TDI series is decoded from the whole of `stream` instead: `received`
///   then tells of its last record alone.
/// - `matrix`: cleared by the caller, long enough for all chips. What would lie behind its end is dropped.
/// - `convertSize`: pixels to convert, from the first on; cut to the length of `matrix`.
///
/// Never reads outside `stream` nor writes outside `matrix`, whatever the board sent.
void convertMpx3MatrixStream(const Mpx3StreamShape& shape, std::span<const unsigned char> stream, std::size_t received,
                             std::span<unsigned int> matrix, std::size_t convertSize, int counters, bool convert);

/// The same without the clearing: gives what convertMpx3MatrixStream gives in a matrix that was cleared, whatever stood
/// in it. A frame of all rows and columns that came as a whole is decoded in one pass, both counters and their counts
/// included.
void decodeMpx3MatrixStream(const Mpx3StreamShape& shape, std::span<const unsigned char> stream, std::size_t received,
                            std::span<unsigned int> matrix, std::size_t convertSize, int counters, bool convert);

/// Encodes one counter of a chip's matrix in 12 planes, MPX3_MATRIX_STREAM_SIZE bytes for all 256 rows: bits 0 to 11 of
/// the words with `lowCounter`, else bits 16 to 27. `swapHalves` sends rows 128 to 255 before rows 0 to 127. `size` is
/// the length of `matrix` in pixels; rows behind it are sent as zeros, what lies behind the first chip is not sent.
///
/// Writes whole planes of 32 bytes to `out`. Returns the bytes written, or `outSize` when a plane no longer fitted into
/// it.
unsigned long serializeMpx3(const unsigned int* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                            bool lowCounter, bool swapHalves);

constexpr std::size_t MPX3_WRITE_PAYLOAD_SIZE = 49207; ///< bytes of one transfer for each chip of a channel
/// Bytes of the buffer that fillMpx3WritePayload needs: each record is built with both halves of its chip.
constexpr std::size_t MPX3_WRITE_BUFFER_SIZE = MPX3_WRITE_PAYLOAD_SIZE + 3 + MPX3_MATRIX_STREAM_SIZE;

/// The half of a chip that a transfer of a matrix write carries.
enum class Mpx3Half { Lower, Upper };

/// Builds one of the two transfers that write one counter to the chips of a channel: rows 0 to 127, then rows 128 to
/// 255. `matrix` holds `size` pixels, the second chip's behind the first's; `lowCounter` as in serializeMpx3. `buffer`
/// has MPX3_WRITE_BUFFER_SIZE bytes and needs no clearing. Returns the bytes to send, MPX3_WRITE_PAYLOAD_SIZE for each
/// chip.
std::size_t fillMpx3WritePayload(const unsigned int* matrix, unsigned long size, bool twoChips, bool lowCounter,
                                 Mpx3Half half, unsigned char* buffer);
