// Series of frames on a Medipix3 board: preparation, the three kinds of series, and the way of a frame to the host.
#include "devices/mpx3/mpx3dev.h"

#include "devices/common/triggers.h"

#include <array>

namespace HwLatixel {

namespace {

constexpr double PACKET_GRACE = 2.0;        ///< seconds that the end-of-frame packet may come late
constexpr double WAIT_UNLIMITED = 1e100;    ///< seconds; an external trigger may hold a frame up for ever
constexpr double CUT_FRAME_TIMEOUT = 0.4;   ///< seconds that the packet of a stopped frame may take
constexpr double SLEEPING_WAIT_ABOVE = 1.0; ///< seconds; shorter frames are waited for without sleeping
constexpr unsigned READER_POLL_MS = 300;    ///< between two looks at the stop flag
constexpr double TDI_RECORD_TIMEOUT = 0.5;  ///< seconds of silence after which a row counts as not there
constexpr double DRAIN_TIMEOUT = 0.2;       ///< seconds of silence after which the link counts as empty

constexpr unsigned TDI_ROWS = RowTimes::ROWS;
constexpr unsigned char BOTH_COUNTERS = 2;

} // namespace

int Mpx3Dev::setAcqMode(unsigned mode)
{
    AMpx3Dev::setAcqMode(mode);
    triggerMode = triggerModeOf(mode);
    tdiMode = (mode & dv::ACQMODE_TDI) != 0;
    return 0;
}

int Mpx3Dev::prepareAcquisition(unsigned count, double time, bool allowBurst)
{
    ThreadLock lock(&devSync);
    storeFlag(stopRequested, false);
    lastAcqTimeValue = time;
    acqTime = time;
    acqCount = count;
    burstMode = allowBurst && time < BURST_THRESHOLD;
    // A TDI frame takes `time` for all of its rows together.
    if (setTimer(tdiMode ? time / TDI_ROWS : time) != 0)
        return -1;
    eraseMatrix();
    setMatrixStreamParams();
    setReadoutOMRs();
    sendOMRMode(MPX3_MODE_READ_SECOND);
    setTriggerSettings();
    switchChannel(ALL_CHANNELS, true, false, true);
    return 0;
}

int Mpx3Dev::startAcquisition(unsigned count, double time)
{
    if (requireChips() != 0)
        return 1;
    ThreadLock lock(&devSync);
    logFunction("START ACQUISITION");
    if (const int result = prepareAcquisition(count, time, true); result != 0)
        return result;
    startSeriesThread();
    return 0;
}

int Mpx3Dev::startAcquisitionFromLad()
{
    if (requireChips() != 0)
        return 1;
    ThreadLock lock(&devSync);
    logFunction("START ACQUISITION");
    startSeriesThread();
    return 0;
}

void Mpx3Dev::startSeriesThread()
{
    series.start(acqFuncWrapper, this);
}

int Mpx3Dev::stopAcquisition()
{
    if (requireChips() != 0)
        return 1;
    logFunction("Stop Acquisition");
    tellStop();
    ThreadLock devLock(&devSync);
    // Waits for the frame in progress. A TDI series whose frame the host has not taken yet holds this lock until
    // `lastData` has taken it, and the caller waits as long.
    ThreadLock dataLock(&dataSync);
    storeFlag(busy, false);
    storeFlag(acquiring, false);
    return 0;
}

void Mpx3Dev::acqFunc()
{
    setCurrentThreadName("mpx3devacq");
    if (tdiMode)
        acqFuncTDI();
    else if (crwMode)
        acqFuncCRW();
    else
        acqFuncNormal();
    series.left();
}

unsigned char Mpx3Dev::startFlags(bool continuous) const
{
    unsigned flags = mpx3::startflag::ALWAYS;
    flags |= triggersStart(triggerMode) ? mpx3::startflag::START_ON_TRIGGER : 0U;
    flags |= triggersStop(triggerMode) ? mpx3::startflag::STOP_ON_TRIGGER : 0U;
    flags |= continuous ? mpx3::startflag::CONTINUOUS_RW : 0U;
    return static_cast<unsigned char>(flags);
}

/// Tells the series, and where one runs the board.
void Mpx3Dev::tellStop()
{
    const StopsUnderWay::Scope stop(stopsUnderWay);
    requestStop();
    ThreadLock lock(&devSync);
    if (loadFlag(acquiring))
        link.send(AcqCmd::Stop, {}, cmdflag::OUTPUT);
}

/// Behind this no shutter is opened any more, so that a stop command which follows is the last one.
void Mpx3Dev::requestStop()
{
    ThreadLock lock(&startSync);
    storeFlag(stopRequested, true);
}

/// Tells the board to start, unless a stop has come.
int Mpx3Dev::sendStart(unsigned char flags, std::uint32_t frameWord)
{
    ThreadLock lock(&startSync);
    if (loadFlag(stopRequested))
        return 0;
    return link.send(AcqCmd::Start, CmdArgs::byteAnd24(flags, frameWord), cmdflag::OUTPUT);
}

void Mpx3Dev::acqFuncNormal()
{
    storeFlag(acquiring, true);
    openHandOver(burstMode);
    endSeries(runFrames(true));
}

/// One start command for the whole series: one counter exposes while the other is read, and the board may run ahead.
void Mpx3Dev::acqFuncCRW()
{
    switchChannel(ALL_CHANNELS, false, false, true);
    storeFlag(acquiring, true);
    link.send(mpx3::MpxCmd::ContinuousRw, CmdArgs::low(1));
    const OMR saved = omrValue;
    omrValue.CRW_SRW = 1;
    omrValue.setMode(MPX3_MODE_READ);
    sendOMR();
    setMatrixStreamParams();
    switchChannel(ALL_CHANNELS, true, false, true);
    openHandOver(burstMode);
    if (sendStart(startFlags(true), acqCount - 1) != 0) {
        // Nothing is taken back: flags, register image and the board's mode stay as they are until the next bring-up.
        dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
        return;
    }
    // The final events go out before the link is drained: a new series must not be started from within them.
    endSeries(runFrames(false));
    link.drain(DRAIN_TIMEOUT);
    omrValue = saved;
    sendOMR();
    link.send(mpx3::MpxCmd::ContinuousRw, CmdArgs::low(0));
}

/// Makes ready for handing frames to the host, through the dispatcher's worker if asked. The first frame waits for no
/// reader.
void Mpx3Dev::openHandOver(bool throughWorker)
{
    if (throughWorker)
        dispatcher.startThread();
    matrixReadEvent.set();
}

/// Takes the frames of a normal or a continuous series. Returns the result of the last transfer.
int Mpx3Dev::runFrames(bool startEachFrame)
{
    int result = 0;
    for (unsigned i = 0; i < acqCount && !loadFlag(stopRequested); ++i) {
        setBusy(true);
        result = takeFrame(startEachFrame);
        if (result != 0 || loadFlag(stopRequested))
            break;
        setBusy(false);
        announceFrame(i, burstMode && i + 1 < acqCount);
    }
    return result;
}

int Mpx3Dev::takeFrame(bool startCommand)
{
    ThreadLock lock(&dataSync);
    // A stop may have come between the loop's look at it and the lock.
    if (loadFlag(stopRequested))
        return 0;
    logFunction("Perform Acquisition");
    if (startCommand) {
        if (waitSoftTrigger)
            waitForSoftwareTrigger(&stopRequested);
        // A stop ends the wait for a trigger, and there is no frame to wait for.
        if (loadFlag(stopRequested))
            return 0;
        sendStart(startFlags(false), 0);
    }
    if (const int result = waitForFrameEnd(); result != 0)
        return result;
    const bool mayOverwrite = !burstMode || waitForReader();
    const int result = mayOverwrite ? readMatrixStream(ALL_CHANNELS, false) : dropMatrixStream();
    return result != 0 ? logError(result, "Cannot read matrix %s", link.lastError()) : 0;
}

/// Waits for the packet at the end of a frame, and takes the measured time from it. A frame that a stop has cut is no
/// failure, whether its packet comes or not.
int Mpx3Dev::waitForFrameEnd()
{
    const bool triggered = triggerMode != TRIGGER_NONE;
    const double timeout = triggered ? WAIT_UNLIMITED : acqTime + PACKET_GRACE;
    const bool sleeps = triggered || acqTime > SLEEPING_WAIT_ABOVE;
    std::array<char, END_OF_FRAME_SIZE + 1> packet{};
    int result = link->waitForPacket(timeout, &stopRequested, packet.data(), END_OF_FRAME_SIZE, true, sleeps);
    if (result != 0 && !loadFlag(stopRequested)) {
        logError(dv::RESULT_ACQ_TIMEOUT, "Acquisition timeout (%s)", link.lastError());
        return result;
    }
    if (result == dv::RESULT_STOPPED)
        result = link->waitForPacket(CUT_FRAME_TIMEOUT, nullptr, packet.data(), END_OF_FRAME_SIZE, false, false);
    if (result == 0)
        lastAcqTimeValue = mpx3::shutterTimeOf(reinterpret_cast<const unsigned char*>(packet.data()));
    return 0;
}

/// Waits until the reader of the frame before has copied the stream, or for a stop. Returns whether the reader is done.
bool Mpx3Dev::waitForReader()
{
    while (!matrixReadEvent.wait(READER_POLL_MS)) {
        if (loadFlag(stopRequested))
            return false;
    }
    return true;
}

void Mpx3Dev::announceFrame(unsigned index, bool throughWorker)
{
    dispatcher.setEvent(HWEVENT_FRAME_READY, static_cast<long>(index), throughWorker);
}

void Mpx3Dev::endSeries(int result)
{
    // Once the series counts as ended, a stop that it has seen would send no command.
    stopsUnderWay.wait();
    dispatcher.stopThread();
    setBusy(false);
    storeFlag(acquiring, false);
    if (result != 0)
        dispatcher.setEvent(HWEVENT_ACQ_FAILED, result, false);
    dispatcher.setEvent(loadFlag(stopRequested) ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0, false);
}

/// One start command for the whole series; the board sends one row at a time, and 256 rows make a frame. A row that
/// does not come is waited for: a trigger may hold the series up.
void Mpx3Dev::acqFuncTDI()
{
    logFunction("Perform Continuous Acquisition");
    storeFlag(acquiring, true);
    tdiRowTimes.clear();
    const OMR saved = omrValue;
    omrValue.RowBlock = 0;
    omrValue.RowBlockSel = 1;
    setReadoutOMRs();
    setMatrixStreamParams();
    openHandOver(true);
    // The number of the last row in the whole series, of which the command takes 24 bits.
    if (sendStart(startFlags(false), acqCount * TDI_ROWS - 1) != 0) {
        dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
        return;
    }
    for (unsigned i = 0; i < acqCount && !loadFlag(stopRequested); ++i) {
        setBusy(true);
        readTdiFrame();
        setBusy(false);
        announceFrame(i, i + 1 < acqCount);
        setBusy(true);
    }
    if (loadFlag(stopRequested)) {
        stopsUnderWay.wait();
        ThreadLock lock(&devSync);
        link.drain(DRAIN_TIMEOUT);
    }
    // The host may still decode a frame, which goes by the image: waits for the end of its handler.
    dispatcher.stopThread();
    omrValue = saved;
    setReadoutOMRs();
    endSeries(0);
}

void Mpx3Dev::readTdiFrame()
{
    ThreadLock lock(&dataSync);
    // The rows go where the frame before may still lie: its reader is waited for, whatever a stop says.
    while (!matrixReadEvent.wait(READER_POLL_MS)) {
    }
    tdiRowIndex = 0;
    while (tdiRowIndex < TDI_ROWS && !loadFlag(stopRequested)) {
        readTDIMatrixFromDevice();
        if (readBytes > 0)
            ++tdiRowIndex;
    }
    matrixReadEvent.reset();
}

void Mpx3Dev::readTDIMatrixFromDevice()
{
    logFunction("Read Acq Finished & Matrix", false);
    const unsigned long record =
        mpx3TdiRecordSize(omrValue, twoChips, channelCount, config.counterSelect == BOTH_COUNTERS);
    const unsigned long offset = tdiRowIndex * record;
    if (offset + record > streamBuffer.size()) {
        readBytes = 0;
        return;
    }
    readBytes = record;
    if (link.receive(streamBuffer.get(offset), &readBytes, TDI_RECORD_TIMEOUT) != 0) {
        readBytes = 0;
        // A link that fails does so at once; it is asked again no oftener than one that is silent.
        sleepThread(TDI_RECORD_TIMEOUT);
    }
}

dv::IMpxFrame* Mpx3Dev::lastData()
{
    dv::IMpxFrame* frame = AMpx3Dev::lastData();
    if (frame != nullptr && loadFlag(acquiring) && tdiMode)
        tdiRowTimes.addNextTo(*frame, acqTime);
    return frame;
}

} // namespace HwLatixel
