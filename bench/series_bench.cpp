// Whole series on free-running virtual boards: frames per second from `startAcquisition` to the last `lastData`, with
// exposures so short that link, decoding and hand-over are what is measured. Each stands beside a copy of the bytes
// that its frames take on the wire. Composites show how the cost of a frame grows with the members.
#include "bench/streambench.h"
#include "chipdata/mpx2matrix.h"
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
#include <functional>
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

/// What is measured: a series on a board, or on a composite of several.
struct Run { // NOLINT(bugprone-exception-escape): moving JSON checks itself, and would throw only if it were broken
    nlohmann::json boards = nlohmann::json::array();
    std::function<void(refhost::Device&)> configure;
    unsigned frames = FRAMES;
    double exposure = EXPOSURE;
    std::size_t frameBytes = 0; ///< on the wire
};

nlohmann::json bench(const nlohmann::json& boards)
{
    return {{"boards", boards}, {"scene", {{"kind", "gradient"}, {"flux", 1e6}, {"noise", false}}}};
}

/// Identifiers of `chips` chips on each of `rows` channels or modules.
nlohmann::json chipGrid(int rows, int chips)
{
    nlohmann::json grid = nlohmann::json::array();
    for (int row = 0; row < rows; ++row) {
        grid.push_back(nlohmann::json::array());
        for (int chip = 0; chip < chips; ++chip)
            grid.back().push_back(std::string(1, static_cast<char>('A' + chip)) + "0" + std::to_string(row) + "-W0001");
    }
    return grid;
}

/// Virtual boards with the plug-in on them, brought up. Folder and boards go with the object.
class Detector {
public:
    explicit Detector(const nlohmann::json& boards)
        : folder(std::filesystem::temp_directory_path() / ("latixel_bench_" + std::to_string(getpid())))
    {
        std::filesystem::create_directories(folder);
        std::ofstream(folder / "latixel.ini") << "[Settings]\n";
        sim::loadBench(bench(boards));
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

private:
    std::filesystem::path folder;
    HwLatixel::HwLib library;
    std::unique_ptr<refhost::Host> host;
    std::unique_ptr<refhost::Plugin> plugin;
};

void series(benchmark::State& state, const Run& run)
{
    Detector detector(run.boards);
    run.configure(detector.device());
    refhost::SeriesRequest request;
    request.frames = run.frames;
    request.seconds = run.exposure;
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
    state.SetBytesProcessed(static_cast<std::int64_t>(frames * run.frameBytes));
    state.counters["frames_per_second"] = frames / seconds;
}

void addRun(const std::string& shape, const Run& run)
{
    streambench::add("series/" + shape, series, run)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
    streambench::add("memcpy/" + shape, streambench::copyBytes, run.frames * run.frameBytes)
        ->Unit(benchmark::kMillisecond);
}

std::size_t mpx3FrameBytes(int channels, Mode mode, unsigned char depth)
{
    OMR omr;
    omr.CountL = depth;
    if (mode != Mode::Tdi)
        return mpx3ReadSize(omr, false, channels, depth == 3);
    omr.RowBlockSel = 1;
    return mpx3TdiRecordSize(omr, false, channels, depth == 3) * MPX3_SIDE;
}

nlohmann::json mpx3Board(const std::string& description, int channels)
{
    return {{"kind", "mpx3"},
            {"description", description},
            {"channels", chipGrid(channels, 1)},
            {"link", {{"rate_mb_s", 0}}}};
}

nlohmann::json timepixBoard(const std::string& description, int modules, int chips)
{
    return {{"kind", "mpx2"},
            {"description", description},
            {"modules", chipGrid(modules, chips)},
            {"link", {{"rate_mb_s", 0}}}};
}

void addMpx3(const std::string& what, int channels, Mode mode, unsigned char depth)
{
    Run run;
    run.boards.push_back(mpx3Board("Latixel Latixel M3WA sn: 1 A", channels));
    run.configure = [mode, depth](refhost::Device& device) {
        device.setConfig({depth, 0, 0, 0, 1, static_cast<unsigned char>(mode == Mode::Continuous), 0, 0, 1, 0, 0});
        device.setAcqMode(mode == Mode::Tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
    };
    if (mode == Mode::Tdi) {
        run.frames = TDI_FRAMES;
        run.exposure = TDI_EXPOSURE;
    }
    run.frameBytes = mpx3FrameBytes(channels, mode, depth);
    addRun(what + "/" + std::to_string(channels) + "ch", run);
}

/// All modules are read at once, which is the way without a settings file too.
void addTimepix(int modules, int chips)
{
    Run run;
    run.boards.push_back(timepixBoard("Latixel Latixel TLWA sn: 1 A", modules, chips));
    run.configure = [](refhost::Device& device) { device.setAcqMode(0); };
    run.frameBytes = mpx2ParallelReadout(static_cast<std::size_t>(modules) * static_cast<std::size_t>(chips),
                                         static_cast<std::size_t>(modules))
                         .bytes;
    addRun("timepix/" + std::to_string(modules) + "x" + std::to_string(chips) + "ch", run);
}

std::string memberName(const char* type, int number)
{
    return "Latixel Latixel " + std::string(type) + " " + std::to_string(number) + " sn: " + std::to_string(number) +
           " A";
}

/// A composite of so many boards with a chip each.
void addTimepixComposite(int members, bool parallel)
{
    Run run;
    for (int i = 0; i < members; ++i)
        run.boards.push_back(timepixBoard(memberName("TLWA", i), 1, 1));
    run.configure = [parallel](refhost::Device& device) { device.findParam("ParallelReadout")->setBool(parallel); };
    run.frameBytes = static_cast<std::size_t>(members) * mpx2ParallelReadout(1, 1).bytes;
    addRun(std::string("timepix-") + (parallel ? "parallel" : "sequence") + "/" + std::to_string(members) + "boards",
           run);
}

/// The members of a Medipix3 composite always read at the same time.
void addMpx3Composite(int members)
{
    Run run;
    for (int i = 0; i < members; ++i)
        run.boards.push_back(mpx3Board(memberName("M3WA", i), 1));
    run.configure = [](refhost::Device& device) {
        device.setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0});
        device.setAcqMode(0);
    };
    run.frameBytes = static_cast<std::size_t>(members) * mpx3FrameBytes(1, Mode::Normal, 2);
    addRun("mpx3-composite/" + std::to_string(members) + "boards", run);
}

void addAll()
{
    for (const int channels : {1, 4, 5}) {
        addMpx3("normal-12bit", channels, Mode::Normal, 2);
        addMpx3("normal-24bit", channels, Mode::Normal, 3);
        addMpx3("continuous-12bit", channels, Mode::Continuous, 2);
    }
    addMpx3("tdi-12bit", 5, Mode::Tdi, 2);
    addTimepix(1, 1);
    addTimepix(2, 2);
    addTimepix(5, 1);
    for (const int members : {1, 2, 4, 8}) {
        addTimepixComposite(members, false);
        addTimepixComposite(members, true);
        addMpx3Composite(members);
    }
}

} // namespace

int main(int argc, char** argv)
{
    return streambench::run(argc, argv, addAll);
}
