// Medipix3 matrix streams, see mpx3matrix.h.
#include "chipdata/mpx3matrix.h"

#include "chipdata/bitplanes.h"
#include "chipdata/mpx3counters.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

using Stream = std::span<const unsigned char>;
using Matrix = std::span<unsigned int>;

constexpr unsigned SIDE = MPX3_SIDE;
constexpr unsigned MAX_PLANES = 16;            // of one counter, so that the high one still fits into a word
constexpr unsigned HIGH_POSITION = 16;         // of the high counter in a word
constexpr unsigned LONG_COUNT_BITS = 24;       // depth of a count that travels in two halves
constexpr unsigned PLANES = MPX3_COUNTER_BITS; // of a whole counter
constexpr std::size_t PLANE_BYTES = SIDE / 8;

constexpr std::size_t PACKET_SIZE = 9;    // end-of-frame packet
constexpr std::size_t LEAD_SIZE = 3;      // bytes of a channel before its data
constexpr std::size_t TDI_TAIL_SIZE = 14; // bytes behind a TDI record's data, right for five channels

// Bits of a readout beside the pixels.
constexpr unsigned EXTRA_BITS = 34;
constexpr unsigned EXTRA_BITS_TWO_CHIPS = 8;
constexpr unsigned EXTRA_COMMAND_BITS_TWO_CHIPS = 5;

/// How one channel's row lies in the stream and in the matrix.
struct RowShape {
    unsigned planes;      ///< 0 if the depth is none that a row can have
    unsigned columns;     ///< of a plane
    std::ptrdiff_t shift; ///< columns between the right edge and the first column on the wire
    unsigned position;    ///< bit of a word that takes the lowest plane

    std::size_t planeBytes() const { return columns / 8; }
    std::size_t bytes() const { return planes * planeBytes(); }
};

/// Where the channels of a stream go to in the matrix.
struct ChannelMap {
    int channels;
    int stride = 1;
    int offset = 0;

    std::size_t count() const { return static_cast<std::size_t>(std::max(channels, 0)); }
    std::ptrdiff_t firstPixel(std::ptrdiff_t channel) const { return (channel * stride + offset) * MPX3_CHIP_PIXELS; }
    /// Pixels of a matrix that reaches to the last chip.
    std::size_t matrixSize() const
    {
        const std::ptrdiff_t last = std::max(firstPixel(0), firstPixel(channels - 1));
        return static_cast<std::size_t>(std::max<std::ptrdiff_t>(last + MPX3_CHIP_PIXELS, 0));
    }
};

/// A row's counters, cut into bytes: bits 0 to 7 and bits 8 to 15 of each pixel.
struct RowBits {
    std::array<unsigned char, SIDE> low;
    std::array<unsigned char, SIDE> high;
};

/// Gathers a row of `planes` planes from every `interleave`-th byte at `stream`.
template <unsigned planes>
void gatherRow(const unsigned char* stream, std::size_t interleave, const RowShape& row, RowBits& bits)
{
    constexpr unsigned LOW = std::min(planes, 8U);
    constexpr unsigned HIGH = planes - LOW;
    const std::size_t groups = row.planeBytes();
    const std::size_t planeStride = groups * interleave;
    for (std::size_t group = 0; group < groups; ++group, stream += interleave) {
        const std::size_t left = (groups - 1 - group) * 8;
        if constexpr (HIGH > 0) {
            const std::uint64_t high = bitplanes::gather<HIGH>(stream, planeStride);
            std::memcpy(&bits.high[left], &high, sizeof(high));
        }
        const std::uint64_t low = bitplanes::gather<LOW>(stream + HIGH * planeStride, planeStride);
        std::memcpy(&bits.low[left], &low, sizeof(low));
    }
}

/// Ors a row into the matrix from pixel `first` on, as far as it lies in the matrix.
template <unsigned planes>
void orRow(const RowBits& bits, const RowShape& row, std::ptrdiff_t first, Matrix matrix)
{
    const auto size = static_cast<std::ptrdiff_t>(matrix.size());
    const std::ptrdiff_t begin = std::max<std::ptrdiff_t>(0, -first);
    const std::ptrdiff_t end = std::min<std::ptrdiff_t>(row.columns, size - first);
    if (end <= begin)
        return;
    // Without the promise that they don't overlap the loop is not vectorized.
    unsigned int* __restrict pixels = matrix.data() + (first + begin);
    const unsigned char* __restrict low = bits.low.data() + begin;
    const unsigned char* __restrict high = bits.high.data() + begin;
    const unsigned position = row.position;
    for (std::ptrdiff_t i = 0; i < end - begin; ++i) {
        unsigned count = low[i];
        if constexpr (planes > 8)
            count |= unsigned{high[i]} << 8;
        pixels[i] |= count << position;
    }
}

/// Decodes one channel's row from every `interleave`-th byte of `stream`, as many as there are, to pixel `first`.
template <unsigned planes>
void decodeRow(Stream stream, std::size_t interleave, const RowShape& row, std::ptrdiff_t first, Matrix matrix)
{
    RowBits bits;
    if ((row.bytes() - 1) * interleave < stream.size()) {
        gatherRow<planes>(stream.data(), interleave, row, bits);
    } else {
        std::array<unsigned char, MAX_PLANES * PLANE_BYTES> came{};
        for (std::size_t i = 0; i * interleave < stream.size(); ++i)
            came[i] = stream[i * interleave];
        gatherRow<planes>(came.data(), 1, row, bits);
    }
    orRow<planes>(bits, row, first, matrix);
}

template <unsigned... index>
constexpr auto rowDecoders(std::integer_sequence<unsigned, index...>)
{
    return std::array{decodeRow<index + 1>...};
}

/// decodeRow for 1 to MAX_PLANES planes, so that the loops over the planes have a constant length.
constexpr auto ROW_DECODERS = rowDecoders(std::make_integer_sequence<unsigned, MAX_PLANES>{});

/// The stream without its first `offset` bytes.
Stream behind(Stream stream, std::size_t offset)
{
    return stream.subspan(std::min(offset, stream.size()));
}

/// Decodes row number `r` of all channels.
void decodeChannels(Stream stream, const ChannelMap& map, const RowShape& row, std::ptrdiff_t r, Matrix matrix)
{
    if (row.planes == 0)
        return;
    const auto decode = ROW_DECODERS[row.planes - 1];
    const std::ptrdiff_t left = (r + 1) * SIDE - row.columns - row.shift;
    const std::size_t channels = std::min(map.count(), stream.size());
    for (std::size_t c = 0; c < channels; ++c)
        decode(stream.subspan(c), map.count(), row, map.firstPixel(static_cast<std::ptrdiff_t>(c)) + left, matrix);
}

/// Decodes `rows` rows of one counter. The rows are outermost, since all channels of a row share their cache lines.
void decodeFrame(Stream stream, const ChannelMap& map, const RowShape& row, unsigned rows, Matrix matrix)
{
    for (unsigned r = 0; r < rows && !stream.empty(); ++r) {
        decodeChannels(stream, map, row, r, matrix);
        stream = behind(stream, row.bytes() * map.count());
    }
}

/// Columns that a column block readout leaves out on the right. Only the chip cuts `columnBlock` to its 3 bits: a
/// higher one with `ps` 3 gives a negative number, which moves the row towards the next.
std::ptrdiff_t columnShift(unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps)
{
    if (!columnBlockSel)
        return 0;
    const int column = columnBlock * 32;
    switch (ps) {
    case 1:
        return ~column & 0x80;
    case 2:
        return ~column & 0xC0;
    case 3:
        return 224 - column;
    default:
        return 0;
    }
}

RowShape rowShape(unsigned long depth, unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps,
                  bool lowCounter)
{
    RowShape row{};
    const bool isLong = depth == LONG_COUNT_BITS;
    if (isLong)
        row.planes = PLANES;
    else if (depth <= MAX_PLANES)
        row.planes = static_cast<unsigned>(depth);
    row.columns = ps <= 3 ? SIDE >> ps : SIDE;
    row.shift = columnShift(columnBlockSel, columnBlock, ps);
    if (!lowCounter)
        row.position = isLong ? PLANES : HIGH_POSITION;
    return row;
}

/// The records of a TDI series. Paired records are the two counters, or the two halves of a count, of one row.
struct TdiShape {
    RowShape first;  ///< of every record, or of the first of a pair
    RowShape second; ///< of the second of a pair
    bool paired;
    std::size_t channels;

    unsigned records() const { return paired ? 2 * SIDE : SIDE; }
    bool isSecond(unsigned record) const { return paired && record % 2 == 1; }
    /// Bytes before a record's data. A pair has one end-of-frame packet.
    std::size_t lead(unsigned record) const { return LEAD_SIZE * channels + (isSecond(record) ? 0 : PACKET_SIZE); }
    std::size_t size(unsigned record) const { return lead(record) + first.bytes() * channels + TDI_TAIL_SIZE; }
};

TdiShape tdiShape(unsigned long depth, unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps,
                  int counters, bool lowCounter, const ChannelMap& map)
{
    const bool paired = depth == LONG_COUNT_BITS || counters == 2;
    if (paired && depth != LONG_COUNT_BITS)
        depth = PLANES;
    const RowShape first = rowShape(depth, columnBlockSel, columnBlock, ps, lowCounter && !paired);
    RowShape second = first;
    second.position = 0;
    return {first, second, paired, map.count()};
}

void decodeTdi(Stream stream, const ChannelMap& map, const TdiShape& tdi, Matrix matrix)
{
    for (unsigned record = 0; record < tdi.records() && !stream.empty(); ++record) {
        const RowShape& row = tdi.isSecond(record) ? tdi.second : tdi.first;
        decodeChannels(behind(stream, tdi.lead(record)), map, row, tdi.paired ? record / 2 : record, matrix);
        stream = behind(stream, tdi.size(record));
    }
}

/// Decodes what came of a frame: the high counter first if both were read, and of two chips the one that sends first.
void decodeReceived(const Mpx3StreamShape& shape, Stream stream, Matrix matrix, bool bothCounters)
{
    const OMR& omr = shape.omr;
    const int chipsPerChannel = shape.twoChips ? 2 : 1;
    const std::size_t channels = ChannelMap{shape.channels}.count();
    const std::size_t chipLead = (shape.twoChips ? LEAD_SIZE + 1 : LEAD_SIZE) * channels;
    const std::size_t chipSize = (mpx3ReadBits(omr, shape.twoChips) / 8 + 1) * channels;

    for (const bool lowCounter : {false, true}) {
        if (!lowCounter && !bothCounters)
            continue;
        const RowShape row = rowShape(omr.bitsCount(), omr.ColumnBlockSel, omr.ColumnBlock, omr.PS, lowCounter);
        const Stream counter = behind(stream, lowCounter && bothCounters ? stream.size() / 2 : 0);
        for (int chip = 0; chip < chipsPerChannel; ++chip)
            decodeFrame(behind(counter, chipLead + static_cast<std::size_t>(chip) * chipSize),
                        {shape.channels, chipsPerChannel, chip}, row, omr.rowNumber(), matrix);
    }
}

/// Cuts one counter of a row into bytes; pixels that the row doesn't have are 0.
void cutRow(std::span<const unsigned int> row, unsigned position, RowBits& bits)
{
    if (row.size() < SIDE)
        bits = {};
    for (std::size_t i = 0; i < std::min<std::size_t>(row.size(), SIDE); ++i) {
        bits.low[i] = static_cast<unsigned char>(row[i] >> position);
        bits.high[i] = static_cast<unsigned char>(row[i] >> (position + 8));
    }
}

/// Encodes a row in its 12 planes.
void encodeRow(const RowBits& bits, unsigned char* out)
{
    constexpr unsigned HIGH = PLANES - 8;
    for (std::size_t group = 0; group < PLANE_BYTES; ++group) {
        const std::size_t left = SIDE - 8 - group * 8;
        std::uint64_t high;
        std::uint64_t low;
        std::memcpy(&high, &bits.high[left], sizeof(high));
        std::memcpy(&low, &bits.low[left], sizeof(low));
        bitplanes::scatter<HIGH>(high, out + group, PLANE_BYTES);
        bitplanes::scatter<8>(low, out + HIGH * PLANE_BYTES + group, PLANE_BYTES);
    }
}

constexpr std::array<unsigned char, 3> WRITE_HEADER = {0x00, 0xA0, 0x00};
constexpr std::size_t HALF_SIZE = MPX3_MATRIX_STREAM_SIZE / 2;

/// Writes a chip's record of a matrix write: the header, and all rows with the wanted half in front.
void fillWriteRecord(std::span<const unsigned int> chip, bool lowCounter, Mpx3Half half, unsigned char* record)
{
    unsigned char* rows = std::copy(WRITE_HEADER.begin(), WRITE_HEADER.end(), record);
    serializeMpx3(chip.data(), chip.size(), rows, MPX3_MATRIX_STREAM_SIZE, lowCounter, half == Mpx3Half::Upper);
}

} // namespace

unsigned long long mpx3ReadBits(const OMR& omr, bool twoChips)
{
    const unsigned planes = std::min<unsigned>(omr.bitsCount(), PLANES);
    const unsigned long long pixels = static_cast<unsigned long long>(omr.rowNumber()) * omr.colNumber();
    return pixels * planes + EXTRA_BITS + (twoChips ? EXTRA_BITS_TWO_CHIPS : 0);
}

unsigned long long mpx3ReadCommandBits(const OMR& omr, bool twoChips)
{
    return mpx3ReadBits(omr, twoChips) + (twoChips ? EXTRA_COMMAND_BITS_TWO_CHIPS : 0);
}

std::size_t mpx3ReadSize(const OMR& omr, bool twoChips, int channels, bool bothCounters)
{
    const std::size_t counter = mpx3ReadCommandBits(omr, twoChips) / 8 * ChannelMap{channels}.count() + PACKET_SIZE;
    return counter * (bothCounters ? 2 : 1) * (twoChips ? 2 : 1);
}

std::size_t mpx3TdiRecordSize(const OMR& omr, bool twoChips, int channels, bool bothCounters)
{
    const std::size_t record = mpx3ReadBits(omr, twoChips) / 8 * ChannelMap{channels}.count() + 2 * PACKET_SIZE;
    return bothCounters ? 2 * record - PACKET_SIZE : record;
}

int deserializeMpx3MultiChannel(const unsigned char* stream, unsigned int* matrix, unsigned long depth,
                                unsigned char rowBlockSel, unsigned char rowBlock, unsigned char columnBlockSel,
                                unsigned char columnBlock, unsigned char ps, bool lowCounter, int chips, int chipStride,
                                int chipOffset)
{
    const RowShape row = rowShape(depth, columnBlockSel, columnBlock, ps, lowCounter);
    OMR omr;
    omr.RowBlockSel = rowBlockSel;
    omr.RowBlock = rowBlock;
    const unsigned rows = omr.rowNumber();
    const ChannelMap map{chips, chipStride, chipOffset};
    decodeFrame({stream, rows * row.bytes() * map.count()}, map, row, rows, {matrix, map.matrixSize()});
    return 0;
}

int deserializeMpx3MultiChannel(const unsigned char* stream, unsigned int* matrix, OMR omr, bool lowCounter, int chips,
                                int chipStride, int chipOffset)
{
    return deserializeMpx3MultiChannel(stream, matrix, omr.bitsCount(), omr.RowBlockSel, omr.RowBlock,
                                       omr.ColumnBlockSel, omr.ColumnBlock, omr.PS, lowCounter, chips, chipStride,
                                       chipOffset);
}

int deserializeMpx3(const unsigned char* stream, unsigned int* matrix, unsigned long depth, unsigned char rowBlockSel,
                    unsigned char rowBlock, unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps,
                    bool lowCounter)
{
    return deserializeMpx3MultiChannel(stream, matrix, depth, rowBlockSel, rowBlock, columnBlockSel, columnBlock, ps,
                                       lowCounter, 1, 1, 0);
}

int deserializeMpx3Tdi(const unsigned char* stream, unsigned int* matrix, unsigned long depth,
                       unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps, int counters,
                       bool lowCounter, int chips)
{
    const ChannelMap map{chips};
    const TdiShape tdi = tdiShape(depth, columnBlockSel, columnBlock, ps, counters, lowCounter, map);
    std::size_t size = 0;
    for (unsigned record = 0; record < tdi.records(); ++record)
        size += tdi.size(record);
    decodeTdi({stream, size - TDI_TAIL_SIZE}, map, tdi, {matrix, map.matrixSize()});
    return static_cast<int>(tdi.records());
}

void convertMpx3MatrixStream(const Mpx3StreamShape& shape, std::span<const unsigned char> stream, std::size_t received,
                             std::span<unsigned int> matrix, std::size_t convertSize, int counters, bool convert)
{
    if (!matrix.data())
        return;
    const OMR& omr = shape.omr;
    const bool bothCounters = counters > 1;
    if (shape.tdi && !shape.twoChips) {
        const ChannelMap map{shape.channels};
        decodeTdi(stream, map,
                  tdiShape(omr.bitsCount(), omr.ColumnBlockSel, omr.ColumnBlock, omr.PS, counters, true, map), matrix);
    } else {
        decodeReceived(shape, stream.first(std::min(received, stream.size())), matrix, bothCounters);
    }
    if (!convert)
        return;
    const std::size_t pixels = std::min(convertSize, matrix.size());
    if (bothCounters && omr.bitsCount() != LONG_COUNT_BITS)
        convertCountsMpx3(matrix.data(), pixels, omr.bitsCount(), false, true);
    convertCountsMpx3(matrix.data(), pixels, omr.bitsCount(), true, true);
}

unsigned long serializeMpx3(const unsigned int* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                            bool lowCounter, bool swapHalves)
{
    const std::span pixels(matrix, std::min<std::size_t>(size, MPX3_CHIP_PIXELS));
    const unsigned position = lowCounter ? 0 : HIGH_POSITION;
    const unsigned firstRow = swapHalves ? SIDE / 2 : 0;
    unsigned long written = 0;
    for (unsigned i = 0; i < SIDE; ++i) {
        const std::size_t begin = std::size_t{(i + firstRow) % SIDE} * SIDE;
        RowBits bits;
        std::array<unsigned char, PLANES * PLANE_BYTES> planes;
        cutRow(pixels.subspan(std::min(begin, pixels.size())), position, bits);
        encodeRow(bits, planes.data());
        const std::size_t fitting = std::min(planes.size(), (outSize - written) / PLANE_BYTES * PLANE_BYTES);
        std::copy_n(planes.begin(), fitting, out + written);
        written += fitting;
        if (fitting < planes.size())
            return outSize;
    }
    return written;
}

std::size_t fillMpx3WritePayload(const unsigned int* matrix, unsigned long size, bool twoChips, bool lowCounter,
                                 Mpx3Half half, unsigned char* buffer)
{
    const std::span pixels(matrix, size);
    const std::size_t payload = MPX3_WRITE_PAYLOAD_SIZE * (twoChips ? 2 : 1);
    std::fill_n(buffer, MPX3_WRITE_BUFFER_SIZE, static_cast<unsigned char>(0));
    fillWriteRecord(pixels, lowCounter, half, buffer);
    // The upper half is sent with the first byte of the row behind it, the lower half without.
    const std::size_t kept = half == Mpx3Half::Upper ? 1 : 0;
    std::fill_n(buffer + WRITE_HEADER.size() + HALF_SIZE + kept, HALF_SIZE, static_cast<unsigned char>(0));
    // The second chip's record is not cleared behind its half: its last bytes are those of the row that follows.
    if (twoChips)
        fillWriteRecord(pixels.subspan(std::min<std::size_t>(MPX3_CHIP_PIXELS, size)), lowCounter, half,
                        buffer + MPX3_WRITE_PAYLOAD_SIZE);
    return payload;
}
