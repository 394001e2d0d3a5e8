// Medipix3 matrix streams, see mpx3matrix.h.
#include "chipdata/mpx3matrix.h"

#include "chipdata/kernels/kernels.h"
#include "chipdata/mpx3counters.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace {

using Stream = std::span<const unsigned char>;
using Matrix = std::span<unsigned int>;

constexpr unsigned SIDE = MPX3_SIDE;
constexpr unsigned MAX_PLANES = 16;            // of one counter, so that the high one still fits into a word
constexpr unsigned HIGH_POSITION = 16;         // of the high counter in a word
constexpr unsigned LONG_COUNT_BITS = 24;       // depth of a count that travels in two halves
constexpr unsigned PLANES = MPX3_COUNTER_BITS; // of a whole counter
constexpr unsigned BLOCK = 8;                  // pixels in a byte of a plane
constexpr std::size_t PLANE_BYTES = SIDE / BLOCK;

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

    std::size_t planeBytes() const { return columns / BLOCK; }
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

/// The stream without its first `offset` bytes.
Stream behind(Stream stream, std::size_t offset)
{
    return stream.subspan(std::min(offset, stream.size()));
}

/// The first pixel of the block in each byte of row 0. The first byte of a plane has the rightmost block of its
/// columns.
std::vector<std::ptrdiff_t> rowBlocks(const ChannelMap& map, const RowShape& row)
{
    std::vector<std::ptrdiff_t> first(row.planeBytes() * map.count());
    for (std::size_t i = 0; i < first.size(); ++i)
        first[i] = map.firstPixel(static_cast<std::ptrdiff_t>(i % map.count())) + SIDE - row.shift -
                   static_cast<std::ptrdiff_t>(BLOCK * (1 + i / map.count()));
    return first;
}

/// The pixels that a row of a channel covers.
struct PixelRange {
    std::ptrdiff_t first;
    std::ptrdiff_t end;

    bool isIn(Matrix matrix) const { return first >= 0 && end <= static_cast<std::ptrdiff_t>(matrix.size()); }
};

/// Decodes rows of all channels of one shape, or-ing their bits into a matrix.
class RowDecoder {
public:
    RowDecoder(const ChannelMap& channels, const RowShape& shape, Matrix to) : map(channels), row(shape), matrix(to) {}

    /// Decodes `rows` rows, as far as the stream holds them, from row number `firstRow` of the matrix on.
    void decode(Stream stream, std::ptrdiff_t firstRow, std::ptrdiff_t rows)
    {
        if (rowSize() == 0)
            return;
        const std::ptrdiff_t end = firstRow + rows;
        for (std::ptrdiff_t r = firstRow; r < end && !stream.empty();) {
            const std::size_t whole = std::min(wholeRows(stream, r), static_cast<std::size_t>(end - r));
            if (whole > 0)
                decodeWhole(stream.data(), r, whole);
            else
                decodeCut(stream, r);
            const std::size_t done = std::max<std::size_t>(whole, 1);
            stream = behind(stream, done * rowSize());
            r += static_cast<std::ptrdiff_t>(done);
        }
    }

private:
    ChannelMap map;
    RowShape row;
    Matrix matrix;
    std::vector<std::ptrdiff_t> blocks; ///< first pixel of each block of row 0, made when it is first needed

    std::size_t rowSize() const { return row.bytes() * map.count(); }

    PixelRange pixelsOf(std::ptrdiff_t channel, std::ptrdiff_t r) const
    {
        const std::ptrdiff_t end = map.firstPixel(channel) + (r + 1) * SIDE - row.shift;
        return {end - static_cast<std::ptrdiff_t>(row.columns), end};
    }

    /// Rows from number `r` on that the stream holds and that lie in the matrix, all channels of them.
    std::size_t wholeRows(Stream stream, std::ptrdiff_t r) const
    {
        const PixelRange first = pixelsOf(0, r);
        const PixelRange last = pixelsOf(map.channels - 1, r);
        const std::size_t size = rowSize();
        if (size == 0 || !first.isIn(matrix) || !last.isIn(matrix))
            return 0;
        const std::size_t room = (matrix.size() - static_cast<std::size_t>(std::max(first.end, last.end))) / SIDE + 1;
        return std::min(room, stream.size() / size);
    }

    void decodeWhole(const unsigned char* stream, std::ptrdiff_t r, std::size_t rows)
    {
        if (blocks.empty())
            blocks = rowBlocks(map, row);
        kernels::active().decodeMpx3({stream, nullptr, matrix.data() + r * SIDE, map.count(), rows,
                                      row.planeBytes() * map.count(), row.planes, row.position, blocks.data(), nullptr,
                                      kernels::Store::Or});
    }

    /// Decodes a row of which the stream holds, or the matrix has room for, a part alone.
    void decodeCut(Stream stream, std::ptrdiff_t r) const
    {
        for (std::size_t c = 0; c < std::min(map.count(), stream.size()); ++c) {
            std::array<unsigned char, MAX_PLANES * PLANE_BYTES> came{};
            for (std::size_t i = 0; i < row.bytes() && c + i * map.count() < stream.size(); ++i)
                came[i] = stream[c + i * map.count()];
            std::array<unsigned int, SIDE> pixels{};
            decodeAlone(came.data(), pixels.data());
            const PixelRange to = pixelsOf(static_cast<std::ptrdiff_t>(c), r);
            for (std::ptrdiff_t x = 0; x < to.end - to.first; ++x)
                if (PixelRange{to.first + x, to.first + x + 1}.isIn(matrix))
                    matrix[static_cast<std::size_t>(to.first + x)] |= pixels[static_cast<std::size_t>(x)];
        }
    }

    /// Decodes one channel's row to a place of its own.
    void decodeAlone(const unsigned char* stream, unsigned int* pixels) const
    {
        std::array<std::ptrdiff_t, PLANE_BYTES> places{};
        for (std::size_t i = 0; i < row.planeBytes(); ++i)
            places[i] = static_cast<std::ptrdiff_t>(row.columns - BLOCK * (1 + i));
        kernels::active().decodeMpx3({stream, nullptr, pixels, 1, 1, row.planeBytes(), row.planes, row.position,
                                      places.data(), nullptr, kernels::Store::Or});
    }
};

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
    RowDecoder first(map, tdi.first, matrix);
    RowDecoder second(map, tdi.second, matrix);
    for (unsigned record = 0; record < tdi.records() && !stream.empty(); ++record) {
        RowDecoder& decoder = tdi.isSecond(record) ? second : first;
        decoder.decode(behind(stream, tdi.lead(record)), tdi.paired ? record / 2 : record, 1);
        stream = behind(stream, tdi.size(record));
    }
}

int chipsPerChannel(const Mpx3StreamShape& shape)
{
    return shape.twoChips ? 2 : 1;
}

/// A counter's data of the channels' chips number `chip`. If both counters were read the low one is in the second half
/// of the stream.
Stream chipData(const Mpx3StreamShape& shape, Stream stream, int chip, bool inSecondHalf)
{
    const std::size_t channels = ChannelMap{shape.channels}.count();
    const std::size_t lead = (shape.twoChips ? LEAD_SIZE + 1 : LEAD_SIZE) * channels;
    const std::size_t chipSize = (mpx3ReadBits(shape.omr, shape.twoChips) / 8 + 1) * channels;
    const Stream counter = behind(stream, inSecondHalf ? stream.size() / 2 : 0);
    return behind(counter, lead + static_cast<std::size_t>(chip) * chipSize);
}

/// Decodes what came of a frame: the high counter first if both were read, and of two chips the one that sends first.
void decodeReceived(const Mpx3StreamShape& shape, Stream stream, Matrix matrix, bool bothCounters)
{
    const OMR& omr = shape.omr;
    for (const bool lowCounter : {false, true}) {
        if (!lowCounter && !bothCounters)
            continue;
        const RowShape row = rowShape(omr.bitsCount(), omr.ColumnBlockSel, omr.ColumnBlock, omr.PS, lowCounter);
        for (int chip = 0; chip < chipsPerChannel(shape); ++chip)
            RowDecoder({shape.channels, chipsPerChannel(shape), chip}, row, matrix)
                .decode(chipData(shape, stream, chip, lowCounter && bothCounters), 0, omr.rowNumber());
    }
}

/// A whole frame that is decoded in one pass, with its counts.
struct WholeFrame {
    const Mpx3StreamShape& shape;
    Stream stream;
    Matrix matrix;
    bool bothCounters;
    bool convert;

    unsigned depth() const { return shape.omr.bitsCount(); }
    std::size_t pixels() const
    {
        return ChannelMap{shape.channels}.count() * static_cast<std::size_t>(chipsPerChannel(shape)) * MPX3_CHIP_PIXELS;
    }
    RowShape row() const { return rowShape(depth(), 0, 0, 0, true); }
    std::size_t dataSize() const { return SIDE * row().bytes() * ChannelMap{shape.channels}.count(); }

    /// True if all chips' rows and columns were read, came, and have room. Both counters together have 12 bits each.
    bool isWhole() const
    {
        const OMR& omr = shape.omr;
        if (shape.channels < 1 || omr.rowNumber() != SIDE || omr.colNumber() != SIDE || matrix.size() < pixels() ||
            (shape.tdi && !shape.twoChips) || (bothCounters && depth() < PLANES))
            return false;
        const int last = chipsPerChannel(shape) - 1;
        return chipData(shape, stream, last, bothCounters).size() >= dataSize() &&
               chipData(shape, stream, last, false).size() >= dataSize();
    }

    void decode() const
    {
        for (int chip = 0; chip < chipsPerChannel(shape); ++chip)
            decodeChips(chip);
        const Matrix rest = matrix.subspan(pixels());
        std::fill(rest.begin(), rest.end(), 0U);
    }

private:
    /// Decodes the channels' chips number `chip`.
    void decodeChips(int chip) const
    {
        const ChannelMap map{shape.channels, chipsPerChannel(shape), chip};
        const std::vector<std::ptrdiff_t> blocks = rowBlocks(map, row());
        const bool isCounts = convert && depth() > 1; // one bit counts as it is
        kernels::Mpx3Rows rows{};
        rows.source = chipData(shape, stream, chip, bothCounters).data();
        rows.second = bothCounters ? chipData(shape, stream, chip, false).data() : nullptr;
        rows.matrix = matrix.data();
        rows.channels = map.count();
        rows.rows = SIDE;
        rows.planeSize = PLANE_BYTES * map.count();
        rows.planes = row().planes;
        rows.position = !bothCounters ? 0 : depth() == LONG_COUNT_BITS ? PLANES : HIGH_POSITION;
        rows.blocks = blocks.data();
        rows.counts = isCounts ? mpx3CountTable(static_cast<unsigned char>(rows.planes)) : nullptr;
        rows.store = isCounts ? kernels::Store::Count : kernels::Store::Replace;
        kernels::active().decodeMpx3(rows);
    }
};

/// Encodes a row that the matrix doesn't have as a whole, or `out` no room for: whole planes of it, the rest as zeros.
void encodeCutRow(std::span<const unsigned int> row, bool lowCounter, std::span<unsigned char> out)
{
    std::array<unsigned int, SIDE> pixels{};
    std::array<unsigned char, PLANES * PLANE_BYTES> planes;
    std::copy_n(row.begin(), std::min<std::size_t>(row.size(), SIDE), pixels.begin());
    kernels::active().encodeMpx3(pixels.data(), 1, !lowCounter, planes.data());
    std::copy_n(planes.begin(), std::min(planes.size(), out.size() / PLANE_BYTES * PLANE_BYTES), out.begin());
}

/// Encodes rows, as many as `out` has room for, and planes of one row more. Returns the bytes behind them.
std::span<unsigned char> encodeRows(std::span<const unsigned int> pixels, std::size_t rows, bool lowCounter,
                                    std::span<unsigned char> out)
{
    constexpr std::size_t ROW_SIZE = PLANES * PLANE_BYTES;
    const std::size_t whole = std::min({rows, pixels.size() / SIDE, out.size() / ROW_SIZE});
    kernels::active().encodeMpx3(pixels.data(), whole, !lowCounter, out.data());
    out = out.subspan(whole * ROW_SIZE);
    for (std::size_t r = whole; r < rows && !out.empty(); ++r) {
        encodeCutRow(pixels.subspan(std::min(r * SIDE, pixels.size())), lowCounter, out);
        out = out.subspan(std::min(ROW_SIZE, out.size()));
    }
    return out;
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
    RowDecoder(map, row, {matrix, map.matrixSize()}).decode({stream, rows * row.bytes() * map.count()}, 0, rows);
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

void decodeMpx3MatrixStream(const Mpx3StreamShape& shape, std::span<const unsigned char> stream, std::size_t received,
                            std::span<unsigned int> matrix, std::size_t convertSize, int counters, bool convert)
{
    const Stream came = stream.first(std::min(received, stream.size()));
    const WholeFrame frame{shape, came, matrix, counters > 1, convert};
    if (frame.isWhole() && (!convert || convertSize >= frame.pixels()))
        return frame.decode();
    std::fill(matrix.begin(), matrix.end(), 0U);
    convertMpx3MatrixStream(shape, stream, received, matrix, convertSize, counters, convert);
}

unsigned long serializeMpx3(const unsigned int* matrix, unsigned long size, unsigned char* out, unsigned long outSize,
                            bool lowCounter, bool swapHalves)
{
    const std::span pixels(matrix, std::min<std::size_t>(size, MPX3_CHIP_PIXELS));
    const std::size_t half = pixels.size() < MPX3_CHIP_PIXELS / 2 ? pixels.size() : MPX3_CHIP_PIXELS / 2;
    const std::size_t wanted = std::min<std::size_t>(outSize, MPX3_MATRIX_STREAM_SIZE);
    std::span<unsigned char> rest(out, wanted);
    if (swapHalves) {
        rest = encodeRows(pixels.subspan(half), SIDE / 2, lowCounter, rest);
        encodeRows(pixels.first(half), SIDE / 2, lowCounter, rest);
    } else {
        encodeRows(pixels, SIDE, lowCounter, rest);
    }
    return wanted;
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
