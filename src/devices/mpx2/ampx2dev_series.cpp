// Series of a Medipix2 or Timepix device: one exposure, the triggers, the frames on their way to the host, and the life
// of the acquisition thread.
#include "devices/mpx2/ampx2dev.h"

#include "devices/common/frames.h"
#include "devices/common/seriespreparation.h"
#include "host/datatype.h"
#include "link/tpxcmds.h"
#include "shared/contained.h"

#include <cmath>

namespace HwLatixel {

namespace {

constexpr double CUT_FRAME_TIMEOUT = 0.4; ///< seconds that the packet of a stopped frame may take
constexpr double WISH_INTERVAL = 1.0;     ///< seconds between two readings for hosts that poll
constexpr double WISH_PATIENCE = 0.1;     ///< seconds that a poll waits for its reading
constexpr double WISH_POLL = 0.005;       ///< seconds
constexpr std::size_t TIME_OFFSET = 2;    ///< of the measured time in an end-of-frame packet
constexpr std::size_t TIME_SIZE = 6;
constexpr const char* RUNNING = "Acquisition is running";

} // namespace

int AMpx2Dev::setAcqMode(unsigned mode)
{
    acqMode = mode;
    return 0;
}

int AMpx2Dev::doSoftwareTrigger(unsigned)
{
    softTrigger.fire();
    return 0;
}

/// Nobody is kept off the link meanwhile, and who polls the device gets its readings.
void AMpx2Dev::waitForSwTrigger(bool* stop)
{
    softTrigger.wait(events.dispatcher(), stop, [this] {
        serveWishes();
        return !loadFlag(overheated) && !life.stopped();
    });
}

void AMpx2Dev::setBusy(bool value)
{
    if (loadFlag(busy) == value)
        return;
    storeFlag(busy, value);
    events.send(HWEVENT_BUSY_CHANGED, value ? 1 : 0, false);
}

int AMpx2Dev::copyMatrixStreamToSecondBuffer()
{
    buffers.copy();
    return 0;
}

unsigned char AMpx2Dev::triggerFlags() const
{
    const int triggerMode = triggerModeOf(seriesMode);
    unsigned flags = triggersStart(triggerMode) ? tpx::startflag::START_ON_TRIGGER : 0U;
    flags |= triggersStop(triggerMode) ? tpx::startflag::STOP_ON_TRIGGER : 0U;
    return static_cast<unsigned char>(flags);
}

/// Opens the shutter. On failure the chips stay in acquisition.
int AMpx2Dev::startExposure(unsigned char flags, std::uint32_t frameWord)
{
    const Link::Exchange whole(link);
    changePins({{&TpxPins::ACQOVER, 1}, {&TpxPins::OUTEN, 0}});
    storeFlag(exposing, true);
    return link.send(AcqCmd::Start, CmdArgs::byteAnd24(flags, frameWord), cmdflag::OUTPUT);
}

void AMpx2Dev::endExposure()
{
    const Link::Exchange whole(link);
    if (!whole)
        return;
    storeFlag(exposing, loadFlag(exposing) && loadFlag(closing));
    changePins({{&TpxPins::ACQOVER, 0}, {&TpxPins::OUTEN, 0}});
    handBackOutput(*whole.manager());
}

/// Waits for the packet at the end of a frame. The packet of a frame that a stop has cut is still on its way, and is
/// collected or dropped, as the board's kind has it.
int AMpx2Dev::waitForFrameEnd(double timeout, bool sleeps, const bool* stop, EndOfFrame& packet)
{
    auto* bytes = reinterpret_cast<char*>(packet.data());
    // The flag is only looked at.
    const int result = link->waitForPacket(timeout, const_cast<bool*>(stop), bytes, END_OF_FRAME_SIZE, false, sleeps);
    // Closing tells the board by itself, once nobody else uses the link.
    if (result != dv::RESULT_STOPPED || loadFlag(closing))
        return result;
    stopsUnderWay.wait();
    if (kind.collectsCutFrame)
        link->waitForPacket(CUT_FRAME_TIMEOUT, nullptr, bytes, END_OF_FRAME_SIZE, true, false);
    else
        link.drain(DRAIN_TIMEOUT, DRAIN_LIMIT); // the next exchange must not find it in front of its answer
    return result;
}

void AMpx2Dev::takeMeasuredTime(const EndOfFrame& packet)
{
    std::uint64_t ticks = 0;
    for (std::size_t i = 0; i < TIME_SIZE; ++i)
        ticks = ticks << 8 | packet[TIME_OFFSET + i];
    lastAcqTimeValue = static_cast<double>(ticks) / kind.ticksPerSecond;
}

/// One exposure of a series, with the turn in hand.
int AMpx2Dev::expose()
{
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    logFunction("Start Acquisition");
    {
        // A stop is seen here, or sends its command behind the start.
        const Link::Exchange whole(link);
        if (life.stopped())
            return 0;
        if (const int result = startExposure(triggerFlags(), tpx::SINGLE_FRAME); result != 0)
            return result;
    }
    const bool triggered = triggerModeOf(seriesMode) != TRIGGER_NONE;
    const double timeout = triggered ? WAIT_UNLIMITED : acqTime + PACKET_GRACE;
    EndOfFrame packet{};
    const int result =
        waitForFrameEnd(timeout, triggered || acqTime > SLEEPING_WAIT_ABOVE, life.stopRequested(), packet);
    endExposure();
    return completeExposure(result == 0 || life.stopped(), packet);
}

int AMpx2Dev::completeExposure(bool ended, const EndOfFrame& packet)
{
    if (!ended)
        return logError(dv::RESULT_ACQ_TIMEOUT, "Acquisition timeout (%s)", link.lastError());
    takeMeasuredTime(packet);
    return 0;
}

/// Ends the frame on the board. Nothing is told to the host here.
void AMpx2Dev::stopBoard()
{
    if (const Link::Exchange whole(link); whole)
        link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
}

/// Seconds that an operation waits for the turn.
double AMpx2Dev::turnLimit() const
{
    constexpr double PATIENCE = 5.0;
    const bool timed = life.state() != SeriesLife::State::Idle && triggerModeOf(seriesMode) == TRIGGER_NONE;
    return timed ? acqTime + PATIENCE : PATIENCE;
}

int AMpx2Dev::prepareAcquisition(double seconds)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    seriesMode = acqMode.load();
    storeFlag(halfStopped, false);
    lastAcqTimeValue = seconds;
    return configureSeries(seconds);
}

/// What a series needs on the board; also after a recovery in the middle of one.
int AMpx2Dev::configureSeries(double seconds)
{
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
    // Also in a callback that is none of a series' events.
    if (life.caller() == SeriesLife::Caller::Handler)
        return logError(1, RUNNING);
    if (!(seconds >= devMpxInfoRec.acqTimeMin && seconds <= devMpxInfoRec.acqTimeMax))
        return logError(1, "Invalid acquisition time (%g s).", seconds);
    switch (life.begin()) {
    case SeriesLife::Start::Accepted:
        break;
    case SeriesLife::Start::Late:
        return logError(1, "Device is busy");
    case SeriesLife::Start::Running:
    case SeriesLife::Start::InCallback:
        return logError(1, RUNNING);
    }
    SeriesPreparation preparation(life);
    if (prepareSeries(count, seconds) != 0)
        return 1;
    preparation.keep();
    if (life.run(acqFuncWrapper, this))
        return 0;
    linkTurn.endWholeSeries();
    linkTurn.endReservation();
    return logError(1, "Cannot start the acquisition thread.");
}

/// What is to be done before the thread of a series. A preparation that the board refuses shows in the thread.
int AMpx2Dev::prepareSeries(unsigned count, double seconds)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    seriesMode = acqMode.load();
    if (const int result = checkSeries(count); result != 0)
        return result;
    if (needsRecovery) {
        if (recoverDevice() != 0)
            return 1;
        needsRecovery = false;
    }
    acqCount = count;
    storeFlag(halfStopped, false);
    lastAcqTimeValue = seconds;
    configureSeries(seconds);
    reserveLink();
    return 0;
}

int AMpx2Dev::stopAcquisition()
{
    const StopsUnderWay::Scope stop(stopsUnderWay);
    // Ahead of all else, so that the series sees it at once, also one that the refusals below leave without a command.
    const bool running = life.stop();
    storeFlag(halfStopped, true);
    linkTurn.endWholeSeries();
    if (requireChips() == 0) {
        stopBoard();
        return 0;
    }
    if (running && loadFlag(connected))
        stopBoard();
    return 1;
}

void AMpx2Dev::openSeries()
{
    recoverResult = 0;
    storeFlag(frameAnnounced, false);
    wishes = 0;
    nextServing = getPreciseTime() + WISH_INTERVAL;
    storeFlag(acquiring, true);
    setBusy(true);
    events.dispatcher().startThread();
    // The first frame waits for no reader.
    matrixReadEvent.set();
}

/// The frames of a series, each with an exposure of its own. Returns how the last pass ended.
AMpx2Dev::Pass AMpx2Dev::runFrames()
{
    std::uint64_t frame = 0;
    bool repeated = false;
    while (frame < acqCount) {
        serveWishes();
        StreamCount count;
        const Pass pass = takeFrame(repeated, count);
        repeated = pass == Pass::Again;
        if (repeated)
            continue;
        if (pass != Pass::Taken)
            return pass;
        announceFrame(frame, count);
        if (life.stopped())
            return Pass::Stopped;
        ++frame;
    }
    return Pass::Taken;
}

/// One attempt at a frame. It has the turn from the start command to the end of the stream.
AMpx2Dev::Pass AMpx2Dev::takeFrame(bool repeated, StreamCount& count)
{
    // The trigger of a frame that is repeated has come.
    if (!repeated && (seriesMode & dv::ACQMODE_SOFT_TRIGGER) != 0)
        waitForSwTrigger(const_cast<bool*>(life.stopRequested()));
    DeviceTurn turn(linkTurn, report, SERIES_PATIENCE);
    // A stop that has come between two frames, or instead of a trigger: its command must stay the last one.
    if (!turn.taken() || life.stopped())
        return Pass::Stopped;
    if (loadFlag(overheated))
        return Pass::Overheated;
    if (doSingleAcquisition() != 0) {
        if (const Pass pass = recoverSeries(); pass != Pass::Again)
            return pass;
        stopBoard();
        eraseMatrix();
        return Pass::Again;
    }
    recoverResult = 0;
    if (life.stopped())
        return Pass::Stopped;
    if (awaitReader([this] { return linkTurn.wanted() || wishesDue(); })) {
        const int result = buffers.receive([&](std::span<unsigned char> stream) { return readStream(stream, count); });
        return result == 0 ? frameTaken() : recoverRead(true);
    }
    if (life.stopped())
        return Pass::Stopped;
    // Somebody waits for the link: the frame goes aside, and they need not wait for the reader as well.
    spareStream.resize(buffers.size());
    if (readStream(spareStream, count) != 0)
        return recoverRead(false);
    turn.release();
    while (!awaitReader([this] { return wishesDue(); })) {
        if (life.stopped())
            return Pass::Stopped;
        serveWishes();
        if (loadFlag(overheated))
            return Pass::Overheated;
    }
    buffers.receive([this](std::span<unsigned char> stream) {
        std::copy_n(spareStream.begin(), std::min(spareStream.size(), stream.size()), stream.begin());
    });
    return frameTaken();
}

AMpx2Dev::Pass AMpx2Dev::frameTaken()
{
    matrixReadEvent.reset();
    return Pass::Taken;
}

/// Brings the board back in the middle of a series. One that a stop cuts is made up for by the next series.
AMpx2Dev::Pass AMpx2Dev::recoverSeries()
{
    const int result = recoverDevice();
    if (result != 0 && life.stopped()) {
        needsRecovery = true;
        recoverResult = 0;
        return Pass::Stopped;
    }
    recoverResult = result;
    return result != 0 ? Pass::Lost : Pass::Again;
}

/// Behind a stream that could not be read. Where the frame before was taken, the repeated one waits for nobody.
AMpx2Dev::Pass AMpx2Dev::recoverRead(bool readerCame)
{
    const Pass pass = recoverSeries();
    if (pass == Pass::Stopped)
        return pass;
    if (pass == Pass::Lost || kind.tellsRecoveredRead)
        logError(1, "Reading matrix from device failed, reattempting acq.");
    if (readerCame)
        matrixReadEvent.set();
    return Pass::Again;
}

/// Hands a frame over: through the dispatcher's worker, so that the next one exposes meanwhile; the last one at once,
/// so that the host is done with it before the series ends.
void AMpx2Dev::announceFrame(std::uint64_t frame, const StreamCount& count)
{
    if (count.missing() != 0)
        report.line(ERR, "Frame %lu is incomplete: %lu of %lu bytes received", static_cast<unsigned long>(frame),
                    static_cast<unsigned long>(count.received), static_cast<unsigned long>(count.expected));
    buffers.announce(count.missing());
    storeFlag(frameAnnounced, true);
    setBusy(false);
    events.send(HWEVENT_FRAME_READY, static_cast<long>(frame), frame + 1 < acqCount);
    setBusy(true);
}

/// Ends a series: all is in order for the next one before the last event tells the host.
void AMpx2Dev::endSeries(Pass last, bool staysBusy)
{
    const bool stopped = life.stopped();
    life.framesOver();
    events.dispatcher().stopThread();
    if (!staysBusy)
        setBusy(false);
    storeFlag(acquiring, false);
    if (last == Pass::Overheated)
        events.send(HWEVENT_ACQ_FAILED, dv::RESULT_OVERHEATED, false);
    life.finished();
    if (last == Pass::Lost)
        events.send(HWEVENT_ACQ_FAILED, -1, false);
    else
        events.send(stopped || last == Pass::Overheated ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0, false);
}

/// Whether reads of the matrix give the frame that was announced last, in place of the chips.
bool AMpx2Dev::givesAnnouncedFrame() const
{
    return loadFlag(acquiring) && (loadFlag(frameAnnounced) || !life.stopped());
}

dv::IMpxFrame* AMpx2Dev::lastData()
{
    std::size_t missing = 0;
    dv::IMpxFrame* frame =
        frameOf<unsigned short>(*dorvet, chipCount_, DTYPE_I16, [&](unsigned short* pixels, std::size_t size) {
            return readMatrixCounting(pixels, size, true, missing);
        });
    if (frame == nullptr)
        return nullptr;
    describeFrame(*frame);
    addMissingBytes(*frame, missing);
    return frame;
}

/// Reads the chips, where there is no frame of a series to give.
int AMpx2Dev::readChipsNow(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing)
{
    if (requireChips() != 0)
        return 1;
    // Up to the decoding: a series that begins meanwhile reads its first frame into the same stream.
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    StreamCount count;
    if (const int result = buffers.receive([&](std::span<unsigned char> stream) { return readStream(stream, count); });
        result != 0)
        return result;
    missing = count.missing();
    if (missing != 0)
        report.line(ERR, "The matrix is incomplete: %lu of %lu bytes received",
                    static_cast<unsigned long>(count.received), static_cast<unsigned long>(count.expected));
    return getConvertedMatrix(matrix, size, convert, false);
}

/// Clears the counters by reading them; in a series past the stream, which may be a frame that the host has not taken.
void AMpx2Dev::discardMatrix()
{
    StreamCount count;
    if (!loadFlag(acquiring) && !loadFlag(driven)) {
        buffers.receive([&](std::span<unsigned char> stream) { return readStream(stream, count); });
        return;
    }
    std::vector<unsigned char> stream(buffers.size());
    readStream(stream, count);
}

void AMpx2Dev::acqFuncWrapper(void* device)
{
    auto* self = static_cast<AMpx2Dev*>(device);
    const auto tell = [self](const char* text) { self->logError(1, "Acquisition failed (%s)", text); };
    if (!contained([self] { self->acqFunc(); }, tell))
        contained([self] { self->breakOff(); });
    // The host has gone away meanwhile and has left the device to this thread.
    if (self->life.left())
        delete self;
}

/// Ends a series whose thread can't go on.
void AMpx2Dev::breakOff()
{
    life.stop();
    stopBoard();
    linkTurn.endWholeSeries();
    linkTurn.endReservation();
    endSeries(Pass::Lost, false);
}

// ---- Readings for a host that polls ----

bool AMpx2Dev::wishesDue() const
{
    return wishes != 0 && getPreciseTime() >= nextServing;
}

/// In a series, which is not to be disturbed, leaves a wish for a reading and gives it a moment. False outside of one.
bool AMpx2Dev::leaveWish(unsigned wish) const
{
    if (!loadFlag(acquiring))
        return false;
    wishes |= wish;
    const double deadline = getPreciseTime() + WISH_PATIENCE;
    if (life.caller() != SeriesLife::Caller::Host || nextServing > deadline)
        return true;
    while ((wishes & wish) != 0 && loadFlag(acquiring) && getPreciseTime() < deadline)
        sleepThread(WISH_POLL);
    return true;
}

/// Makes the readings that were wished for, where it is time for it. Between two frames of a series.
void AMpx2Dev::serveWishes()
{
    if (!wishesDue())
        return;
    DeviceTurn turn(linkTurn, report, SERIES_PATIENCE);
    if (!turn.taken())
        return;
    const unsigned wanted = wishes;
    for (unsigned char channel = 0; channel < adcCodes.size(); ++channel)
        if ((wanted >> channel & 1U) != 0)
            readAdcCode(channel);
    if ((wanted & WISH_STATUS) != 0)
        pollStatus();
    if ((wanted & WISH_STATUS_TEXT) != 0)
        pollStatusText();
    if ((wanted & WISH_CPU_PARAMS) != 0)
        fetchCpuParams();
    if ((wanted & (WISH_BIAS | WISH_BIAS_CURRENT)) != 0)
        senseBias((wanted & WISH_BIAS) != 0, (wanted & WISH_BIAS_CURRENT) != 0);
    wishes &= ~wanted;
    nextServing = getPreciseTime() + WISH_INTERVAL;
    turn.release();
    publishCpuValues();
}

} // namespace HwLatixel
