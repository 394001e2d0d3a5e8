// Series of frames on a Medipix2 or Timepix board: the exposure in two halves, and what its frames carry.
#include "devices/mpx2/mpx2dev.h"

#include "host/datatype.h"
#include "link/tpxcmds.h"

namespace HwLatixel {

namespace {

constexpr double QUICK_WAIT = 0.5; ///< seconds

} // namespace

int Mpx2Dev::startSingleAcquisition()
{
    logFunction("Start Acquisition");
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    storeFlag(halfStopped, false);
    return startExposure(0, tpx::SINGLE_FRAME);
}

int Mpx2Dev::waitForAcqFinish(bool quick)
{
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    EndOfFrame packet{};
    const int result = waitForFrameEnd(quick ? QUICK_WAIT : acqTime + PACKET_GRACE, acqTime > SLEEPING_WAIT_ABOVE,
                                       &halfStopped, packet);
    // One look at the stop: what it decides here goes for the pins and for the result.
    const bool ended = result == 0 || loadFlag(halfStopped);
    if (ended)
        endExposure();
    return completeExposure(ended, packet);
}

void Mpx2Dev::acqFunc()
{
    setCurrentThreadName("mpx2devacq");
    openSeries();
    const Pass last = runFrames();
    // A device that is lost stays busy until the next bring-up, or the end of the next series.
    endSeries(last, last == Pass::Lost);
}

void Mpx2Dev::addMetaDataToFrame(dv::IMpxFrame* frame)
{
    const auto add = [frame](const char* name, const char* description, double value) {
        frame->addMetaData(name, description, DTYPE_DOUBLE, &value, sizeof(value));
    };
    add("BiasCurrentSense", "Bias Current Sense [V]", currentSense);
    add("BiasVoltageSense", "Bias Voltage Sense [V]", biasSense);
    // 0 until the CPU has told a temperature.
    if (detectorTemp != 0.0)
        add("DetectorTemperature", "Detector Temperature [C]", detectorTemp);
}

} // namespace HwLatixel
