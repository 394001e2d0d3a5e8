// Series of frames on a Medipix2 or Timepix board: preparation, exposure, repetition of failed frames, and the way of a
// frame to the host.
#include "devices/mpx2dev.h"

#include "devices/common/frames.h"
#include "link/tpxcmds.h"
#include "shared/datatype.h"

namespace HwLatixel {

namespace {

constexpr double QUICK_WAIT = 0.5; ///< seconds

} // namespace

int Mpx2Dev::prepareAcquisition(double seconds)
{
    ThreadLock lock(&devSync);
    storeFlag(stopRequested, false);
    lastAcqTimeValue = seconds;
    return configureSeries(seconds);
}

/// What a series needs on the board; also after a recovery in the middle of one, where a stop must not be forgotten.
int Mpx2Dev::configureSeries(double seconds)
{
    ThreadLock lock(&devSync);
    acqTime = seconds;
    if (setTimer(seconds) != 0)
        return -1;
    if (setAcqClocks() != 0)
        return -2;
    eraseMatrix();
    setTriggerSettings(paramByte(devParams, "TriggerStg"));
    return 0;
}

int Mpx2Dev::startAcquisition(unsigned count, double seconds)
{
    // Nothing is looked at: a series that can't be prepared fails in its thread, and a second series at the same time
    // takes its frames between those of the first one.
    acqCount = count;
    prepareAcquisition(seconds);
    startSeriesThread();
    return 0;
}

int Mpx2Dev::stopAcquisition()
{
    if (requireChips() != 0)
        return 1;
    // Before any lock, so that the series sees it at once.
    storeFlag(stopRequested, true);
    stopBoard(true);
    return 0;
}

int Mpx2Dev::doSingleAcquisition()
{
    return expose();
}

int Mpx2Dev::startSingleAcquisition()
{
    ThreadLock lock(&devSync);
    logFunction("Start Acquisition");
    storeFlag(stopRequested, false);
    return startExposure(0, tpx::SINGLE_FRAME);
}

int Mpx2Dev::waitForAcqFinish(bool quick)
{
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    EndOfFrame packet{};
    const int result =
        waitForFrameEnd(quick ? QUICK_WAIT : acqTime + PACKET_GRACE, acqTime > SLEEPING_WAIT_ABOVE, packet);
    if (result == 0 || loadFlag(stopRequested))
        endExposure();
    return completeExposure(result, packet);
}

void Mpx2Dev::acqFunc()
{
    setCurrentThreadName("mpx2devacq");
    setBusy(true);
    storeFlag(acquiring, true);
    dispatcher.startThread();
    // The first frame waits for no reader.
    matrixReadEvent.set();
    std::uint64_t frame = 0;
    while (frame < acqCount) {
        const Pass pass = takeFrame();
        if (pass == Pass::Lost) {
            // Nothing is taken back: the device stays busy and in its series until the next bring-up or series.
            dispatcher.setEvent(HWEVENT_ACQ_FAILED, -1, false);
            dispatcher.stopThread();
            return;
        }
        if (pass == Pass::Stopped)
            break;
        if (pass == Pass::Again)
            continue;
        announceFrame(frame);
        if (loadFlag(stopRequested))
            break;
        ++frame;
    }
    dispatcher.stopThread();
    setBusy(false);
    storeFlag(acquiring, false);
    dispatcher.setEvent(loadFlag(stopRequested) ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0, false);
}

Mpx2Dev::Pass Mpx2Dev::takeFrame()
{
    ThreadLock lock(&acqSync);
    if ((acqMode & dv::ACQMODE_SOFT_TRIGGER) != 0)
        waitForSwTrigger(&stopRequested);
    // A stop that has come between two frames, or instead of a trigger: its command must stay the last one.
    if (loadFlag(stopRequested))
        return Pass::Stopped;
    if (doSingleAcquisition() != 0) {
        if (recoverDevice() != 0)
            return Pass::Lost;
        // For the rest of the series the host's reads go to the chips, as if no series ran: they find the counters that
        // this thread has just read out.
        stopBoard(true);
        eraseMatrix();
        return Pass::Again;
    }
    if (loadFlag(stopRequested))
        return Pass::Stopped;
    waitForReader(true);
    if (loadFlag(stopRequested))
        return Pass::Stopped;
    if (readMatrixFromDevice() != 0) {
        recoverDevice();
        logError(1, "Reading matrix from device failed, reattempting acq.");
        matrixReadEvent.set();
        return Pass::Again;
    }
    matrixReadEvent.reset();
    return Pass::Taken;
}

/// Hands a frame over: through the dispatcher's worker, so that the next one exposes meanwhile; the last one at once,
/// so that the host is done with it before the series ends.
void Mpx2Dev::announceFrame(std::uint64_t frame)
{
    setBusy(false);
    dispatcher.setEvent(HWEVENT_FRAME_READY, static_cast<long>(frame), frame + 1 < acqCount);
    setBusy(true);
}

dv::IMpxFrame* Mpx2Dev::lastData()
{
    dv::IMpxFrame* frame =
        frameOf<unsigned short>(*dorvet, chipCount_, DT_I16, [this](unsigned short* pixels, std::size_t count) {
            return readMatrix(pixels, count, true);
        });
    if (frame != nullptr)
        addMetaDataToFrame(frame);
    return frame;
}

void Mpx2Dev::addMetaDataToFrame(dv::IMpxFrame* frame)
{
    const auto add = [frame](const char* name, const char* description, double value) {
        frame->addMetaData(name, description, DT_DOUBLE, &value, sizeof(value));
    };
    add("BiasCurrentSense", "Bias Current Sense [V]", currentSense);
    add("BiasVoltageSense", "Bias Voltage Sense [V]", biasSense);
    // 0 until the CPU has told a temperature.
    if (detectorTemp != 0.0)
        add("DetectorTemperature", "Detector Temperature [C]", detectorTemp);
}

} // namespace HwLatixel
