// latixel params: reads and sets a device's parameters.
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"
#include "record/devicesettings.h"
#include "refhost/error.h"

#include <iostream>
#include <memory>

namespace tool {
namespace {

constexpr std::size_t SHOWN_ITEMS = 10;

struct ParamsOptions {
    std::string device;
    std::vector<std::string> requests; // NAME or NAME=VALUE
    bool all = false;
};

std::string access(const refhost::Param& param)
{
    if (param.readOnly())
        return "read";
    return (param.flags() & dv::PARAM_CONFIG) != 0 ? "config" : "write";
}

void addRows(Table& table, const std::vector<refhost::Param*>& params, bool bulkToo)
{
    for (refhost::Param* param : params) {
        const bool isText = param->type() == refhost::DataType::Char;
        const bool hidden = param->size() > SHOWN_ITEMS && !isText && !bulkToo;
        const std::string value = hidden ? "(" + std::to_string(param->size()) + " values)" : param->getString();
        table.row({printable(param->name()), printable(value), std::string(refhost::nameOf(param->type())),
                   access(*param), printable(param->description())});
    }
}

refhost::Param& find(const refhost::Device& device, const std::string& name)
{
    refhost::Param* param = device.findParam(name);
    if (param == nullptr)
        throw Failure(ExitCode::Arguments, "there is no parameter \"" + printable(name) + "\" in " +
                                               printable(device.name()) + ": see \"latixel params\" for the names");
    return *param;
}

/// Sets where a value stands behind the name, and prints what the parameter holds.
void serve(refhost::Device& device, const std::string& request)
{
    const std::size_t sign = request.find('=');
    refhost::Param& param = find(device, request.substr(0, sign));
    if (!record::isAtHand(param))
        record::loadFlash(device);
    if (sign != std::string::npos) {
        device.forgetErrorLine();
        try {
            param.writeText(request.substr(sign + 1));
        } catch (const refhost::Error& error) {
            throw Failure(ExitCode::Arguments, error.what());
        }
        if (const std::string words = device.errorLine(); !words.empty())
            throw Failure(ExitCode::Device, device.name() + ": " + words);
    }
    std::cout << printable(param.name()) << "=" << printable(param.getString()) << '\n';
}

ExitCode params(const GlobalOptions& global, const ParamsOptions& options)
{
    const Session session(global);
    refhost::Device& device = session.device(options.device);
    for (const std::string& request : options.requests)
        find(device, request.substr(0, request.find('='))); // all names first: nothing is set if one is wrong
    for (const std::string& request : options.requests)
        serve(device, request);
    if (!options.requests.empty())
        return ExitCode::Success;
    record::loadFlash(device);
    Table table;
    table.row({"Name", "Value", "Type", "Access", "Description"});
    addRows(table, device.params(), options.all);
    addRows(table, device.flashParams(), options.all);
    table.print(std::cout);
    return ExitCode::Success;
}

} // namespace

void addParamsCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("params", "Reads and sets parameters; all are listed without a name");
    auto options = std::make_shared<ParamsOptions>();
    command->add_option("-d,--device", options->device, "Device by number or name; the first one by default")
        ->type_name("DEVICE");
    command->add_option("requests", options->requests, "NAME to read one, NAME=VALUE to set it")
        ->type_name("NAME[=VALUE]");
    command->add_flag("-a,--all", options->all, "Show large tables too");
    command->footer("Parameters live as long as the plug-in is open: settings that are to last belong in latixel.ini.\n"
                    "Access: \"read\" cannot be set, \"config\" acts from the next series on, \"write\" acts at once.\n"
                    "\n"
                    "Examples:\n"
                    "  latixel params\n"
                    "  latixel params Temperature\n"
                    "  latixel params -d 1 BiasDischarge=1\n");
    command->callback([&global, &run, options] { run = [&global, options] { return params(global, *options); }; });
}

} // namespace tool
