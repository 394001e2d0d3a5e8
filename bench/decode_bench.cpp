// The matrix kernels beside what they are measured against, in one process on one core: a copy of as many bytes as go
// in and come out, the form that goes bit by bit, and the form with tables. The forms of a path run in turn, and all
// paths round after round; the medians count, of the ratios within a round too. So what else the machine does meets all
// forms alike, and a disturbance that lasts for seconds meets but a few rounds of each path.
//
// decode_bench [--benchmark_filter=REGEX] [--benchmark_out=FILE]: the paths whose names match; prints their results
// line by line, or writes them to FILE as JSON. For each form: microseconds, the ratio to the copy, and how many times
// as fast as bit by bit it is.
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
#include <exception>
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
    path.bytes = channels * (MPX3_CHIP * planes * (both ? 2 : 1) / 8 + MPX3_CHIP * sizeof(unsigned));
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

using Form = std::pair<std::string, std::function<void()>>;

constexpr std::size_t COPY = 0; // places in formsOf
constexpr std::size_t NAIVE = 1;

/// A path's forms by name, beside a copy from `from` to `to`.
std::vector<Form> formsOf(const Path& path, const std::vector<unsigned char>& from, std::vector<unsigned char>& to)
{
    const auto with = [&path](kernels::InstructionSet set) {
        return [&path, set] {
            kernels::use(set);
            path.kernels();
        };
    };
    std::vector<Form> forms = {
        {"memcpy",
         [&from, &to] {
             std::memcpy(to.data(), from.data(), to.size());
             seen(to);
         }},
        {"naive", path.naive},
        {"table", path.table},
        {"baseline", with(kernels::InstructionSet::Baseline)},
    };
    if (kernels::supported(kernels::InstructionSet::Avx2))
        forms.emplace_back("avx2", with(kernels::InstructionSet::Avx2));
    return forms;
}

/// What was measured of a path.
class Results {
public:
    explicit Results(const Path& path) : name(path.name), bytes(path.bytes) {}

    /// Runs all forms of the path once more.
    void addRound(const Path& path)
    {
        const std::vector<unsigned char> from = randomBytes(path.bytes);
        std::vector<unsigned char> to(path.bytes);
        const std::vector<Form> forms = formsOf(path, from, to);
        times.resize(forms.size());
        for (std::size_t i = 0; i < forms.size(); ++i) {
            times[i].form = forms[i].first;
            times[i].us.push_back(timeOf(forms[i].second));
        }
    }

    nlohmann::ordered_json json() const
    {
        nlohmann::ordered_json result = {{"name", name}, {"bytes", bytes}};
        for (const Times& form : times)
            result["forms"][form.form] = {{"us", median(form.us)},
                                          {"ratio", medianRatio(form.us, times[COPY].us)},
                                          {"speedup", medianRatio(times[NAIVE].us, form.us)}};
        return result;
    }

private:
    struct Times {
        std::string form;
        std::vector<double> us; ///< of each round
    };

    std::string name;
    std::size_t bytes;
    std::vector<Times> times;

    /// The median of the ratios of times of the same rounds.
    static double medianRatio(std::vector<double> times, const std::vector<double>& to)
    {
        std::transform(times.begin(), times.end(), to.begin(), times.begin(), std::divides<>());
        return median(std::move(times));
    }
};

/// Measures the paths whose names match.
std::vector<Results> measure(const std::regex& filter)
{
    constexpr int ROUNDS = 9;
    std::vector<Results> results;
    for (int round = 0; round < ROUNDS; ++round) {
        std::size_t next = 0;
        forEachPath([&](const Path& path) {
            if (!std::regex_search(path.name, filter))
                return;
            if (round == 0)
                results.emplace_back(path);
            results[next++].addRound(path);
        });
    }
    return results;
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
try {
    const std::regex filter(argument(argc, argv, "--benchmark_filter="));
    const std::string out = argument(argc, argv, "--benchmark_out=");
    pin();
    nlohmann::ordered_json paths = nlohmann::ordered_json::array();
    for (const Results& path : measure(filter)) {
        paths.push_back(path.json());
        if (out.empty())
            std::printf("%s\n", paths.back().dump().c_str());
    }
    if (!out.empty())
        std::ofstream(out) << nlohmann::ordered_json{{"paths", paths}}.dump(2) << "\n";
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "decode_bench: %s\n", error.what());
    return 1;
}
