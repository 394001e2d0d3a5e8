// The command line: global options, subcommands, help, and failures in one line.
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"
#include "record/error.h"
#include "refhost/error.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <iostream>

namespace tool {
namespace {

constexpr const char* SUMMARY =
    "Drives Latixel pixel detectors: lists them, reads and sets their parameters, takes frames.\n";

constexpr const char* FOOTER = "Examples:\n"
                               "  latixel list                                     what is plugged in\n"
                               "  latixel acquire -n 10 -t 0.5 -o run.h5           ten frames of half a second\n"
                               "  latixel --simulate acquire -o look.png           a frame from virtual boards\n"
                               "  latixel COMMAND --help                           options and examples of a command\n";

constexpr const char* ENVIRONMENT =
    "Environment: LATIXEL_PLUGIN_DIR holds liblatixel.so and liblatixelsim.so, LATIXELSIM_BENCH_DIR the benches.\n";

std::string footer()
{
    std::string text = FOOTER + std::string("\nExit codes:\n");
    for (const ExitCodeText& row : EXIT_CODES) {
        const std::string number = std::to_string(static_cast<int>(row.code));
        text += "  " + number + std::string(5 - number.size(), ' ') + row.text + "\n";
    }
    return text + "\n" + ENVIRONMENT;
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options)
{
    app.add_option_function<std::string>(
           "--simulate", [&options](const std::string& bench) { options.bench = bench; },
           "Virtual boards instead of USB: a bench file, or the name of a bench; mpx3-quad without one")
        ->type_name("[BENCH]")
        ->expected(0, 1);
    app.add_option("--plugin", options.plugin, "File of the plug-in; looked for beside the tool by default")
        ->type_name("FILE");
    app.add_option("--config", options.config, "Folder of latixel.ini; default ~/.config/latixel")->type_name("DIR");
    app.add_option("--logs", options.logs, "Folder for log files; default ~/.local/state/latixel")->type_name("DIR");
    app.add_flag("-v,--verbose", options.verbose, "Tell what the devices log");
}

ExitCode guarded(const Run& run)
{
    const auto fail = [](const char* text, ExitCode code) {
        std::cerr << "latixel: " << printable(text) << '\n';
        return code;
    };
    try {
        return run();
    } catch (const Failure& failure) {
        return fail(failure.what(), failure.code);
    } catch (const record::OutputExists& error) {
        const std::string advice = ": choose another name, or replace it with --overwrite";
        return fail((error.what() + advice).c_str(), ExitCode::Output);
    } catch (const record::OutputError& error) {
        return fail(error.what(), ExitCode::Output);
    } catch (const record::FrameError& error) {
        return fail(error.what(), ExitCode::Device);
    } catch (const refhost::Error& error) {
        return fail(error.what(), ExitCode::Device);
    } catch (const std::exception& error) {
        return fail(error.what(), ExitCode::Internal);
    }
}

} // namespace

int runTool(int argc, const char* const* argv)
{
    CLI::App app(SUMMARY, "latixel");
    GlobalOptions global;
    Run run;
    app.set_version_flag("--version", "latixel " LATIXEL_VERSION);
    app.footer(footer());
    app.fallthrough();
    app.require_subcommand(1);
    app.failure_message([](const CLI::App* command, const CLI::Error& error) {
        return "latixel: " + printable(error.what()) + " (see " + command->get_name() + " --help)\n";
    });
    addGlobalOptions(app, global);
    addListCommand(app, global, run);
    addInfoCommand(app, global, run);
    addParamsCommand(app, global, run);
    addSenseCommand(app, global, run);
    addAcquireCommand(app, global, run);
    addCheckCommand(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::Arguments);
    }
    return static_cast<int>(guarded(run));
}

} // namespace tool
