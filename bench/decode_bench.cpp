// The matrix kernels beside what they are measured against, in one process on one core: a copy of as many bytes as go
// in and come out, the form that goes bit by bit, and the form with tables. The forms of a path run in turn, round
// after round, and the medians count, so that what else the machine does meets all of them alike.
//
// decode_bench [--benchmark_filter=REGEX] [--benchmark_out=FILE]: the paths whose names match; prints their results
// line by line, or writes them to FILE as JSON.
#include "bench/naiveforms.h"
#include "bench/streambench.h"
#include "bench/tableforms.h"
#include "chipdata/kernels/kernels.h"
#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2matrix.h"
#include "chipdata/mpx3counters.h"
#include "chipdata/mpx3matrix.h"

#include <nlohmann/json.hpp>

#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

namespace {

using streambench::randomBytes;
using streambench::randomValues;

constexpr std::size_t MPX2_CHIP = MPX2_CHIP_PIXELS;
constexpr std::size_t MPX3_CHIP = MPX3_CHIP_PIXELS;

/// A way through the streams, in all its forms.
struct Path {
    std::string name;
    std::size_t bytes; ///< that go in and come out
    std::function<void()> naive;
    std::function<void()> table;
    std::function<void()> kernels; ///< runs with whatever set of kernels is in use
};

/// Makes the compiler run what it is to time.
template <class T>
void seen(std::vector<T>& values)
{
    benchmark::DoNotOptimize(values.data());
    benchmark::ClobberMemory();
}

/// Modules of one chip each, read at once as the device reads them; one module alone stands for a single chip.
Path mpx2Decode(std::size_t modules, bool convert)
{
    const auto source = randomBytes(mpx2ParallelReadout(modules, modules).bytes);
    const auto matrix = std::make_shared<std::vector<unsigned short>>(modules * MPX2_CHIP);
    const auto clear = [matrix] { std::memset(matrix->data(), 0, matrix->size() * sizeof(unsigned short)); };
    const auto finish = [matrix, convert] {
        if (convert)
            convertCountsMpx2(matrix->data(), matrix->size(), true);
        seen(*matrix);
    };
    Path path;
    path.name = "mpx2/decode" + std::string(convert ? "+convert" : "") + "/" + std::to_string(modules) +
                (modules == 1 ? "chip" : "modules");
    path.bytes = modules * (MPX2_PARALLEL_SIZE + MPX2_CHIP * sizeof(unsigned short));
    path.naive = [=] {
        clear();
        for (std::size_t module = 0; module < modules; ++module)
            naive::decodeMpx2(&source[2 * modules + module], modules, true, &(*matrix)[module * MPX2_CHIP]);
        finish();
    };
    path.table = [=, scratch = std::vector<unsigned char>(MPX2_STREAM_STRIDE + 1)]() mutable {
        clear();
        for (std::size_t module = 0; module < modules; ++module) {
            if (modules > 1)
                deinterleaveMpx2(source, modules, module, scratch);
            tables::decodeMpx2(modules > 1 ? &scratch[2] : &source[2], true, &(*matrix)[module * MPX2_CHIP]);
        }
        finish();
    };
    path.kernels = [=] {
        decodeMpx2Modules(source, modules, 1, *matrix, convert);
        seen(*matrix);
    };
    return path;
}

Path mpx2DecodeParallel()
{
    const auto source = randomBytes(MPX2_PARALLEL_SIZE);
    const auto matrix = std::make_shared<std::vector<unsigned short>>(MPX2_CHIP);
    const auto clear = [matrix] { std::memset(matrix->data(), 0, matrix->size() * sizeof(unsigned short)); };
    Path path{"mpx2/decode/parallel", MPX2_PARALLEL_SIZE + MPX2_CHIP * sizeof(unsigned short), {}, {}, {}};
    path.naive = [=] {
        clear();
        naive::decodeMpx2(source.data(), 1, false, matrix->data());
        seen(*matrix);
    };
    path.table = [=] {
        clear();
        tables::decodeMpx2(source.data(), false, matrix->data());
        seen(*matrix);
    };
    path.kernels = [=] {
        deserializeSingleMpx2Parallel(source.data(), matrix->data());
        seen(*matrix);
    };
    return path;
}

Path mpx2Encode(bool serial)
{
    const auto matrix = randomValues<unsigned short>(MPX2_CHIP, 1U << MPX2_PLANES);
    const auto out = std::make_shared<std::vector<unsigned char>>(MPX2_SERIAL_SIZE);
    Path path{std::string("mpx2/encode/") + (serial ? "serial" : "parallel"),
              MPX2_PARALLEL_SIZE + MPX2_CHIP * sizeof(unsigned short),
              {},
              {},
              {}};
    path.naive = [=] {
        naive::encodeMpx2(matrix.data(), serial, out->data());
        seen(*out);
    };
    path.table = [=] {
        tables::encodeMpx2(matrix.data(), serial, out->data());
        seen(*out);
    };
    path.kernels = [=] {
        (serial ? serializeSingleMpx2 : serializeSingleMpx2Parallel)(matrix.data(), out->data());
        seen(*out);
    };
    return path;
}

template <unsigned planes>
Path mpx3Decode(std::size_t channels, bool both, bool convert)
{
    Mpx3StreamShape shape;
    shape.omr.CountL = static_cast<unsigned char>(both ? 3 : planes == 1 ? 0 : planes == 6 ? 1 : 2);
    shape.channels = static_cast<int>(channels);
    const int counters = both ? 2 : 1;
    const unsigned char depth = shape.omr.bitsCount();
    const auto source =
        std::make_shared<std::vector<unsigned char>>(randomBytes(mpx3ReadSize(shape.omr, false, shape.channels, both)));
    const unsigned char* first = source->data() + 3 * channels;
    const unsigned char* second = first + source->size() / 2;
    const auto matrix = std::make_shared<std::vector<unsigned>>(channels * MPX3_CHIP);
    const auto clear = [matrix] { std::memset(matrix->data(), 0, matrix->size() * sizeof(unsigned)); };
    const auto finish = [=] {
        if (convert)
            convertCountsMpx3(matrix->data(), matrix->size(), depth, true, true);
        seen(*matrix);
    };
    Path path;
    path.name = "mpx3/decode" + std::string(convert ? "+convert" : "") + "/" + std::to_string(depth) + "bit/" +
                std::to_string(channels) + "ch";
    path.bytes = channels * ((both ? 2 : 1) * planes * MPX3_CHIP / 8 + MPX3_CHIP * sizeof(unsigned));
    path.naive = [=] {
        clear();
        naive::decodeMpx3(first, channels, planes, both ? 12 : 0, matrix->data());
        if (both)
            naive::decodeMpx3(second, channels, planes, 0, matrix->data());
        finish();
    };
    path.table = [=] {
        clear();
        tables::decodeMpx3<planes>(first, channels, both ? 12 : 0, matrix->data());
        if (both)
            tables::decodeMpx3<planes>(second, channels, 0, matrix->data());
        finish();
    };
    path.kernels = [=] {
        decodeMpx3MatrixStream(shape, *source, source->size(), *matrix, matrix->size(), counters, convert);
        seen(*matrix);
    };
    return path;
}

Path mpx3Encode()
{
    const auto matrix = randomValues<unsigned>(MPX3_CHIP, 1U << MPX3_COUNTER_BITS);
    const auto out = std::make_shared<std::vector<unsigned char>>(MPX3_MATRIX_STREAM_SIZE);
    Path path{"mpx3/encode", MPX3_MATRIX_STREAM_SIZE + MPX3_CHIP * sizeof(unsigned), {}, {}, {}};
    path.naive = [=] {
        naive::encodeMpx3(matrix.data(), out->data());
        seen(*out);
    };
    path.table = [=] {
        tables::encodeMpx3(matrix.data(), out->data());
        seen(*out);
    };
    path.kernels = [=] {
        serializeMpx3(matrix.data(), matrix.size(), out->data(), out->size(), true, false);
        seen(*out);
    };
    return path;
}

/// Makes every path in turn, so that only the buffers of one are in memory, and hands it to `visit`.
void forEachPath(const std::function<void(const Path&)>& visit)
{
    constexpr std::size_t MOST = 5; // modules or channels
    for (const bool convert : {false, true})
        for (std::size_t modules = 1; modules <= MOST; ++modules)
            visit(mpx2Decode(modules, convert));
    visit(mpx2DecodeParallel());
    for (const bool serial : {true, false})
        visit(mpx2Encode(serial));
    for (const bool convert : {false, true})
        for (std::size_t channels = 1; channels <= MOST; ++channels) {
            if (!convert)
                visit(mpx3Decode<1>(channels, false, false));
            visit(mpx3Decode<6>(channels, false, convert));
            visit(mpx3Decode<12>(channels, false, convert));
            visit(mpx3Decode<12>(channels, true, convert));
        }
    visit(mpx3Encode());
}

/// Microseconds that this thread has run. What others do on the core in between doesn't count.
double threadTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/// Microseconds of one run of `form`, over as many as fill a quarter of a millisecond.
double burst(const std::function<void()>& form)
{
    const double start = threadTime();
    double taken = 0;
    int runs = 0;
    do {
        form();
        ++runs;
        taken = threadTime() - start;
    } while (taken < 250.0);
    return taken / runs;
}

/// The best of a few bursts, which the other half of a shared core disturbs least.
double timeOf(const std::function<void()>& form)
{
    constexpr int BURSTS = 5;
    form(); // brings its own data into the caches
    double best = burst(form);
    for (int i = 1; i < BURSTS; ++i)
        best = std::min(best, burst(form));
    return best;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

nlohmann::ordered_json measure(const Path& path)
{
    constexpr int ROUNDS = 9;
    const std::vector<unsigned char> from = randomBytes(path.bytes);
    std::vector<unsigned char> to(path.bytes);
    const auto with = [&path](kernels::InstructionSet set) {
        return [&path, set] {
            kernels::use(set);
            path.kernels();
        };
    };
    std::vector<std::pair<std::string, std::function<void()>>> forms = {
        {"memcpy",
         [&] {
             std::memcpy(to.data(), from.data(), to.size());
             seen(to);
         }},
        {"naive", path.naive},
        {"table", path.table},
        {"baseline", with(kernels::InstructionSet::Baseline)},
    };
    if (kernels::supported(kernels::InstructionSet::Avx2))
        forms.emplace_back("avx2", with(kernels::InstructionSet::Avx2));
    std::vector<std::vector<double>> times(forms.size());
    for (int round = 0; round < ROUNDS; ++round)
        for (std::size_t i = 0; i < forms.size(); ++i)
            times[i].push_back(timeOf(forms[i].second));
    nlohmann::ordered_json result = {{"name", path.name}, {"bytes", path.bytes}};
    for (std::size_t i = 0; i < forms.size(); ++i)
        result["us"][forms[i].first] = median(times[i]);
    return result;
}

/// Keeps the program on the core that it runs on.
void pin()
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<std::size_t>(std::max(sched_getcpu(), 0)), &cpus);
    sched_setaffinity(0, sizeof(cpus), &cpus);
}

std::string argument(int argc, char** argv, std::string_view name)
{
    for (int i = 1; i < argc; ++i)
        if (const std::string_view given = argv[i]; given.starts_with(name))
            return std::string(given.substr(name.size()));
    return {};
}

} // namespace

int main(int argc, char** argv)
{
    const std::regex filter(argument(argc, argv, "--benchmark_filter="));
    const std::string out = argument(argc, argv, "--benchmark_out=");
    pin();
    nlohmann::ordered_json results = nlohmann::ordered_json::array();
    forEachPath([&](const Path& path) {
        if (!std::regex_search(path.name, filter))
            return;
        results.push_back(measure(path));
        if (out.empty())
            std::printf("%s\n", results.back().dump().c_str());
    });
    if (!out.empty())
        std::ofstream(out) << nlohmann::ordered_json{{"paths", results}}.dump(2) << "\n";
    return 0;
}
