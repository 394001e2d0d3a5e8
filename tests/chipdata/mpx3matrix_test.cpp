// Medipix3 matrix streams, against slow oracles that walk the bit numbering.
#include "chipdata/kernelsets.h"
#include "chipdata/mpx3counters.h"
#include "chipdata/mpx3matrix.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Pixels = std::vector<unsigned>;

constexpr unsigned char DEPTHS[] = {1, 6, 12, 24}; // by CountL
constexpr unsigned BACKGROUND = 0x1001;            // stays: decoding ors
constexpr int CHIP = MPX3_CHIP_PIXELS;

OMR omrOf(unsigned char countL, unsigned char columnBlockSel, unsigned char columnBlock, unsigned char ps)
{
    OMR omr;
    omr.CountL = countL;
    omr.ColumnBlockSel = columnBlockSel;
    omr.ColumnBlock = columnBlock;
    omr.PS = ps;
    omr.RowBlock = 1;
    return omr;
}

/// What a decoder is to do, told once for both the oracle and the call.
struct Job {
    OMR omr;
    int chips;
    bool lowCounter = true;
    int stride = 1, offset = 0;

    int planes() const { return std::min<int>(DEPTHS[omr.CountL], 12); }
    int position() const { return lowCounter ? 0 : omr.CountL == 3 ? 12 : 16; }
    /// The column that comes first on the wire: the rightmost of the blocks read.
    int firstColumn() const
    {
        const int first[] = {255, omr.ColumnBlock & 4 ? 255 : 127, 63 + 64 * (omr.ColumnBlock >> 1 & 3),
                             31 + 32 * omr.ColumnBlock};
        return omr.ColumnBlockSel ? first[omr.PS] : 255;
    }
    Pixels matrix() const { return Pixels(static_cast<std::size_t>(chips * stride * CHIP), BACKGROUND); }
};

std::ostream& operator<<(std::ostream& out, const Job& job)
{
    return out << "CountL " << +job.omr.CountL << " PS " << +job.omr.PS << " block " << +job.omr.ColumnBlock << " low "
               << job.lowCounter << " channels " << job.chips << " stride " << job.stride;
}

/// Decodes a row that begins at `cursor` and returns its end. Bytes and pixels that don't exist are left out.
std::size_t oracleRow(const Bytes& stream, std::size_t cursor, Pixels& matrix, const Job& job, int row)
{
    for (int plane = job.planes() - 1; plane >= 0; --plane)
        for (int column = 0; column < 256 >> job.omr.PS; column += 8)
            for (int chip = 0; chip < job.chips; ++chip, ++cursor)
                for (int bit = 0; bit < 8 && cursor < stream.size(); ++bit) {
                    const int first = (chip * job.stride + job.offset) * CHIP + row * 256 + job.firstColumn();
                    const auto pixel = static_cast<std::size_t>(first - column - bit);
                    if (stream[cursor] >> (7 - bit) & 1 && pixel < matrix.size())
                        matrix[pixel] |= 1U << (plane + job.position());
                }
    return cursor;
}

std::size_t oracleFrame(const Bytes& stream, std::size_t cursor, Pixels& matrix, const Job& job)
{
    for (int row = 0; row < (job.omr.RowBlockSel ? 1 << job.omr.RowBlock : 256); ++row)
        cursor = oracleRow(stream, cursor, matrix, job, row);
    return cursor;
}

std::size_t oracleTdi(const Bytes& stream, Pixels& matrix, Job job, int counters)
{
    const bool paired = job.omr.CountL == 3 || counters == 2;
    job.omr.CountL = std::max<unsigned char>(job.omr.CountL, paired ? 2 : 0);
    std::size_t cursor = 0;
    for (int record = 0; record < (paired ? 512 : 256); ++record) {
        job.lowCounter = !paired || record % 2;
        cursor += static_cast<std::size_t>(3 * job.chips) + (paired && record % 2 ? 0 : 9);
        cursor = oracleRow(stream, cursor, matrix, job, paired ? record / 2 : record) + 14;
    }
    return cursor;
}

/// The matrix that a received readout gives.
Pixels oracleReadout(const Bytes& stream, Job job, int counters)
{
    const auto n = static_cast<std::size_t>(job.chips);
    const std::size_t payload = static_cast<std::size_t>(2 * 64 * job.planes() + (job.stride == 2 ? 42 : 34)) / 8 * n;
    Pixels matrix = job.matrix();
    for (const bool low : {false, true})
        for (job.offset = 0; job.offset < job.stride && (low || counters > 1); ++job.offset) {
            job.lowCounter = low;
            const std::size_t start = job.stride == 1 ? 3 * n : job.offset ? 5 * n + payload : 4 * n;
            oracleFrame(stream, start + (low && counters > 1 ? stream.size() / 2 : 0), matrix, job);
        }
    return matrix;
}

class Mpx3Matrix : public KernelSets {
protected:
    static void expectDecoded(const Job& job)
    {
        Pixels expected = job.matrix();
        Guarded matrix(expected);
        const Bytes stream = randomValues<unsigned char>(oracleFrame({}, 0, expected, job));
        oracleFrame(stream, 0, expected, job);
        deserializeMpx3MultiChannel(stream.data(), matrix.values().data(), job.omr, job.lowCounter, job.chips,
                                    job.stride, job.offset);
        EXPECT_TRUE(matrix.is(expected)) << job;
    }
};

} // namespace

RUN_WITH_ALL_KERNELS(Mpx3Matrix);

TEST_P(Mpx3Matrix, DecodesEveryShape)
{
    std::vector<OMR> images{omrOf(0, 0, 2, 2), omrOf(0, 0, 0, 0), omrOf(0, 1, 3, 0), omrOf(0, 1, 12, 1)};
    for (unsigned char block = 0; block < 9; ++block) // 8 spills into the next rows, and the last row is cut
        for (unsigned char ps = 1; ps <= 3; ++ps)
            images.push_back(omrOf(0, 1, block, ps));
    for (Job job : {Job{{}, 1}, Job{{}, 3}, Job{{}, 2, true, 2, 1}})
        for (const OMR& image : images)
            for (unsigned char i = 0; i < 8; ++i) {
                job.omr = image;
                job.omr.CountL = i / 2;
                job.omr.RowBlockSel = image.PS < 3 || image.ColumnBlock < 7;
                job.lowCounter = i % 2;
                expectDecoded(job);
            }
}

TEST_P(Mpx3Matrix, ConvertsWholeShortAndCutReadouts)
{
    for (const int channels : {1, 5})
        for (unsigned char i = 0; i < 16; ++i) {
            const int counters = 1 + i / 4 % 2;
            Mpx3StreamShape shape{omrOf(i % 4, 1, 2, 2), channels, i >= 8, false};
            shape.omr.RowBlockSel = 1;
            const Job job{shape.omr, channels, true, shape.twoChips ? 2 : 1};
            const std::size_t full = mpx3ReadSize(shape.omr, shape.twoChips, channels, counters > 1);
            const auto stream = randomValues<unsigned char>(full);
            for (const std::size_t received : {full, full - 1, full / 2 + 3, full / 3, std::size_t{2}}) {
                // Of exactly the size, so that the address sanitizer sees a read or write behind it.
                const Bytes came = firstOf(stream, received);
                Pixels expected = oracleReadout(came, job, counters);
                expected.resize(expected.size() - CHIP + 100); // which ends in a row
                Guarded matrix(Pixels(expected.size(), BACKGROUND));
                convertMpx3MatrixStream(shape, came, full, matrix.values(), 0, counters, false);
                ASSERT_TRUE(matrix.is(expected)) << job << " counters " << counters << " received " << received;

                // What an older readout left in the buffer is not decoded; the first pixels become counts.
                const unsigned char depth = shape.omr.bitsCount();
                if (counters == 2 && depth != 24)
                    convertCountsMpx3(expected.data(), 90, depth, false, true);
                convertCountsMpx3(expected.data(), 90, depth, true, true);
                std::ranges::fill(matrix.values(), BACKGROUND);
                convertMpx3MatrixStream(shape, stream, received, matrix.values(), 90, counters, true);
                ASSERT_TRUE(matrix.is(expected)) << job << " counters " << counters << " received " << received;
            }
        }
}

TEST_P(Mpx3Matrix, OverwritesWhatStoodInTheMatrix)
{
    for (const int channels : {1, 2, 3, 5})
        for (unsigned char i = 0; i < 16; ++i) {
            const int counters = 1 + i / 4 % 2;
            const Mpx3StreamShape shape{omrOf(i % 4, 0, 0, 0), channels, i >= 8, false};
            const std::size_t full = mpx3ReadSize(shape.omr, shape.twoChips, channels, counters > 1);
            const Bytes stream = randomValues<unsigned char>(full);
            const std::size_t whole = static_cast<std::size_t>(channels) * (shape.twoChips ? 2 : 1) * CHIP;
            struct Ends {
                std::size_t received, pixels, converted;
            };
            std::vector<Ends> cases{{full, whole, whole}};
            if (channels == 3) // not all that is wanted, or more
                cases = {{full, whole + 300, whole / 2 + 5}, {full / 2 + 99, whole, whole}, {full, whole - 300, 7}};
            for (const Ends& c : cases)
                for (const bool convert : {false, true}) {
                    Pixels expected(c.pixels, 0);
                    convertMpx3MatrixStream(shape, stream, c.received, expected, c.converted, counters, convert);
                    Guarded matrix(randomValues<unsigned>(c.pixels));
                    decodeMpx3MatrixStream(shape, stream, c.received, matrix.values(), c.converted, counters, convert);
                    ASSERT_TRUE(matrix.is(expected)) << channels << " channels, case " << +i << " convert " << convert;
                }
        }
}

TEST_P(Mpx3Matrix, TdiRecords)
{
    for (Job job : {Job{omrOf(0, 0, 0, 0), 1}, Job{omrOf(0, 1, 4, 2), 2}, Job{omrOf(0, 1, 7, 3), 5}})
        for (unsigned char i = 0; i < 8; ++i) {
            OMR& omr = job.omr;
            omr.CountL = i / 2;
            const int counters = 1 + i % 2;
            Pixels matrix = job.matrix();
            const auto stream = randomValues<unsigned char>(oracleTdi({}, matrix, job, counters) - 14);
            // The last record's size is no bound for the series, but the ends of the buffers are.
            for (const std::size_t share : {1, 3}) {
                const Bytes came = firstOf(stream, stream.size() / share);
                Pixels expected(matrix.size() / share, BACKGROUND);
                Pixels converted = expected;
                oracleTdi(came, expected, job, counters);
                convertMpx3MatrixStream({omr, job.chips, false, true}, came, 100, converted, 0, counters, false);
                ASSERT_TRUE(converted == expected) << job << " of " << counters;
            }
        }
}

TEST(Mpx3Stream, ImpossibleShapesStayInBounds)
{
    const auto stream = randomValues<unsigned char>(96);
    Pixels matrix(100);
    for (const int channels : {-1, 0, 1, 100000})
        for (const unsigned char ps : {'\x03', '\x7F'})
            convertMpx3MatrixStream({omrOf(9, 255, 255, ps), channels}, stream, 96, matrix, 1000, 2, true);
    convertMpx3MatrixStream({}, stream, 96, {}, 1000, 2, true);
}

TEST_P(Mpx3Matrix, EncodesWhatDecodes)
{
    const auto matrix = randomValues<unsigned>(2 * 256 + 3); // the rows that it doesn't have are zeros
    for (const bool low : {false, true})
        for (const bool swap : {false, true}) {
            Bytes whole(MPX3_MATRIX_STREAM_SIZE);
            serializeMpx3(matrix.data(), matrix.size(), whole.data(), whole.size(), low, swap);
            for (const std::size_t size : {98304, 500, 31}) {
                Guarded out(Bytes(size, 0xEE));
                EXPECT_EQ(serializeMpx3(matrix.data(), matrix.size(), out.values().data(), size, low, swap), size);
                Bytes expected = firstOf(whole, size / 32 * 32); // whole planes alone
                expected.resize(size, 0xEE);
                EXPECT_TRUE(out.is(expected)) << size;
            }
            if (swap)
                std::rotate(whole.begin(), whole.begin() + 49152, whole.end());
            Pixels decoded(CHIP);
            oracleFrame(whole, 0, decoded, {{}, 1, low});
            Pixels expected = matrix;
            expected.resize(CHIP, 0);
            for (unsigned& pixel : expected)
                pixel &= low ? 0x00000FFF : 0x0FFF0000;
            EXPECT_TRUE(decoded == expected) << "low " << low << " swapped " << swap;
        }
}

TEST(Mpx3Stream, WritePayloads)
{
    const auto matrix = randomValues<unsigned>(2 * CHIP);
    for (const bool upper : {false, true}) {
        Bytes expected;
        for (const std::size_t chip : {0, 1}) {
            Bytes rows(MPX3_MATRIX_STREAM_SIZE);
            serializeMpx3(matrix.data() + chip * CHIP, CHIP, rows.data(), rows.size(), false, upper);
            // The lower half is clean behind its rows, the upper one keeps a byte, a second chip is not cleared.
            const std::ptrdiff_t kept = chip == 1 ? 52 : upper ? 1 : 0;
            expected.insert(expected.end(), {0x00, 0xA0, 0x00});
            expected.insert(expected.end(), rows.begin(), rows.begin() + 49152 + kept);
            expected.resize((chip + 1) * 49207, 0);
            Bytes buffer(MPX3_WRITE_BUFFER_SIZE, 0xEE);
            buffer.resize(fillMpx3WritePayload(matrix.data(), matrix.size(), chip == 1, false,
                                               upper ? Mpx3Half::Upper : Mpx3Half::Lower, buffer.data()));
            EXPECT_TRUE(buffer == expected) << "chips " << chip + 1 << " upper " << upper;
        }
    }
}
