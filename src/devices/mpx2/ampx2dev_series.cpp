// Series of a Medipix2 or Timepix device: one exposure, the software trigger, and the life of the acquisition thread.
#include "devices/mpx2/ampx2dev.h"

#include "devices/common/frames.h"
#include "link/tpxcmds.h"
#include "shared/datatype.h"

namespace HwLatixel {

namespace {

constexpr double CUT_FRAME_TIMEOUT = 0.4; ///< seconds that the packet of a stopped frame may take
constexpr double SERIES_END_LIMIT = 30.0; ///< seconds that closing waits for a running series
constexpr std::size_t TIME_OFFSET = 2;    ///< of the measured time in an end-of-frame packet
constexpr std::size_t TIME_SIZE = 6;

} // namespace

int AMpx2Dev::setAcqMode(unsigned mode)
{
    acqMode = mode;
    triggerMode = triggerModeOf(mode);
    return 0;
}

int AMpx2Dev::doSoftwareTrigger(unsigned)
{
    softTrigger.fire();
    return 0;
}

void AMpx2Dev::waitForSwTrigger(bool* stop)
{
    softTrigger.wait(dispatcher, stop);
}

void AMpx2Dev::setBusy(bool value)
{
    if (loadFlag(busy) == value)
        return;
    storeFlag(busy, value);
    dispatcher.setEvent(HWEVENT_BUSY_CHANGED, value ? 1 : 0, false);
}

int AMpx2Dev::copyMatrixStreamToSecondBuffer()
{
    buffers.copy();
    return 0;
}

unsigned char AMpx2Dev::triggerFlags() const
{
    unsigned flags = triggersStart(triggerMode) ? tpx::startflag::START_ON_TRIGGER : 0U;
    flags |= triggersStop(triggerMode) ? tpx::startflag::STOP_ON_TRIGGER : 0U;
    return static_cast<unsigned char>(flags);
}

/// Opens the shutter. On failure the chips stay in acquisition.
int AMpx2Dev::startExposure(unsigned char flags, std::uint32_t frameWord)
{
    changePins({{&TpxPins::ACQOVER, 1}, {&TpxPins::OUTEN, 0}});
    return link.send(AcqCmd::Start, CmdArgs::byteAnd24(flags, frameWord), cmdflag::OUTPUT);
}

void AMpx2Dev::endExposure()
{
    changePins({{&TpxPins::ACQOVER, 0}, {&TpxPins::OUTEN, 0}});
    handBackOutput(*link);
}

/// Waits for the packet at the end of a frame. The packet of a frame that a stop has cut is still on its way, and is
/// collected or dropped, as the board's kind has it.
int AMpx2Dev::waitForFrameEnd(double timeout, bool sleeps, EndOfFrame& packet)
{
    auto* bytes = reinterpret_cast<char*>(packet.data());
    const int result = link->waitForPacket(timeout, &stopRequested, bytes, END_OF_FRAME_SIZE, false, sleeps);
    if (result == dv::RESULT_STOPPED && kind.collectsCutFrame)
        link->waitForPacket(CUT_FRAME_TIMEOUT, nullptr, bytes, END_OF_FRAME_SIZE, true, false);
    else if (result == dv::RESULT_STOPPED)
        link.drain(DRAIN_TIMEOUT); // the next exchange must not find it in front of its answer
    return result;
}

void AMpx2Dev::takeMeasuredTime(const EndOfFrame& packet)
{
    std::uint64_t ticks = 0;
    for (std::size_t i = 0; i < TIME_SIZE; ++i)
        ticks = ticks << 8 | packet[TIME_OFFSET + i];
    lastAcqTimeValue = static_cast<double>(ticks) / kind.ticksPerSecond;
}

/// One exposure of a series, with `acqSync` held.
int AMpx2Dev::expose()
{
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    logFunction("Start Acquisition");
    {
        // A stop is seen here, or sends its command behind the start.
        ThreadLock lock(&devSync);
        if (loadFlag(stopRequested))
            return 0;
        if (const int result = startExposure(triggerFlags(), tpx::SINGLE_FRAME); result != 0)
            return result;
    }
    const bool triggered = triggerMode != TRIGGER_NONE;
    const double timeout = triggered ? WAIT_UNLIMITED : acqTime + PACKET_GRACE;
    EndOfFrame packet{};
    const int result = waitForFrameEnd(timeout, triggered || acqTime > SLEEPING_WAIT_ABOVE, packet);
    endExposure();
    return completeExposure(result, packet);
}

int AMpx2Dev::completeExposure(int waitResult, const EndOfFrame& packet)
{
    if (waitResult != 0 && !loadFlag(stopRequested))
        return logError(dv::RESULT_ACQ_TIMEOUT, "Acquisition timeout (%s)", link.lastError());
    takeMeasuredTime(packet);
    return 0;
}

/// Ends the frame on the board, and where the board's kind has it so the series for those who read the matrix: they
/// read the chips from now on.
void AMpx2Dev::stopBoard()
{
    ThreadLock lock(&devSync);
    link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
    if (kind.stopEndsReading)
        storeFlag(acquiring, false);
}

/// Waits until the host has taken the frame before out of the stream.
void AMpx2Dev::waitForReader()
{
    while (!matrixReadEvent.wait(READER_POLL_MS)) {
        if (kind.stopEndsReaderWait && loadFlag(stopRequested))
            return;
    }
}

int AMpx2Dev::prepareAcquisition(double seconds)
{
    ThreadLock lock(&devSync);
    storeFlag(stopRequested, false);
    lastAcqTimeValue = seconds;
    return configureSeries(seconds);
}

/// What a series needs on the board; also after a recovery in the middle of one, where a stop must not be forgotten.
int AMpx2Dev::configureSeries(double seconds)
{
    ThreadLock lock(&devSync);
    acqTime = seconds;
    if (setTimer(shutterTime(seconds)) != 0)
        return -1;
    if (setAcqClocks() != 0)
        return -2;
    eraseMatrix();
    if (prepareReadout() != 0)
        return -3;
    setTriggerSettings(paramByte(devParams, "TriggerStg"));
    return 0;
}

int AMpx2Dev::startAcquisition(unsigned count, double seconds)
{
    // Nothing is looked at: a series that can't be prepared fails in its thread, and a second series at the same time
    // takes its frames between those of the first one.
    acqCount = count;
    prepareAcquisition(seconds);
    startSeriesThread();
    return 0;
}

int AMpx2Dev::stopAcquisition()
{
    if (requireChips() != 0)
        return 1;
    // Before any lock, so that the series sees it at once.
    storeFlag(stopRequested, true);
    stopBoard();
    return 0;
}

void AMpx2Dev::openSeries()
{
    ThreadLock lock(&openSync);
    ++openCount;
    setBusy(true);
    storeFlag(acquiring, true);
    recoverResult = 0;
    dispatcher.startThread();
    // The first frame waits for no reader.
    matrixReadEvent.set();
}

/// The frames of a series, each with an exposure of its own. Returns how the last pass ended.
AMpx2Dev::Pass AMpx2Dev::runFrames()
{
    std::uint64_t frame = 0;
    while (frame < acqCount) {
        const Pass pass = takeFrame();
        if (pass == Pass::Lost || pass == Pass::Stopped)
            return pass;
        if (pass == Pass::Again)
            continue;
        announceFrame(frame);
        if (loadFlag(stopRequested))
            return Pass::Stopped;
        ++frame;
    }
    return Pass::Taken;
}

AMpx2Dev::Pass AMpx2Dev::takeFrame()
{
    ThreadLock lock(&acqSync);
    if ((acqMode & dv::ACQMODE_SOFT_TRIGGER) != 0)
        waitForSwTrigger(&stopRequested);
    // A stop that has come between two frames, or instead of a trigger: its command must stay the last one.
    if (loadFlag(stopRequested))
        return Pass::Stopped;
    if (doSingleAcquisition() != 0) {
        recoverResult = recoverDevice();
        if (recoverResult != 0)
            return Pass::Lost;
        // Where a stop ends the reading, the host's reads go to the chips for the rest of the series, as if none ran:
        // they find the counters that this thread has just read out.
        stopBoard();
        eraseMatrix();
        return Pass::Again;
    }
    recoverResult = 0;
    if (loadFlag(stopRequested))
        return Pass::Stopped;
    waitForReader();
    if (kind.stopEndsReaderWait && loadFlag(stopRequested))
        return Pass::Stopped;
    if (readStream() != 0) {
        recoverResult = recoverDevice();
        // A frame that is repeated behind a recovery that worked, with no word of it, waits for another read by the
        // host before its stream is taken.
        if (recoverResult != 0 || kind.tellsRecoveredRead) {
            logError(1, "Reading matrix from device failed, reattempting acq.");
            matrixReadEvent.set();
        }
        return Pass::Again;
    }
    matrixReadEvent.reset();
    return Pass::Taken;
}

/// Hands a frame over: through the dispatcher's worker, so that the next one exposes meanwhile; the last one at once,
/// so that the host is done with it before the series ends.
void AMpx2Dev::announceFrame(std::uint64_t frame)
{
    setBusy(false);
    dispatcher.setEvent(HWEVENT_FRAME_READY, static_cast<long>(frame), frame + 1 < acqCount);
    setBusy(true);
}

/// Ends a series for the host. One that still runs beside it stays in its reading: whoever read the chips then would
/// wait for the end of a frame that waits for its reader.
void AMpx2Dev::endSeries(bool failed)
{
    {
        ThreadLock lock(&openSync);
        if (--openCount == 0) {
            dispatcher.stopThread();
            setBusy(false);
            storeFlag(acquiring, false);
        }
    }
    if (failed)
        dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
    else
        dispatcher.setEvent(loadFlag(stopRequested) ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0, false);
}

/// Leaves a series that could not go on. Nothing is taken back: the device stays busy and in its series until the next
/// bring-up, or the end of the next series.
void AMpx2Dev::abandonSeries()
{
    {
        ThreadLock lock(&openSync);
        --openCount;
    }
    dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
}

dv::IMpxFrame* AMpx2Dev::lastData()
{
    dv::IMpxFrame* frame =
        frameOf<unsigned short>(*dorvet, chipCount_, DT_I16, [this](unsigned short* pixels, std::size_t count) {
            return readMatrix(pixels, count, true);
        });
    if (frame != nullptr)
        describeFrame(*frame);
    return frame;
}

void AMpx2Dev::startSeriesThread()
{
    if (!series.start(acqFuncWrapper, this))
        dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
}

void AMpx2Dev::acqFuncWrapper(void* device)
{
    auto* self = static_cast<AMpx2Dev*>(device);
    self->acqFunc();
    self->series.left();
}

/// A series whose host went away without waiting for its end must not touch a closed link.
void AMpx2Dev::waitForSeriesEnd()
{
    series.waitForEnd(SERIES_END_LIMIT, [this](bool stopOnBoard) {
        storeFlag(stopRequested, true);
        matrixReadEvent.set();
        if (stopOnBoard)
            link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
    });
}

} // namespace HwLatixel
