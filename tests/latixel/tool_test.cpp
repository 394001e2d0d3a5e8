// The tool as a person runs it, with the plug-in on virtual boards: what it prints, how it ends, what files it leaves.
#include "apps/latixel/exitcode.h"
#include "tests/record/frames.h"

#include <csignal>
#include <future>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <numeric>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tool::ExitCode;

struct Ended {
    int code = -1;
    std::string out;
    std::string err;
};

/// Runs the tool with a home folder of its own, which is its working folder too.
class ToolTest : public testing::Test {
protected:
    ToolTest()
    {
        setenv("HOME", folder.path().c_str(), 1);
        unsetenv("XDG_CONFIG_HOME");
        unsetenv("XDG_STATE_HOME");
    }

    /// Starts the tool; `input` is its standard input. With `interruptOn` it gets a signal, Ctrl-C, when this text
    /// stands in what it has told.
    std::future<Ended> start(const std::string& arguments, const std::string& input = {},
                             const std::string& interruptOn = {}, int signal = SIGINT)
    {
        const std::string run = "run" + std::to_string(runs++);
        folder.write(run + ".in", input);
        std::string command = "cd " + folder.path().string() + " && exec " LATIXEL_TOOL " " + arguments + " <" + run +
                              ".in >" + run + ".out 2>" + run + ".err";
        std::string shell[] = {"sh", "-c"};
        char* const words[] = {shell[0].data(), shell[1].data(), command.data(), nullptr};
        pid_t child = 0;
        EXPECT_EQ(posix_spawn(&child, "/bin/sh", nullptr, nullptr, words, environ), 0);
        return std::async(std::launch::async,
                          [this, child, run, interruptOn, signal] { return end(child, run, interruptOn, signal); });
    }

    support::Hdf5File hdf5(const char* name) const { return support::Hdf5File(folder / name); }

    /// The counts in thirty pixels of the open beam.
    unsigned openBeam(const char* name, std::size_t width) const
    {
        const auto counts = support::tiffPages(folder / name).at(0).counts;
        const auto* row = counts.data() + 3 * width;
        return std::accumulate(row + 60, row + 90, 0u);
    }

    support::TempFolder folder;

private:
    Ended end(pid_t child, const std::string& run, std::string interruptOn, int signal) const
    {
        int status = 0;
        const auto limit = std::chrono::steady_clock::now() + 60s;
        while (waitpid(child, &status, WNOHANG) == 0) {
            std::this_thread::sleep_for(10ms);
            if (!interruptOn.empty() && folder.read(run + ".err").find(interruptOn) != std::string::npos) {
                kill(child, signal);
                interruptOn.clear();
            }
            if (std::chrono::steady_clock::now() > limit)
                kill(child, SIGKILL);
        }
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        return {code, folder.read(run + ".out"), folder.read(run + ".err")};
    }

    int runs = 0;
};

void expectClean(const Ended& ended)
{
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("complaint")));
}

void expectCode(ExitCode code, const Ended& ended)
{
    EXPECT_EQ(ended.code, static_cast<int>(code)) << ended.err;
}

TEST_F(ToolTest, TellsWhatIsThere)
{
    auto list = start("list --simulate");
    auto info = start("--simulate mpx3-quad info");
    auto params = start("--simulate params EnergyCalibA DebugLog=on TdiRowCount=7");
    auto sense = start("--simulate sense");
    auto wrong = start("--simulate params TdiRowCount=9 Nothing");

    const Ended listed = list.get();
    EXPECT_EQ(listed.code, 0) << listed.err;
    EXPECT_THAT(listed.out, AllOf(HasSubstr("M3WA sn: 1042 A  4 "), HasSubstr("Medipix3")));
    EXPECT_THAT(info.get().out,
                AllOf(HasSubstr("chip 3    F03-W0131"), Not(HasSubstr("chip 4")), HasSubstr("110.0 V")));
    EXPECT_EQ(params.get().out, "EnergyCalibA=1.213 1.198 1.224 1.207\nDebugLog=true\nTdiRowCount=7\n");
    EXPECT_THAT(sense.get().out, AllOf(HasSubstr("Temperature   33.5 C"), HasSubstr("ADC 15")));
    const Ended refused = wrong.get();
    expectCode(ExitCode::Arguments, refused);
    EXPECT_THAT(refused.err, HasSubstr("no parameter \"Nothing\""));
    EXPECT_EQ(refused.out, "") << "nothing is set when one name is wrong";
    EXPECT_TRUE(std::filesystem::exists(folder / ".local/state/latixel/latixel.log"));
}

TEST_F(ToolTest, TakesFramesInEveryMode)
{
    auto normal = start("--simulate -v acquire -n 4 -t 0.02 -o n.h5");
    auto crw = start("--simulate -v acquire --mode crw -n 6 -t 0.02 -o c.nxs");
    auto tdi = start("--simulate -v acquire --mode tdi -n 2 -t 0.1 -o t.h5");
    auto both = start("--simulate -v acquire --counter both -o b.png -t 0.1");
    auto soft = start("--simulate -v acquire --trigger soft -n 2 -t 0.02 --layout 2x2 -o s.tif", "go\n\n");
    for (auto* run : {&normal, &crw, &tdi, &both, &soft})
        expectClean(run->get());
    EXPECT_THAT(hdf5("n.h5").shape("/entry/data/data"), ElementsAre(4, 256, 1024));
    EXPECT_THAT(hdf5("n.h5").shape("/entry/instrument/detector/chip_ids"), ElementsAre(4));
    EXPECT_THAT(hdf5("c.nxs").shape("/entry/data/data"), ElementsAre(6, 256, 1024));
    EXPECT_THAT(hdf5("t.h5").shape("/entry/instrument/detector/frame_metadata/RowAcqTimes"), ElementsAre(2, 256));
    EXPECT_TRUE(std::filesystem::exists(folder / "b_c0.png") && std::filesystem::exists(folder / "b_c1.png"));
    EXPECT_EQ(support::tiffPages(folder / "s.tif").size(), 2u);
    EXPECT_GT(openBeam("s.tif", 512), 30u * 40u) << "80 counts a pixel in the open beam";
}

TEST_F(ToolTest, TakesFramesOfTimepixAndMedipix2Boards)
{
    folder.write("dacs.txt", "20 255 255 255 255 255 200 255 255 255 255 255 255 255");
    folder.write("times.bin", std::string(65536, '\x42')); // time over threshold
    folder.write("quad.txt", "20 255 255 255 255 255 200 8 300 8 255 255 255 255 255");
    auto info = start("--simulate mpx2-quad info");
    auto modules = start("--simulate timepix-modules -v acquire --clock 7 -n 3 -t 0.05 --dacs dacs.txt "
                         "--pixel-config times.bin -o m.h5");
    auto soft = start("--simulate timepix-cpu -v acquire --trigger soft -n 2 -t 0.05 --bias 60 -o s.h5", "\n\n");
    auto quad = start("--simulate mpx2-quad -v acquire -t 0.1 --dacs quad.txt -o q.tif");
    EXPECT_THAT(info.get().out,
                AllOf(HasSubstr("Medipix2\n"), HasSubstr("chip 3    F04-W0034"), Not(HasSubstr("Clock"))));
    const Ended clocked = modules.get();
    EXPECT_THAT(clocked.out, HasSubstr("Timepix clock: 7.142857 MHz\n"));
    for (const Ended& ended : {clocked, soft.get(), quad.get()})
        expectClean(ended);

    const auto file = hdf5("m.h5");
    EXPECT_THAT(file.shape("/entry/data/data"), ElementsAre(3, 256, 1024));
    EXPECT_THAT(file.numbers("/entry/instrument/detector/configuration/timepix_clock"),
                ElementsAre(DoubleNear(50.0 / 7, 1e-9)));
    const auto times = file.numbers("/entry/data/data");
    EXPECT_NEAR(*std::max_element(times.begin(), times.end()), 150 * 2.5 * 50 / 7, 1000)
        << "150 hits, each 2.5 us long";
    EXPECT_THAT(hdf5("s.h5").shape("/entry/instrument/detector/frame_metadata/BiasVoltageSense"), ElementsAre(2));
    EXPECT_THAT(hdf5("s.h5").numbers("/entry/instrument/detector/bias/voltage"), ElementsAre(DoubleNear(60, 3)));
    EXPECT_NEAR(openBeam("q.tif", 1024), 30 * 400, 30 * 20) << "400 counts a pixel in the open beam";
}

TEST_F(ToolTest, AnInterruptedSeriesKeepsItsFrames)
{
    auto timepix = start("--simulate timepix-single -v acquire -n 1000 -t 0.05 -o p.h5", {}, " frames/s,");
    auto interrupted = start("--simulate acquire -n 1000 -t 0.05 -o i.h5", {}, " frames/s,");
    auto early = start("--simulate acquire -t 1000 -o e.h5", {}, "/1 frames,");
    auto triggersEnd = start("--simulate acquire --trigger soft -n 5 -t 0.02 -o t.h5", "\nno whole line");

    for (auto& [file, series] : {std::pair{"i.h5", &interrupted}, std::pair{"p.h5", &timepix}}) {
        const Ended ended = series->get();
        expectCode(ExitCode::Incomplete, ended);
        EXPECT_THAT(ended.err, AllOf(Not(HasSubstr("complaint")), Not(HasSubstr("were lost"))));
        const auto frames = hdf5(file).shape("/entry/data/data")[0];
        EXPECT_THAT(ended.out, HasSubstr(std::to_string(frames) + " frame"));
        EXPECT_GT(frames, 0u);
    }
    expectCode(ExitCode::Incomplete, early.get());
    EXPECT_FALSE(std::filesystem::exists(folder / "e.h5"));
    expectCode(ExitCode::Incomplete, triggersEnd.get());
    EXPECT_THAT(hdf5("t.h5").shape("/entry/data/frame"), ElementsAre(1));
    EXPECT_THAT(folder.names(), testing::Each(Not(HasSubstr(".part"))));
}

TEST_F(ToolTest, FailuresAreOneLineAndACode)
{
    folder.write("empty.json", R"({"boards": []})");
    folder.write("dacs.txt", "1 2 3");
    struct Case {
        const char* arguments;
        ExitCode code;
        const char* text;
    };
    const Case cases[] = {
        {"acquire", ExitCode::Arguments, "--output"},
        {"--plugin nowhere.so list", ExitCode::Plugin, "there is no library nowhere.so"},
        {"--simulate=none-such list", ExitCode::Arguments, "mpx3-quad"},
        {"--simulate=empty.json list", ExitCode::NoDevice, "no device found"},
        {"--simulate info -d 5", ExitCode::NoDevice, "latixel list"},
        {"--simulate mpx3-no-chip acquire -o x.h5", ExitCode::NoDevice, "no working chip"},
        {"--simulate acquire -o none/x.h5", ExitCode::Output, "cannot write"},
        {"--simulate acquire --bias 500 -o x.h5", ExitCode::Arguments, "110.0 V"},
        {"--simulate acquire --dacs dacs.txt -o x.h5", ExitCode::Arguments, "108 for 4"},
        {"--simulate acquire --clock 10 -o x.h5", ExitCode::Arguments, "no Timepix chips: leave out --clock"},
        {"--simulate timepix-single acquire --depth 12 --csm --mode crw -o x.h5", ExitCode::Arguments,
         "no Medipix3 chips: leave out --depth, --csm, --mode crw"},
        {"--simulate acquire --layout 1x1 -o x.h5", ExitCode::Arguments, "4 chips"},
    };
    std::vector<std::future<Ended>> started;
    for (const Case& one : cases)
        started.push_back(start(one.arguments));
    for (std::size_t i = 0; i < started.size(); ++i) {
        SCOPED_TRACE(cases[i].arguments);
        const Ended ended = started[i].get();
        expectCode(cases[i].code, ended);
        EXPECT_THAT(ended.err, HasSubstr(cases[i].text));
        EXPECT_EQ(ended.err.find('\n'), ended.err.size() - 1) << ended.err;
        EXPECT_THAT(ended.out, IsEmpty());
    }
    EXPECT_THAT(folder.names(), Not(testing::Contains(testing::StartsWith("x.h5"))));
}

TEST_F(ToolTest, ABoardThatLeavesOrIsTooHotCostsNoFrameTaken)
{
    const auto program = std::filesystem::path(LATIXEL_TOOL).parent_path();
    struct Case {
        const char* bench;
        const char* fault;
        ExitCode code;
        const char* text;
    };
    const Case cases[] = {
        {"mpx3-quad", "unplug", ExitCode::Lost, "the board with serial 1042 has gone from the bus"},
        {"timepix-cpu", "unplug", ExitCode::Lost, "the board with serial 2055 has gone from the bus"},
        {"mpx3-quad", "cpu_overheated", ExitCode::Overheated, "too hot"},
        {"timepix-cpu", "cpu_overheated", ExitCode::Overheated, "too hot"},
    };
    std::vector<std::future<Ended>> started;
    for (const Case& one : cases) {
        const std::string name = "case" + std::to_string(started.size());
        std::ifstream original(program / "../share/latixel/benches" / (std::string(one.bench) + ".json"));
        auto bench = nlohmann::json::parse(original);
        bench["boards"][0]["faults"] = {{{"kind", one.fault}, {"text", "hot"}, {"when", {{"after_bytes", 2500000}}}}};
        if (one.fault == std::string("unplug"))
            bench["boards"][0]["faults"][0].erase("text");
        folder.write(name + ".json", bench.dump());
        started.push_back(start("--simulate=" + name + ".json acquire -n 1000 -t 0.05 -o " + name + ".h5"));
    }
    for (std::size_t i = 0; i < started.size(); ++i) {
        SCOPED_TRACE(i);
        const Ended ended = started[i].get();
        expectCode(cases[i].code, ended);
        EXPECT_THAT(ended.err, AllOf(HasSubstr(cases[i].text), HasSubstr("are kept")));
        EXPECT_GT(hdf5(("case" + std::to_string(i) + ".h5").c_str()).shape("/entry/data/data")[0], 0u);
    }
}

TEST_F(ToolTest, ChecksAndRepairsAFileWhoseWriterWasKilled)
{
    const Ended whole = start("--simulate acquire -n 3 -t 0.02 -o w.h5").get();
    expectClean(whole);
    EXPECT_EQ(start("check w.h5").get().code, 0);
    expectCode(ExitCode::Arguments, start("check run0.out").get());
    EXPECT_EQ(start("--simulate acquire -n 1000 -t 0.02 -o k.h5", {}, " frames/s,", SIGKILL).get().code,
              1000 + SIGKILL);
    const Ended cut = start("check k.h5").get();
    expectCode(ExitCode::NotClosed, cut);
    EXPECT_THAT(cut.err, HasSubstr("--repair k.h5"));
    const Ended mended = start("check --repair k.h5").get();
    expectCode(ExitCode::Incomplete, mended);
    EXPECT_THAT(mended.out, AllOf(HasSubstr("Frames asked for"), HasSubstr("not closed"), HasSubstr("bias/voltage")));
    EXPECT_GT(hdf5("k.h5").shape("/entry/data/data")[0], 0u);
}

} // namespace
