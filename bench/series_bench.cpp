// Whole series on free-running virtual boards: frames per second from `startAcquisition` to the last `lastData`, with
// exposures so short that link, decoding and hand-over are what is measured. Each stands beside a copy of the bytes
// that its frames take on the wire.
#include "bench/streambench.h"
#include "chipdata/mpx3matrix.h"
#include "plugin/latixel.h"
#include "refhost/host.h"
#include "refhost/plugin.h"
#include "refhost/series.h"
#include "sim/latixelsim.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned FRAMES = 100;
constexpr unsigned TDI_FRAMES = 4;
constexpr double EXPOSURE = 1e-5;     // seconds
constexpr double TDI_EXPOSURE = 2e-3; // seconds of 256 rows

enum class Mode { Normal, Continuous, Tdi };

nlohmann::json bench(int channels)
{
    nlohmann::json chips = nlohmann::json::array();
    for (int c = 0; c < channels; ++c)
        chips.push_back({"A0" + std::to_string(c) + "-W0001"});
    const nlohmann::json board = {{"kind", "mpx3"},
                                  {"description", "Latixel Latixel M3WA sn: 1 A"},
                                  {"channels", chips},
                                  {"link", {{"rate_mb_s", 0}}}};
    return {{"boards", {board}}, {"scene", {{"kind", "gradient"}, {"flux", 1e6}, {"noise", false}}}};
}

/// A virtual board with the plug-in on it, brought up. Folder and board go with the object.
class Detector {
public:
    explicit Detector(int channels)
        : folder(std::filesystem::temp_directory_path() / ("latixel_bench_" + std::to_string(getpid())))
    {
        std::filesystem::create_directories(folder);
        std::ofstream(folder / "latixel.ini") << "[Settings]\n";
        sim::loadBench(bench(channels));
        host = std::make_unique<refhost::Host>(folder, folder);
        plugin = std::make_unique<refhost::Plugin>(*host, &library);
        plugin->open();
        if (plugin->devices().empty())
            throw std::runtime_error("no device");
        device().status(); // the log goes to MSG, as with a host that polls
    }
    ~Detector()
    {
        plugin.reset();
        sim::clearBus();
        std::filesystem::remove_all(folder);
    }

    refhost::Device& device() { return *plugin->devices().front(); }

    void configure(Mode mode, unsigned char depth)
    {
        device().setConfig({depth, 0, 0, 0, 1, static_cast<unsigned char>(mode == Mode::Continuous), 0, 0, 1, 0, 0});
        device().setAcqMode(mode == Mode::Tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
    }

private:
    std::filesystem::path folder;
    HwLatixel::HwLib library;
    std::unique_ptr<refhost::Host> host;
    std::unique_ptr<refhost::Plugin> plugin;
};

std::size_t frameBytes(int channels, Mode mode, unsigned char depth)
{
    OMR omr;
    omr.CountL = depth;
    if (mode != Mode::Tdi)
        return mpx3ReadSize(omr, false, channels, depth == 3);
    omr.RowBlockSel = 1;
    return mpx3TdiRecordSize(omr, false, channels, depth == 3) * MPX3_SIDE;
}

void series(benchmark::State& state, int channels, Mode mode, unsigned char depth)
{
    Detector detector(channels);
    detector.configure(mode, depth);
    refhost::SeriesRequest request;
    request.frames = mode == Mode::Tdi ? TDI_FRAMES : FRAMES;
    request.seconds = mode == Mode::Tdi ? TDI_EXPOSURE : EXPOSURE;
    double seconds = 0;
    unsigned frames = 0;
    for (auto _ : state) {
        double last = 0;
        const auto begin = std::chrono::steady_clock::now();
        const auto result = refhost::runSeries(detector.device(), request, [&](const refhost::SeriesFrame&) {
            last = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        });
        if (result.end != refhost::SeriesEnd::Finished || result.frames != request.frames) {
            state.SkipWithError(("series ended early: " + result.error).c_str());
            return;
        }
        state.SetIterationTime(last);
        seconds += last;
        frames += result.frames;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(frames * frameBytes(channels, mode, depth)));
    state.counters["frames_per_second"] = frames / seconds;
}

void addShape(const std::string& what, int channels, Mode mode, unsigned char depth)
{
    const std::string shape = what + "/" + std::to_string(channels) + "ch";
    streambench::add("series/" + shape, series, channels, mode, depth)
        ->UseManualTime()
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond);
    const unsigned frames = mode == Mode::Tdi ? TDI_FRAMES : FRAMES;
    streambench::add("memcpy/" + shape, streambench::copyBytes, frames * frameBytes(channels, mode, depth))
        ->Unit(benchmark::kMillisecond);
}

void addAll()
{
    for (const int channels : {1, 4, 5}) {
        addShape("normal-12bit", channels, Mode::Normal, 2);
        addShape("normal-24bit", channels, Mode::Normal, 3);
        addShape("continuous-12bit", channels, Mode::Continuous, 2);
    }
    addShape("tdi-12bit", 5, Mode::Tdi, 2);
}

} // namespace

int main(int argc, char** argv)
{
    return streambench::run(argc, argv, addAll);
}
