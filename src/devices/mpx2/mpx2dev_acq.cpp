// Series of frames on a Medipix2 or Timepix board: the exposure in two halves, and what its frames carry.
#include "devices/mpx2/mpx2dev.h"

#include "link/tpxcmds.h"
#include "shared/datatype.h"

namespace HwLatixel {

namespace {

constexpr double QUICK_WAIT = 0.5; ///< seconds

} // namespace

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
    openSeries();
    if (runFrames() == Pass::Lost) {
        abandonSeries();
        dispatcher.stopThread();
        return;
    }
    endSeries(false);
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
