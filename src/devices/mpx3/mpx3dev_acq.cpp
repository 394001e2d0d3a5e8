// Series of frames on a Medipix3 board: preparation, the three kinds of series, and the way of a frame to the host.
#include "devices/mpx3/mpx3dev.h"

#include "devices/common/frames.h"
#include "devices/common/triggers.h"
#include "host/datatype.h"
#include "shared/contained.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double PACKET_GRACE = 2.0;        ///< seconds that the end-of-frame packet may come late
constexpr double WAIT_UNLIMITED = 1e100;    ///< seconds; an external trigger may hold a frame up for ever
constexpr double CUT_FRAME_TIMEOUT = 0.4;   ///< seconds that the packet of a stopped frame may take
constexpr double SLEEPING_WAIT_ABOVE = 1.0; ///< seconds; shorter frames are waited for without sleeping
constexpr unsigned READER_POLL_MS = 20;     ///< between two looks at a stop and at who wants the link
constexpr double STOP_PATIENCE = 1.0;       ///< seconds that a stop waits for the frame on the wire
constexpr unsigned STOP_POLL_MS = 50;
constexpr double TDI_RECORD_TIMEOUT = 0.5; ///< seconds of silence after which a row counts as not there
constexpr double DRAIN_TIMEOUT = 0.2;      ///< seconds of silence after which the link counts as empty
constexpr double DRAIN_LIMIT = 2.0;        ///< seconds after which a board that goes on sending is left alone

constexpr unsigned TDI_ROWS = RowTimes::ROWS;

/// The image of a TDI series.
void selectSingleRows(OMR& image)
{
    image.RowBlock = 0;
    image.RowBlockSel = 1;
}

} // namespace

int Mpx3Dev::setAcqMode(unsigned mode)
{
    return AMpx3Dev::setAcqMode(mode);
}

/// Refuses what no exposure can be.
int Mpx3Dev::checkTime(double time) const
{
    if (std::isfinite(time) && time >= devMpxInfo_.acqTimeMin && time <= devMpxInfo_.acqTimeMax)
        return 0;
    return logError(1, "Invalid acquisition time (%g).", time);
}

/// Makes room for a series in its life. 1 with a text where there is none.
int Mpx3Dev::beginSeries()
{
    giveUpPreparation();
    switch (series.begin()) {
    case SeriesLife::Start::Accepted:
        return 0;
    case SeriesLife::Start::Running:
    case SeriesLife::Start::InCallback:
        return logError(1, "Acquisition is running");
    case SeriesLife::Start::Late:
        break;
    }
    return logError(1, "Device is busy");
}

int Mpx3Dev::prepareAcquisition(unsigned count, double time, bool allowBurst)
{
    if (beginSeries() != 0)
        return 1;
    const int result = prepareSeries(count, time, allowBurst);
    storeFlag(preparedForLad, result == 0);
    return result;
}

/// Prepares the series that has begun, or gives it up.
int Mpx3Dev::prepareSeries(unsigned count, double time, bool allowBurst)
{
    const unsigned mode = acqMode;
    Plan next;
    next.count = count;
    next.time = time;
    next.triggerMode = triggerModeOf(mode);
    next.tdi = (mode & dv::ACQMODE_TDI) != 0;
    next.softTrigger = (mode & dv::ACQMODE_SOFT_TRIGGER) != 0;
    next.burst = allowBurst && time < BURST_THRESHOLD;
    SeriesPreparation preparation(series);
    const int result = prepareChips(next);
    if (result == 0)
        preparation.keep();
    return result;
}

int Mpx3Dev::prepareChips(const Plan& newPlan)
{
    const unsigned char triggers = triggerWord();
    const DeviceTurn turn(linkTurn, report, OPERATION_PATIENCE);
    if (turn.require() != 0)
        return 1;
    Plan next = newPlan;
    next.continuous = config.get().continuousRW != 0 && !next.tdi;
    next.frameBytes = frameSize(next.tdi);
    lastAcqTimeValue = next.time;
    acqTime = next.time;
    plan.set(next);
    // A TDI frame takes `time` for all of its rows together.
    if (setTimer(next.tdi ? next.time / TDI_ROWS : next.time) != 0)
        return -1;
    eraseMatrix();
    setMatrixStreamParams();
    setReadoutOMRs();
    sendOMRMode(MPX3_MODE_READ_SECOND);
    sendTriggerWord(triggers);
    switchChannel(ALL_CHANNELS, true, false, true);
    readoutDisturbed = false;
    if (next.whole()) {
        linkTurn.beginWholeSeries();
        linkTurn.reserve();
    }
    return 0;
}

unsigned long Mpx3Dev::frameSize(bool tdi) const
{
    OMR image = omrValue.get();
    if (!tdi)
        return mpx3ReadSize(image, twoChips, channelCount, bothCounters());
    selectSingleRows(image);
    return TDI_ROWS * mpx3TdiRecordSize(image, twoChips, channelCount, bothCounters());
}

int Mpx3Dev::startAcquisition(unsigned count, double time)
{
    if (requireChips() != 0 || checkTime(time) != 0)
        return 1;
    logFunction("START ACQUISITION");
    // Also in a callback that is none of a series' events.
    if (series.caller() == SeriesLife::Caller::Handler)
        return logError(1, "Acquisition is running");
    if (beginSeries() != 0)
        return 1;
    const int result = prepareSeries(count, time, true);
    return result != 0 ? result : runSeries();
}

int Mpx3Dev::startAcquisitionFromLad()
{
    if (requireChips() != 0) {
        giveUpPreparation();
        return 1;
    }
    logFunction("START ACQUISITION");
    if (!loadFlag(preparedForLad))
        return logError(1, "Acquisition is not prepared.");
    return runSeries();
}

int Mpx3Dev::runSeries()
{
    storeFlag(preparedForLad, false);
    if (series.run(acqFuncWrapper, this))
        return 0;
    linkTurn.endWholeSeries();
    linkTurn.endReservation();
    return logError(1, "Cannot start the acquisition thread.");
}

void Mpx3Dev::giveUpPreparation()
{
    if (!loadFlag(preparedForLad))
        return;
    storeFlag(preparedForLad, false);
    linkTurn.endWholeSeries();
    linkTurn.endReservation();
    series.giveUp();
}

int Mpx3Dev::stopAcquisition()
{
    const int refused = beginStop();
    // A handler may be what the frame's end waits for.
    endStop(series.caller() == SeriesLife::Caller::Host ? getPreciseTime() + STOP_PATIENCE : 0.0);
    return refused;
}

int Mpx3Dev::beginStop()
{
    // What the guards say is told, yet the series is stopped.
    const int refused = requireChips();
    if (refused == 0)
        logFunction("Stop Acquisition");
    requestStop();
    return refused;
}

void Mpx3Dev::endStop(double deadline)
{
    awaitFrameOver(deadline);
    storeFlag(busy, false);
    storeFlag(acquiring, false);
}

/// Behind this no shutter is opened any more; a board that may be exposing is told.
void Mpx3Dev::requestStop()
{
    series.stop();
    linkTurn.endWholeSeries();
    tellBoardStop();
}

/// Once for each series, whoever comes first: the host's stop, the series that has seen it, or closing. Nothing is told
/// to the host here.
void Mpx3Dev::tellBoardStop()
{
    const Link::Exchange whole(link);
    if (!whole || stopSent || !(loadFlag(acquiring) || startSent) || link.usb()->refusesCalls())
        return;
    stopSent = true;
    link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
}

/// Waits until the frame on the wire is through.
void Mpx3Dev::awaitFrameOver(double deadline)
{
    while (getPreciseTime() < deadline && !frameOver.wait(STOP_POLL_MS)) {
    }
}

void Mpx3Dev::acqFunc()
{
    setCurrentThreadName("mpx3devacq");
    const auto frames = [this] {
        now = plan.get();
        if (now.tdi)
            acqFuncTDI();
        else if (now.continuous)
            acqFuncCRW();
        else
            acqFuncNormal();
    };
    if (!contained(frames, [this](const char* text) { logError(1, "Acquisition failed (%s)", text); }))
        contained([this] { breakOff(); });
}

/// Ends a series whose thread can't go on.
void Mpx3Dev::breakOff()
{
    series.stop();
    frameOver.set();
    leaveBoard(false, [] {});
    endSeries(dv::RESULT_FAILED);
}

unsigned char Mpx3Dev::startFlags(bool withContinuous) const
{
    unsigned flags = mpx3::startflag::ALWAYS;
    flags |= triggersStart(now.triggerMode) ? mpx3::startflag::START_ON_TRIGGER : 0U;
    flags |= triggersStop(now.triggerMode) ? mpx3::startflag::STOP_ON_TRIGGER : 0U;
    flags |= withContinuous ? mpx3::startflag::CONTINUOUS_RW : 0U;
    return static_cast<unsigned char>(flags);
}

void Mpx3Dev::beginLoop()
{
    wishes = 0;
    wishesServed = 0.0;
    const Link::Exchange whole(link);
    startSent = false;
    stopSent = false;
    storeFlag(acquiring, true);
}

/// Tells the board to start, unless a stop has come: then `*opened` is false.
int Mpx3Dev::sendStart(unsigned char flags, std::uint32_t frameWord, bool* opened)
{
    // A stop is seen here, or its command goes behind the start.
    const Link::Exchange whole(link);
    *opened = !series.stopped();
    if (!*opened)
        return 0;
    startSent = true;
    return link.send(AcqCmd::Start, CmdArgs::byteAnd24(flags, frameWord), cmdflag::OUTPUT);
}

void Mpx3Dev::acqFuncNormal()
{
    beginLoop();
    openHandOver(now.burst);
    const int result = runFrames(true);
    // Of a frame that was cut or failed something may still come.
    leaveBoard(startSent && (result != 0 || series.stopped()), [] {});
    endSeries(result);
}

/// One start command for the whole series: one counter exposes while the other is read, and the board may run ahead.
void Mpx3Dev::acqFuncCRW()
{
    const OMR saved = omrValue.get();
    int started = 0;
    if (const SeriesTurn turn(linkTurn, report); turn.taken()) {
        switchChannel(ALL_CHANNELS, false, false, true);
        beginLoop();
        link.send(mpx3::MpxCmd::ContinuousRw, CmdArgs::low(1));
        omrValue.update([](OMR& image) {
            image.CRW_SRW = 1;
            image.setMode(MPX3_MODE_READ);
        });
        sendOMR();
        setMatrixStreamParams();
        switchChannel(ALL_CHANNELS, true, false, true);
        openHandOver(now.burst);
        bool opened = false;
        started = sendStart(startFlags(true), now.count - 1, &opened);
    }
    const int result = started == 0 ? runFrames(false) : started;
    leaveBoard(true, [&] {
        omrValue.set(saved);
        sendOMR();
        link.send(mpx3::MpxCmd::ContinuousRw, CmdArgs::low(0));
    });
    if (started == 0)
        endSeries(result);
    else
        failSeries();
}

/// Makes ready for handing frames to the host, through the dispatcher's worker if asked. The first frame waits for no
/// reader.
void Mpx3Dev::openHandOver(bool throughWorker)
{
    if (throughWorker)
        events.dispatcher().startThread();
    matrixReadEvent.set();
}

/// Takes the frames of a normal or a continuous series. Returns the result of the last transfer, or that of a board
/// that has become too hot.
int Mpx3Dev::runFrames(bool startEachFrame)
{
    int result = 0;
    for (unsigned i = 0; i < now.count && !series.stopped(); ++i) {
        if (i > 0 && startEachFrame && !serveWishes())
            return dv::RESULT_OVERHEATED;
        setBusy(true);
        result = takeFrame(startEachFrame);
        if (result != 0 || series.stopped())
            break;
        setBusy(false);
        announceFrame(i, now.burst && i + 1 < now.count);
    }
    return result;
}

int Mpx3Dev::takeFrame(bool startCommand)
{
    logFunction("Perform Acquisition");
    if (startCommand && now.softTrigger) {
        waitForSoftwareTrigger(stopFlag());
        if (loadFlag(overheated))
            return dv::RESULT_OVERHEATED;
    }
    SeriesTurn turn(linkTurn, report);
    // A stop ends the wait for a trigger, and there is no frame to wait for.
    if (!turn.taken() || series.stopped())
        return 0;
    frameOver.reset();
    const int result = exposeAndRead(startCommand, turn);
    frameOver.set();
    return result;
}

int Mpx3Dev::exposeAndRead(bool startCommand, SeriesTurn& turn)
{
    if (startCommand) {
        if (readoutDisturbed)
            restoreReadout();
        bool opened = false;
        sendStart(startFlags(false), 0, &opened);
        if (!opened)
            return 0;
    }
    if (const int result = waitForFrameEnd(); result != 0)
        return result;
    // Nobody wants what is left on a link that is being closed.
    if (loadFlag(leaving))
        return 0;
    // Somebody wants the link while the reader of the frame before is still at it: the stream is taken off the link
    // first, where otherwise it would wait on the board.
    const bool early = now.burst && !waitForReader(true) && !series.stopped();
    if (const int result = receiveFrame(); result != 0)
        return result;
    if (early) {
        turn.release();
        frameOver.set();
        waitForReader(false);
    }
    if (!series.stopped())
        publish();
    return 0;
}

/// Brings chips and data path back into the state in which a frame of the series starts.
void Mpx3Dev::restoreReadout()
{
    setMatrixStreamParams();
    setReadoutOMRs();
    sendOMRMode(MPX3_MODE_READ_SECOND);
    switchChannel(ALL_CHANNELS, true, false, true);
    readoutDisturbed = false;
}

/// Waits for the packet at the end of a frame, and takes the measured time from it. A frame that a stop has cut is no
/// failure, whether its packet comes or not.
int Mpx3Dev::waitForFrameEnd()
{
    const bool triggered = now.triggerMode != TRIGGER_NONE;
    const double timeout = triggered ? WAIT_UNLIMITED : now.time + PACKET_GRACE;
    const bool sleeps = triggered || now.time > SLEEPING_WAIT_ABOVE;
    std::array<char, END_OF_FRAME_SIZE + 1> packet{};
    int result = link->waitForPacket(timeout, stopFlag(), packet.data(), END_OF_FRAME_SIZE, true, sleeps);
    if (result != 0 && !series.stopped()) {
        logError(dv::RESULT_ACQ_TIMEOUT, "Acquisition timeout (%s)", link.lastError());
        return result;
    }
    if (result == dv::RESULT_STOPPED)
        result = link->waitForPacket(CUT_FRAME_TIMEOUT, nullptr, packet.data(), END_OF_FRAME_SIZE, false, false);
    if (result == 0)
        lastAcqTimeValue = mpx3::shutterTimeOf(reinterpret_cast<const unsigned char*>(packet.data()));
    return 0;
}

/// Waits until the reader of the frame before has copied the stream, or for a stop, or with `orWanted` until somebody
/// else asks for the link. Returns whether the reader is done.
bool Mpx3Dev::waitForReader(bool orWanted)
{
    while (!matrixReadEvent.wait(READER_POLL_MS)) {
        if (series.stopped() || (orWanted && linkTurn.wanted()))
            return false;
    }
    return true;
}

/// Takes the stream of a frame off the link. That of a cut frame goes to nobody.
int Mpx3Dev::receiveFrame()
{
    if (const int result = readMatrixStream(ALL_CHANNELS, false); result != 0)
        return loadFlag(leaving) ? 0 : logError(result, "Cannot read matrix %s", link.lastError());
    incoming->shape = streamShape(ALL_CHANNELS);
    incoming->counters = config.get().counterSelect;
    incoming->frameTime = now.time;
    return 0;
}

/// From here on reads get this frame. Whoever has read the one before is done with it.
void Mpx3Dev::publish()
{
    {
        ThreadLock lock(&streamSync);
        std::swap(incoming, announced);
    }
    storeFlag(frameAnnounced, true);
}

void Mpx3Dev::announceFrame(unsigned index, bool throughWorker)
{
    events.send(HWEVENT_FRAME_READY, static_cast<long>(index), throughWorker);
}

/// Behind the last frame: waits for the worker's handler, empties the link where something may still come, and lets
/// `restore` put the chips in order. Then the link is free.
void Mpx3Dev::leaveBoard(bool drain, const std::function<void()>& restore)
{
    series.framesOver();
    if (series.stopped() && startSent)
        tellBoardStop();
    events.dispatcher().stopThread();
    {
        const SeriesTurn turn(linkTurn, report);
        if (drain && turn.taken())
            link.drain(DRAIN_TIMEOUT, DRAIN_LIMIT);
        restore();
        // What closing has cut is stopped by closing itself.
        const Link::Exchange whole(link);
        startSent = startSent && loadFlag(leaving);
    }
    linkTurn.endWholeSeries();
    linkTurn.endReservation();
}

/// Tells the host how a series has ended.
void Mpx3Dev::endSeries(int result)
{
    setBusy(false);
    storeFlag(acquiring, false);
    if (result != 0)
        events.send(HWEVENT_ACQ_FAILED, result, false);
    storeFlag(frameAnnounced, false);
    const bool stopped = series.stopped();
    series.finished();
    events.send(stopped ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0, false);
}

/// Tells the host that the one start command of a series has failed, which is all that it hears.
void Mpx3Dev::failSeries()
{
    storeFlag(acquiring, false);
    series.finished();
    events.send(HWEVENT_ACQ_FAILED, -1, false);
}

/// One start command for the whole series; the board sends one row at a time, and 256 rows make a frame. A row that
/// does not come is waited for: a trigger may hold the series up.
void Mpx3Dev::acqFuncTDI()
{
    logFunction("Perform Continuous Acquisition");
    tdiRowTimes.clear();
    const OMR saved = omrValue.get();
    int started = 0;
    if (const SeriesTurn turn(linkTurn, report); turn.taken()) {
        beginLoop();
        omrValue.update(selectSingleRows);
        setReadoutOMRs();
        setMatrixStreamParams();
        openHandOver(true);
        // The number of the last row in the whole series, of which the command takes 24 bits.
        bool opened = false;
        started = sendStart(startFlags(false), now.count * TDI_ROWS - 1, &opened);
    }
    for (unsigned i = 0; i < now.count && started == 0 && !series.stopped(); ++i) {
        setBusy(true);
        if (!readTdiFrame())
            break;
        setBusy(false);
        // The worker is sent away behind a stop: it might not deliver the frame.
        announceFrame(i, i + 1 < now.count && !series.stopped());
        setBusy(true);
    }
    leaveBoard(series.stopped(), [&] {
        omrValue.set(saved);
        setReadoutOMRs();
    });
    if (started == 0)
        endSeries(0);
    else
        failSeries();
}

/// Collects the rows of a frame. A stop delivers those that have come; false where it comes before the first, while
/// the reader of the frame before is still waited for.
bool Mpx3Dev::readTdiFrame()
{
    if (!waitForReader(false))
        return false;
    SeriesTurn turn(linkTurn, report);
    if (!turn.taken())
        return false;
    frameOver.reset();
    receiveTdiRows();
    frameOver.set();
    matrixReadEvent.reset();
    publish();
    return true;
}

void Mpx3Dev::receiveTdiRows()
{
    const unsigned long record = mpx3TdiRecordSize(omrValue.get(), twoChips, channelCount, bothCounters());
    Stream& frame = *incoming;
    frame.shape = streamShape(ALL_CHANNELS);
    frame.shape.tdi = true;
    frame.counters = config.get().counterSelect;
    frame.frameTime = now.time;
    frame.received = 0;
    // What does not come must not be what came before.
    std::ranges::fill(frame.bytes, static_cast<unsigned char>(0));
    unsigned long total = 0;
    for (std::size_t row = 0; row < TDI_ROWS && !series.stopped();) {
        const unsigned long received = receiveTdiRow(row * record, record);
        if (received == 0)
            continue;
        frame.received = received;
        total += received;
        ++row;
    }
    frame.missing = TDI_ROWS * record - total;
    if (frame.missing != 0)
        reportShort(total, TDI_ROWS * record);
}

/// Receives one row to its place in the frame. Returns its bytes.
unsigned long Mpx3Dev::receiveTdiRow(std::size_t offset, unsigned long record)
{
    logFunction("Read Acq Finished & Matrix", false);
    unsigned long received = record;
    const bool fits = offset + record <= incoming->bytes.size();
    if (fits && link.receive(incoming->bytes.data() + offset, &received, TDI_RECORD_TIMEOUT) == 0)
        return received;
    // A link that fails does so at once; it is asked again no oftener than one that is silent.
    sleepThread(TDI_RECORD_TIMEOUT);
    return 0;
}

void Mpx3Dev::waitForSoftwareTrigger(bool* stop)
{
    softTrigger.wait(events.dispatcher(), stop, [this] { return serveWishes(); });
}

dv::IMpxFrame* Mpx3Dev::lastData()
{
    Stream about;
    dv::IMpxFrame* frame =
        frameOf<unsigned>(*dorvet, chipCountValue, DTYPE_U32, [&](unsigned* pixels, std::size_t count) {
            if (requireChips() != 0)
                return 1;
            const std::span<unsigned> matrix = hostMatrix(pixels, count);
            if (!loadFlag(frameAnnounced))
                return readMatrixFromDevice(matrix, config.get().counterSelect, true, &about.missing);
            readAnnounced(matrix, nullptr, true, &about);
            return 0;
        });
    if (frame == nullptr)
        return nullptr;
    if (about.shape.tdi)
        tdiRowTimes.addNextTo(*frame, about.frameTime);
    addMissingBytes(*frame, about.missing);
    return frame;
}

} // namespace HwLatixel
