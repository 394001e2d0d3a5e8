// latixel info: everything that a device tells of itself.
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"
#include "record/devicesettings.h"

#include <iostream>
#include <memory>

namespace tool {
namespace {

std::string modes(unsigned mask)
{
    std::string text = "no trigger";
    if ((mask & dv::ACQMODE_EXT_TRIGGER_START) != 0)
        text += ", start by external trigger";
    if ((mask & dv::ACQMODE_EXT_TRIGGER_STOP) != 0)
        text += ", stop by external trigger";
    if ((mask & dv::ACQMODE_SOFT_TRIGGER) != 0)
        text += ", software trigger";
    if ((mask & dv::ACQMODE_TDI) != 0)
        text += ", time delay integration";
    return text;
}

ExitCode info(const GlobalOptions& global, const std::string& which)
{
    const Session session(global);
    const refhost::Device& device = session.device(which);
    const auto facts = device.mpxInfo();
    Table table;
    table.row({"Name", printable(device.name())});
    table.row({"Serial", std::to_string(device.info().serialNumber)});
    for (const std::string& serial : record::memberSerials(device))
        table.row({"  board", serial});
    table.row({"Kind", record::chipKind(device)});
    table.row({"Firmware", record::firmware(device)});
    table.row({"Plug-in", record::pluginVersion(device)});
    table.row({"Connected", device.isConnected() ? "yes" : "no"});
    const std::string status = printable(device.statusText());
    table.row({"Status", status.empty() ? "none told" : status});
    table.row({"Chips", std::to_string(device.chipCount())});
    unsigned number = 0;
    for (const std::string& id : device.chipIDs())
        table.row({"  chip " + std::to_string(number++), printable(id)});
    table.row({"Bias", fixed(facts.biasMin, 1) + " V to " + fixed(facts.biasMax, 1) + " V"});
    table.row({"Frame time", fixed(facts.acqTimeMin * 1e9, 0) + " ns to " + fixed(facts.acqTimeMax, 0) + " s"});
    if (device.isTimepix() && device.chipCount() > 0)
        table.row({"Clock", record::clockText(device.timepixClock()) + ", or what --clock sets for a series"});
    table.row({"Modes", modes(facts.acqModeMask)});
    table.row({"Parameters", std::to_string(device.params().size()) + " of its own, " +
                                 std::to_string(device.flashParams().size()) + " in its flash"});
    table.print(std::cout);
    return ExitCode::Success;
}

} // namespace

void addInfoCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("info", "Tells what a device is: chips, firmware, bias range, modes");
    auto device = std::make_shared<std::string>();
    command->add_option("-d,--device", *device, "Device by number or name; the first one by default")
        ->type_name("DEVICE");
    command->footer("Examples:\n"
                    "  latixel info\n"
                    "  latixel info --device 1\n");
    command->callback([&global, &run, device] { run = [&global, device] { return info(global, *device); }; });
}

} // namespace tool
