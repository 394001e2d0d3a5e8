// From paced links to the disk: does the recorder keep up with 1, 4 and 8 boards, and what does a frame cost?
//
// A link brings 40 MB/s of 12-bit counts in continuous mode, four chips a board; several boards make one wide frame.
// The counts are those of an open beam with noise. `share_of_link` is of the link's frames per second,
// `host_us_per_frame` and `host_us_per_mb` the processor's time for a frame and for a MB of counts without what the
// link itself takes, `uncompressed` the share of frames that were stored so to keep pace, `memory_mb` the most memory
// that the process had.
#include "record/deflate.h"
#include "record/framewriter.h"
#include "record/h5.h"
#include "refhost/host.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <sys/resource.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace {

constexpr unsigned CHIPS_A_BOARD = 4;
constexpr unsigned CHIP_PIXELS = 256 * 256;
constexpr double LINK_BYTES = 40e6; // a second
constexpr double BYTES_A_PIXEL = 1.5;
constexpr double MEAN_COUNT = 80;
constexpr unsigned PATTERNS = 8;
constexpr double SECONDS = 5;
constexpr std::size_t QUEUE_BYTES = std::size_t{256} << 20;

double linkFrames()
{
    return LINK_BYTES / (CHIPS_A_BOARD * CHIP_PIXELS * BYTES_A_PIXEL);
}

double seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

double processorTime()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double threadTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// The most memory since the last call of `forgetMemory`, in MB.
double memory()
{
    std::FILE* status = std::fopen("/proc/self/status", "r");
    std::array<char, 200> line{};
    double kilobytes = 0;
    while (status != nullptr && std::fgets(line.data(), line.size(), status) != nullptr)
        if (std::strncmp(line.data(), "VmHWM:", 6) == 0)
            kilobytes = std::atof(line.data() + 6);
    if (status != nullptr)
        std::fclose(status);
    return kilobytes / 1024;
}

void forgetMemory()
{
    if (std::FILE* file = std::fopen("/proc/self/clear_refs", "w"); file != nullptr) {
        std::fputs("5", file);
        std::fclose(file);
    }
}

std::vector<std::vector<std::uint32_t>> patterns(unsigned chips)
{
    std::mt19937 random(1);
    std::poisson_distribution<std::uint32_t> noise(MEAN_COUNT);
    std::vector<std::vector<std::uint32_t>> made(PATTERNS,
                                                 std::vector<std::uint32_t>(std::size_t{chips} * CHIP_PIXELS));
    for (auto& pattern : made)
        for (auto& count : pattern)
            count = noise(random);
    return made;
}

refhost::FramePtr frameOf(refhost::Host& host, const std::vector<std::uint32_t>& counts, unsigned chips)
{
    dv::IMpxFrame* made = host.frameFactory()->createFrame(256 * chips, 256, DTYPE_U32);
    std::memcpy(made->dataPointer(0), counts.data(), counts.size() * sizeof counts[0]);
    return refhost::adopt(made);
}

std::filesystem::path outputPath()
{
    return std::filesystem::temp_directory_path() / ("record_bench_" + std::to_string(getpid()) + ".h5");
}

/// Boards deliver frames to the disk for some seconds. The arguments are their number and the level of compression.
void recordBoards(benchmark::State& state)
{
    const auto boards = static_cast<unsigned>(state.range(0));
    const unsigned chips = boards * CHIPS_A_BOARD;
    const double megabytes = 4e-6 * chips * CHIP_PIXELS;
    const auto counts = patterns(chips);
    const auto frames = static_cast<unsigned>(linkFrames() * SECONDS);
    const std::chrono::duration<double> interval(1 / linkFrames());
    record::OutputOptions options{outputPath(), record::OutputFormat::Hdf5, static_cast<int>(state.range(1)), {}, {},
                                  true};
    record::SeriesInfo info;
    info.width = 256 * chips;
    info.height = 256;
    info.frames = frames;
    refhost::Host host("", "");
    forgetMemory();
    double feeding = 0;
    double elapsed = 0;
    record::WriterCounts done;
    const double before = processorTime();
    for ([[maybe_unused]] auto _ : state) {
        const std::shared_ptr<record::FrameSink> sink = record::makeSink(options);
        sink->begin(info);
        record::FrameWriter writer(sink, {chips, record::Layout::sideBySide(chips), record::Counting::Single, 4095},
                                   QUEUE_BYTES);
        const auto begin = std::chrono::steady_clock::now();
        std::thread link([&] {
            auto next = begin;
            for (unsigned i = 0; i < frames; ++i) {
                // As on a link in continuous mode: what was held up is not made up for.
                next = std::max(next + std::chrono::duration_cast<std::chrono::nanoseconds>(interval),
                                std::chrono::steady_clock::now());
                std::this_thread::sleep_until(next);
                writer.push({static_cast<long>(i), 0, 0, frameOf(host, counts[i % PATTERNS], chips)});
            }
            feeding += threadTime();
        });
        link.join();
        elapsed += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        writer.finish({"", "finished"});
        done = writer.counts();
        if (done.written != frames)
            state.SkipWithError("frames were dropped");
    }
    const double cpu = (processorTime() - before - feeding) / static_cast<double>(state.iterations()) / frames;
    const double rate = frames * static_cast<double>(state.iterations()) / elapsed;
    state.counters["frames_per_second"] = rate;
    state.counters["share_of_link"] = rate / linkFrames();
    state.counters["host_us_per_frame"] = cpu * 1e6;
    state.counters["host_us_per_mb"] = cpu * 1e6 / megabytes;
    state.counters["uncompressed"] = static_cast<double>(done.inHurry) / frames;
    state.counters["memory_mb"] = memory();
    std::filesystem::remove(options.path);
}

/// Our layout, shuffle and deflate of a frame on one core. The argument is the bits of a pixel in the file.
void ourFilter(benchmark::State& state)
{
    const auto counts = patterns(CHIPS_A_BOARD);
    refhost::Host host("", "");
    const auto frame = frameOf(host, counts[0], CHIPS_A_BOARD);
    const record::PictureMaker maker(CHIPS_A_BOARD, record::Layout::sideBySide(CHIPS_A_BOARD),
                                     record::Counting::Single);
    const record::PixelType type{static_cast<unsigned>(state.range(0)) / 8, true};
    std::size_t bytes = 0;
    for ([[maybe_unused]] auto _ : state) {
        record::PixelTally tally;
        const auto packed = maker.pack(*frame, type, tally);
        bytes = record::deflated(packed[0], 1).size();
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

/// The same by HDF5's own filters, behind our layout of 32-bit pictures, into a file in memory.
void ownFilter(benchmark::State& state)
{
    const auto counts = patterns(CHIPS_A_BOARD);
    refhost::Host host("", "");
    const auto frame = frameOf(host, counts[0], CHIPS_A_BOARD);
    const record::PictureMaker maker(CHIPS_A_BOARD, record::Layout::sideBySide(CHIPS_A_BOARD),
                                     record::Counting::Single);
    const record::h5::Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    record::h5::check(H5Pset_fapl_core(access, std::size_t{1} << 20, 0));
    const record::h5::Handle file(H5Fcreate("memory", H5F_ACC_TRUNC, H5P_DEFAULT, access), H5Fclose);
    const hid_t type = state.range(0) == 16 ? H5T_STD_U16LE : H5T_STD_U32LE;
    record::h5::Growing dataset(file, "data", type, {256, 256 * CHIPS_A_BOARD}, 1, 1);
    const hsize_t offset[] = {0, 0, 0};
    for ([[maybe_unused]] auto _ : state) {
        dataset.put(0, maker.make(*frame)[0].pixels.data(), H5T_NATIVE_UINT32);
        dataset.flush();
    }
    hsize_t bytes = 0;
    record::h5::check(H5Dget_chunk_storage_size(dataset.handle(), offset, &bytes));
    state.counters["bytes"] = static_cast<double>(bytes);
}

/// What a plain script with h5py makes of the same frames, as fast as it can.
void plainH5py(benchmark::State& state)
{
    const std::string command =
        "/usr/bin/python3 " RECORD_BENCH_SCRIPT " " + std::to_string(state.range(0)) + " " + outputPath().string();
    double rate = 0;
    double cpu = 0;
    for ([[maybe_unused]] auto _ : state) {
        std::FILE* output = popen(command.c_str(), "r");
        if (output == nullptr || std::fscanf(output, "%lf %lf", &rate, &cpu) != 2)
            state.SkipWithError("python3-h5py is not there");
        if (output != nullptr)
            pclose(output);
    }
    state.counters["frames_per_second"] = rate;
    state.counters["share_of_link"] = std::min(1.0, rate / linkFrames());
    state.counters["host_us_per_frame"] = cpu * 1e6;
    state.counters["host_us_per_mb"] =
        cpu * 1e6 / (4e-6 * static_cast<double>(state.range(0)) * CHIPS_A_BOARD * CHIP_PIXELS);
}

} // namespace

BENCHMARK(recordBoards)
    ->ArgNames({"boards", "level"})
    ->Args({1, 1})
    ->Args({4, 1})
    ->Args({8, 1})
    ->Args({4, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(plainH5py)->ArgName("boards")->Arg(1)->Arg(4)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ourFilter)->ArgName("bits")->Arg(16)->Arg(32)->Unit(benchmark::kMillisecond);
BENCHMARK(ownFilter)->ArgName("bits")->Arg(16)->Arg(32)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
