// Throughput of the Medipix2 and Timepix streams: decoding and encoding matrices, taking interleaved modules apart,
// converting counts. Each stands beside a copy of the same number of bytes, which no decoder can beat.
#include "bench/streambench.h"
#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2dacs.h"
#include "chipdata/mpx2matrix.h"
#include "chipdata/mpx2pixelcfg.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace streambench;

/// Clears the matrix as a reader does; with `convert` as the host gets it.
void decode(benchmark::State& state, bool serial, bool convert)
{
    const std::vector<unsigned char> stream = randomBytes(MPX2_STREAM_STRIDE);
    std::vector<unsigned short> matrix(MPX2_CHIP_PIXELS);
    for ([[maybe_unused]] auto _ : state) {
        std::memset(matrix.data(), 0, matrix.size() * sizeof(unsigned short));
        deserializeMpx2(stream.data(), stream.size(), matrix.data(), matrix.size(), serial);
        if (convert)
            convertCountsMpx2(matrix.data(), matrix.size(), true);
        benchmark::ClobberMemory();
    }
    setBytes(state, stream.size());
}

void encode(benchmark::State& state, bool serial)
{
    const std::vector<unsigned short> matrix = randomValues<unsigned short>(MPX2_CHIP_PIXELS, 1U << MPX2_PLANES);
    std::vector<unsigned char> stream(MPX2_STREAM_STRIDE);
    for ([[maybe_unused]] auto _ : state) {
        serializeMpx2(matrix.data(), matrix.size(), stream.data(), stream.size(), serial);
        benchmark::ClobberMemory();
    }
    setBytes(state, stream.size());
}

/// A frame of modules with one chip each, read at once. Bytes are those of the interleaved stream.
void takeApart(benchmark::State& state, std::size_t modules, bool decodeToo)
{
    const std::vector<unsigned char> source = randomBytes(mpx2ParallelReadout(modules, modules).bytes);
    std::vector<unsigned char> scratch(MPX2_STREAM_STRIDE + 1);
    std::vector<unsigned short> matrix(modules * MPX2_CHIP_PIXELS);
    for ([[maybe_unused]] auto _ : state) {
        if (decodeToo)
            std::memset(matrix.data(), 0, matrix.size() * sizeof(unsigned short));
        for (std::size_t module = 0; module < modules; ++module) {
            deinterleaveMpx2(source, modules, module, scratch);
            if (decodeToo)
                deserializeMpx2(scratch.data() + 1, scratch.size() - 1, &matrix[module * MPX2_CHIP_PIXELS],
                                MPX2_CHIP_PIXELS, true);
            benchmark::ClobberMemory();
        }
    }
    setBytes(state, source.size());
}

/// Bytes are those of the matrix. The values are refilled by a copy, since a conversion leaves others than it took.
void convertCounts(benchmark::State& state, bool pseudoToCount)
{
    std::vector<unsigned short> counts = randomValues<unsigned short>(MPX2_CHIP_PIXELS, MPX2_COUNTS);
    if (pseudoToCount)
        convertCountsMpx2(counts.data(), counts.size(), false);
    std::vector<unsigned short> matrix(counts.size());
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(matrix.data(), counts.data(), counts.size() * sizeof(unsigned short));
        convertCountsMpx2(matrix.data(), matrix.size(), pseudoToCount);
        benchmark::ClobberMemory();
    }
    setBytes(state, matrix.size() * sizeof(unsigned short));
}

/// Bytes are those of the words made.
void convertPixelCfg(benchmark::State& state)
{
    const std::vector<unsigned char> cfg = randomBytes(MPX2_CHIP_PIXELS);
    std::vector<unsigned short> matrix(cfg.size());
    for ([[maybe_unused]] auto _ : state) {
        pixelCfgToMatrixMpx2(cfg.data(), cfg.size(), true, matrix.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, matrix.size() * sizeof(unsigned short));
}

void buildDacStream(benchmark::State& state)
{
    std::array<unsigned short, MPX2_TPX_DAC_COUNT> dacs;
    dacs.fill(0x0A5);
    std::array<unsigned char, MPX2_DAC_STREAM_SIZE> stream;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(dacs);
        dacsToStreamTPX(dacs.data(), stream.data(), 1, 0, 5, 0, 0xFF);
        benchmark::DoNotOptimize(stream);
    }
    setBytes(state, stream.size());
}

constexpr std::size_t MODULES[] = {2, 3, 4, 5};

void addAll()
{
    for (const bool serial : {true, false}) {
        const std::string form = serial ? "serial" : "parallel";
        add("decode/" + form, decode, serial, false);
        add("decode+convert/" + form, decode, serial, true);
        add("encode/" + form, encode, serial);
    }
    add("memcpy/chip", copyBytes, MPX2_STREAM_STRIDE);
    for (const std::size_t modules : MODULES) {
        const std::string shape = std::to_string(modules) + "modules";
        add("deinterleave/" + shape, takeApart, modules, false);
        add("deinterleave+decode/" + shape, takeApart, modules, true);
        add("memcpy/" + shape, copyBytes, mpx2ParallelReadout(modules, modules).bytes);
    }
    add("convertCounts/toCount", convertCounts, true);
    add("convertCounts/toPseudo", convertCounts, false);
    add("pixelCfg", convertPixelCfg);
    add("memcpy/matrix", copyBytes, MPX2_CHIP_PIXELS * sizeof(unsigned short));
    add("dacStream", buildDacStream);
    add("memcpy/dacStream", copyBytes, MPX2_DAC_STREAM_SIZE);
}

} // namespace

int main(int argc, char** argv)
{
    return streambench::run(argc, argv, addAll);
}
