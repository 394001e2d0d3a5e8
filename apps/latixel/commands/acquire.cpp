// latixel acquire: takes a series of frames.
#include "apps/latixel/commands/acquireoptions.h"
#include "apps/latixel/commands/commands.h"
#include "apps/latixel/interrupt.h"
#include "apps/latixel/linetrigger.h"
#include "apps/latixel/progress.h"
#include "apps/latixel/text.h"
#include "apps/latixel/valuefile.h"
#include "record/devicesettings.h"
#include "record/session.h"

#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tool {
namespace {

constexpr double TELLING_HOLD = 0.5; // seconds for which the disk may hold a series up before it is told

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
        std::cout << "Timepix clock: " << record::clockText(device.setTimepixClock(*options.clock)) << std::endl;
}

std::string noteOf(const record::SessionProgress& progress, const AcquireOptions& options)
{
    if (progress.stopping)
        return "stopping";
    if (progress.waitsForTrigger)
        return "press Enter for the next frame";
    if (options.trigger == "start" && progress.frames == 0)
        return "waiting for the trigger";
    return {};
}

/// What happens in a session, as people see it; and what they ask of it by keys and signals.
class Watcher {
public:
    Watcher(record::Session& recorderSession, const AcquireOptions& acquireOptions)
        : session(recorderSession),
          options(acquireOptions)
    {
    }

    void operator()(const record::SessionProgress& now)
    {
        if (now.waitsForTrigger && lines.take())
            session.trigger();
        else if (now.waitsForTrigger && lines.ended() && !now.stopping)
            ended = true;
        if (interrupt.requested() || ended)
            session.stop();
        progress.show({now.frames, options.frames, now.elapsed, options.seconds, noteOf(now, options)});
    }
    void operator()(const record::DiskBlocked& disk)
    {
        say("the disk has taken nothing for " + fixed(disk.seconds, 0) + " s: the series waits for it");
    }
    void operator()(const record::OnlyZeros& zeros)
    {
        say("the last " + std::to_string(zeros.frames) +
            " frames hold nothing but zeros: look at beam, bias and chips");
    }
    void operator()(const record::Saturated& saturated)
    {
        say(fixed(100 * saturated.share, 1) + " % of the pixels are saturated: expose for less time");
    }
    /// No more triggers could come.
    bool triggersEnded() const { return ended; }

private:
    void say(const std::string& text)
    {
        progress.clear();
        std::cerr << "latixel: " << text << std::endl;
    }

    record::Session& session;
    const AcquireOptions& options;
    const Interrupt interrupt;
    Progress progress{stderr};
    LineTrigger lines{STDIN_FILENO};
    bool ended = false;
};

record::SessionResult takeFrames(refhost::Device& device, const std::shared_ptr<record::FrameSink>& sink,
                                 const AcquireOptions& options, const AcquirePlan& plan)
{
    record::SessionSettings settings;
    settings.frames = options.frames;
    settings.seconds = options.seconds;
    settings.layout = layoutFor(device, plan);
    settings.counting = countingOf(device, plan);
    settings.highestCount = highestCountOf(device, options);
    record::Session session(device, settings, sink);
    Watcher watcher(session, options);
    const record::SessionResult result =
        session.run([&watcher](const record::SessionEvent& event) { std::visit(watcher, event); });
    if (watcher.triggersEnded())
        std::cerr << "latixel: stopped, since standard input ended and no more triggers can come\n";
    return result;
}

std::string framesText(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

void tell(const record::SessionResult& result, const std::string& place, const AcquireOptions& options)
{
    const auto& counts = result.counts;
    if (result.safe > 0) {
        std::cout << framesText(result.safe) << " of " << duration(options.seconds) << " in " << place << " ("
                  << fixed(result.received / std::max(result.elapsed, 1e-6), 2) << " frames/s";
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
    if (result.lost > 0)
        std::cerr << "latixel: " << result.lost
                  << " frame(s) were lost: the device took them faster than they could be read"
                  << (result.gaps.empty() ? "" : "; their numbers: " + result.gaps) << '\n';
}

/// What the device has done that ends the tool with a failure, of the gravest first.
void throwForDevice(const record::SessionResult& result, const std::string& serial)
{
    const std::string kept = result.safe > 0 ? "; the " + std::to_string(result.safe) + " frame(s) taken are kept" : "";
    switch (result.end) {
    case record::SessionEnd::Overheated:
        throw Failure(ExitCode::Overheated, "the device is too hot, and has ended the series: " + result.error + kept);
    case record::SessionEnd::Lost:
        throw Failure(ExitCode::Lost,
                      "the board with serial " + serial + " has gone from the bus: " + result.error + kept);
    default:
        break;
    }
    if (!result.diskFailure.empty())
        return; // what the user can do something about
    switch (result.end) {
    case record::SessionEnd::Failed:
        throw Failure(ExitCode::Device, "the series failed: " + result.error + kept);
    case record::SessionEnd::Refused:
        throw Failure(ExitCode::Device, "the series did not start: " + result.error);
    case record::SessionEnd::Silent:
        throw Failure(ExitCode::Device,
                      "the device fell silent: " + result.error + "; unplug it and plug it in again" + kept);
    default:
        break;
    }
}

ExitCode codeFor(const record::SessionResult& result, const std::string& place)
{
    if (!result.diskFailure.empty())
        throw Failure(ExitCode::Output, result.diskFailure + "; " +
                                            (result.safe > 0 ? framesText(result.safe) + " are safe in " + place
                                                             : std::string("no frame was kept")));
    if (result.isWhole())
        return ExitCode::Success;
    if (result.received < result.requested)
        std::cerr << "latixel: " << result.received << " of " << result.requested << " frames were taken"
                  << (result.received > 0 ? "" : "; no file was made") << '\n';
    if (result.counts.incomplete > 0)
        std::cerr << "latixel: bytes are missing in " << framesText(result.counts.incomplete)
                  << ": see frame_table in the file\n";
    return ExitCode::Incomplete;
}

/// Threads may still run in the plug-in, or wait for the disk, so that nothing may be torn down under them.
[[noreturn]] void endAtOnce(const std::function<ExitCode()>& howToEnd)
{
    ExitCode code = ExitCode::Device;
    try {
        code = howToEnd();
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
    std::shared_ptr<record::FrameSink> sink = record::makeSink(plan.output);

    std::optional<Session> session(std::in_place, global);
    refhost::Device& device = session->deviceWithChips(options.device);
    const auto serial = std::to_string(device.info().serialNumber);
    checkChips(device, options, mpx3Only);
    configure(device, options, plan, values);
    const record::SessionResult result = takeFrames(device, sink, options, plan);
    const std::string place = sink->place();
    tell(result, place, options);
    const auto howToEnd = [&] {
        throwForDevice(result, serial);
        return codeFor(result, place);
    };
    const bool silent = result.end == record::SessionEnd::Silent;
    if (silent)
        session->abandon();
    else if (result.diskIsStuck)
        session.reset();
    if (!silent && !result.diskIsStuck)
        return howToEnd();
    sink.reset(); // takes a file without frames away
    endAtOnce(howToEnd);
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
