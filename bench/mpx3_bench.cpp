// Throughput of the Medipix3 streams: decoding and encoding matrices, converting counts, building register images and
// DAC records. Each stands beside a copy of the same number of stream bytes, which no decoder can beat.
#include "bench/streambench.h"
#include "chipdata/mpx3counters.h"
#include "chipdata/mpx3dacs.h"
#include "chipdata/mpx3matrix.h"
#include "chipdata/mpx3omr.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace streambench;

std::vector<unsigned> randomCounts(std::size_t pixels, unsigned depth)
{
    std::mt19937 random(1);
    std::vector<unsigned> counts(pixels);
    for (unsigned& count : counts)
        count = static_cast<unsigned>(random()) & ((1U << depth) - 1);
    return counts;
}

/// A readout as the device makes it: `countL` selects the depth, and a 24-bit depth reads both counters.
struct Readout {
    Mpx3StreamShape shape;
    int counters;
    std::vector<unsigned char> stream;

    Readout(unsigned char countL, int channels) : counters(countL == 3 ? 2 : 1)
    {
        shape.omr.CountL = countL;
        shape.channels = channels;
        stream = randomBytes(mpx3ReadSize(shape.omr, false, channels, counters == 2));
    }
};

/// With `convert` a run is all that a frame costs its reader: clearing the matrix, decoding, and turning states to
/// counts.
void decode(benchmark::State& state, unsigned char countL, int channels, bool convert)
{
    const Readout readout(countL, channels);
    std::vector<unsigned> matrix(static_cast<std::size_t>(channels) * MPX3_CHIP_PIXELS);
    for ([[maybe_unused]] auto _ : state) {
        if (convert)
            std::memset(matrix.data(), 0, matrix.size() * sizeof(unsigned));
        convertMpx3MatrixStream(readout.shape, readout.stream, readout.stream.size(), matrix, matrix.size(),
                                readout.counters, convert);
        benchmark::ClobberMemory();
    }
    setBytes(state, readout.stream.size());
}

void decodeTdi(benchmark::State& state, int channels)
{
    Mpx3StreamShape shape;
    shape.omr.RowBlockSel = 1;
    const std::size_t record = mpx3TdiRecordSize(shape.omr, false, channels, false);
    const std::vector<unsigned char> stream = randomBytes(record * MPX3_SIDE);
    std::vector<unsigned> matrix(static_cast<std::size_t>(channels) * MPX3_CHIP_PIXELS);
    for ([[maybe_unused]] auto _ : state) {
        deserializeMpx3Tdi(stream.data(), matrix.data(), MPX3_COUNTER_BITS, 0, 0, 0, 1, true, channels);
        benchmark::ClobberMemory();
    }
    setBytes(state, stream.size());
}

void encode(benchmark::State& state, bool lowCounter)
{
    const std::vector<unsigned> matrix = randomCounts(MPX3_CHIP_PIXELS, 28);
    std::vector<unsigned char> stream(MPX3_MATRIX_STREAM_SIZE);
    for ([[maybe_unused]] auto _ : state) {
        serializeMpx3(matrix.data(), matrix.size(), stream.data(), stream.size(), lowCounter, false);
        benchmark::ClobberMemory();
    }
    setBytes(state, stream.size());
}

/// Bytes are those of the matrix here. Counts and states are both below the limit, so that a run may convert what the
/// run before it left.
void convertCounts(benchmark::State& state, unsigned char depth)
{
    std::vector<unsigned> matrix = randomCounts(MPX3_CHIP_PIXELS, depth);
    for ([[maybe_unused]] auto _ : state) {
        convertCountsMpx3(matrix.data(), matrix.size(), depth, true, true);
        benchmark::ClobberMemory();
    }
    setBytes(state, matrix.size() * sizeof(unsigned));
}

void buildOmr(benchmark::State& state)
{
    OMR omr;
    std::array<unsigned char, MPX3_OMR_SIZE> image;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(omr);
        omr.bytes(image.data());
        benchmark::DoNotOptimize(image);
    }
    setBytes(state, image.size());
}

void buildDacRecord(benchmark::State& state)
{
    std::array<unsigned short, MPX3_DAC_COUNT> dacs;
    dacs.fill(0x0A5);
    std::array<unsigned char, MPX3_DAC_RECORD_SIZE> record;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(dacs);
        fillMpx3DacRecord(dacs.data(), record.data());
        benchmark::DoNotOptimize(record);
    }
    setBytes(state, record.size());
}

constexpr unsigned char COUNTL[] = {0, 1, 2, 3};
constexpr unsigned char CONVERTED_DEPTHS[] = {6, 12, 24};
constexpr int CHANNELS[] = {1, 4, 5};

void addAll()
{
    for (const unsigned char countL : COUNTL)
        for (const int channels : CHANNELS) {
            const Readout readout(countL, channels);
            const std::string shape =
                std::to_string(readout.shape.omr.bitsCount()) + "bit/" + std::to_string(channels) + "ch";
            add("decode/" + shape, decode, countL, channels, false);
            add("decode+convert/" + shape, decode, countL, channels, true);
            add("memcpy/" + shape, copyBytes, readout.stream.size());
        }
    for (const int channels : CHANNELS)
        add("decodeTdi/12bit/" + std::to_string(channels) + "ch", decodeTdi, channels);
    add("encode/low", encode, true);
    add("encode/high", encode, false);
    add("memcpy/encode", copyBytes, MPX3_MATRIX_STREAM_SIZE);
    for (const unsigned char depth : CONVERTED_DEPTHS)
        add("convertCounts/" + std::to_string(depth) + "bit", convertCounts, depth);
    add("memcpy/convertCounts", copyBytes, MPX3_CHIP_PIXELS * sizeof(unsigned));
    add("omrImage", buildOmr);
    add("memcpy/omrImage", copyBytes, MPX3_OMR_SIZE);
    add("dacRecord", buildDacRecord);
    add("memcpy/dacRecord", copyBytes, MPX3_DAC_RECORD_SIZE);
}

} // namespace

int main(int argc, char** argv)
{
    return streambench::run(argc, argv, addAll);
}
