// The tool as a person runs it, with the plug-in on virtual boards: what it prints, how it ends, what files it leaves.
#include "apps/latixel/exitcode.h"
#include "apps/latixel/h5.h"
#include "tests/latixel/support.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <tiffio.h>

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tool::ExitCode;
using Words = std::vector<std::string>;

struct Ended {
    int code = -1;
    std::string out;
    std::string err;
};

std::string textOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

class ToolTest : public testing::Test {
protected:
    /// Starts the tool with its own home folder; `input` is its standard input. With `interruptOn` it gets a Ctrl-C
    /// when this text stands in what it has told.
    std::future<Ended> start(Words words, const std::string& input = {}, const std::string& interruptOn = {})
    {
        const auto base = folder.path / ("run" + std::to_string(runs++));
        std::ofstream(base.string() + ".in") << input;
        words.insert(words.begin(), LATIXEL_TOOL);
        const Words channels = {base.string() + ".in", base.string() + ".out", base.string() + ".err"};
        const Words home = environment();
        const auto arguments = pointers(words);
        const auto variables = pointers(home);
        // Other threads of this test may hold the allocator's lock: the child must ask for no memory.
        const pid_t child = fork();
        if (child == 0)
            become(arguments, variables, channels);
        return std::async(std::launch::async, [child, base, interruptOn] { return end(child, base, interruptOn); });
    }

    Ended run(const Words& words) { return start(words).get(); }

    /// A copy of the bench with four chips, with the fault on its board.
    std::string benchWith(const nlohmann::json& fault)
    {
        const auto program = std::filesystem::path(LATIXEL_TOOL).parent_path();
        auto bench = nlohmann::json::parse(textOf(program / "../share/latixel/benches/mpx3-quad.json"));
        bench["boards"][0]["faults"] = {fault};
        const auto path = folder / "faulty.json";
        std::ofstream(path) << bench;
        return path.string();
    }

    std::string file(const std::string& name) const { return (folder / name).string(); }

    support::Folder folder;

private:
    /// This program's environment, with the test's folder as home.
    Words environment() const
    {
        Words variables = {"HOME=" + folder.path.string()};
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string text = *variable;
            if (!text.starts_with("HOME=") && !text.starts_with("XDG_CONFIG_HOME=") &&
                !text.starts_with("XDG_STATE_HOME="))
                variables.push_back(text);
        }
        return variables;
    }
    static std::vector<char*> pointers(const Words& words)
    {
        std::vector<char*> list;
        for (const std::string& word : words)
            list.push_back(const_cast<char*>(word.c_str()));
        list.push_back(nullptr);
        return list;
    }
    [[noreturn]] static void become(const std::vector<char*>& arguments, const std::vector<char*>& variables,
                                    const Words& channels)
    {
        dup2(open(channels[0].c_str(), O_RDONLY), STDIN_FILENO);
        dup2(open(channels[1].c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(channels[2].c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execve(arguments[0], arguments.data(), variables.data());
        _exit(127);
    }

    static Ended end(pid_t child, const std::filesystem::path& base, std::string interruptOn)
    {
        int status = 0;
        const auto limit = std::chrono::steady_clock::now() + 60s;
        while (waitpid(child, &status, WNOHANG) == 0) {
            std::this_thread::sleep_for(10ms);
            if (!interruptOn.empty() && textOf(base.string() + ".err").find(interruptOn) != std::string::npos) {
                kill(child, SIGINT);
                interruptOn.clear();
            }
            if (std::chrono::steady_clock::now() > limit)
                kill(child, SIGKILL);
        }
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        return {code, textOf(base.string() + ".out"), textOf(base.string() + ".err")};
    }

    int runs = 0;
};

std::vector<hsize_t> shapeOf(const std::string& file, const char* path)
{
    const tool::h5::Handle opened(H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    const tool::h5::Handle dataset(H5Dopen2(opened, path, H5P_DEFAULT), H5Dclose);
    const tool::h5::Handle space(H5Dget_space(dataset), H5Sclose);
    std::vector<hsize_t> shape(static_cast<std::size_t>(H5Sget_simple_extent_ndims(space)));
    H5Sget_simple_extent_dims(space, shape.data(), nullptr);
    return shape;
}

int count(const std::string& text, char which)
{
    return static_cast<int>(std::count(text.begin(), text.end(), which));
}

TEST_F(ToolTest, TellsWhatIsThere)
{
    auto list = start({"list", "--simulate"});
    auto info = start({"--simulate", "mpx3-quad", "info"});
    auto params = start({"--simulate", "params", "EnergyCalibA", "DebugLog=on", "TdiRowCount=7"});
    auto sense = start({"--simulate", "sense"});
    auto wrong = start({"--simulate", "params", "TdiRowCount=9", "Nothing"});
    auto text = start({"--simulate", "params", "TdiRowCount=many"});

    const Ended listed = list.get();
    EXPECT_EQ(listed.code, 0) << listed.err;
    EXPECT_THAT(listed.out, AllOf(HasSubstr("M3WA sn: 1042 A  4 "), HasSubstr("Medipix3")));
    EXPECT_THAT(info.get().out,
                AllOf(HasSubstr("chip 3    F03-W0131"), Not(HasSubstr("chip 4")), HasSubstr("110.0 V")));
    EXPECT_EQ(params.get().out, "EnergyCalibA=1.213 1.198 1.224 1.207\nDebugLog=true\nTdiRowCount=7\n");
    EXPECT_THAT(sense.get().out, AllOf(HasSubstr("Temperature   33.5 C"), HasSubstr("ADC 15")));
    const Ended refused = wrong.get();
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.err, HasSubstr("no parameter \"Nothing\""));
    EXPECT_EQ(refused.out, "") << "nothing is set when one name is wrong";
    EXPECT_EQ(text.get().code, 2);
    EXPECT_TRUE(std::filesystem::exists(folder / ".local/state/latixel/latixel.log"));
}

TEST_F(ToolTest, TakesFramesInEveryMode)
{
    auto normal = start({"--simulate", "-v", "acquire", "-n", "4", "-t", "0.02", "-o", file("n.h5")});
    auto crw = start({"--simulate", "-v", "acquire", "--mode", "crw", "-n", "6", "-t", "0.02", "-o", file("c.nxs")});
    auto tdi = start({"--simulate", "-v", "acquire", "--mode", "tdi", "-n", "2", "-t", "0.1", "-o", file("t.h5")});
    auto both = start({"--simulate", "-v", "acquire", "--counter", "both", "-o", file("b.png"), "-t", "0.1"});
    auto soft = start({"--simulate", "-v", "acquire", "--trigger", "soft", "-n", "2", "-t", "0.02", "--layout", "2x2",
                       "-o", file("s.tif")},
                      "\n\n");
    for (auto* run : {&normal, &crw, &tdi, &both, &soft}) {
        const Ended ended = run->get();
        EXPECT_EQ(ended.code, 0) << ended.err;
        EXPECT_THAT(ended.err, Not(HasSubstr("complaint"))) << ended.err;
    }
    EXPECT_THAT(shapeOf(file("n.h5"), "/entry/data/data"), ElementsAre(4, 256, 1024));
    EXPECT_THAT(shapeOf(file("n.h5"), "/entry/instrument/detector/chip_ids"), ElementsAre(4));
    EXPECT_THAT(shapeOf(file("c.nxs"), "/entry/data/data"), ElementsAre(6, 256, 1024));
    EXPECT_THAT(shapeOf(file("t.h5"), "/entry/instrument/detector/frame_metadata/RowAcqTimes"), ElementsAre(2, 256));
    EXPECT_TRUE(std::filesystem::exists(file("b_c0.png")) && std::filesystem::exists(file("b_c1.png")));

    const std::unique_ptr<TIFF, decltype(&TIFFClose)> tiff(TIFFOpen(file("s.tif").c_str(), "r"), TIFFClose);
    ASSERT_NE(tiff, nullptr);
    EXPECT_EQ(TIFFNumberOfDirectories(tiff.get()), 2);
    std::vector<std::uint32_t> row(512);
    ASSERT_EQ(TIFFReadScanline(tiff.get(), row.data(), 3), 1);
    const auto open = std::accumulate(row.begin() + 60, row.begin() + 90, 0u);
    EXPECT_GT(open, 30u * 40u) << "80 counts a pixel in the open beam";
}

/// The numbers of a dataset in an HDF5 file.
std::vector<double> numbersIn(const std::string& file, const char* path)
{
    const tool::h5::Handle opened(H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    const tool::h5::Handle dataset(H5Dopen2(opened, path, H5P_DEFAULT), H5Dclose);
    const tool::h5::Handle space(H5Dget_space(dataset), H5Sclose);
    std::vector<double> values(static_cast<std::size_t>(H5Sget_simple_extent_npoints(space)));
    tool::h5::check(H5Dread(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()));
    return values;
}

TEST_F(ToolTest, TakesFramesOfTimepixAndMedipix2Boards)
{
    std::ofstream(folder / "dacs.txt") << "20 255 255 255 255 255 200 255 255 255 255 255 255 255";
    std::ofstream(folder / "times.bin", std::ios::binary) << std::string(65536, '\x42'); // time over threshold
    std::ofstream(folder / "quad.txt") << "20 255 255 255 255 255 200 8 300 8 255 255 255 255 255";
    auto info = start({"--simulate", "mpx2-quad", "info"});
    auto modules = start({"--simulate", "timepix-modules", "-v", "acquire", "--clock", "7", "-n", "3", "-t", "0.05",
                          "-o", file("m.h5"), "--dacs", file("dacs.txt"), "--pixel-config", file("times.bin")});
    auto soft = start({"--simulate", "timepix-cpu", "-v", "acquire", "--trigger", "soft", "-n", "2", "-t", "0.05",
                       "--bias", "60", "-o", file("s.h5")},
                      "\n\n");
    auto quad = start(
        {"--simulate", "mpx2-quad", "-v", "acquire", "-t", "0.1", "--dacs", file("quad.txt"), "-o", file("q.tif")});
    auto interrupted =
        start({"--simulate", "timepix-single", "-v", "acquire", "-n", "1000", "-t", "0.05", "-o", file("i.h5")}, {},
              " frames/s,");
    const Ended told = info.get();
    EXPECT_THAT(told.out, AllOf(HasSubstr("Medipix2\n"), HasSubstr("chip 3    F04-W0034"), Not(HasSubstr("Clock"))));
    const Ended clocked = modules.get();
    EXPECT_THAT(clocked.out, HasSubstr("Timepix clock: 7.142857 MHz\n"));
    for (const Ended& ended : {clocked, soft.get(), quad.get()}) {
        EXPECT_EQ(ended.code, 0) << ended.err;
        EXPECT_THAT(ended.err, Not(HasSubstr("complaint"))) << ended.err;
    }
    const Ended stopped = interrupted.get();
    EXPECT_EQ(stopped.code, static_cast<int>(ExitCode::Incomplete)) << stopped.err;
    EXPECT_THAT(stopped.err, AllOf(Not(HasSubstr("complaint")), Not(HasSubstr("were lost"))));
    EXPECT_THAT(shapeOf(file("m.h5"), "/entry/data/data"), ElementsAre(3, 256, 1024));
    EXPECT_THAT(numbersIn(file("m.h5"), "/entry/instrument/detector/configuration/timepix_clock"),
                ElementsAre(testing::DoubleNear(50.0 / 7, 1e-9)));
    const auto times = numbersIn(file("m.h5"), "/entry/data/data");
    EXPECT_NEAR(*std::max_element(times.begin(), times.end()), 150 * 2.5 * 50 / 7, 1000)
        << "150 hits, each 2.5 us long";
    EXPECT_THAT(shapeOf(file("s.h5"), "/entry/instrument/detector/frame_metadata/BiasVoltageSense"), ElementsAre(2));
    EXPECT_THAT(numbersIn(file("s.h5"), "/entry/instrument/detector/bias/voltage"),
                ElementsAre(testing::DoubleNear(60, 3)));
    EXPECT_GT(shapeOf(file("i.h5"), "/entry/data/data")[0], 0u);

    const std::unique_ptr<TIFF, decltype(&TIFFClose)> tiff(TIFFOpen(file("q.tif").c_str(), "r"), TIFFClose);
    ASSERT_NE(tiff, nullptr);
    std::vector<std::uint16_t> row(1024);
    ASSERT_EQ(TIFFReadScanline(tiff.get(), row.data(), 3), 1);
    const auto open = std::accumulate(row.begin() + 60, row.begin() + 90, 0u);
    EXPECT_NEAR(open, 30 * 400, 30 * 20) << "400 counts a pixel in the open beam";
}

TEST_F(ToolTest, AnInterruptedSeriesKeepsItsFrames)
{
    auto interrupted =
        start({"--simulate", "acquire", "-n", "1000", "-t", "0.05", "-o", file("i.h5")}, {}, " frames/s,");
    auto early = start({"--simulate", "acquire", "-t", "1000", "-o", file("e.h5")}, {}, "/1 frames,");
    auto triggersEnd =
        start({"--simulate", "acquire", "--trigger", "soft", "-n", "5", "-t", "0.02", "-o", file("t.h5")}, "\n");

    const Ended ended = interrupted.get();
    EXPECT_EQ(ended.code, static_cast<int>(ExitCode::Incomplete)) << ended.err;
    const auto shape = shapeOf(file("i.h5"), "/entry/data/data");
    EXPECT_THAT(ended.out, HasSubstr(std::to_string(shape[0]) + " frame"));
    EXPECT_GT(shape[0], 0u);
    EXPECT_EQ(early.get().code, static_cast<int>(ExitCode::Incomplete));
    EXPECT_FALSE(std::filesystem::exists(file("e.h5")));
    EXPECT_EQ(triggersEnd.get().code, static_cast<int>(ExitCode::Incomplete));
    EXPECT_THAT(shapeOf(file("t.h5"), "/entry/data/frame"), ElementsAre(1));
    for (const auto& name : folder.names())
        EXPECT_THAT(name, Not(HasSubstr(".part")));
}

TEST_F(ToolTest, FailuresAreOneLineAndACode)
{
    std::ofstream(folder / "empty.json") << R"({"boards": []})";
    std::ofstream(folder / "bad.json") << "{";
    std::ofstream(folder / "dacs.txt") << "1 2 3";
    struct Case {
        Words words;
        ExitCode code;
        const char* text;
    };
    const Case cases[] = {
        {{"acquire"}, ExitCode::Arguments, "--output"},
        {{"acquire", "--depth", "7", "-o", "x.h5"}, ExitCode::Arguments, "--depth"},
        {{"--plugin", "nowhere.so", "list"}, ExitCode::Plugin, "there is no library nowhere.so"},
        {{"--simulate=none-such", "list"}, ExitCode::Arguments, "mpx3-quad"},
        {{"--simulate=" + file("bad.json"), "list"}, ExitCode::Arguments, "bad.json"},
        {{"--simulate=" + file("empty.json"), "list"}, ExitCode::NoDevice, "no device found"},
        {{"--simulate", "info", "-d", "5"}, ExitCode::NoDevice, "latixel list"},
        {{"--simulate", "mpx3-no-chip", "acquire", "-o", file("x.h5")}, ExitCode::NoDevice, "no working chip"},
        {{"--simulate", "acquire", "-o", file("none/x.h5")}, ExitCode::Output, "cannot write"},
        {{"--simulate", "acquire", "--bias", "500", "-o", file("x.h5")}, ExitCode::Arguments, "110.0 V"},
        {{"--simulate", "acquire", "--dacs", file("dacs.txt"), "-o", file("x.h5")}, ExitCode::Arguments, "108 for 4"},
        {{"--simulate", "acquire", "--clock", "10", "-o", file("x.h5")}, ExitCode::Arguments, "no Timepix chips"},
        {{"--simulate", "mpx2-quad", "acquire", "--clock", "10", "-o", file("x.h5")},
         ExitCode::Arguments,
         "no Timepix chips: leave out --clock"},
        {{"--simulate", "timepix-single", "acquire", "--mode", "crw", "--gain", "2", "-o", file("x.h5")},
         ExitCode::Arguments,
         "no Medipix3 chips: leave out --gain, --mode crw"},
        {{"--simulate", "timepix-single", "acquire", "--mode", "tdi", "-o", file("x.h5")},
         ExitCode::Arguments,
         "leave out --mode tdi"},
        {{"--simulate", "mpx2-quad", "acquire", "--dacs", file("dacs.txt"), "-o", file("x.h5")},
         ExitCode::Arguments,
         "60 for 4"},
        {{"--simulate", "acquire", "--layout", "1x1", "-o", file("x.h5")}, ExitCode::Arguments, "4 chips"},
    };
    std::vector<std::future<Ended>> started;
    for (const Case& one : cases)
        started.push_back(start(one.words));
    for (std::size_t i = 0; i < started.size(); ++i) {
        const Ended ended = started[i].get();
        EXPECT_EQ(ended.code, static_cast<int>(cases[i].code)) << cases[i].text << ": " << ended.err;
        EXPECT_THAT(ended.err, HasSubstr(cases[i].text));
        EXPECT_EQ(count(ended.err, '\n'), 1) << ended.err;
        EXPECT_THAT(ended.out, IsEmpty());
    }
    EXPECT_THAT(folder.names(), Not(testing::Contains(testing::StartsWith("x.h5"))));
}

TEST_F(ToolTest, ABoardThatLeavesInASeriesCostsNoFrameTaken)
{
    const auto bench = benchWith({{"kind", "unplug"}, {"when", {{"after_bytes", 2500000}}}});
    const Ended ended = run({"--simulate=" + bench, "acquire", "-n", "1000", "-t", "0.05", "-o", file("u.h5")});
    EXPECT_EQ(ended.code, static_cast<int>(ExitCode::Device)) << ended.err;
    EXPECT_THAT(ended.err, HasSubstr("are kept"));
    EXPECT_GT(shapeOf(file("u.h5"), "/entry/data/data")[0], 0u);
}

} // namespace
