// Medipix2 and Timepix matrix streams, see mpx2matrix.h.
#include "chipdata/mpx2matrix.h"

#include "chipdata/kernels/kernels.h"
#include "chipdata/mpx2counters.h"

#include <algorithm>
#include <array>
#include <vector>

namespace {

using Stream = std::span<const unsigned char>;
using Matrix = std::span<unsigned short>;

constexpr std::size_t SIDE = MPX2_SIDE;
constexpr std::size_t BLOCK = 8; // pixels in a byte of a plane
constexpr unsigned char SERIAL_LEAD = 0xFF;

static_assert(SIDE / BLOCK == MPX2_PLANE_SIZE && MPX2_PLANES * MPX2_PLANE_SIZE == MPX2_ROW_SIZE);
static_assert(SIDE * SIDE == MPX2_CHIP_PIXELS && SIDE * MPX2_ROW_SIZE == MPX2_PARALLEL_SIZE);
static_assert(MPX2_SERIAL_SIZE == MPX2_PARALLEL_SIZE + MPX2_PLANE_SIZE && MPX2_STREAM_STRIDE == MPX2_SERIAL_SIZE + 1);

constexpr std::size_t PACKET_SIZE = 9;        // end-of-frame packet
constexpr std::size_t MODULE_EXTRA_BYTES = 7; // of a readout of one module, beside its chips
constexpr std::size_t ALL_EXTRA_BYTES = 9;    // of a readout of all modules or channels at once
/// Bytes by which a readout of all modules is shorter for each module, by the chips of a module.
constexpr std::array<unsigned char, 9> PARALLEL_CORRECTION = {0, 0, 2, 2, 2, 0, 0, 0, 0};

/// Bits to clock out of a module of `chips` chips.
constexpr std::uint32_t readoutBits(std::size_t chips)
{
    return static_cast<std::uint32_t>(chips * MPX2_STREAM_STRIDE * 8 - 2);
}
static_assert(readoutBits(1) == 917766 && readoutBits(5) == 5 * 917768 - 2);

/// The part of a buffer behind its first `offset` elements, empty if it is shorter.
template <class T>
std::span<T> behind(std::span<T> buffer, std::size_t offset)
{
    return buffer.subspan(std::min(offset, buffer.size()));
}

/// Interleaved streams that are decoded at the same time, a chip of each. Alone a stream is one that is interleaved
/// with no other.
struct Streams {
    std::size_t count;
    std::size_t step; ///< pixels from the chip of one stream to that of the next in the matrix

    std::size_t rowSize() const { return MPX2_ROW_SIZE * count; }
    /// Pixels to the last stream's chip.
    std::size_t last() const { return (count - 1) * step; }

    /// The first pixel of the block in each byte of a plane. A stream sends a row from the right.
    std::vector<std::ptrdiff_t> blocks() const
    {
        std::vector<std::ptrdiff_t> first(MPX2_PLANE_SIZE * count);
        for (std::size_t i = 0; i < first.size(); ++i)
            first[i] = static_cast<std::ptrdiff_t>(i % count * step + SIDE - BLOCK * (1 + i / count));
        return first;
    }
};

void decodeRows(const unsigned char* source, Streams streams, std::size_t rows, unsigned short* matrix,
                kernels::Store store)
{
    const std::vector<std::ptrdiff_t> blocks = streams.blocks();
    kernels::active().decodeMpx2({source, matrix, streams.count, rows, blocks.data(), mpx2CountTable(), store});
}

/// Decodes a row that the source or the matrix doesn't have as a whole. Bytes that are missing count as 0.
void decodeCutRow(Stream source, Streams streams, Matrix matrix, kernels::Store store)
{
    std::vector<unsigned char> bytes(streams.rowSize());
    std::vector<unsigned short> pixels(streams.count * SIDE);
    std::copy_n(source.begin(), std::min(source.size(), bytes.size()), bytes.begin());
    const bool add = store == kernels::Store::Add;
    decodeRows(bytes.data(), {streams.count, SIDE}, 1, pixels.data(), add ? kernels::Store::Replace : store);
    for (std::size_t stream = 0; stream < streams.count; ++stream) {
        const Matrix row = behind(matrix, stream * streams.step);
        for (std::size_t x = 0; x < std::min(row.size(), SIDE); ++x)
            row[x] = static_cast<unsigned short>((add ? row[x] : 0U) + pixels[stream * SIDE + x]);
    }
}

/// Decodes a chip of each stream, as far as the matrix reaches.
void decodeChips(Stream source, Streams streams, Matrix matrix, kernels::Store store)
{
    const std::size_t came = source.size() / streams.rowSize();
    const std::size_t room = behind(matrix, streams.last()).size() / SIDE;
    const std::size_t whole = std::min({SIDE, came, room});
    if (whole > 0)
        decodeRows(source.data(), streams, whole, matrix.data(), store);
    for (std::size_t row = whole; row < SIDE && row * SIDE < matrix.size(); ++row)
        decodeCutRow(behind(source, row * streams.rowSize()), streams, behind(matrix, row * SIDE), store);
}

/// Decodes a chip in parallel form, as far as the matrix reaches.
void decodeParallelChip(const unsigned char* stream, Matrix matrix)
{
    const std::size_t whole = std::min(matrix.size() / SIDE, SIDE);
    kernels::active().decodeMpx2Parallel(stream, whole, matrix.data());
    if (whole == SIDE)
        return;
    std::array<unsigned short, SIDE> row;
    kernels::active().decodeMpx2Parallel(stream + whole * MPX2_ROW_SIZE, 1, row.data());
    std::copy_n(row.begin(), matrix.size() % SIDE, matrix.data() + whole * SIDE);
}

/// Decodes a readout of interleaved streams of `chips` chips each, the data of which begin `lead` bytes into a stream.
void decodeInterleaved(Stream source, std::size_t streams, std::size_t chips, std::size_t lead, Matrix matrix,
                       bool convert)
{
    const kernels::Store store = convert ? kernels::Store::Count : kernels::Store::Replace;
    for (std::size_t chip = 0; streams > 0 && chip < chips; ++chip)
        decodeChips(behind(source, streams * (lead + chip * MPX2_SERIAL_SIZE)), {streams, chips * MPX2_CHIP_PIXELS},
                    behind(matrix, chip * MPX2_CHIP_PIXELS), store);
    const Matrix rest = behind(matrix, streams * chips * MPX2_CHIP_PIXELS);
    std::fill(rest.begin(), rest.end(), convert ? MPX2_UNKNOWN_COUNT : static_cast<unsigned short>(0));
}

/// Rows of a chip that fit into `out`.
std::size_t fittingRows(std::span<unsigned char> out)
{
    return std::min(out.size() / MPX2_ROW_SIZE, SIDE);
}

/// Every `stride`-th byte of `source`. Inlined with a constant stride it is vectorized.
inline void copyStrided(const unsigned char* source, std::size_t stride, std::span<unsigned char> out)
{
    unsigned char* __restrict to = out.data();
    for (std::size_t i = 0; i < out.size(); ++i)
        to[i] = source[i * stride];
}

/// Copies as much of `from` as fits.
void copyInto(Stream from, std::span<unsigned char> to)
{
    std::copy_n(from.begin(), std::min(from.size(), to.size()), to.begin());
}

} // namespace

void deserializeSingleMpx2Fast(const unsigned char* stream, unsigned short* matrix)
{
    decodeRows(stream, {1, 0}, SIDE, matrix, kernels::Store::Add);
}

void deserializeSingleMpx2(const unsigned char* stream, unsigned short* matrix)
{
    decodeRows(stream, {1, 0}, SIDE, matrix, kernels::Store::Replace);
}

void deserializeSingleMpx2Parallel(const unsigned char* stream, unsigned short* matrix)
{
    decodeParallelChip(stream, {matrix, MPX2_CHIP_PIXELS});
}

int deserializeMpx2(const unsigned char* stream, unsigned long size, unsigned short* matrix, unsigned long matrixSize,
                    bool serial)
{
    // With the lead bytes the chips end at chips * MPX2_STREAM_STRIDE, so that they always lie within `size`.
    const std::size_t chips = size / MPX2_STREAM_STRIDE;
    const unsigned char* data = stream + (serial ? chips : 0);
    for (std::size_t chip = 0; chip < chips; ++chip, data += MPX2_SERIAL_SIZE) {
        const Matrix pixels = behind(Matrix(matrix, matrixSize), chip * MPX2_CHIP_PIXELS);
        if (serial)
            decodeChips({data, MPX2_PARALLEL_SIZE}, {1, 0}, pixels, kernels::Store::Add);
        else
            decodeParallelChip(data, pixels);
    }
    return static_cast<int>(chips);
}

void decodeMpx2Modules(std::span<const unsigned char> source, std::size_t modules, std::size_t chips,
                       std::span<unsigned short> matrix, bool convert)
{
    decodeInterleaved(source, modules, chips, chips + 1, matrix, convert);
}

void decodeMpx2RowDevice(std::span<const unsigned char> source, std::size_t chips, std::span<unsigned short> matrix,
                         bool convert)
{
    decodeInterleaved(source, chips, 1, 1, matrix, convert);
}

void serializeSingleMpx2(const unsigned short* matrix, unsigned char* out)
{
    kernels::active().encodeMpx2(matrix, SIDE, out);
    std::fill_n(out + MPX2_PARALLEL_SIZE, MPX2_SERIAL_SIZE - MPX2_PARALLEL_SIZE, static_cast<unsigned char>(0));
}

void serializeSingleMpx2Parallel(const unsigned short* matrix, unsigned char* out)
{
    kernels::active().encodeMpx2Parallel(matrix, SIDE, out);
}

void serializeMpx2(const unsigned short* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                   bool serial)
{
    const std::size_t chips = size / MPX2_CHIP_PIXELS;
    const std::size_t stride = serial ? MPX2_SERIAL_SIZE : MPX2_PARALLEL_SIZE;
    const auto encode = serial ? kernels::active().encodeMpx2 : kernels::active().encodeMpx2Parallel;
    std::span<unsigned char> rest(out, outSize);
    if (serial && !rest.empty()) {
        rest.front() = SERIAL_LEAD;
        rest = rest.subspan(1);
    }
    for (std::size_t chip = 0; chip < chips; ++chip) {
        const std::size_t rows = fittingRows(rest);
        encode(matrix + chip * MPX2_CHIP_PIXELS, rows, rest.data());
        const auto unused = behind(rest.first(std::min(stride, rest.size())), rows * MPX2_ROW_SIZE);
        std::fill(unused.begin(), unused.end(), static_cast<unsigned char>(0));
        rest = behind(rest, stride);
    }
    std::fill(rest.begin(), rest.end(), static_cast<unsigned char>(0));
}

void deinterleaveMpx2(std::span<const unsigned char> source, std::size_t modules, std::size_t module,
                      std::span<unsigned char> out)
{
    const Stream own = behind(source, module);
    const std::size_t came = modules == 0 ? 0 : (own.size() + modules - 1) / modules;
    const auto taken = out.first(std::min(came, out.size()));
    // Odd strides gain nothing from being constants.
    if (modules == 2)
        copyStrided(own.data(), 2, taken);
    else if (modules == 4)
        copyStrided(own.data(), 4, taken);
    else
        copyStrided(own.data(), modules, taken);
    std::fill(taken.end(), out.end(), static_cast<unsigned char>(0));
}

Mpx2Readout mpx2ModuleReadout(std::size_t chips)
{
    return {chips * MPX2_STREAM_STRIDE + MODULE_EXTRA_BYTES, readoutBits(chips)};
}

std::size_t mpx2ModuleStride(std::size_t chips)
{
    return mpx2ModuleReadout(chips).bytes + 1;
}

std::size_t mpx2ChipsPerModule(std::size_t chips, std::size_t modules)
{
    return modules == 0 ? 0 : chips / modules;
}

Mpx2Readout mpx2ParallelReadout(std::size_t chips, std::size_t modules)
{
    const std::size_t perModule = mpx2ChipsPerModule(chips, modules);
    const std::size_t less = perModule < PARALLEL_CORRECTION.size() ? PARALLEL_CORRECTION[perModule] : 0;
    return {chips * MPX2_STREAM_STRIDE + ALL_EXTRA_BYTES - less * modules, readoutBits(perModule)};
}

bool mpx2TailOutOfStep(std::span<const unsigned char> received)
{
    // A readout ends with a frame that begins like this; one of the two bytes is enough.
    constexpr unsigned char SYNC = 0x55;
    constexpr unsigned char FLAGS = 0x01;
    if (received.size() < PACKET_SIZE + 1)
        return false;
    const Stream packet = received.last(PACKET_SIZE);
    return packet[0] != SYNC && packet[1] != FLAGS;
}

Mpx2Readout mpx2RowDeviceReadout(std::size_t chips)
{
    constexpr std::uint32_t BITS = 917767;
    return {chips * MPX2_STREAM_STRIDE + ALL_EXTRA_BYTES, BITS};
}

void pushMpx2Row(std::span<unsigned char> stream, std::span<const unsigned char> received)
{
    if (stream.size() < MPX2_ROW_STREAM_STRIDE || received.size() < MPX2_ROW_STREAM_STRIDE)
        return;
    const auto rows = stream.subspan(1);
    std::copy_backward(rows.begin(), rows.end() - MPX2_ROW_SIZE, rows.end());
    copyInto(received.first(MPX2_ROW_STREAM_STRIDE), stream);
}

std::uint32_t mpx2TdiBlockBits(std::uint32_t rows)
{
    return static_cast<std::uint32_t>(rows * MPX2_ROW_STREAM_STRIDE * 8 - 1);
}

std::size_t mpx2TdiBlockSize(std::size_t chips, std::size_t rows)
{
    return chips * MPX2_ROW_STREAM_STRIDE * rows + 2 * PACKET_SIZE;
}

void storeMpx2TdiBlock(std::span<const unsigned char> block, std::size_t chips, std::size_t rows, std::size_t firstRow,
                       std::span<unsigned char> stream)
{
    const Stream data = behind(block, PACKET_SIZE + chips);
    const std::size_t size = std::min(chips * rows * MPX2_ROW_SIZE, data.size());
    copyInto(data.first(size), behind(stream, chips + chips * firstRow * MPX2_ROW_SIZE));
}
