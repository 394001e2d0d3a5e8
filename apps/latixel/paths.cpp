// Where things are.
#include "apps/latixel/paths.h"

#include "apps/latixel/exitcode.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace tool {
namespace {

namespace fs = std::filesystem;

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isFile(const fs::path& path)
{
    std::error_code ignored;
    return fs::is_regular_file(path, ignored);
}

fs::path userFolder(const std::string& given, const char* option, const char* variable, const char* belowHome)
{
    fs::path folder = given;
    if (given.empty()) {
        const std::string base = environment(variable);
        const std::string home = environment("HOME");
        if (base.empty() && home.empty())
            throw Failure(ExitCode::Arguments, std::string("no home folder is known: give a folder with ") + option);
        folder = (base.empty() ? fs::path(home) / belowHome : fs::path(base)) / "latixel";
    }
    std::error_code error;
    fs::create_directories(folder, error);
    if (error && !fs::is_directory(folder, error))
        throw Failure(ExitCode::Arguments,
                      "cannot make the folder " + folder.string() + ": give another with " + option);
    return fs::absolute(folder);
}

std::string benchNames(const fs::path& folder)
{
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored))
        if (entry.path().extension() == ".json")
            names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    std::string text;
    for (const auto& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text.empty() ? "none" : text;
}

} // namespace

fs::path programFolder()
{
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::current_path() : program.parent_path();
}

std::vector<fs::path> libraryFolders(const fs::path& program)
{
    std::vector<fs::path> folders;
    if (const std::string given = environment("LATIXEL_PLUGIN_DIR"); !given.empty())
        folders.emplace_back(given);
    for (const char* place :
         {"../lib", "../lib/latixel", "../lib/x86_64-linux-gnu/latixel", "../lib/aarch64-linux-gnu/latixel"})
        folders.push_back((program / place).lexically_normal());
    return folders;
}

fs::path findLibrary(const std::string& fileName, const fs::path& program)
{
    const auto folders = libraryFolders(program);
    for (const fs::path& folder : folders)
        if (isFile(folder / fileName))
            return folder / fileName;
    throw Failure(ExitCode::Plugin, "there is no " + fileName + " in " + folders.front().string() +
                                        " or in the other usual places: set LATIXEL_PLUGIN_DIR to its folder" +
                                        (fileName == "liblatixel.so" ? ", or give the file with --plugin" : ""));
}

fs::path benchFolder(const fs::path& program)
{
    const std::string given = environment("LATIXELSIM_BENCH_DIR");
    return given.empty() ? (program / "../share/latixel/benches").lexically_normal() : fs::path(given);
}

fs::path findBench(const std::string& nameOrFile, const fs::path& program)
{
    const fs::path folder = benchFolder(program);
    const bool isName = nameOrFile.find('/') == std::string::npos;
    if (isFile(nameOrFile))
        return nameOrFile;
    for (const std::string& name : {nameOrFile, nameOrFile + ".json"})
        if (isName && isFile(folder / name))
            return folder / name;
    throw Failure(ExitCode::Arguments, "there is no bench \"" + nameOrFile +
                                           "\": give a JSON file, or one of these in " + folder.string() + ": " +
                                           benchNames(folder));
}

fs::path configFolder(const std::string& given)
{
    fs::path folder = userFolder(given, "--config", "XDG_CONFIG_HOME", ".config");
    if (const fs::path settings = folder / "latixel.ini"; !isFile(settings))
        std::ofstream(settings) << "[Settings]\n";
    return folder;
}

fs::path logFolder(const std::string& given)
{
    return userFolder(given, "--logs", "XDG_STATE_HOME", ".local/state");
}

} // namespace tool
