// Medipix2 and Timepix matrix streams: bit planes on the wire to and from 16-bit pixel words, and the sizes of a
// readout.
//
// A matrix has 65536 words for each chip, chip after chip, row by row, 256 words a row; the low 14 bits of a word
// travel. On the wire a row is 14 planes of 32 bytes, most significant first. The serial form sends a plane from the
// rightmost pixel to the leftmost, the parallel form over eight data lines at once. Modules that are read at the same
// time are interleaved byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr int MPX2_SIDE = 256;                      ///< rows and columns of a chip
constexpr int MPX2_CHIP_PIXELS = 65536;             ///< pixels of a chip
constexpr int MPX2_PLANES = 14;                     ///< bits of a pixel
constexpr std::size_t MPX2_PLANE_SIZE = 32;         ///< bytes of a plane of a row
constexpr std::size_t MPX2_ROW_SIZE = 448;          ///< bytes of a row
constexpr std::size_t MPX2_PARALLEL_SIZE = 114688;  ///< bytes of a chip in parallel form
constexpr std::size_t MPX2_SERIAL_SIZE = 114720;    ///< bytes of a chip in serial form: its rows and 32 bytes unused
constexpr std::size_t MPX2_STREAM_STRIDE = 114721;  ///< bytes of a readout for each chip: with a lead byte
constexpr std::size_t MPX2_ROW_STREAM_STRIDE = 449; ///< bytes of a row readout for each chip and row

/// Decodes a chip in serial form from MPX2_PARALLEL_SIZE bytes at `stream` and adds it to the MPX2_CHIP_PIXELS words at
/// `matrix`, modulo 65536: clear them first.
void deserializeSingleMpx2Fast(const unsigned char* stream, unsigned short* matrix);

/// The same, but replaces the words.
void deserializeSingleMpx2(const unsigned char* stream, unsigned short* matrix);

/// Decodes a chip in parallel form from MPX2_PARALLEL_SIZE bytes at `stream` into MPX2_CHIP_PIXELS words at `matrix`.
void deserializeSingleMpx2Parallel(const unsigned char* stream, unsigned short* matrix);

/// Decodes the `size` / MPX2_STREAM_STRIDE chips (rounded down) of a readout, and returns their number.
///
/// - Serial: the data stand behind one lead byte for each chip and are added to the matrix as in
///   deserializeSingleMpx2Fast, so clear it first.
/// - Parallel: the data stand at the start of `stream` and replace the matrix.
///
/// In both forms a chip's data begin MPX2_SERIAL_SIZE bytes after those of the chip before. `matrixSize` is the length
/// of `matrix` in words; what would lie behind its end is dropped, and words that no chip covers are left alone.
int deserializeMpx2(const unsigned char* stream, unsigned long size, unsigned short* matrix, unsigned long matrixSize,
                    bool serial);

/// Decodes a readout of `modules` interleaved modules of `chips` chips each straight into the host's matrix, with
/// `convert` as counts. Neither the matrix needs clearing nor the modules taking apart: the result is that of clearing
/// `matrix`, for each module deinterleaveMpx2 and deserializeMpx2 of what stands behind the module's first byte to
/// MPX2_CHIP_PIXELS * `chips` words of its own, and convertCountsMpx2 on all words.
///
/// `source` begins with the modules' first bytes; bytes that it doesn't have count as 0. What would lie behind the end
/// of `matrix` is dropped. Words that no chip covers become 0, as counts MPX2_UNKNOWN_COUNT. A readout of one module
/// alone is decoded with `modules` 1.
void decodeMpx2Modules(std::span<const unsigned char> source, std::size_t modules, std::size_t chips,
                       std::span<unsigned short> matrix, bool convert);

/// The same for a row device, whose `chips` chips are interleaved byte by byte with one lead byte each.
void decodeMpx2RowDevice(std::span<const unsigned char> source, std::size_t chips, std::span<unsigned short> matrix,
                         bool convert);

/// Encodes the MPX2_CHIP_PIXELS words of a chip at `matrix` in serial form, MPX2_SERIAL_SIZE bytes at `out`, of which
/// the last 32 are zeros.
void serializeSingleMpx2(const unsigned short* matrix, unsigned char* out);

/// Encodes the same in parallel form, MPX2_PARALLEL_SIZE bytes at `out`.
void serializeSingleMpx2Parallel(const unsigned short* matrix, unsigned char* out);

/// Encodes the `size` / MPX2_CHIP_PIXELS chips (rounded down) of a matrix of `size` words.
///
/// - Serial: a byte 0xFF, and the chips MPX2_SERIAL_SIZE bytes from each other.
/// - Parallel: the chips MPX2_PARALLEL_SIZE bytes from each other, so deserializeMpx2 doesn't read back more than one.
///
/// `out` has `outSize` bytes, all of which are written: rows that don't fit are left out, and what no chip covers is 0.
void serializeMpx2(const unsigned short* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                   bool serial);

/// Takes one of `modules` interleaved modules out of a readout: byte i of `out` is byte `modules` * i + `module` of
/// `source`, and 0 where `source` has no such byte.
void deinterleaveMpx2(std::span<const unsigned char> source, std::size_t modules, std::size_t module,
                      std::span<unsigned char> out);

/// What a matrix readout is ordered with.
struct Mpx2Readout {
    std::size_t bytes;  ///< bytes that the board sends
    std::uint32_t bits; ///< bits to clock out of each module, modulo 2^32: with no chips the count falls below 0

    /// The length that the board is told before the readout.
    std::uint32_t announcedBytes() const { return static_cast<std::uint32_t>(bytes) - 10; }
};

/// The readout of one module of `chips` chips.
Mpx2Readout mpx2ModuleReadout(std::size_t chips);

/// Bytes from such a module's readout to that of the next module in the device's stream buffer; the first byte is not
/// decoded.
std::size_t mpx2ModuleStride(std::size_t chips);

/// Chips of each module if `chips` chips are spread over `modules` modules, rounded down; 0 with no modules.
std::size_t mpx2ChipsPerModule(std::size_t chips, std::size_t modules);

/// The readout of `modules` modules with `chips` chips in all at once.
Mpx2Readout mpx2ParallelReadout(std::size_t chips, std::size_t modules);

/// True if a readout's end is not where it belongs and more data are on the way. `received` are the bytes that came;
/// fewer than 10 can't tell, and give false.
bool mpx2TailOutOfStep(std::span<const unsigned char> received);

/// The readout of a row device's `chips` chips.
Mpx2Readout mpx2RowDeviceReadout(std::size_t chips);

constexpr Mpx2Readout MPX2_SINGLE_ROW_READOUT{458, 3591}; ///< the readout of one row of a row device

/// Puts a row from a single row readout in front of a row device's stream, which moves up by one row and loses its last
/// one. Does nothing if fewer than MPX2_ROW_STREAM_STRIDE bytes were received, or the stream is shorter than that.
void pushMpx2Row(std::span<unsigned char> stream, std::span<const unsigned char> received);

/// Bits by which a row device moves on for each block of `rows` rows.
std::uint32_t mpx2TdiBlockBits(std::uint32_t rows);

/// Bytes of a block of `rows` rows of `chips` chips, as a row device sends them while its shutter is open.
std::size_t mpx2TdiBlockSize(std::size_t chips, std::size_t rows);

/// Copies the rows of such a block to row `firstRow` of a row device's stream, as far as the block holds them and the
/// stream has room.
void storeMpx2TdiBlock(std::span<const unsigned char> block, std::size_t chips, std::size_t rows, std::size_t firstRow,
                       std::span<unsigned char> stream);
