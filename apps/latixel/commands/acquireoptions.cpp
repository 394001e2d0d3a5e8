// The options of `latixel acquire`.
#include "apps/latixel/commands/acquireoptions.h"

#include "apps/latixel/exitcode.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <map>

namespace tool {
namespace {

// The board counts frames in 24 bits, and in time delay integration rows.
constexpr unsigned MOST_FRAMES = 1u << 24;
constexpr unsigned MOST_TDI_FRAMES = 1u << 16;
constexpr double LONGEST_EXPOSURE = 86400; // seconds
constexpr double SLOWEST_CLOCK = 1e-6;     // MHz
constexpr double FASTEST_CLOCK = 50;       // MHz; the board divides this one by a whole number

/// The check without its own words in the help: the option's text says what it takes.
CLI::Validator quiet(CLI::Validator validator)
{
    return validator.description("");
}

void addSeries(CLI::App& command, AcquireOptions& o)
{
    const std::string group = "Series";
    command.add_option("-d,--device", o.device, "Device by number or name; the first one by default")
        ->type_name("DEVICE")
        ->group(group);
    command.add_option("-n,--frames", o.frames, "Number of frames")
        ->type_name("N")
        ->check(quiet(CLI::Range(1u, MOST_FRAMES)))
        ->capture_default_str()
        ->group(group);
    command.add_option("-t,--time", o.seconds, "Exposure of one frame in seconds; with tdi of one whole frame")
        ->type_name("SECONDS")
        ->check(quiet(CLI::Range(0.0, LONGEST_EXPOSURE)))
        ->capture_default_str()
        ->group(group);
    command
        .add_option("--trigger", o.trigger,
                    "none, start or stop by the external input, soft: each line on standard input (Enter) starts a "
                    "frame")
        ->type_name("WHICH")
        ->check(quiet(CLI::IsMember({"none", "start", "stop", "soft"})))
        ->capture_default_str()
        ->group(group);
}

void addDetector(CLI::App& command, AcquireOptions& o)
{
    const std::string group = "Detector";
    const auto chips = [&](CLI::Option* option) { option->group(group)->capture_default_str(); };
    chips(command.add_option("--mode", o.mode, "normal, crw (continuous read-write) or tdi (time delay integration)")
              ->type_name("MODE")
              ->check(quiet(CLI::IsMember({"normal", "crw", "tdi"}))));
    chips(command.add_option("--depth", o.depth, "Bits of a counter; 24 joins both into one")
              ->type_name("BITS")
              ->check(quiet(CLI::IsMember({1, 6, 12, 24}))));
    chips(command.add_option("--counter", o.counter, "0, 1 or both")
              ->type_name("WHICH")
              ->check(quiet(CLI::IsMember({"0", "1", "both"}))));
    chips(command.add_option("--row-block", o.rowBlock, "0 all rows, N only the 2^(N-1) lowest rows of each chip")
              ->type_name("N")
              ->check(quiet(CLI::Range(0, 8))));
    chips(command
              .add_option("--column-block", o.columnBlock,
                          "0 all columns, 1-8 one eighth, 9-12 one quarter, 13-14 one half of the columns")
              ->type_name("N")
              ->check(quiet(CLI::Range(0, 14))));
    chips(command.add_option("--gain", o.gain, "Gain of the preamplifier, 0 to 3")
              ->type_name("N")
              ->check(quiet(CLI::Range(0, 3))));
    chips(command.add_option("--polarity", o.polarity, "Input charge: positive or negative")
              ->type_name("SIGN")
              ->check(quiet(CLI::IsMember({"positive", "negative"}))));
    command.add_flag("--csm", o.chargeSumming, "Charge summing mode")->group(group);
    command.add_option("--bias", o.bias, "Bias of the sensor in volts; left as it is without this option")
        ->type_name("VOLTS")
        ->group(group);
    command
        .add_option("--clock", o.clock,
                    "Clock of Timepix pixels that measure times, in MHz; the board makes 50 divided by a whole number")
        ->type_name("MHZ")
        ->group(group);
    command
        .add_option("--dacs", o.dacs, "Text file of DAC values: those of one chip for all, or of every chip in turn")
        ->type_name("FILE")
        ->group(group);
    command
        .add_option("--pixel-config", o.pixelConfig,
                    "Binary file of the pixel configuration, likewise: two bytes a pixel, low one first, for "
                    "Medipix3, one byte for Medipix2 and Timepix")
        ->type_name("FILE")
        ->group(group);
}

void addOutput(CLI::App& command, AcquireOptions& o)
{
    const std::string group = "Output";
    command
        .add_option("-o,--output", o.output,
                    "File for the frames: .h5, .hdf5, .nxs, .tif, .tiff or .png; a series of PNG pictures is numbered")
        ->type_name("FILE")
        ->group(group);
    command.add_option("--format", o.format, "hdf5, tiff, png, or none to take frames and keep nothing")
        ->type_name("FORMAT")
        ->check(quiet(CLI::IsMember({"hdf5", "tiff", "png", "none"})))
        ->group(group);
    command.add_flag("--overwrite", o.overwrite, "Replace files that exist")->group(group);
    command
        .add_option("--layout", o.layout,
                    "How the chips lie in the picture, such as 2x2: columns x rows, filled row by row from the top "
                    "left; side by side by default")
        ->type_name("CxR")
        ->group(group);
    command.add_option("--compression", o.compression, "Deflate level of HDF5 (1 by default) and TIFF (0 by default)")
        ->type_name("LEVEL")
        ->check(quiet(CLI::Range(0, 9)))
        ->group(group);
    command.add_option("--colormap", o.colormap, "Colours of PNG pictures: viridis, grey or inferno")
        ->type_name("MAP")
        ->check(quiet(CLI::IsMember({"viridis", "grey", "inferno"})))
        ->capture_default_str()
        ->group(group);
    command
        .add_option("--range", o.range, "Counts of the first and the last colour; by default chosen for each picture")
        ->type_name("MIN:MAX")
        ->group(group);
}

dv::_Mpx3Config configOf(const AcquireOptions& o)
{
    static const std::map<int, unsigned char> depthCodes{{1, 0}, {6, 1}, {12, 2}, {24, 3}};
    static const std::map<std::string, unsigned char> counterCodes{{"0", 0}, {"1", 1}, {"both", 2}};
    dv::_Mpx3Config config{};
    config.counterDepth = depthCodes.at(o.depth);
    config.columnBlock = static_cast<unsigned char>(o.columnBlock);
    config.rowBlock = static_cast<unsigned char>(o.rowBlock);
    config.counterSelect = o.depth == 24 ? counterCodes.at("both") : counterCodes.at(o.counter);
    config.gainMode = static_cast<unsigned char>(o.gain);
    config.continuousRW = o.mode == "crw" ? 1 : 0;
    config.csmSpm = o.chargeSumming ? 1 : 0;
    config.polarity = o.polarity == "positive" ? 1 : 0;
    return config;
}

unsigned acqModeOf(const AcquireOptions& o)
{
    static const std::map<std::string, unsigned> triggers{{"none", 0},
                                                          {"start", dv::ACQMODE_EXT_TRIGGER_START},
                                                          {"stop", dv::ACQMODE_EXT_TRIGGER_STOP},
                                                          {"soft", dv::ACQMODE_SOFT_TRIGGER}};
    return triggers.at(o.trigger) | (o.mode == "tdi" ? unsigned{dv::ACQMODE_TDI} : 0u);
}

record::OutputOptions outputOf(const AcquireOptions& o)
{
    static const std::map<std::string, record::OutputFormat> formats{{"hdf5", record::OutputFormat::Hdf5},
                                                                     {"tiff", record::OutputFormat::Tiff},
                                                                     {"png", record::OutputFormat::Png},
                                                                     {"none", record::OutputFormat::None}};
    static const std::map<std::string, record::ColormapName> colours{{"viridis", record::ColormapName::Viridis},
                                                                     {"grey", record::ColormapName::Grey},
                                                                     {"inferno", record::ColormapName::Inferno}};
    record::OutputOptions output;
    output.path = o.output;
    output.compression = o.compression;
    output.colours = colours.at(o.colormap);
    output.mayReplace = o.overwrite;
    if (o.format == "none") {
        output.format = record::OutputFormat::None;
        return output;
    }
    if (o.output.empty())
        throw Failure(ExitCode::Arguments, "give a file with --output, or --format none to keep nothing");
    const auto format = o.format.empty() ? record::formatOf(output.path) : formats.at(o.format);
    if (!format)
        throw Failure(ExitCode::Arguments,
                      "what format is " + o.output + "? End its name in .h5, .tif or .png, or say it with --format");
    output.format = *format;
    if (!o.range.empty()) {
        output.range = record::parseRange(o.range);
        if (!output.range)
            throw Failure(ExitCode::Arguments, "--range takes MIN:MAX with MIN below MAX, such as 0:200");
    }
    return output;
}

} // namespace

void addAcquireOptions(CLI::App& command, AcquireOptions& options)
{
    addSeries(command, options);
    addDetector(command, options);
    addOutput(command, options);
}

std::string mpx3Options(const CLI::App& command, const AcquireOptions& options)
{
    std::string given;
    const auto add = [&given](const std::string& what) { given += (given.empty() ? "" : ", ") + what; };
    for (const char* name : {"--depth", "--counter", "--row-block", "--column-block", "--gain", "--polarity", "--csm"})
        if (command.count(name) > 0)
            add(name);
    if (options.mode == "crw")
        add("--mode crw");
    return given;
}

AcquirePlan makePlan(const AcquireOptions& o)
{
    if (!(o.seconds > 0))
        throw Failure(ExitCode::Arguments, "--time must be above 0 seconds");
    if (o.clock && !(*o.clock >= SLOWEST_CLOCK && *o.clock <= FASTEST_CLOCK))
        throw Failure(ExitCode::Arguments, "--clock must lie from 0.000001 to 50 MHz");
    if (o.mode == "crw" && (o.depth == 24 || o.counter == "both"))
        throw Failure(ExitCode::Arguments, "--mode crw reads one counter while the other counts: take --depth 12 or "
                                           "less and --counter 0 or 1");
    if (o.trigger == "soft" && o.mode != "normal")
        throw Failure(ExitCode::Arguments, "--trigger soft starts single frames: take it with --mode normal");
    if (o.mode == "tdi" && o.frames > MOST_TDI_FRAMES)
        throw Failure(ExitCode::Arguments, "--mode tdi takes at most " + std::to_string(MOST_TDI_FRAMES) + " frames");
    AcquirePlan plan;
    plan.config = configOf(o);
    plan.acqMode = acqModeOf(o);
    plan.twoCounters = o.counter == "both" && o.depth != 24;
    plan.output = outputOf(o);
    if (!o.layout.empty()) {
        plan.layout = record::Layout::parse(o.layout);
        if (!plan.layout)
            throw Failure(ExitCode::Arguments, "--layout takes COLUMNSxROWS, such as 2x2");
    }
    return plan;
}

} // namespace tool
