// latixel list: the devices that are there.
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"
#include "record/devicesettings.h"

#include <iostream>

namespace tool {
namespace {

ExitCode list(const GlobalOptions& global)
{
    const Session session(global);
    Table table;
    table.row({"No.", "Name", "Chips", "Kind", "Serial", "Status"});
    unsigned number = 0;
    for (const auto& device : session.devices()) {
        const std::string status = printable(device->statusText());
        table.row({std::to_string(number++), printable(device->name()), std::to_string(device->chipCount()),
                   record::chipKind(*device), std::to_string(device->info().serialNumber),
                   status.empty() ? (device->isConnected() ? "ready" : "not connected") : status});
        for (const std::string& serial : record::memberSerials(*device))
            table.row({"", "  board", "", "", serial, ""});
    }
    table.print(std::cout);
    return ExitCode::Success;
}

} // namespace

void addListCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("list", "Lists the devices");
    command->footer("Examples:\n"
                    "  latixel list\n"
                    "  latixel list --simulate mpx3-quad\n");
    command->callback([&global, &run] { run = [&global] { return list(global); }; });
}

} // namespace tool
