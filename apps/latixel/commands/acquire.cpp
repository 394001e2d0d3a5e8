// latixel acquire: takes a series of frames.
#include "apps/latixel/commands/acquireoptions.h"
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/devicesettings.h"
#include "apps/latixel/interrupt.h"
#include "apps/latixel/linetrigger.h"
#include "apps/latixel/progress.h"
#include "apps/latixel/text.h"
#include "apps/latixel/valuefile.h"
#include "record/framewriter.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace tool {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t QUEUE_BYTES = std::size_t{256} << 20;
constexpr double TELLING_HOLD = 0.5; // seconds for which the disk may hold a series up before it is told

/// A series that is over, with what became of its frames.
struct Outcome {
    refhost::SeriesResult series;
    double elapsed = 0;
    double held = 0;
    bool interrupted = false;
    bool triggersEnded = false;
};

record::Counting countingOf(const refhost::Device& device, const AcquirePlan& plan)
{
    if (!device.isMpx3())
        return record::Counting::Short;
    return plan.twoCounters ? record::Counting::Double : record::Counting::Single;
}

record::Layout layoutFor(const refhost::Device& device, const AcquirePlan& plan)
{
    const unsigned chips = device.chipCount();
    if (plan.layout && plan.layout->places() < chips)
        throw Failure(ExitCode::Arguments, "--layout has " + std::to_string(plan.layout->places()) + " places for " +
                                               std::to_string(chips) + " chips");
    return plan.layout ? *plan.layout : record::Layout::sideBySide(chips);
}

void checkBias(const refhost::Device& device, double volts)
{
    const auto limits = device.mpxInfo();
    if (!(volts >= limits.biasMin && volts <= limits.biasMax))
        throw Failure(ExitCode::Arguments, "--bias must lie from " + fixed(limits.biasMin, 1) + " V to " +
                                               fixed(limits.biasMax, 1) + " V for " + printable(device.name()));
}

/// The options that the device's chips have no use for are refused, so that nobody waits for their effect.
void checkChips(const refhost::Device& device, const AcquireOptions& options, const std::string& mpx3Only)
{
    if (!device.isMpx3() && !mpx3Only.empty())
        throw Failure(ExitCode::Arguments, printable(device.name()) + " has no Medipix3 chips: leave out " + mpx3Only);
    if (options.mode == "tdi" && (device.mpxInfo().acqModeMask & dv::ACQMODE_TDI) == 0)
        throw Failure(ExitCode::Arguments,
                      printable(device.name()) + " has no time delay integration: leave out --mode tdi");
    if (options.clock && !device.isTimepix())
        throw Failure(ExitCode::Arguments, printable(device.name()) + " has no Timepix chips: leave out --clock");
}

/// Chip values that the user gave, read before the device is touched.
struct ChipValues {
    std::vector<unsigned short> dacs;
    std::vector<unsigned char> pixelConfig;
};

void configure(refhost::Device& device, const AcquireOptions& options, const AcquirePlan& plan,
               const ChipValues& values)
{
    if (options.bias)
        checkBias(device, *options.bias);
    device.setAcqMode(plan.acqMode);
    if (device.isMpx3())
        device.setConfig(plan.config);
    if (!options.dacs.empty())
        device.setDacs(forAllChips(values.dacs, device.dacsPerChip(), device.chipCount(), options.dacs));
    if (!options.pixelConfig.empty())
        device.setPixelCfg(forAllChips(values.pixelConfig,
                                       std::size_t{refhost::Device::PIXELS_PER_CHIP} * device.pixelCfgBytes(),
                                       device.chipCount(), options.pixelConfig));
    if (options.bias)
        device.setBias(*options.bias);
    if (options.clock)
        std::cout << "Timepix clock: " << clockText(device.setTimepixClock(*options.clock)) << std::endl;
}

std::string noteOf(const refhost::SeriesProgress& progress, const AcquireOptions& options, bool stopping)
{
    if (stopping)
        return "stopping";
    if (progress.waitsForTrigger)
        return "press Enter for the next frame";
    if (options.trigger == "start" && progress.frames == 0)
        return "waiting for the trigger";
    return {};
}

/// Waits for the end of the series; meanwhile shows progress, hands on triggers, and stops it where there is reason.
Outcome watch(refhost::Series& series, const record::FrameWriter& writer, const AcquireOptions& options)
{
    const Interrupt interrupt;
    Progress progress(stderr);
    LineTrigger lines(STDIN_FILENO);
    Outcome outcome;
    bool stopping = false;
    series.start();
    while (!series.waitFor(20ms)) {
        const auto now = series.progress();
        if (now.waitsForTrigger && lines.take())
            series.trigger();
        outcome.triggersEnded = now.waitsForTrigger && lines.ended() && series.progress().waitsForTrigger;
        outcome.interrupted = interrupt.requested();
        if (!stopping && (outcome.interrupted || outcome.triggersEnded || writer.failed())) {
            stopping = true;
            series.stop();
        }
        progress.show({now.frames, options.frames, now.elapsed, options.seconds, noteOf(now, options, stopping)});
    }
    outcome.series = series.result();
    outcome.elapsed = series.progress().elapsed;
    return outcome;
}

std::string wordsFor(const refhost::SeriesResult& series)
{
    switch (series.end) {
    case refhost::SeriesEnd::Finished:
        return "finished";
    case refhost::SeriesEnd::Stopped:
        return "stopped";
    default:
        return series.error;
    }
}

Outcome takeFrames(refhost::Device& device, record::FrameSink& sink, const AcquireOptions& options,
                   const AcquirePlan& plan)
{
    const record::PictureMaker maker(device.chipCount(), layoutFor(device, plan), countingOf(device, plan));
    record::SeriesInfo info = describe(device);
    info.startTime = timeStamp();
    info.width = maker.width();
    info.height = maker.height();
    info.picturesPerFrame = maker.picturesPerFrame();
    info.bitsPerPixel = device.isMpx3() ? 32 : 16;
    info.frames = options.frames;
    info.seconds = options.seconds;
    sink.begin(info);

    record::FrameWriter writer(sink, maker, QUEUE_BYTES);
    refhost::SeriesRequest request;
    request.frames = options.frames;
    request.seconds = options.seconds;
    refhost::Series series(device, request, [&writer](refhost::SeriesFrame frame) { writer.push(std::move(frame)); });
    Outcome outcome = watch(series, writer, options);
    writer.finish();
    outcome.held = writer.held();
    if (outcome.series.frames > 0)
        sink.finish({timeStamp(), wordsFor(outcome.series)});
    return outcome;
}

void tell(const Outcome& outcome, const record::FrameSink& sink, const AcquireOptions& options)
{
    const auto& series = outcome.series;
    if (series.frames > 0)
        std::cout << series.frames << (series.frames == 1 ? " frame" : " frames") << " of " << duration(options.seconds)
                  << " in " << sink.place() << " (" << fixed(series.frames / std::max(outcome.elapsed, 1e-6), 2)
                  << " frames/s)" << std::endl;
    if (outcome.held > TELLING_HOLD)
        std::cerr << "latixel: the disk held the series up for " << duration(outcome.held)
                  << ": try --compression 0, or a faster disk\n";
    if (series.lost > 0)
        std::cerr << "latixel: " << series.lost << " frame(s) were lost: the device took them faster than they could "
                  << "be read\n";
    if (outcome.triggersEnded)
        std::cerr << "latixel: stopped, since standard input ended and no more triggers can come\n";
}

ExitCode codeFor(const Outcome& outcome, const AcquireOptions& options)
{
    const auto& series = outcome.series;
    const std::string kept =
        series.frames > 0 ? "; the " + std::to_string(series.frames) + " frame(s) taken are kept" : "";
    switch (series.end) {
    case refhost::SeriesEnd::Failed:
        throw Failure(ExitCode::Device, "the series failed: " + series.error + kept);
    case refhost::SeriesEnd::Refused:
        throw Failure(ExitCode::Device, "the series did not start: " + series.error);
    case refhost::SeriesEnd::Silent:
        throw Failure(ExitCode::Device,
                      "the device fell silent: " + series.error + "; unplug it and plug it in again" + kept);
    default:
        break;
    }
    if (series.frames == options.frames)
        return ExitCode::Success;
    std::cerr << "latixel: " << series.frames << " of " << options.frames << " frames were taken"
              << (series.frames > 0 ? "" : "; no file was made") << '\n';
    return ExitCode::Incomplete;
}

/// The device's threads may still run in the plug-in, so that nothing may be torn down under them.
[[noreturn]] void endAtOnce(const Outcome& outcome, const AcquireOptions& options)
{
    ExitCode code = ExitCode::Device;
    try {
        code = codeFor(outcome, options);
    } catch (const Failure& failure) {
        std::cerr << "latixel: " << printable(failure.what()) << std::endl;
        code = failure.code;
    }
    std::cout.flush();
    std::_Exit(static_cast<int>(code));
}

ExitCode acquire(const GlobalOptions& global, const AcquireOptions& options, const std::string& mpx3Only)
{
    const AcquirePlan plan = makePlan(options);
    ChipValues values;
    if (!options.dacs.empty())
        values.dacs = readNumbers(options.dacs);
    if (!options.pixelConfig.empty())
        values.pixelConfig = readBytes(options.pixelConfig);
    auto sink = record::makeSink(plan.output);

    Session session(global);
    refhost::Device& device = session.deviceWithChips(options.device);
    checkChips(device, options, mpx3Only);
    configure(device, options, plan, values);
    const Outcome outcome = takeFrames(device, *sink, options, plan);
    tell(outcome, *sink, options);
    if (outcome.series.end == refhost::SeriesEnd::Silent) {
        session.abandon();
        sink.reset(); // takes an incomplete file away
        endAtOnce(outcome, options);
    }
    return codeFor(outcome, options);
}

} // namespace

void addAcquireCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("acquire", "Takes a series of frames");
    auto options = std::make_shared<AcquireOptions>();
    addAcquireOptions(*command, *options);
    command->footer(
        "Ctrl-C ends the series and keeps the frames taken; a second one ends the tool at once.\n"
        "Up to 256 MB of frames wait for the disk; beyond that the series waits.\n"
        "HDF5 files open with entry/data/data, frames x height x width; settings, chip identifiers and times are in\n"
        "entry/instrument/detector. With two counters the second is in entry/data/data_counter1, in every second page\n"
        "of a TIFF file, and in pictures that end in _c1. Pixels without a valid count hold the highest number of "
        "their\n"
        "type, and stand out in pictures.\n"
        "\n"
        "Examples:\n"
        "  latixel acquire -n 100 -t 0.1 -o scan.h5\n"
        "  latixel acquire --mode crw --depth 12 -n 1000 -t 0.01 -o fast.h5 --compression 0\n"
        "  latixel acquire --bias 80 --dacs chips.txt --pixel-config mask.bin -o dark.tif\n"
        "  latixel acquire --trigger soft -n 5 -t 2 -o steps.h5\n"
        "  latixel acquire --clock 20 --pixel-config times.bin -n 10 -t 0.001 -o times.h5\n"
        "  latixel --simulate acquire --layout 2x2 --colormap inferno -o look.png\n");
    command->callback([&global, &run, options, command] {
        run = [&global, options, mpx3Only = mpx3Options(*command, *options)] {
            return acquire(global, *options, mpx3Only);
        };
    });
}

} // namespace tool
