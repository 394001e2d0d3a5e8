// Series of a Medipix2 or Timepix device: one exposure, the software trigger, and the life of the acquisition thread.
#include "devices/ampx2dev.h"

#include "link/tpxcmds.h"

namespace HwLatixel {

namespace {

constexpr double CUT_FRAME_TIMEOUT = 0.4; ///< seconds that the packet of a stopped frame may take
constexpr double SERIES_END_LIMIT = 30.0; ///< seconds that closing waits for a running series
constexpr unsigned READER_POLL_MS = 300;  ///< between two looks at the stop flag
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
/// collected where the board's kind wants it.
int AMpx2Dev::waitForFrameEnd(double timeout, bool sleeps, EndOfFrame& packet)
{
    auto* bytes = reinterpret_cast<char*>(packet.data());
    const int result = link->waitForPacket(timeout, &stopRequested, bytes, END_OF_FRAME_SIZE, false, sleeps);
    if (result == dv::RESULT_STOPPED && kind.waitsForCutFrame)
        link->waitForPacket(CUT_FRAME_TIMEOUT, nullptr, bytes, END_OF_FRAME_SIZE, true, false);
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
    if (const int result = startExposure(triggerFlags(), tpx::SINGLE_FRAME); result != 0)
        return result;
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

/// Ends the frame on the board, and the series for those who read the matrix: they read the chips from now on.
void AMpx2Dev::stopBoard(bool endsSeries)
{
    ThreadLock lock(&devSync);
    link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
    if (endsSeries)
        storeFlag(acquiring, false);
}

/// Waits until the host has taken the frame before out of the stream; with `endsOnStop` a stop ends it too.
void AMpx2Dev::waitForReader(bool endsOnStop)
{
    while (!matrixReadEvent.wait(READER_POLL_MS)) {
        if (endsOnStop && loadFlag(stopRequested))
            return;
    }
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
