// What a Medipix2 or Timepix device does to its chips: DACs, clocks, timer, triggers, and a matrix on its way to them.
#include "devices/mpx2/ampx2dev.h"

#include "chipdata/bits.h"
#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2dacs.h"
#include "chipdata/mpx2matrix.h"
#include "link/tpxcmds.h"
#include "shared/str.h"

#include <algorithm>
#include <limits>

namespace HwLatixel {

namespace {

constexpr double DACS_TIMEOUT = 1.5; ///< seconds for what comes out of a DAC chain

constexpr std::size_t MAX_CHIPS = 50; ///< on any of these boards

// The third clock of the acquisition unit; no parameter reaches it.
constexpr unsigned char COUNT_3 = 10;
constexpr unsigned char DIVIDER_3 = 100;

} // namespace

int AMpx2Dev::requireChips() const
{
    if (!loadFlag(connected) || loadFlag(noChip))
        return logError(1, "Device not connected or no chip");
    return 0;
}

int AMpx2Dev::refuseNull() const
{
    return logError(1, "Invalid argument: null pointer");
}

/// Whether there is a device that takes so many values; else the refusal is told.
bool AMpx2Dev::checkSize(std::size_t size) const
{
    if (size <= MAX_CHIPS * MPX2_CHIP_PIXELS)
        return true;
    logError(1, "Invalid size (%lu).", static_cast<unsigned long>(size));
    return false;
}

/// Takes the announced frame over, so that the series may overwrite the stream, before the slow decoding starts.
void AMpx2Dev::takeAnnouncedFrame()
{
    if (buffers.copyAnnounced())
        matrixReadEvent.set();
}

int AMpx2Dev::readMatrix(unsigned short* matrix, std::size_t size, bool convert)
{
    std::size_t missing = 0;
    return readMatrixCounting(matrix, size, convert, missing);
}

int AMpx2Dev::dacCountOfChip() const
{
    return timepix ? MPX2_TPX_DAC_COUNT : MPX2_MXR_DAC_COUNT;
}

int AMpx2Dev::setDacs(const unsigned short* dacs, std::size_t size, int chip)
{
    return setMpx2Dacs(dacs, size, chip, 0, 0, 0, 0);
}

int AMpx2Dev::setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac,
                          int extDac, unsigned ctpr)
{
    if (requireChips() != 0)
        return 1;
    if (!checkSize(size))
        return 1;
    std::vector<char> stream(static_cast<std::size_t>(chipCount_) * MPX2_DAC_STREAM_SIZE);
    return setDACs(dacs, size, stream.data(), chip, senseChip, senseDac, extDac, ctpr, DACS_TIMEOUT, false);
}

int AMpx2Dev::setDACs(const unsigned short* dacs, std::size_t size, char* stream, int, int senseChip, int senseDac,
                      int extDac, unsigned ctpr, double timeout, bool idsOnly)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Set DACs");
    const auto dacCount = static_cast<std::size_t>(dacCountOfChip());
    if (dacs == nullptr || stream == nullptr || size < static_cast<std::size_t>(chipCount_) * dacCount)
        return -1;
    {
        ThreadLock lock(&pinSync);
        pins.M0 = 1;
        pins.M1 = 0;
    }
    // A recovery hands in the backup itself.
    if (dacs != dacsBackup.data())
        dacsBackup.assignData(dacs, size);
    auto* answer = reinterpret_cast<unsigned char*>(stream);
    std::size_t chipsDone = 0;
    int groupsDone = 0;
    for (const auto& group : chipGroups()) {
        if (switchGroup(group.number) != 0)
            return -2;
        if (group.chips == 0)
            continue;
        // The line counts in chips where the values count in DACs: from the second group on it shows the first one's.
        std::string text;
        for (std::size_t i = 0; i < dacCount; ++i)
            text += str::fromNum(dacs[chipsDone + i]) + " ";
        report.line(DBG, "DACs: %s", text.c_str());

        std::vector<unsigned char> block(static_cast<std::size_t>(group.chips) * MPX2_DAC_STREAM_SIZE, 0xFF);
        // Timepix chips are loaded behind a chain of ones.
        if (timepix && !idsOnly) {
            if (const int result = exchangeDacs(block.data(), block.data(), block.size(), timeout); result != 0)
                return result;
        }
        const bool sensed = senseChip == groupsDone;
        dacsToStreamMPX2(dacs + chipsDone * dacCount, block.data(), group.chips, timepix, senseChip - groupsDone,
                         sensed ? senseDac : 0, sensed ? extDac : 0, ctpr);
        if (const int result =
                exchangeDacs(block.data(), answer + chipsDone * MPX2_DAC_STREAM_SIZE, block.size(), timeout);
            result != 0)
            return result;
        chipsDone += static_cast<std::size_t>(group.chips);
        ++groupsDone;
    }
    return 0;
}

/// Shifts `block` through the selected chain. `answer` takes as many bytes, which the chain held before. Whether the
/// block was sent shows in the answer.
int AMpx2Dev::exchangeDacs(unsigned char* block, unsigned char* answer, std::size_t size, double timeout)
{
    const Link::Exchange whole(link);
    changePins({{&TpxPins::ENIN, 0}, {&TpxPins::OUTEN, 1}});
    link.sendPayload(tpx::TpxCmd::Data, block, size, cmdflag::EXCHANGE);
    changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}});
    unsigned long received = size;
    if (const int result = link.receive(answer, &received, timeout); result != 0)
        return logError(result, "Cannot not set DACs (%s)", link.lastError());
    return 0;
}

/// Writes a matrix of `size` words to the chips; where it ends, zeros follow. With `convert` it holds counts, which
/// become counter states.
int AMpx2Dev::writeChips(const unsigned short* matrix, std::size_t size, bool convert)
{
    std::size_t offset = 0;
    for (const auto& group : chipGroups()) {
        if (const int result = switchGroup(group.number); result != 0)
            return result;
        if (group.chips == 0)
            continue;
        const auto chips = static_cast<std::size_t>(group.chips);
        std::vector<unsigned short> words(chips * MPX2_CHIP_PIXELS);
        const std::size_t first = std::min(offset, size);
        std::copy_n(matrix + first, std::min(words.size(), size - first), words.begin());
        if (convert)
            convertCountsMpx2(words.data(), words.size(), false);
        std::vector<unsigned char> stream(chips * MPX2_STREAM_STRIDE);
        serializeMpx2(words.data(), words.size(), stream.data(), stream.size(), true);

        const Link::Exchange whole(link);
        changePins({{&TpxPins::M0, 0}, {&TpxPins::M1, 1}, {&TpxPins::OUTEN, 0}, {&TpxPins::ENIN, 0}});
        const int sent = link.sendPayload(tpx::TpxCmd::Data, stream.data(), stream.size(), cmdflag::EXCHANGE);
        changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}});
        changePins({{&TpxPins::M0, 0}, {&TpxPins::M1, 0}});
        if (sent != 0)
            return logError(1, "Cannot write matrix (%s)", link.lastError());
        offset += words.size();
    }
    return 0;
}

/// Orders a readout: the length of what is to come, and the bits to clock.
void AMpx2Dev::sendReadout(const Mpx2Readout& readout)
{
    const Link::Exchange whole(link);
    link.send(tpx::TpxCmd::AnnounceLength, CmdArgs::word(readout.announcedBytes()), cmdflag::OUTPUT);
    link.send(tpx::TpxCmd::Readout, CmdArgs::word(readout.bits), cmdflag::OUTPUT);
}

int AMpx2Dev::getConvertedMatrix(unsigned short* matrix, std::size_t size, bool convert, bool fromCopy)
{
    if (matrix == nullptr)
        return logError(1, "Read matrix: matrix cannot be NULL.");
    buffers.read(fromCopy, [&](std::span<const unsigned char> stream) {
        decodeStream(stream, {matrix, size}, convert);
    });
    return 0;
}

int AMpx2Dev::setTimer(double seconds)
{
    if (requireChips() != 0)
        return 1;
    if (!(seconds >= 0))
        return logError(1, "Invalid time (%g s).", seconds);
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Set Timer");
    const Link::Exchange whole(link);
    unsigned char b[6];
    doubleToInt48(seconds * kind.ticksPerSecond, b);
    link.send(AcqCmd::CountLow, {b[3], b[2], b[1], b[0]});
    link.send(AcqCmd::CountHigh, {0, 0, b[5], b[4]});
    return 0;
}

int AMpx2Dev::setTimepixClock(double* mhz)
{
    if (mhz == nullptr)
        return refuseNull();
    if (!(*mhz > 0))
        return logError(1, "Invalid Timepix clock (%f MHz).", *mhz);
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    const double wanted = tpx::CLOCK_BASE_MHZ / *mhz + 0.5;
    constexpr double MAX_DIVIDER = std::numeric_limits<std::uint32_t>::max();
    const auto divider = static_cast<std::uint32_t>(std::clamp(wanted, 1.0, MAX_DIVIDER));
    *mhz = tpx::CLOCK_BASE_MHZ / divider;
    timepixClock = *mhz;
    return link.send(tpx::TpxAcqCmd::ClockDivider, CmdArgs::word(divider));
}

int AMpx2Dev::setAcqClocks()
{
    logFunction("Set Acq Clocks");
    preShutterClockCount = paramInt32(devParams, "PreShutterClockCount");
    preShutterClockDivider = paramInt32(devParams, "PreShutterClockDivider");
    preShutterDelayClockCount = paramInt32(devParams, "PreShutterDelayClockCount");
    const Link::Exchange whole(link);
    const auto count = static_cast<std::uint32_t>(preShutterClockCount.load());
    const auto delay = CmdArgs::word(static_cast<std::uint32_t>(preShutterDelayClockCount.load()));
    int sum = link.send(tpx::TpxAcqCmd::PreShutterClocks, CmdArgs::byteAnd24(0, count));
    sum += link.send(tpx::TpxAcqCmd::PreShutterDivider,
                     CmdArgs::word(static_cast<std::uint32_t>(preShutterClockDivider.load())));
    sum += link.send(tpx::TpxAcqCmd::PreShutterWait, {0, 0, delay.d2, delay.d3});
    sum += link.send(tpx::TpxAcqCmd::Count3, CmdArgs::low(COUNT_3));
    sum += link.send(tpx::TpxAcqCmd::Divider3, CmdArgs::low(DIVIDER_3));
    return sum;
}

void AMpx2Dev::setTriggerSettings(unsigned char setting)
{
    logFunction("Set Trigger");
    link.send(AcqCmd::TriggerSettings, CmdArgs::low(triggerWordOf(devParams, setting)));
}

} // namespace HwLatixel
