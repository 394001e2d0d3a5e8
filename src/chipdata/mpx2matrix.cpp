// Medipix2 and Timepix matrix streams, see mpx2matrix.h.
#include "chipdata/mpx2matrix.h"

#include <algorithm>
#include <array>
#include <bit>

#include "chipdata/bitplanes.h"

namespace {

using Stream = std::span<const unsigned char>;
using Matrix = std::span<unsigned short>;

constexpr std::size_t SIDE = MPX2_SIDE;
constexpr std::size_t GROUPS = SIDE / 8; // groups of eight pixels in a row, each in one byte of a plane
constexpr unsigned LOW_PLANES = 8;       // in the low bytes of the pixels
constexpr unsigned HIGH_PLANES = MPX2_PLANES - LOW_PLANES;
constexpr std::size_t LOW_OFFSET = HIGH_PLANES * MPX2_PLANE_SIZE; // of the low planes in a row
constexpr unsigned char SERIAL_LEAD = 0xFF;

static_assert(GROUPS == MPX2_PLANE_SIZE && MPX2_PLANES * MPX2_PLANE_SIZE == MPX2_ROW_SIZE);
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

/// Which byte of a plane holds which eight pixels. Bit i of the byte is pixel i of the group, from the left.
struct Layout {
    std::array<unsigned char, GROUPS> byteOfGroup;
    /// Groups take every eighth of 64 pixels, group g from pixel g % 8 of them on. Else they take eight in a row.
    bool transposed;
};

constexpr Layout SERIAL = [] {
    Layout layout{};
    for (std::size_t group = 0; group < GROUPS; ++group)
        layout.byteOfGroup[group] = static_cast<unsigned char>(GROUPS - 1 - group);
    return layout;
}();

constexpr Layout PARALLEL = [] {
    Layout layout{};
    layout.transposed = true;
    for (std::size_t group = 0; group < GROUPS; ++group)
        layout.byteOfGroup[group] = static_cast<unsigned char>(group / 8 + 28 - 4 * (group % 8));
    return layout;
}();

/// A row's pixels, cut into bytes: byte i of word g is pixel 8 * g + i.
using RowBytes = std::array<std::uint64_t, GROUPS>;

struct RowBits {
    RowBytes low;
    RowBytes high;
};

void transpose(RowBytes& bytes)
{
    for (std::size_t first = 0; first < GROUPS; first += 8)
        bitplanes::transpose(&bytes[first]);
}

template <const Layout& layout>
void gatherRow(const unsigned char* row, RowBits& bits)
{
    for (std::size_t group = 0; group < GROUPS; ++group) {
        const unsigned char* byte = row + layout.byteOfGroup[group];
        bits.high[group] = bitplanes::gather<HIGH_PLANES>(byte, MPX2_PLANE_SIZE);
        bits.low[group] = bitplanes::gather<LOW_PLANES>(byte + LOW_OFFSET, MPX2_PLANE_SIZE);
    }
    if constexpr (layout.transposed) {
        transpose(bits.high);
        transpose(bits.low);
    }
}

template <const Layout& layout>
void scatterRow(RowBits& bits, unsigned char* row)
{
    if constexpr (layout.transposed) {
        transpose(bits.high);
        transpose(bits.low);
    }
    for (std::size_t group = 0; group < GROUPS; ++group) {
        unsigned char* byte = row + layout.byteOfGroup[group];
        bitplanes::scatter<HIGH_PLANES>(bits.high[group], byte, MPX2_PLANE_SIZE);
        bitplanes::scatter<LOW_PLANES>(bits.low[group], byte + LOW_OFFSET, MPX2_PLANE_SIZE);
    }
}

/// Writes a row to the first pixels of the matrix, or adds it to them, as far as there are any.
template <bool add>
void storeRow(const RowBits& bits, Matrix matrix)
{
    using Bytes = std::array<unsigned char, SIDE>;
    const auto low = std::bit_cast<Bytes>(bits.low);
    const auto high = std::bit_cast<Bytes>(bits.high);
    const std::size_t count = std::min(matrix.size(), SIDE);
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned before = add ? matrix[i] : 0U;
        matrix[i] = static_cast<unsigned short>(before + (low[i] | unsigned{high[i]} << 8));
    }
}

void cutRow(const unsigned short* row, RowBits& bits)
{
    std::array<unsigned char, SIDE> low;
    std::array<unsigned char, SIDE> high;
    for (std::size_t i = 0; i < SIDE; ++i) {
        low[i] = static_cast<unsigned char>(row[i]);
        high[i] = static_cast<unsigned char>(row[i] >> 8);
    }
    bits = {std::bit_cast<RowBytes>(low), std::bit_cast<RowBytes>(high)};
}

/// Decodes a chip's rows, as far as the matrix reaches.
template <const Layout& layout, bool add>
void decodeChip(const unsigned char* stream, Matrix matrix)
{
    for (std::size_t first = 0; first < std::min<std::size_t>(matrix.size(), MPX2_CHIP_PIXELS); first += SIDE) {
        RowBits bits;
        gatherRow<layout>(stream, bits);
        storeRow<add>(bits, matrix.subspan(first));
        stream += MPX2_ROW_SIZE;
    }
}

/// Encodes a chip's rows, as many as fit into `out`.
template <const Layout& layout>
void encodeChip(const unsigned short* matrix, std::span<unsigned char> out)
{
    const std::size_t rows = std::min(out.size() / MPX2_ROW_SIZE, SIDE);
    for (std::size_t row = 0; row < rows; ++row) {
        RowBits bits;
        cutRow(matrix + row * SIDE, bits);
        scatterRow<layout>(bits, out.data() + row * MPX2_ROW_SIZE);
    }
}

/// The part of a buffer behind its first `offset` elements, empty if it is shorter.
template <class T>
std::span<T> behind(std::span<T> buffer, std::size_t offset)
{
    return buffer.subspan(std::min(offset, buffer.size()));
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
    decodeChip<SERIAL, true>(stream, {matrix, MPX2_CHIP_PIXELS});
}

void deserializeSingleMpx2(const unsigned char* stream, unsigned short* matrix)
{
    decodeChip<SERIAL, false>(stream, {matrix, MPX2_CHIP_PIXELS});
}

void deserializeSingleMpx2Parallel(const unsigned char* stream, unsigned short* matrix)
{
    decodeChip<PARALLEL, false>(stream, {matrix, MPX2_CHIP_PIXELS});
}

int deserializeMpx2(const unsigned char* stream, unsigned long size, unsigned short* matrix, unsigned long matrixSize,
                    bool serial)
{
    // With the lead bytes the chips end at chips * MPX2_STREAM_STRIDE, so that they always lie within `size`.
    const std::size_t chips = size / MPX2_STREAM_STRIDE;
    const auto decode = serial ? decodeChip<SERIAL, true> : decodeChip<PARALLEL, false>;
    const unsigned char* data = stream + (serial ? chips : 0);
    for (std::size_t chip = 0; chip < chips; ++chip)
        decode(data + chip * MPX2_SERIAL_SIZE, behind(Matrix(matrix, matrixSize), chip * MPX2_CHIP_PIXELS));
    return static_cast<int>(chips);
}

void serializeSingleMpx2(const unsigned short* matrix, unsigned char* out)
{
    encodeChip<SERIAL>(matrix, {out, MPX2_PARALLEL_SIZE});
    std::fill_n(out + MPX2_PARALLEL_SIZE, MPX2_SERIAL_SIZE - MPX2_PARALLEL_SIZE, static_cast<unsigned char>(0));
}

void serializeSingleMpx2Parallel(const unsigned short* matrix, unsigned char* out)
{
    encodeChip<PARALLEL>(matrix, {out, MPX2_PARALLEL_SIZE});
}

void serializeMpx2(const unsigned short* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                   bool serial)
{
    const std::size_t chips = size / MPX2_CHIP_PIXELS;
    const std::size_t stride = serial ? MPX2_SERIAL_SIZE : MPX2_PARALLEL_SIZE;
    const auto encode = serial ? encodeChip<SERIAL> : encodeChip<PARALLEL>;
    std::span<unsigned char> rest(out, outSize);
    std::fill(rest.begin(), rest.end(), static_cast<unsigned char>(0));
    if (serial && !rest.empty()) {
        rest.front() = SERIAL_LEAD;
        rest = rest.subspan(1);
    }
    for (std::size_t chip = 0; chip < chips; ++chip) {
        encode(matrix + chip * MPX2_CHIP_PIXELS, rest);
        rest = behind(rest, stride);
    }
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
