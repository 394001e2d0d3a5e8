// What was typed: options that go together, files of chip values, and where things are looked for.
#include "apps/latixel/commands/acquireoptions.h"
#include "apps/latixel/exitcode.h"
#include "apps/latixel/paths.h"
#include "apps/latixel/valuefile.h"
#include "support/tempfolder.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstring>
#include <functional>
#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tool::ExitCode;

/// The Failure that `call` throws, or one with the code Success.
tool::Failure failureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const tool::Failure& failure) {
        return failure;
    }
    return {ExitCode::Success, ""};
}

ExitCode codeOf(const std::function<void()>& call)
{
    return failureOf(call).code;
}

/// The plan for a command line; throws what the parser or the plan throws.
tool::AcquirePlan planOf(const std::string& line)
{
    CLI::App app;
    tool::AcquireOptions options;
    tool::addAcquireOptions(app, options);
    app.parse(line);
    return tool::makePlan(options);
}

TEST(AcquireOptions, BecomeTheDevicesWords)
{
    const auto plain = planOf("-o a.h5");
    const dv::_Mpx3Config asBuilt{2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0};
    EXPECT_EQ(std::memcmp(&plain.config, &asBuilt, sizeof asBuilt), 0);
    EXPECT_EQ(plain.acqMode, 0u);

    const auto crw = planOf("--mode crw --depth 6 --counter 1 --row-block 3 --column-block 14 --gain 2 --csm "
                            "--polarity negative --trigger start --format none");
    const dv::_Mpx3Config asTyped{1, 14, 3, 1, 2, 1, 1, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(&crw.config, &asTyped, sizeof asTyped), 0);
    EXPECT_EQ(crw.acqMode, 1u);
    EXPECT_EQ(planOf("--mode tdi --trigger stop -o a.h5").acqMode, 0x22u);

    const auto deep = planOf("--depth 24 -o a.h5");
    EXPECT_EQ(deep.config.counterDepth, 3);
    EXPECT_EQ(deep.config.counterSelect, 2);
    EXPECT_FALSE(deep.twoCounters) << "24 bits are one count";
    EXPECT_TRUE(planOf("--counter both -o a.h5").twoCounters);
    EXPECT_EQ(planOf("-o a.NXS").output.format, record::OutputFormat::Hdf5);
    EXPECT_EQ(planOf("-o a.h5 --format png --range 1:9").output.format, record::OutputFormat::Png);
}

TEST(AcquireOptions, ThatCannotBeMeantAreRefused)
{
    for (const char* line :
         {"", "-o a.xyz", "-o a.h5 -t 0", "-o a.h5 -t nan", "-o a.h5 --mode crw --counter both",
          "-o a.h5 --mode crw --depth 24", "-o a.h5 --mode tdi --trigger soft", "-o a.h5 --mode tdi -n 70000",
          "-o a.h5 --clock 0", "-o a.h5 --clock nan", "-o a.h5 --clock 50.1", "-o a.png --range 5:5"})
        EXPECT_EQ(codeOf([&] { planOf(line); }), ExitCode::Arguments) << line;
    for (const char* line :
         {"-n 0", "-n 1.5", "-n 20000000", "-t 1e9", "--depth 8", "--row-block 9", "--mode fast", "--bias high"})
        EXPECT_THROW(planOf(std::string("-o a.h5 ") + line), CLI::ParseError) << line;
}

TEST(ValueFiles, AreReadWithCommentsAndRefusedWithTheLine)
{
    const support::TempFolder folder;
    EXPECT_THAT(tool::readNumbers(folder.write("dacs.txt", "# thresholds\n1, 2;3\n\t65535 # last\r\n")),
                ElementsAre(1, 2, 3, 65535));
    for (const char* bad : {"1 2\n3 x4", "1\n65536", "1\n-1", "1\n0x10", "1\n1.5"}) {
        const auto file = folder.write("bad.txt", bad);
        EXPECT_THAT(failureOf([&] { tool::readNumbers(file); }).what(), HasSubstr("line 2")) << bad;
    }
    EXPECT_EQ(codeOf([&] { tool::readBytes(folder / "missing"); }), ExitCode::Arguments);
    EXPECT_EQ(codeOf([&] { tool::readBytes(folder.path()); }), ExitCode::Arguments) << "a folder";

    const std::vector<unsigned short> two{1, 2};
    EXPECT_THAT(tool::forAllChips(two, 2, 2, "f"), ElementsAre(1, 2, 1, 2));
    EXPECT_THAT(tool::forAllChips(two, 1, 2, "f"), ElementsAre(1, 2));
    EXPECT_EQ(codeOf([&] { tool::forAllChips(two, 3, 2, "f"); }), ExitCode::Arguments);
}

TEST(Paths, LibrariesAreFoundFromTheProgramUnlessAFolderIsNamed)
{
    const support::TempFolder folder;
    unsetenv("LATIXEL_PLUGIN_DIR");
    const auto program = folder / "bin";
    std::filesystem::create_directories(folder / "lib/latixel");
    const auto installed = folder.write("lib/latixel/liblatixel.so", "x");
    EXPECT_EQ(tool::findLibrary("liblatixel.so", program), installed);
    EXPECT_EQ(codeOf([&] { tool::findLibrary("liblatixelsim.so", program); }), ExitCode::Plugin);
    const auto own = folder.write("liblatixel.so", "x");
    setenv("LATIXEL_PLUGIN_DIR", folder.path().c_str(), 1);
    EXPECT_EQ(tool::findLibrary("liblatixel.so", program), own);
    unsetenv("LATIXEL_PLUGIN_DIR");
}

TEST(Paths, FoldersForSettingsAndLogsAreMade)
{
    const support::TempFolder folder;
    setenv("XDG_CONFIG_HOME", (folder / "conf").c_str(), 1);
    EXPECT_EQ(tool::configFolder(""), folder / "conf/latixel");
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_TRUE(std::filesystem::is_directory(folder / "conf/latixel"));
    EXPECT_TRUE(std::filesystem::is_directory(tool::logFolder((folder / "a/b").string())));
    const auto file = folder.write("file", "x");
    EXPECT_EQ(codeOf([&] { tool::logFolder((file / "below").string()); }), ExitCode::Arguments);
    EXPECT_EQ(codeOf([&] { tool::logFolder(file.string()); }), ExitCode::Arguments);
}

} // namespace
