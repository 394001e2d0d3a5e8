// Parameters and status of a Medipix3 board, with the temperature protection.
#include "devices/mpx3dev.h"

#include "board/adcscale.h"

#include <string_view>

namespace HwLatixel {

namespace {

constexpr const char* LIBRARY_VERSION = "Version 3.0 (Mar 19 2024)";

constexpr double CPU_PARAM_INTERVAL = 0.5; ///< seconds between two refreshes by reads of CPU parameters
constexpr double CPU_SENSE_INTERVAL = 1.0; ///< seconds between two refreshes by readSenseValuesFromCpu

constexpr int CPU_FAULT = 2;
constexpr int CPU_ERROR_TEMPERATURE = 1;

// The board's temperature sensor, on an ADC channel of its own: 0 to full scale are -50 to 450 degrees Celsius.
constexpr unsigned char TEMPERATURE_ADC_CHANNEL = 1;
constexpr double TEMPERATURE_RANGE = 500.0;
constexpr double TEMPERATURE_OFFSET = 50.0;

enum class Kind { Text, Double, Bool, Byte, Int32 };

struct ParamRow {
    const char* name;
    Kind kind;
    const char* description;
    int defaultValue; ///< of a bool, byte or int; texts and doubles see initParameters
    bool callback;
    unsigned flags;
};

constexpr ParamRow PARAMS[] = {
    {"HwLibVer", Kind::Text, "Library Version", 0, false, dv::PARAM_READ_ONLY},
    {"Firmware", Kind::Text, "Firmware", 0, false, dv::PARAM_READ_ONLY},
    {"Temperature", Kind::Double, "Temperature (deg. C)", 0, true, dv::PARAM_READ_ONLY},
    {"DebugLog", Kind::Bool, "Debug log file", 0, true, dv::PARAM_CONFIG},
    {"TriggerStg", Kind::Byte, "Settings of trigger (0=log 0, 1 = log 1, 2 - rising edge, 3 - falling edge)", 0, false,
     dv::PARAM_CONFIG},
    {"TriggerWaitForReady", Kind::Bool, "Wait for trigger ready", 0, false, dv::PARAM_CONFIG},
    {"TriggerMaster", Kind::Bool, "Master device", 0, false, dv::PARAM_CONFIG},
    {"TriggerTdiSeries", Kind::Bool, "Single Trigger in TDI mode for whole acq. series", 0, false, dv::PARAM_CONFIG},
    {"TriggerOutLevel", Kind::Byte, "Trigger out active level (0=log 0, 1 = log 1)", 0, false, dv::PARAM_CONFIG},
    {"TdiRowCount", Kind::Int32, "Number of rows to read in TDI mode (1 is default)", 1, false, dv::PARAM_CONFIG},
    {"BiasDischarge", Kind::Byte, "Discharge bias (on=1,off=0)", 0, true, dv::PARAM_LIVE},
};

void addParam(dv::IParamMgr& params, const ParamRow& row, const char* text, dv::ParamFunc func, long user)
{
    switch (row.kind) {
    case Kind::Text:
        params.addString(row.name, row.description, text, func, user, row.flags);
        break;
    case Kind::Double:
        params.addDouble(row.name, row.description, row.defaultValue, func, user, row.flags);
        break;
    case Kind::Bool:
        params.addBool(row.name, row.description, row.defaultValue != 0, func, user, row.flags);
        break;
    case Kind::Byte:
        params.addByte(row.name, row.description, static_cast<unsigned char>(row.defaultValue), func, user, row.flags);
        break;
    case Kind::Int32:
        params.addInt32(row.name, row.description, row.defaultValue, func, user, row.flags);
        break;
    }
}

} // namespace

void Mpx3Dev::initParameters()
{
    if (devParams->count() != 0)
        return;
    for (const auto& row : PARAMS) {
        const char* text = std::string_view(row.name) == "Firmware" ? firmwareText.c_str() : LIBRARY_VERSION;
        addParam(*devParams, row, text, row.callback ? paramReadSetFunc : nullptr, reinterpret_cast<long>(this));
    }
}

int Mpx3Dev::paramReadSetFunc(dv::IParam* param, bool isRead, long user)
{
    auto* device = reinterpret_cast<Mpx3Dev*>(user);
    if (isRead)
        device->onReadParam(param);
    else
        device->onWriteParam(param);
    return 0;
}

int Mpx3Dev::paramReadSetFuncCpu(dv::IParam*, bool isRead, long user)
{
    if (isRead)
        reinterpret_cast<Mpx3Dev*>(user)->onReadParamCpu();
    return 0;
}

void Mpx3Dev::onReadParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "Temperature")
        return;
    const unsigned short code = readSenseCode(TEMPERATURE_ADC_CHANNEL);
    param->setDouble(code / ADC_STEPS * TEMPERATURE_RANGE - TEMPERATURE_OFFSET);
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
    ThreadLock lock(&cpuSync);
    if (ibCpu == nullptr || loadFlag(acquiring))
        return lastCpuStatus;
    if (skipPeriodicLog)
        report.setLevel(MSG);
    logFunction("Get Device Status");
    lastCpuStatus = ibCpu->getStatus();
    if (lastCpuStatus == CPU_FAULT)
        reportCpuError();
    // From the first poll on, a device without DebugLog logs at MSG only.
    report.setLevel(usualLogLevel());
    return lastCpuStatus;
}

void Mpx3Dev::reportCpuError() const
{
    if (ibCpu->getErrorType() != CPU_ERROR_TEMPERATURE) {
        logError(0, "Device error: %s\n", ibCpu->getStatusText().c_str());
    } else {
        if (!loadFlag(overheated))
            logError(dv::RESULT_OVERHEATED,
                     "Maximal allowed temperature exceeded ! Let the device cool down and then reconnect it in SW or "
                     "restart SW.\nDevice error: %s\n",
                     ibCpu->getStatusText().c_str());
        storeFlag(overheated, true);
    }
    if (report.log() != nullptr)
        report.line(ERR, "Device error. Dumping values:\n%s\n", ibCpu->dumpValuesToString().c_str());
}

const char* Mpx3Dev::deviceStatusText() const
{
    ThreadLock lock(&cpuSync);
    if (ibCpu != nullptr && !loadFlag(acquiring)) {
        if (skipPeriodicLog)
            report.setLevel(MSG);
        statusText = ibCpu->getStatusText();
        report.setLevel(usualLogLevel());
    }
    return statusText.c_str();
}

} // namespace HwLatixel
