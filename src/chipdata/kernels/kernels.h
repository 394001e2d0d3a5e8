// Kernels: the loops that turn bit planes into pixels and back, once for each instruction set.
//
// They know nothing of the ends of buffers: a caller gives them whole rows that lie in its buffers as a whole. They
// work on blocks of eight pixels, which share the bytes of a stream: a byte of a plane has one bit of each, the highest
// for the rightmost pixel.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernels {

/// What happens to the pixels of a matrix.
enum class Store {
    Replace, ///< they are overwritten
    Add,     ///< Medipix2: values are added to them, modulo 65536
    Or,      ///< Medipix3: bits are set in them
    Count,   ///< they are overwritten with the counts of the states in the stream
};

/// Rows of Medipix2 streams, interleaved byte by byte: 14 planes of 32 bytes for each stream.
struct Mpx2Rows {
    const unsigned char* source; ///< first byte of the first row of the first stream
    std::uint16_t* matrix;       ///< what `blocks` counts from; 256 pixels further on for each row
    std::size_t streams;         ///< streams that are interleaved
    std::size_t rows;
    const std::ptrdiff_t* blocks; ///< first pixel of the block of each of a plane's 32 * `streams` bytes; each of a
                                  ///< stream's is just left of the one before
    const std::uint16_t* counts;  ///< for Store::Count: the counts of all 14-bit states
    Store store;
};

/// Rows of one or both counters of interleaved Medipix3 channels.
struct Mpx3Rows {
    const unsigned char* source; ///< first byte of the first row; of the low counter if there are two
    const unsigned char* second; ///< the same for the high counter; null if there is one counter alone
    std::uint32_t* matrix;       ///< what `blocks` counts from; 256 pixels further on for each row
    std::size_t channels;        ///< channels that are interleaved
    std::size_t rows;
    std::size_t planeSize; ///< bytes of a plane of all channels, a multiple of 4
    unsigned planes;       ///< of a counter, 1 to 16; 12 if there are two counters
    unsigned position;     ///< bit of a pixel that takes the lowest plane, 0 unless for Store::Or; if there are two
                           ///< counters that of the high one, 12 or 16, and the low one begins at 0
    const std::ptrdiff_t* blocks; ///< first pixel of the block of each of a plane's bytes; each of a channel's is just
                                  ///< left of the one before
    const std::uint16_t* counts;  ///< for Store::Count: the counts of all states, 1 << `planes` of them
    Store store;
};

/// A set of kernels.
struct Set {
    void (*decodeMpx2)(const Mpx2Rows& rows);
    /// A chip's rows in parallel form, 448 bytes each.
    void (*decodeMpx2Parallel)(const unsigned char* source, std::size_t rows, std::uint16_t* matrix);
    /// Writes 448 bytes for each row of 256 words.
    void (*encodeMpx2)(const std::uint16_t* matrix, std::size_t rows, unsigned char* out);
    void (*encodeMpx2Parallel)(const std::uint16_t* matrix, std::size_t rows, unsigned char* out);
    void (*decodeMpx3)(const Mpx3Rows& rows);
    /// Writes 384 bytes for each row of 256 words: bits 0 to 11, or with `high` bits 16 to 27.
    void (*encodeMpx3)(const std::uint32_t* matrix, std::size_t rows, bool high, unsigned char* out);
};

extern const Set BASELINE; ///< for what every processor of the target has, SSE2 on x86-64
#ifdef __x86_64__
extern const Set AVX2;
#endif

enum class InstructionSet { Baseline, Avx2 };

/// True if this processor has the instructions of a set.
bool supported(InstructionSet set);

/// The kernels in use: those of the best set that the processor has, unless `use` has chosen others.
const Set& active();

/// Makes a set the one in use. For tests and benchmarks. False, and nothing is changed, if it is not supported.
bool use(InstructionSet set);

} // namespace kernels
