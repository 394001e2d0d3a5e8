// What the CPU of a Medipix2 or Timepix board tells: status, and the values that become parameters.
#include "devices/mpx2/mpx2dev.h"

#include "shared/str.h"

namespace HwLatixel {

namespace {

constexpr double CPU_SENSE_INTERVAL = 1.0; ///< seconds between two refreshes by readSenseValuesFromCpu

} // namespace

/// Runs `poll` if both locks can be had in time.
template <typename Poll>
void Mpx2Dev::pollBetweenFrames(Poll poll) const
{
    ThreadLockTimeout acq(&acqSync, STATUS_PATIENCE_MS);
    if (!acq.locked())
        return;
    ThreadLockTimeout dev(&devSync, STATUS_PATIENCE_MS);
    if (dev.locked())
        poll();
}

int Mpx2Dev::deviceStatus() const
{
    pollBetweenFrames([this] { pollStatus(); });
    return devStatus;
}

const char* Mpx2Dev::deviceStatusText() const
{
    pollBetweenFrames([this] { pollStatusText(); });
    return statusText.get();
}

/// Takes the CPU's values over into the parameters. Their hooks look at the flag: what is written here is not to be
/// sent back to the CPU.
void Mpx2Dev::updateCpuParams() const
{
    storeFlag(cpuParamsUpdating, true);
    ibCpu->dumpValuesToParams(devParams);
    storeFlag(cpuParamsUpdating, false);
}

void Mpx2Dev::readSenseValuesFromCpu() const
{
    const double now = getPreciseTime();
    if (now - lastSenseRead < CPU_SENSE_INTERVAL)
        return;
    logFunction("Read cpu values");
    lastSenseRead = now;
    if (ibCpu != nullptr)
        updateCpuParams();
}

void Mpx2Dev::onReadParamCpu()
{
    if (ibCpu == nullptr || getPreciseTime() - lastCpuRead <= CPU_PARAM_INTERVAL)
        return;
    const FrameGap gap(*this);
    updateCpuParams();
    lastCpuRead = getPreciseTime();
}

void Mpx2Dev::onWriteParamCpu(dv::IParam* param)
{
    if (loadFlag(cpuParamsUpdating) || ibCpu == nullptr)
        return;
    const FrameGap gap(*this);
    const int index = ibCpu->parameterIndex(param->name());
    // Reading the text would otherwise refresh the parameter from the CPU, before the new value is there.
    param->enableCallback(false);
    int error = 0;
    const double value = str::toDouble(param->getString(), &error);
    if (error == 0 && index >= 0) {
        logFunction("Set Cpu Parameter");
        ibCpu->setValue(index, static_cast<float>(value));
    }
    param->enableCallback(true);
}

void Mpx2Dev::senseBias(bool volts, bool amperes) const
{
    if (!biasInCpu) {
        senseBiasByAdc(volts, amperes);
        return;
    }
    readSenseValuesFromCpu();
    biasSense = cpuValue("BiasVolt");
    currentSense = cpuValue("BiasCurr");
    detectorTemp = cpuValue("TempDet");
}

/// A number that the CPU publishes; 0 where there is none of that name.
double Mpx2Dev::cpuValue(const char* name) const
{
    dv::IParam* param = devParams->exists(name) ? devParams->get(name) : nullptr;
    return param != nullptr ? str::toDouble(param->getString()) : 0.0;
}

} // namespace HwLatixel
