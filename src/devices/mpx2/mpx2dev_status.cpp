// What the CPU of a Medipix2 or Timepix board tells: status, and the values that become parameters.
#include "devices/mpx2/mpx2dev.h"

#include "shared/str.h"

namespace HwLatixel {

namespace {

constexpr double CPU_SENSE_INTERVAL = 1.0; ///< seconds between two refreshes by readSenseValuesFromCpu

} // namespace

void Mpx2Dev::readSenseValuesFromCpu() const
{
    const double now = getPreciseTime();
    if (now - lastSenseRead < CPU_SENSE_INTERVAL)
        return;
    logFunction("Read cpu values");
    lastSenseRead = now;
    fetchCpuValues();
}

void Mpx2Dev::onWriteParamCpu(dv::IParam* param)
{
    if (CpuParamUpdate::running())
        return;
    // Reading the text would otherwise refresh the parameter from the CPU, before the new value is there.
    param->enableCallback(false);
    const std::string name = param->name();
    int error = 0;
    const double value = str::toDouble(param->getString(), &error);
    param->enableCallback(true);
    if (error != 0)
        return;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return;
    const int index = ibCpu != nullptr ? ibCpu->parameterIndex(name) : -1;
    if (index < 0)
        return;
    logFunction("Set Cpu Parameter");
    ibCpu->setValue(index, static_cast<float>(value));
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

} // namespace HwLatixel
