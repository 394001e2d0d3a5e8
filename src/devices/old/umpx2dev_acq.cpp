// Matrices and frames of a board of the older generation.
#include "devices/old/umpx2dev.h"

#include "chipdata/mpx2counters.h"
#include "chipdata/mpx2matrix.h"
#include "devices/common/triggers.h"

#include <algorithm>
#include <cstdint>

namespace HwLatixel {

namespace {

constexpr double BREAK_TIMEOUT = 0.5;       ///< seconds
constexpr unsigned STOP_PATIENCE_MS = 1000; ///< for an exchange in progress
constexpr double START_TIMEOUT = 1.0;       ///< seconds until a frame has begun
constexpr double END_GRACE = 2.0;           ///< seconds that the end of a frame may come late
constexpr double WAIT_UNLIMITED = 1e100;    ///< seconds; an external trigger may hold a frame up for ever
constexpr double SLEEPING_WAIT_ABOVE = 1.0; ///< seconds

constexpr unsigned char MEAS_START_WORD = 0x40;
constexpr unsigned char ACQ_FLAG = 0x80;
constexpr std::size_t TRAILER_SIZE = 12; ///< bytes behind a matrix, with the measured time

} // namespace

int UMpx2Dev::writeMatrix(const unsigned short* data, unsigned long size, bool convert)
{
    if (requireChips() != 0)
        return 1;
    if (data == nullptr)
        return refuseNull();
    logBanner(DBG, "WRITE MATRIX");
    ThreadLock lock(&devSync);
    erased = false;
    const std::size_t pixels = static_cast<std::size_t>(chipsPerModule) * MPX2_CHIP_PIXELS;
    // To be converted, a module's matrix is copied, and the copy takes one chip: those behind it are written as 0.
    const std::size_t taken = convert ? std::min<std::size_t>(pixels, MPX2_CHIP_PIXELS) : pixels;
    for (int module = 0; module < moduleCount; ++module) {
        switchModule(module, true);
        std::vector<unsigned short> words(pixels);
        const std::size_t first = std::min(static_cast<std::size_t>(module) * pixels, size);
        std::copy_n(data + first, std::min(taken, size - first), words.begin());
        if (convert)
            convertCountsMpx2(words.data(), words.size(), false);
        std::vector<unsigned char> stream(static_cast<std::size_t>(chipsPerModule) * MPX2_STREAM_STRIDE);
        serializeMpx2(words.data(), words.size(), stream.data(), stream.size(), true);
        if (transfer(oldcmd::WRITE_MATRIX, stream, {}) != 0)
            return logError(1, "Cannot write matrix (%s)", linkError());
    }
    return 0;
}

int UMpx2Dev::readMatrix(unsigned short* data, unsigned long size, bool convert)
{
    if (requireChips() != 0)
        return 1;
    logBanner(MSG, "READ MATRIX");
    const std::span<unsigned short> matrix(data, data != nullptr ? size : 0);
    std::ranges::fill(matrix, static_cast<unsigned short>(0));
    ThreadLock lock(&devSync);
    const std::size_t bytes = static_cast<std::size_t>(chipsPerModule) * MPX2_STREAM_STRIDE;
    const std::size_t pixels = static_cast<std::size_t>(chipsPerModule) * MPX2_CHIP_PIXELS;
    std::vector<unsigned char> stream(bytes + TRAILER_SIZE);
    double seconds = 0.0;
    for (int module = 0; module < moduleCount; ++module) {
        switchModule(module, true);
        if (transfer(oldcmd::READ_MATRIX, {}, stream) != 0)
            return logError(1, "Cannot read matrix (%s)", linkError());
        seconds += measuredTime(stream);
        const std::size_t first = std::min(static_cast<std::size_t>(module) * pixels, matrix.size());
        const auto slice = matrix.subspan(first, std::min(pixels, matrix.size() - first));
        deserializeMpx2(stream.data(), bytes, slice.data(), slice.size(), true);
        if (convert)
            convertCountsMpx2(slice.data(), slice.size(), true);
    }
    lastAcqTime = seconds / std::max(moduleCount, 1);
    erased = true;
    return 0;
}

/// The shutter time in seconds, from the bytes behind a matrix.
double UMpx2Dev::measuredTime(std::span<const unsigned char> stream) const
{
    // The six bytes stand in two groups of three, most significant first, counted from the end.
    const auto at = [&stream](std::size_t fromEnd) { return stream[stream.size() - fromEnd]; };
    // The third one goes through a signed word of 32 bits. From 0x80 on, which is 43 s at 50 MHz and every second
    // stretch of that length, its sign fills the bytes above it: the time of such a frame comes out negative.
    const auto third = static_cast<std::int32_t>(std::uint32_t{at(8)} << 24);
    const std::int64_t ticks = std::int64_t{at(10)} << 40 | std::int64_t{at(9)} << 32 | std::int64_t{third} |
                               std::int64_t{at(4)} << 16 | std::int64_t{at(3)} << 8 | std::int64_t{at(2)};
    return timerFrequency > 0 ? static_cast<double>(ticks) / (timerFrequency * TICKS_PER_MHZ) : 0.0;
}

int UMpx2Dev::eraseMatrix()
{
    if (requireChips() != 0)
        return 1;
    logBanner(DBG, "ERASE MATRIX");
    if (!eraseByCommand)
        return readMatrix(nullptr, 0, false);
    ThreadLock lock(&devSync);
    for (int module = 0; module < moduleCount; ++module) {
        switchModule(module, true);
        if (const int result = command(oldcmd::ERASE_MATRIX, 0, 0, 0); result != 0)
            return logError(result, "Cannot erase matrix (%s)", linkError());
    }
    erased = true;
    return 0;
}

// ---- Acquisition ----

int UMpx2Dev::prepareAcquisition(double seconds)
{
    if (requireChips() != 0)
        return 1;
    if (!(seconds >= 0))
        return logError(1, "Invalid acquisition time (%g s).", seconds);
    ThreadLock lock(&devSync);
    storeFlag(stopRequested, false);
    lastAcqTime = seconds;
    acqTime = seconds;
    if (setTimer(seconds) != 0)
        return -1;
    if (!erased)
        eraseMatrix();
    erased = false;
    if (const int result =
            command(oldcmd::MEAS_SETTINGS, 0, static_cast<unsigned char>(triggerType), acqFlag ? ACQ_FLAG : 0);
        result != 0)
        return logError(result, "Cannot set measurement settings (%s)", linkError());
    return 0;
}

int UMpx2Dev::startAcquisition()
{
    if (requireChips() != 0)
        return 1;
    logBanner(DBG, "START ACQUISITION");
    ThreadLock lock(&devSync);
    // Behind a stop's BREAK nothing is started.
    if (loadFlag(stopRequested))
        return 0;
    if (command(oldcmd::MEAS_START, MEAS_START_WORD, 0, 0) != 0)
        return logError(-2, "Starting acq. failed (%s)", linkError());
    return 0;
}

int UMpx2Dev::waitForAcqFinish()
{
    if (requireChips() != 0)
        return 1;
    // Nothing comes any more but the answer to a stop.
    if (loadFlag(stopRequested))
        return 0;
    const auto is = [](char* params, unsigned char value) {
        return CmdMgrOld::frameEquals(params, value, value, value);
    };
    const bool extStart = triggersStart(triggerType);
    const bool extStop = triggersStop(triggerType);
    char params[3] = {};
    cmdMgr->waitForFrame(oldcmd::MEAS_STATUS, params, extStart ? WAIT_UNLIMITED : START_TIMEOUT, &stopRequested, false,
                         extStart);
    if (loadFlag(stopRequested))
        return 0;
    if (!is(params, measstatus::STARTED))
        return logError(-3, "Acquisition timeout (%s)", linkError());
    const double timeout = extStop ? WAIT_UNLIMITED : acqTime + END_GRACE;
    const int result = cmdMgr->waitForFrame(oldcmd::MEAS_STATUS, params, timeout, &stopRequested, false,
                                            extStop || acqTime > SLEEPING_WAIT_ABOVE);
    if ((result != 0 || !is(params, measstatus::FINISHED)) && !loadFlag(stopRequested))
        return logError(-4, "Acquisition timeout (%s)", linkError());
    return 0;
}

int UMpx2Dev::stopAcquisition()
{
    // Before the lock, so that a wait in progress ends.
    storeFlag(stopRequested, true);
    if (requireChips() != 0)
        return 1;
    // A start that is under way gets its answer first.
    const ThreadLockTimeout lock(&devSync, STOP_PATIENCE_MS);
    if (!lock.locked())
        return logError(1, "Device is busy");
    if (cmdMgr == nullptr)
        return logError(1, "Device not connected");
    // The wait for the frame's end leaves the answer to this thread.
    const CmdMgrBase::Exchange whole(*cmdMgr);
    cmdMgr->sendFrame(oldcmd::MEAS_BREAK, 0, 0, 0);
    char params[3] = {};
    cmdMgr->skipAllDataUntilFrame(oldcmd::MEAS_BREAK, params, BREAK_TIMEOUT);
    return 0;
}

} // namespace HwLatixel
