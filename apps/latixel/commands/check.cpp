// latixel check: what a file of frames holds, and whether all of it is there.
#include "record/check.h"
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"
#include "record/error.h"
#include "record/repair.h"

#include <iostream>
#include <memory>

namespace tool {
namespace {

struct CheckOptions {
    std::string file;
    bool repair = false;
};

void print(const record::FileCheck& check)
{
    Table table;
    const auto row = [&table](const char* name, std::uint64_t count) { table.row({name, std::to_string(count)}); };
    row("Frames asked for", check.requested);
    row("Frames delivered", check.delivered);
    row("  incomplete", check.incomplete);
    row("Frames missing", check.missing());
    if (const std::string gaps = record::gapsIn(check.numbers, check.requested); !gaps.empty())
        table.row({"  their numbers", gaps});
    row("Saturated pixels", check.saturatedPixels);
    table.row({"Closed", check.isClosed ? "yes" : (check.hasWriter ? "no, it is being written" : "no")});
    for (const auto& [name, value] : check.facts)
        table.row({name, value});
    table.print(std::cout);
}

ExitCode check(const CheckOptions& options)
{
    record::FileCheck found;
    try {
        found = record::checkFile(options.file);
        if (found.isOurs && !found.isClosed && options.repair) {
            record::repairFile(options.file);
            found = record::checkFile(options.file);
        }
    } catch (const record::OutputError& error) {
        throw Failure(options.repair && found.isOurs ? ExitCode::Output : ExitCode::Arguments, error.what());
    }
    if (!found.isOurs)
        throw Failure(ExitCode::Arguments, options.file + " is no HDF5 or TIFF file that latixel has written");
    print(found);
    if (!found.isClosed && !found.hasWriter)
        std::cerr << "latixel: " << options.file << " was not closed; latixel check --repair " << options.file
                  << " makes it readable for all programs\n";
    if (!found.isClosed)
        return ExitCode::NotClosed;
    return found.isWhole() ? ExitCode::Success : ExitCode::Incomplete;
}

} // namespace

void addCheckCommand(CLI::App& app, Run& run)
{
    CLI::App* command = app.add_subcommand("check", "Tells what a file of frames holds, and repairs one that was cut");
    auto options = std::make_shared<CheckOptions>();
    command->add_option("file", options->file, "HDF5 or TIFF file")->type_name("FILE")->required();
    command->add_flag("--repair", options->repair,
                      "Make a file whose writer was killed readable for all programs; keep it from harm meanwhile");
    command->footer("Exit code: 0 all frames are there, 7 frames lack or are incomplete, 10 the file was not closed,\n"
                    "2 it is none of ours, 6 it cannot be repaired.\n"
                    "\n"
                    "Examples:\n"
                    "  latixel check run.h5\n"
                    "  latixel check --repair run.h5\n");
    command->callback([&run, options] { run = [options] { return check(*options); }; });
}

} // namespace tool
