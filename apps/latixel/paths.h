// Where the tool finds its libraries and benches, and where settings and logs go.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

/// The folder of the running program.
std::filesystem::path programFolder();

/// Folders that may hold the plug-in and the virtual boards, best first: LATIXEL_PLUGIN_DIR, then the places of a
/// build tree and of an installation, seen from `program`.
std::vector<std::filesystem::path> libraryFolders(const std::filesystem::path& program);
/// The library of that name, in the first of the folders that has it. Throws Failure.
std::filesystem::path findLibrary(const std::string& fileName, const std::filesystem::path& program);

/// The folder of benches for the virtual boards: LATIXELSIM_BENCH_DIR, or a place seen from `program`.
std::filesystem::path benchFolder(const std::filesystem::path& program);
/// The bench: a file, or the name of one in the bench folder, with or without ".json". Throws Failure that lists the
/// benches there are.
std::filesystem::path findBench(const std::string& nameOrFile, const std::filesystem::path& program);

/// `given`, or else the folder "latixel" in the XDG folder of settings or logs. It is made when missing. Throws
/// Failure when it cannot be made, or when no home folder is known. The folder of settings gets an empty latixel.ini
/// if it has none: where that file is, the plug-in leaves out channels without a chip, and else takes all for chips.
std::filesystem::path configFolder(const std::string& given);
std::filesystem::path logFolder(const std::string& given);

} // namespace tool
