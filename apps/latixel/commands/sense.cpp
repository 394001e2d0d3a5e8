// latixel sense: what the board measures.
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/text.h"

#include <array>
#include <cstdio>
#include <iostream>
#include <memory>

namespace tool {
namespace {

constexpr unsigned CHANNELS_PER_BOARD = 16;

std::string current(double amperes)
{
    std::array<char, 40> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%.4g", amperes);
    return buffer.data();
}

ExitCode sense(const GlobalOptions& global, const std::string& which)
{
    const Session session(global);
    const refhost::Device& device = session.device(which);
    Table table;
    const auto bias = device.bias();
    table.row({"Bias voltage", fixed(bias.volts, 2) + " V"});
    table.row({"Bias current", current(bias.current) + "  (unit of the board's calibration)"});
    // The first is a sensor on Medipix3 boards, the second one that the CPU of a Timepix board reads.
    for (const char* name : {"Temperature", "TempDet"})
        if (refhost::Param* temperature = device.findParam(name); temperature != nullptr)
            table.row({"Temperature", fixed(temperature->getFloat(), 1) + " C"});
    for (unsigned index = 0; index < device.adcCount(); ++index) {
        const std::string board =
            device.adcCount() > CHANNELS_PER_BOARD ? "board " + std::to_string(index / CHANNELS_PER_BOARD) + " " : "";
        table.row({board + "ADC " + std::to_string(index % CHANNELS_PER_BOARD), fixed(device.adc(index), 4) + " V"});
    }
    table.print(std::cout);
    return ExitCode::Success;
}

} // namespace

void addSenseCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("sense", "Measures bias, temperature and all ADC channels");
    auto device = std::make_shared<std::string>();
    command->add_option("-d,--device", *device, "Device by number or name; the first one by default")
        ->type_name("DEVICE");
    command->footer("Examples:\n"
                    "  latixel sense\n"
                    "  latixel sense --device 1\n");
    command->callback([&global, &run, device] { run = [&global, device] { return sense(global, *device); }; });
}

} // namespace tool
