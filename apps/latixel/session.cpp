// Opening and closing the plug-in for a subcommand.
#include "apps/latixel/session.h"

#include "apps/latixel/exitcode.h"
#include "apps/latixel/paths.h"
#include "apps/latixel/text.h"
#include "refhost/error.h"

#include <iostream>
#include <unistd.h>

namespace tool {
namespace {

constexpr const char* DEFAULT_BENCH = "mpx3-quad";
constexpr const char* NO_DEVICE_HELP =
    "check that it is plugged in and that you may use it (udev rules), or try --simulate for virtual boards";

} // namespace

Session::Session(const GlobalOptions& options)
    : verbose(options.verbose),
      host(configFolder(options.config), logFolder(options.logs))
{
    host.onMessage([](const refhost::Message& message) {
        std::cerr << "latixel: " << printable(message.title) << ": " << printable(message.text) << '\n';
    });
    if (options.bench)
        loadBoards(options.bench->empty() ? DEFAULT_BENCH : *options.bench);
    const bool telling = isatty(STDERR_FILENO) != 0;
    try {
        plugin = std::make_unique<refhost::Plugin>(host, options.plugin.empty()
                                                             ? findLibrary("liblatixel.so", programFolder())
                                                             : std::filesystem::path(options.plugin));
        if (telling)
            std::cerr << "looking for devices ..." << std::flush;
        plugin->open();
    } catch (const refhost::Error& error) {
        throw Failure(ExitCode::Plugin, error.what());
    }
    if (telling)
        std::cerr << "\r\x1b[K" << std::flush;
    if (!verbose)
        return;
    for (const auto& device : plugin->devices())
        device->onLog([name = printable(device->name())](const refhost::LogLine& line) {
            std::cerr << name + ": " + printable(line.text) + "\n";
        });
}

Session::~Session()
{
    close();
}

void Session::loadBoards(const std::string& bench)
{
    const auto folder = programFolder();
    const std::string file = findBench(bench, folder).string();
    try {
        boards.emplace(findLibrary("liblatixelsim.so", folder));
    } catch (const refhost::Error& error) {
        throw Failure(ExitCode::Plugin, error.what());
    }
    const auto load = reinterpret_cast<int (*)(const char*)>(boards->symbol("latixelsimLoadBench"));
    const auto reason = reinterpret_cast<const char* (*)()>(boards->symbol("latixelsimError"));
    if (load == nullptr || reason == nullptr)
        throw Failure(ExitCode::Plugin, "liblatixelsim.so holds no virtual boards: is it from another version?");
    if (load(file.c_str()) != 0)
        throw Failure(ExitCode::Arguments, "the bench " + file + " cannot be used: " + printable(reason()));
}

const std::vector<std::unique_ptr<refhost::Device>>& Session::devices() const
{
    if (plugin->devices().empty())
        throw Failure(ExitCode::NoDevice, std::string("no device found: ") + NO_DEVICE_HELP);
    return plugin->devices();
}

refhost::Device& Session::device(const std::string& numberOrName) const
{
    const auto& all = devices();
    if (numberOrName.empty())
        return *all.front();
    refhost::Device* found = plugin->find(numberOrName);
    if (found == nullptr)
        throw Failure(ExitCode::NoDevice, "there is no device \"" + printable(numberOrName) +
                                              "\": see \"latixel list\" for names and numbers");
    return *found;
}

refhost::Device& Session::deviceWithChips(const std::string& numberOrName) const
{
    refhost::Device& found = device(numberOrName);
    if (found.chipCount() == 0)
        throw Failure(ExitCode::NoDevice, "device " + printable(found.name()) +
                                              " has no working chip: check the chip board's seat and power, then "
                                              "look into its log");
    return found;
}

void Session::abandon()
{
    plugin->abandon();
}

void Session::close()
{
    if (plugin == nullptr)
        return;
    plugin->close();
    if (!verbose)
        return;
    for (const std::string& complaint : host.complaints())
        std::cerr << "complaint: " + printable(complaint) + "\n";
}

} // namespace tool
