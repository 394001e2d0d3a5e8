// Medipix2 matrix streams, against slow oracles that walk the bit numbering.
#include "chipdata/kernelsets.h"
#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2matrix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace {

using Pixels = std::vector<unsigned short>;

constexpr std::size_t CHIP = MPX2_CHIP_PIXELS;

/// Where in a row's plane a pixel's bit stands: byte and bit.
std::pair<std::size_t, std::size_t> place(std::size_t x, bool serial)
{
    const std::size_t s = 255 - x;
    return serial ? std::pair{s / 8, 7 - s % 8} : std::pair{x / 64 + 28 - 4 * (x % 8), x / 8 % 8};
}

/// Decodes a chip to `first`, as far as the matrix reaches. Pixels are added to what is there, or replace it.
void oracleDecode(const Bytes& stream, std::size_t offset, Pixels& matrix, std::size_t first, bool serial, bool add)
{
    for (std::size_t pixel = 0; pixel < CHIP && first + pixel < matrix.size(); ++pixel) {
        unsigned value = add ? matrix[first + pixel] : 0U;
        for (std::size_t plane = 0; plane < 14; ++plane) {
            const auto [byte, bit] = place(pixel % 256, serial);
            value += (stream[offset + pixel / 256 * 448 + (13 - plane) * 32 + byte] >> bit & 1U) << plane;
        }
        matrix[first + pixel] = static_cast<unsigned short>(value);
    }
}

Bytes encoded(const Pixels& matrix, std::size_t outSize, bool serial)
{
    Guarded out(Bytes(outSize, 0xEE));
    serializeMpx2(matrix.data(), matrix.size(), out.values().data(), outSize, serial);
    Bytes bytes(out.values().begin(), out.values().end());
    EXPECT_TRUE(out.is(bytes));
    return bytes;
}

/// The beginning of one of the interleaved streams of a readout, with zeros for what the readout doesn't have.
Bytes takenApart(const Bytes& source, std::size_t streams, std::size_t stream, std::size_t size)
{
    Bytes own(size, 0);
    for (std::size_t i = 0; i < own.size() && streams * i + stream < source.size(); ++i)
        own[i] = source[streams * i + stream];
    return own;
}

/// A readout of interleaved streams, taken apart, decoded and converted one after the other.
Pixels oracleReadout(const Bytes& source, std::size_t streams, std::size_t chips, std::size_t lead, std::size_t pixels,
                     bool convert)
{
    Pixels matrix(pixels, 0);
    for (std::size_t stream = 0; stream < streams; ++stream) {
        const Bytes own = takenApart(source, streams, stream, chips * MPX2_STREAM_STRIDE + 1);
        for (std::size_t chip = 0; chip < chips; ++chip)
            oracleDecode(own, lead + chip * 114720, matrix, (stream * chips + chip) * CHIP, true, false);
    }
    if (convert)
        convertCountsMpx2(matrix.data(), matrix.size(), true);
    return matrix;
}

using Mpx2Matrix = KernelSets;

} // namespace

RUN_WITH_ALL_KERNELS(Mpx2Matrix);

TEST_P(Mpx2Matrix, DecodesAsFarAsStreamAndMatrixGo)
{
    constexpr std::size_t STRIDE = MPX2_STREAM_STRIDE;
    struct Case {
        std::size_t size, pixels, chips;
    };
    const Case cases[] = {{STRIDE - 1, CHIP, 0},         {STRIDE, CHIP, 1},           {3 * STRIDE, 3 * CHIP, 3},
                          {2 * STRIDE + 8, 2 * CHIP, 2}, {2 * STRIDE, CHIP + 300, 2}, {2 * STRIDE, 0, 2}};
    for (const Case& c : cases)
        for (const bool serial : {true, false}) {
            const Bytes stream = randomValues<unsigned char>(c.size);
            Pixels expected = randomValues<unsigned short>(c.pixels); // so that additions carry
            Guarded matrix(expected);
            for (std::size_t chip = 0; chip < c.chips; ++chip)
                oracleDecode(stream, (serial ? c.chips : 0) + chip * 114720, expected, chip * CHIP, serial, serial);
            EXPECT_EQ(deserializeMpx2(stream.data(), c.size, matrix.values().data(), c.pixels, serial),
                      static_cast<int>(c.chips));
            EXPECT_TRUE(matrix.is(expected)) << c.size << " bytes, " << c.pixels << " pixels, serial " << serial;
        }
}

TEST_P(Mpx2Matrix, DecodesInterleavedReadouts)
{
    for (const bool convert : {false, true})
        for (const std::size_t streams : {0U, 1U, 2U, 3U, 5U, 7U})
            for (const std::size_t chips : {1U, 2U}) {
                const std::size_t whole = streams * chips * CHIP;
                const Bytes source = randomValues<unsigned char>(mpx2ParallelReadout(streams * chips, streams).bytes);
                // A source and a matrix that end within a row, and a matrix that has more than the chips.
                for (const auto& [cut, pixels] : {std::pair{source.size() / 3, whole},
                                                  {source.size(), whole + 100},
                                                  {source.size(), whole / 2 + 77}}) {
                    const Bytes came = firstOf(source, cut);
                    Guarded matrix(randomValues<unsigned short>(pixels));
                    decodeMpx2Modules(came, streams, chips, matrix.values(), convert);
                    EXPECT_TRUE(matrix.is(oracleReadout(came, streams, chips, chips + 1, pixels, convert)))
                        << streams << " of " << chips << " chips, source " << cut << ", pixels " << pixels;
                }
                Guarded matrix(randomValues<unsigned short>(whole));
                decodeMpx2RowDevice(source, streams * chips, matrix.values(), convert);
                EXPECT_TRUE(matrix.is(oracleReadout(source, streams * chips, 1, 1, whole, convert)));
            }
}

TEST_P(Mpx2Matrix, EncodesWhatDecodingReads)
{
    constexpr std::size_t CHIPS = 2;
    const Pixels matrix = randomValues<unsigned short>(CHIPS * CHIP + 100); // what is no whole chip isn't sent
    Pixels cut(matrix.begin(), matrix.begin() + CHIPS * CHIP);
    for (unsigned short& pixel : cut)
        pixel &= 0x3FFF;
    for (const bool serial : {true, false}) {
        const std::size_t lead = serial ? 1 : 0;
        const std::size_t stride = serial ? 114720 : 114688;
        const Bytes whole = encoded(matrix, CHIPS * MPX2_STREAM_STRIDE, serial);
        Pixels back(CHIPS * CHIP, 0);
        for (std::size_t chip = 0; chip < CHIPS; ++chip)
            oracleDecode(whole, lead + chip * stride, back, chip * CHIP, serial, false);
        EXPECT_TRUE(back == cut) << "serial " << serial;
        const auto behindLast = std::span(whole).subspan(lead + 2 * stride - (serial ? 32 : 0));
        EXPECT_EQ(std::ranges::count(behindLast, 0), std::ssize(behindLast)) << "nothing stale is sent";
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{900}, stride + 500}) {
            const std::size_t wholeRows = size == 0 ? 0 : lead + size / stride * stride + size % stride / 448 * 448;
            Bytes part = firstOf(whole, wholeRows);
            part.resize(size, 0);
            EXPECT_TRUE(encoded(matrix, size, serial) == part) << size;
        }
    }
}

TEST(Mpx2Readout, ReadoutSizes)
{
    EXPECT_EQ(mpx2ModuleReadout(3).bytes, 344170U);
    const std::size_t extra[] = {9, 9, 3, 3, 3, 9};
    for (std::size_t perModule = 0; perModule < std::size(extra); ++perModule)
        EXPECT_EQ(mpx2ParallelReadout(3 * perModule + 2, 3).bytes % 114721, extra[perModule]) << perModule;
    EXPECT_EQ(mpx2ParallelReadout(3, 0).bytes, 344172U);
    EXPECT_EQ(mpx2ParallelReadout(1, 2).bits, 0xFFFFFFFEU);
    EXPECT_EQ(mpx2RowDeviceReadout(7).bytes, 803056U);
    EXPECT_EQ(mpx2TdiBlockSize(2, 4), 3610U);
}

TEST(Mpx2Readout, TailTellsOfMoreData)
{
    const Bytes data{0xAA, 0x55, 0xAA, 0xAA, 0x01, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_FALSE(mpx2TailOutOfStep({data.data(), 9})) << "too short to tell";
    EXPECT_FALSE(mpx2TailOutOfStep({data.data(), 10})) << "a frame's first byte";
    EXPECT_TRUE(mpx2TailOutOfStep({data.data(), 11}));
    EXPECT_FALSE(mpx2TailOutOfStep({data.data(), 12})) << "a frame's second byte";
}

TEST(Mpx2Readout, RowsOfRowDevices)
{
    const Bytes row = randomValues<unsigned char>(MPX2_SINGLE_ROW_READOUT.bytes);
    for (const std::size_t size : {449U, 500U, 1400U}) {
        Bytes stream = randomValues<unsigned char>(size);
        Bytes expected = firstOf(row, 449);
        expected.insert(expected.end(), stream.begin() + 1, stream.end() - 448);
        pushMpx2Row(stream, row);
        EXPECT_EQ(stream, expected);
        pushMpx2Row({stream.data(), 448}, row);
        pushMpx2Row(stream, {row.data(), 448});
        EXPECT_EQ(stream, expected) << "no row";
    }
    const Bytes block = randomValues<unsigned char>(mpx2TdiBlockSize(2, 3));
    for (const std::size_t came : {block.size(), std::size_t{13}})
        for (const std::size_t size : {7000U, 5000U, 100U}) { // rows 5 to 7 of two chips begin at byte 4482
            Bytes stream(size, 0xEE);
            Bytes expected = stream;
            for (std::size_t i = 0; i < 2688 && 4482 + i < size && 11 + i < came; ++i)
                expected[4482 + i] = block[11 + i];
            storeMpx2TdiBlock({block.data(), came}, 2, 3, 5, stream);
            EXPECT_EQ(stream, expected);
        }
}
