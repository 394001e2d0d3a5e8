// Whole series on free-running virtual boards: frames per second from `startAcquisition` to the last `lastData`, with
// exposures so short that link, decoding and hand-over are what is measured. Each stands beside a copy of the bytes
// that its frames take on the wire. Composites show how the cost of a frame grows with the members. Boards whose links
// are paced as the real bus show which share of a link's frame rate is reached, and the processor time of the host's
// thread for each frame: its copy, decoding and conversion.
#include "bench/streambench.h"
#include "chipdata/mpx2matrix.h"
#include "chipdata/mpx3matrix.h"
#include "plugin/latixel.h"
#include "refhost/host.h"
#include "refhost/plugin.h"
#include "sim/usb/latixelsim.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
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
    std::size_t frameBytes = 0;          ///< on the wire
    double linkRate = 0;                 ///< MB/s of each board's link; 0 for links that run free
    std::chrono::milliseconds rest{100}; ///< behind the last event, in which the device's thread finishes
};

/// A board's link. A bridge chip keeps what fills no packet for its latency, 2 ms: in a row without it the rate alone
/// is the limit.
struct Link {
    const char* name; ///< in the rows
    double rate;      ///< MB/s; 0 runs free
    nlohmann::json keys() const
    {
        nlohmann::json keys = {{"rate_mb_s", rate}};
        if (!latency)
            keys["latency_ms"] = 0;
        return keys;
    }
    bool latency;
};

constexpr double REAL_RATE = 40; // MB/s
constexpr Link FREE{"", 0, true};
constexpr Link PACED{"-paced", REAL_RATE, false};
constexpr Link REAL{"-paced-latency", REAL_RATE, true};

/// What one series took.
struct Taken {
    unsigned frames = 0;
    double seconds = 0; ///< from the start to the last frame
    double first = 0;   ///< from the start to the first frame
    double cpu = 0;     ///< seconds of the processor in the host's calls for frames
    bool finished = false;
};

double threadSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

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

/// Runs a series and takes each frame in its event.
Taken take(refhost::Device& device, const Run& run)
{
    using Clock = std::chrono::steady_clock;
    constexpr auto LONGEST = std::chrono::seconds(60);
    std::mutex mutex;
    std::condition_variable changed;
    Taken taken;
    bool over = false;
    const auto begin = Clock::now();
    device.onEvent([&](const refhost::Event& event) {
        if (event.type == HWEVENT_FRAME_READY) {
            const double before = threadSeconds();
            const bool there = device.lastData() != nullptr;
            const std::lock_guard lock(mutex);
            taken.cpu += threadSeconds() - before;
            taken.frames += there ? 1 : 0;
            taken.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
            taken.first = taken.first == 0 ? taken.seconds : taken.first;
        } else if (event.type != HWEVENT_BUSY_CHANGED) {
            const std::lock_guard lock(mutex);
            taken.finished = event.type == HWEVENT_ACQ_FINISHED;
            over = true;
            changed.notify_all();
        }
    });
    device.startAcquisition(run.frames, run.exposure);
    std::unique_lock lock(mutex);
    changed.wait_for(lock, LONGEST, [&] { return over; });
    const Taken result = taken;
    lock.unlock();
    std::this_thread::sleep_for(run.rest);
    device.onEvent({});
    return result;
}

void series(benchmark::State& state, const Run& run)
{
    Detector detector(run.boards);
    run.configure(detector.device());
    Taken all;
    for ([[maybe_unused]] auto _ : state) {
        const Taken taken = take(detector.device(), run);
        if (!taken.finished || taken.frames != run.frames) {
            state.SkipWithError(("series ended early: " + detector.device().errorLine()).c_str());
            return;
        }
        state.SetIterationTime(taken.seconds);
        all.seconds += taken.seconds;
        all.first += taken.first;
        all.cpu += taken.cpu;
        all.frames += taken.frames;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(all.frames * run.frameBytes));
    const double rate = all.frames / all.seconds;
    state.counters["frames_per_second"] = rate;
    state.counters["host_us_per_frame"] = all.cpu / all.frames * 1e6;
    state.counters["host_share_of_core"] = all.cpu / all.seconds;
    if (run.linkRate > 0) {
        const double linkBytes = static_cast<double>(run.frameBytes) / static_cast<double>(run.boards.size());
        const double linkRate = run.linkRate * 1e6 / linkBytes; // frames per second
        state.counters["share_of_link"] = rate / linkRate;
        // Without the preparation of the boards, which reads them empty once.
        const auto behindFirst = static_cast<double>(all.frames - static_cast<unsigned>(state.iterations()));
        state.counters["share_behind_first"] = behindFirst / (all.seconds - all.first) / linkRate;
    }
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

nlohmann::json mpx3Board(const std::string& description, int channels, const Link& link = FREE)
{
    return {{"kind", "mpx3"}, {"description", description}, {"channels", chipGrid(channels, 1)}, {"link", link.keys()}};
}

nlohmann::json timepixBoard(const std::string& description, int modules, int chips, const Link& link = FREE)
{
    return {
        {"kind", "mpx2"}, {"description", description}, {"modules", chipGrid(modules, chips)}, {"link", link.keys()}};
}

void addMpx3(const std::string& what, int channels, Mode mode, unsigned char depth, const Link& link = FREE)
{
    Run run;
    run.linkRate = link.rate;
    run.boards.push_back(mpx3Board("Latixel Latixel M3WA sn: 1 A", channels, link));
    run.configure = [mode, depth](refhost::Device& device) {
        device.setConfig({depth, 0, 0, 0, 1, static_cast<unsigned char>(mode == Mode::Continuous), 0, 0, 1, 0, 0});
        device.setAcqMode(mode == Mode::Tdi ? unsigned{dv::ACQMODE_TDI} : 0U);
    };
    if (mode == Mode::Tdi) {
        run.frames = TDI_FRAMES;
        run.exposure = TDI_EXPOSURE;
    }
    // A continuous series drains the link behind its last event.
    if (mode == Mode::Continuous)
        run.rest = std::chrono::seconds(1);
    run.frameBytes = mpx3FrameBytes(channels, mode, depth);
    addRun(what + link.name + "/" + std::to_string(channels) + "ch", run);
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
void addTimepixComposite(int members, bool parallel, const Link& link = FREE)
{
    Run run;
    run.linkRate = link.rate;
    for (int i = 0; i < members; ++i)
        run.boards.push_back(timepixBoard(memberName("TLWA", i), 1, 1, link));
    run.configure = [parallel](refhost::Device& device) { device.findParam("ParallelReadout")->setBool(parallel); };
    run.frameBytes = static_cast<std::size_t>(members) * mpx2ParallelReadout(1, 1).bytes;
    addRun(std::string("timepix-") + (parallel ? "parallel" : "sequence") + link.name + "/" + std::to_string(members) +
               "boards",
           run);
}

/// The members of a Medipix3 composite always read at the same time.
void addMpx3Composite(int members, const Link& link = FREE)
{
    Run run;
    run.linkRate = link.rate;
    for (int i = 0; i < members; ++i)
        run.boards.push_back(mpx3Board(memberName("M3WA", i), 1, link));
    run.configure = [](refhost::Device& device) {
        device.setConfig({2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0});
        device.setAcqMode(0);
    };
    run.frameBytes = static_cast<std::size_t>(members) * mpx3FrameBytes(1, Mode::Normal, 2);
    addRun(std::string("mpx3-composite") + link.name + "/" + std::to_string(members) + "boards", run);
}

/// One chip on a paced link: the frames are shorter than their transfer.
void addPaced(const Link& link)
{
    Run timepix;
    timepix.linkRate = link.rate;
    timepix.boards.push_back(timepixBoard("Latixel Latixel TLWA sn: 1 A", 1, 1, link));
    timepix.configure = [](refhost::Device& device) { device.setAcqMode(0); };
    timepix.frameBytes = mpx2ParallelReadout(1, 1).bytes;
    addRun("timepix" + std::string(link.name) + "/1ch", timepix);
    for (const Mode mode : {Mode::Normal, Mode::Continuous})
        addMpx3(mode == Mode::Normal ? "normal-12bit" : "continuous-12bit", 1, mode, 2, link);
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
        addTimepixComposite(members, true, PACED);
        addMpx3Composite(members, PACED);
    }
    addPaced(PACED);
    addPaced(REAL);
}

} // namespace

int main(int argc, char** argv)
{
    return streambench::run(argc, argv, addAll);
}
