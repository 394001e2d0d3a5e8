// latixel acquire: takes a series of frames.
#include "apps/latixel/commands/acquireoptions.h"
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/devicesettings.h"
#include "apps/latixel/interrupt.h"
#include "apps/latixel/linetrigger.h"
#include "apps/latixel/progress.h"
#include "apps/latixel/text.h"
#include "apps/latixel/valuefile.h"
#include "record/error.h"
#include "record/framewriter.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tool {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t QUEUE_BYTES = std::size_t{256} << 20;
constexpr double TELLING_HOLD = 0.5; // seconds for which the disk may hold a series up before it is told
constexpr double TELLING_BLOCK = 5;  // seconds for which a write may take before it is told
constexpr auto PATIENCE = 4s;        // with such a write once the series has been stopped

/// A series that is over, with what became of its frames.
struct Outcome {
    refhost::SeriesResult series;
    double elapsed = 0;
    record::WriterCounts counts;
    std::string diskFailure;  ///< one line; empty while the disk takes all
    bool diskIsStuck = false; ///< a thread of ours still waits for it
    bool interrupted = false;
    bool triggersEnded = false;
};

std::uint32_t highestCountOf(const refhost::Device& device, const AcquireOptions& options)
{
    constexpr std::uint32_t SHORT = 11810; // the period of the counters of Medipix2 and Timepix chips
    return device.isMpx3() ? (std::uint32_t{1} << options.depth) - 1 : SHORT;
}

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
Outcome watch(refhost::Series& series, record::FrameWriter& writer, const AcquireOptions& options)
{
    const Interrupt interrupt;
    Progress progress(stderr);
    LineTrigger lines(STDIN_FILENO);
    Outcome outcome;
    bool stopping = false;
    bool blockTold = false;
    series.start();
    while (!series.waitFor(20ms)) {
        const double blocked = writer.blocked();
        if (blocked > TELLING_BLOCK && !blockTold) {
            progress.clear();
            std::cerr << "latixel: the disk has taken nothing for " << fixed(TELLING_BLOCK, 0)
                      << " s: the series waits for it" << std::endl;
        }
        blockTold = blocked > TELLING_BLOCK;
        if (stopping && blockTold) {
            outcome.diskIsStuck = true;
            writer.giveUp(); // the device may wait for room in the queue
        }
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

/// Completes the file with the frames that are there.
void finish(record::FrameWriter& writer, Outcome& outcome)
{
    try {
        writer.finish({timeStamp(), wordsFor(outcome.series)}, outcome.interrupted ? PATIENCE : 24h);
    } catch (const record::OutputError& error) {
        outcome.diskFailure = error.what();
    }
    outcome.diskIsStuck = outcome.diskIsStuck || writer.blocked() > 0;
    outcome.counts = writer.counts();
}

Outcome takeFrames(refhost::Device& device, const std::shared_ptr<record::FrameSink>& sink,
                   const AcquireOptions& options, const AcquirePlan& plan)
{
    const std::uint32_t highestCount = highestCountOf(device, options);
    const record::PictureMaker maker(device.chipCount(), layoutFor(device, plan), countingOf(device, plan),
                                     highestCount);
    record::SeriesInfo info = describe(device);
    info.startTime = timeStamp();
    info.width = maker.width();
    info.height = maker.height();
    info.picturesPerFrame = maker.picturesPerFrame();
    info.bitsPerPixel = device.isMpx3() ? 32 : 16;
    info.highestCount = highestCount;
    info.frames = options.frames;
    info.seconds = options.seconds;
    sink->begin(info);

    record::FrameWriter writer(sink, maker, QUEUE_BYTES);
    refhost::SeriesRequest request;
    request.frames = options.frames;
    request.seconds = options.seconds;
    refhost::Series series(device, request, [&writer](refhost::SeriesFrame frame) { writer.push(std::move(frame)); });
    Outcome outcome = watch(series, writer, options);
    finish(writer, outcome);
    return outcome;
}

std::string framesText(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

void tell(const Outcome& outcome, const record::FrameSink& sink, const AcquireOptions& options)
{
    const auto& counts = outcome.counts;
    if (const std::size_t safe = sink.safeFrames(); safe > 0) {
        std::cout << framesText(safe) << " of " << duration(options.seconds) << " in " << sink.place() << " ("
                  << fixed(outcome.series.frames / std::max(outcome.elapsed, 1e-6), 2) << " frames/s";
        if (counts.incomplete > 0)
            std::cout << ", " << counts.incomplete << " incomplete";
        if (counts.zero > 0)
            std::cout << ", " << counts.zero << " with nothing but zeros";
        if (counts.saturated > 0)
            std::cout << ", " << counts.saturated << " saturated pixels";
        if (counts.inHurry > 0)
            std::cout << ", " << fixed(100.0 * counts.inHurry / std::max(counts.written, 1u), 0) << " % uncompressed";
        std::cout << ")" << std::endl;
    }
    if (counts.held > TELLING_HOLD)
        std::cerr << "latixel: the disk held the series up for " << duration(counts.held)
                  << ": try --compression 0, or a faster disk\n";
    if (outcome.series.lost > 0)
        std::cerr << "latixel: " << outcome.series.lost
                  << " frame(s) were lost: the device took them faster than they could be read\n";
    if (outcome.triggersEnded)
        std::cerr << "latixel: stopped, since standard input ended and no more triggers can come\n";
}

/// What the tool ends with. Of several reasons the one that the user can do most about is told.
ExitCode codeFor(const Outcome& outcome, const record::FrameSink& sink, const AcquireOptions& options)
{
    const auto& series = outcome.series;
    const std::size_t safe = sink.safeFrames();
    if (!outcome.diskFailure.empty())
        throw Failure(ExitCode::Output, outcome.diskFailure + "; " +
                                            (safe > 0 ? framesText(safe) + " are safe in " + sink.place()
                                                      : std::string("no frame was kept")));
    const std::string kept = safe > 0 ? "; the " + std::to_string(safe) + " frame(s) taken are kept" : "";
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
    if (series.frames == options.frames && outcome.counts.incomplete == 0)
        return ExitCode::Success;
    if (series.frames < options.frames)
        std::cerr << "latixel: " << series.frames << " of " << options.frames << " frames were taken"
                  << (series.frames > 0 ? "" : "; no file was made") << '\n';
    if (outcome.counts.incomplete > 0)
        std::cerr << "latixel: bytes are missing in " << framesText(outcome.counts.incomplete)
                  << ": see frame_table in the file\n";
    return ExitCode::Incomplete;
}

/// Threads may still run in the plug-in, or wait for the disk, so that nothing may be torn down under them.
[[noreturn]] void endAtOnce(const Outcome& outcome, const record::FrameSink& sink, const AcquireOptions& options)
{
    ExitCode code = ExitCode::Device;
    try {
        code = codeFor(outcome, sink, options);
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
    const std::shared_ptr<record::FrameSink> sink = record::makeSink(plan.output);

    std::optional<Session> session(std::in_place, global);
    refhost::Device& device = session->deviceWithChips(options.device);
    checkChips(device, options, mpx3Only);
    configure(device, options, plan, values);
    const Outcome outcome = takeFrames(device, sink, options, plan);
    tell(outcome, *sink, options);
    const bool silent = outcome.series.end == refhost::SeriesEnd::Silent;
    if (silent)
        session->abandon();
    else
        session.reset();
    if (silent || outcome.diskIsStuck)
        endAtOnce(outcome, *sink, options);
    return codeFor(outcome, *sink, options);
}

} // namespace

void addAcquireCommand(CLI::App& app, const GlobalOptions& global, Run& run)
{
    CLI::App* command = app.add_subcommand("acquire", "Takes a series of frames");
    auto options = std::make_shared<AcquireOptions>();
    addAcquireOptions(*command, *options);
    command->footer(
        "Ctrl-C ends the series and keeps the frames taken; a second one ends the tool at once.\n"
        "The file has its name from the first frame on; \"latixel check FILE\" tells what it holds, also after a "
        "kill.\n"
        "Up to 256 MB of frames wait for the disk; beyond that the series waits. From half of it on frames are not\n"
        "compressed.\n"
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
