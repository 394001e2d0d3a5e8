// Parameters and status of a Medipix3 board, with the temperature protection.
#include "devices/mpx3/mpx3dev.h"

#include "board/adcscale.h"
#include "devices/common/boardreports.h"
#include "devices/common/paramtable.h"

#include <string_view>

namespace HwLatixel {

namespace {

constexpr unsigned STATUS_PATIENCE_MS = 100; ///< a poll must not hang behind a stop
constexpr double CPU_PARAM_INTERVAL = 0.5;   ///< seconds between two refreshes by reads of CPU parameters
constexpr double CPU_SENSE_INTERVAL = 1.0;   ///< seconds between two refreshes by readSenseValuesFromCpu

constexpr ParamRow PARAMS[] = {
    {"HwLibVer", "Library Version", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"Firmware", "Firmware", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"Temperature", "Temperature (deg. C)", ParamKind::Double, 0, dv::PARAM_READ_ONLY, true},
    {"DebugLog", "Debug log file", ParamKind::Bool, 0, dv::PARAM_CONFIG, true},
    {"TriggerStg", "Settings of trigger (0=log 0, 1 = log 1, 2 - rising edge, 3 - falling edge)", ParamKind::Byte, 0,
     dv::PARAM_CONFIG, false},
    {"TriggerWaitForReady", "Wait for trigger ready", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
    {"TriggerMaster", "Master device", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
    {"TriggerTdiSeries", "Single Trigger in TDI mode for whole acq. series", ParamKind::Bool, 0, dv::PARAM_CONFIG,
     false},
    {"TriggerOutLevel", "Trigger out active level (0=log 0, 1 = log 1)", ParamKind::Byte, 0, dv::PARAM_CONFIG, false},
    {"TdiRowCount", "Number of rows to read in TDI mode (1 is default)", ParamKind::Int32, 1, dv::PARAM_CONFIG, false},
    {"BiasDischarge", "Discharge bias (on=1,off=0)", ParamKind::Byte, 0, dv::PARAM_LIVE, true},
};

} // namespace

void Mpx3Dev::initParameters()
{
    const ParamContent contents[] = {{"HwLibVer", LIBRARY_VERSION}, {"Firmware", firmwareText.c_str()}};
    addParams(*devParams, PARAMS, contents, paramReadSetFunc, reinterpret_cast<long>(this));
}

int Mpx3Dev::paramReadSetFunc(dv::IParam* param, bool isRead, long user)
{
    auto* device = reinterpret_cast<Mpx3Dev*>(user); // NOLINT(performance-no-int-to-ptr): the host's word
    if (isRead)
        device->onReadParam(param);
    else
        device->onWriteParam(param);
    return 0;
}

int Mpx3Dev::paramReadSetFuncCpu(dv::IParam*, bool isRead, long user)
{
    if (isRead)
        reinterpret_cast<Mpx3Dev*>(user)->onReadParamCpu(); // NOLINT(performance-no-int-to-ptr): the host's word
    return 0;
}

void Mpx3Dev::onReadParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "Temperature")
        return;
    param->setDouble(adcCelsius(readSenseCode(TEMPERATURE_ADC_CHANNEL)));
}

void Mpx3Dev::onWriteParam(dv::IParam* param)
{
    const std::string_view name = param->name();
    // The parameter switches the debug log on, but never off again while it is on.
    if (name == "DebugLog")
        setDebugLog(param->getBool() || loadFlag(debugLog));
    else if (name == "BiasDischarge")
        link.send(SpiCmd::BiasDischarge, CmdArgs::low(static_cast<unsigned char>(param->getByte() << 2)));
}

void Mpx3Dev::onReadParamCpu()
{
    ThreadLock lock(&cpuSync);
    const double now = getPreciseTime();
    if (ibCpu == nullptr || now - lastCpuRead <= CPU_PARAM_INTERVAL)
        return;
    ibCpu->dumpValuesToParams(devParams);
    lastCpuRead = getPreciseTime();
}

void Mpx3Dev::readSenseValuesFromCpu() const
{
    ThreadLock lock(&cpuSync);
    const double now = getPreciseTime();
    if (now - lastSenseRead < CPU_SENSE_INTERVAL)
        return;
    logFunction("Read cpu values");
    lastSenseRead = now;
    if (ibCpu != nullptr)
        ibCpu->dumpValuesToParams(devParams);
}

void Mpx3Dev::setDebugLog(bool on)
{
    storeFlag(debugLog, on);
    report.setLevel(usualLogLevel());
    logMsg("Debug log enabled: %d\n", on ? 1 : 0);
}

int Mpx3Dev::deviceStatus() const
{
    // The preparation of a series must not take the CPU's answer off the link, nor this what the chips send.
    ThreadLockTimeout quiet(&devSync, STATUS_PATIENCE_MS);
    ThreadLock lock(&cpuSync);
    if (!quiet.locked() || ibCpu == nullptr || loadFlag(acquiring) || series.active())
        return lastCpuStatus;
    if (skipPeriodicLog)
        report.setLevel(MSG);
    logFunction("Get Device Status");
    lastCpuStatus = ibCpu->getStatus();
    if (lastCpuStatus == CPU_FAULT)
        reportCpuFault(report, *ibCpu, overheated);
    // From the first poll on, a device without DebugLog logs at MSG only.
    report.setLevel(usualLogLevel());
    return lastCpuStatus;
}

const char* Mpx3Dev::deviceStatusText() const
{
    ThreadLockTimeout quiet(&devSync, STATUS_PATIENCE_MS);
    ThreadLock lock(&cpuSync);
    if (quiet.locked() && ibCpu != nullptr && !loadFlag(acquiring) && !series.active()) {
        if (skipPeriodicLog)
            report.setLevel(MSG);
        statusText = ibCpu->getStatusText();
        report.setLevel(usualLogLevel());
    }
    return statusText.c_str();
}

} // namespace HwLatixel
