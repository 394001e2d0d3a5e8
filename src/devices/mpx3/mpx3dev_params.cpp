// Parameters and status of a Medipix3 board, with the temperature protection.
#include "devices/mpx3/mpx3dev.h"

#include "board/adcscale.h"
#include "devices/common/boardreports.h"
#include "devices/common/paramtable.h"
#include "shared/contained.h"

#include <string_view>

namespace HwLatixel {

namespace {

constexpr double STATUS_PATIENCE = 0.1;    ///< seconds; a poll must not hang behind a stop
constexpr double WISH_INTERVAL = 1.0;      ///< seconds between two readings of a series for those who poll
constexpr double CPU_PARAM_INTERVAL = 0.5; ///< seconds between two refreshes by reads of CPU parameters
constexpr double CPU_SENSE_INTERVAL = 1.0; ///< seconds between two refreshes by readSenseValuesFromCpu

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
    contained([&] { isRead ? device->onReadParam(param) : device->onWriteParam(param); });
    return 0;
}

int Mpx3Dev::paramReadSetFuncCpu(dv::IParam*, bool isRead, long user)
{
    auto* device = reinterpret_cast<Mpx3Dev*>(user); // NOLINT(performance-no-int-to-ptr): the host's word
    if (isRead)
        contained([&] { device->onReadParamCpu(); });
    return 0;
}

void Mpx3Dev::onReadParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "Temperature")
        return;
    int code = 0;
    if (inSeries()) {
        leaveWish(1U << TEMPERATURE_ADC_CHANNEL);
        code = adcCodes[TEMPERATURE_ADC_CHANNEL];
    } else {
        code = readSenseCode(TEMPERATURE_ADC_CHANNEL);
    }
    const SeriesLife::Callback hostsCode(series);
    if (code >= 0)
        param->setDouble(adcCelsius(static_cast<unsigned short>(code)));
}

void Mpx3Dev::onWriteParam(dv::IParam* param)
{
    const std::string_view name = param->name();
    // The parameter switches the debug log on, but never off again while it is on.
    if (name == "DebugLog") {
        setDebugLog(param->getBool() || loadFlag(debugLog));
    } else if (name == "BiasDischarge") {
        const unsigned char word = param->getByte();
        link.send(SpiCmd::BiasDischarge, CmdArgs::low(static_cast<unsigned char>(word << 2)));
    }
}

void Mpx3Dev::onReadParamCpu()
{
    if (!loadFlag(cpuPresent))
        return;
    if (inSeries()) {
        leaveWish(WISH_CPU_VALUES);
        return;
    }
    if (getPreciseTime() - lastCpuRead <= CPU_PARAM_INTERVAL)
        return;
    refreshCpuValues();
    lastCpuRead = getPreciseTime();
}

void Mpx3Dev::readSenseValuesFromCpu() const
{
    const double time = getPreciseTime();
    if (time - lastSenseRead < CPU_SENSE_INTERVAL)
        return;
    logFunction("Read cpu values");
    lastSenseRead = time;
    if (inSeries())
        leaveWish(WISH_CPU_VALUES);
    else
        refreshCpuValues();
}

/// Asks the CPU, and gives the answers to the host's parameters once the turn is given back.
void Mpx3Dev::refreshCpuValues() const
{
    IBCpu::Values values;
    {
        const DeviceTurn turn(linkTurn, report, patience());
        if (turn.require() != 0 || ibCpu == nullptr)
            return;
        values = ibCpu->getValues();
    }
    storeCpuValues(values);
}

void Mpx3Dev::storeCpuValues(const IBCpu::Values& values) const
{
    const SeriesLife::Callback hostsCode(series);
    for (const auto& [name, value] : values)
        if (devParams->exists(name.c_str()))
            devParams->get(name.c_str())->setString(value.c_str());
}

void Mpx3Dev::setDebugLog(bool on)
{
    storeFlag(debugLog, on);
    report.setLevel(usualLogLevel());
    logMsg("Debug log enabled: %d\n", on ? 1 : 0);
}

int Mpx3Dev::deviceStatus() const
{
    if (!loadFlag(cpuPresent))
        return lastCpuStatus;
    if (inSeries()) {
        leaveWish(WISH_STATUS);
        return lastCpuStatus;
    }
    const DeviceTurn turn(linkTurn, report, STATUS_PATIENCE);
    if (turn.taken())
        pollStatus();
    return lastCpuStatus;
}

/// Asks the CPU for its state; the caller has the turn.
void Mpx3Dev::pollStatus() const
{
    if (ibCpu == nullptr)
        return;
    if (skipPeriodicLog)
        report.setLevel(MSG);
    logFunction("Get Device Status");
    lastCpuStatus = ibCpu->getStatus();
    if (lastCpuStatus == CPU_FAULT)
        reportCpuFault(report, *ibCpu, overheated);
    // From the first poll on, a device without DebugLog logs at MSG only.
    report.setLevel(usualLogLevel());
}

const char* Mpx3Dev::deviceStatusText() const
{
    if (loadFlag(boardMute))
        return BOARD_MUTE;
    if (!loadFlag(cpuPresent))
        return statusText.get();
    if (inSeries()) {
        leaveWish(WISH_STATUS_TEXT);
        return statusText.get();
    }
    const DeviceTurn turn(linkTurn, report, STATUS_PATIENCE);
    if (turn.taken())
        pollStatusText();
    return statusText.get();
}

/// The same for the CPU's words.
void Mpx3Dev::pollStatusText() const
{
    if (ibCpu == nullptr)
        return;
    if (skipPeriodicLog)
        report.setLevel(MSG);
    const std::string text = ibCpu->getStatusText();
    report.setLevel(usualLogLevel());
    // What the host holds stays valid as long as nothing new comes.
    if (text != statusText.get())
        statusText.set(text);
}

/// Takes the readings that somebody has asked for since the last time, between two frames and at most once a second.
/// False where the board turns out to be too hot.
bool Mpx3Dev::serveWishes()
{
    if (wishes == 0 || getPreciseTime() - wishesServed < WISH_INTERVAL)
        return true;
    IBCpu::Values values;
    {
        SeriesTurn turn(linkTurn, report);
        if (!turn.taken())
            return true;
        const unsigned wanted = wishes.exchange(0);
        if ((wanted & WISH_STATUS) != 0)
            pollStatus();
        if ((wanted & WISH_STATUS_TEXT) != 0)
            pollStatusText();
        if ((wanted & WISH_CPU_VALUES) != 0 && ibCpu != nullptr)
            values = ibCpu->getValues();
        if ((wanted & WISH_BIAS) != 0)
            measureBias(true, true);
        for (unsigned channel = 0; channel < ADC_CHANNELS; ++channel)
            if ((wanted & 1U << channel) != 0)
                readSenseCode(static_cast<unsigned char>(channel));
    }
    storeCpuValues(values);
    wishesServed = getPreciseTime();
    return !loadFlag(overheated);
}

int Mpx3Dev::TurnCpu::sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received)
{
    const DeviceTurn turn(device.linkTurn, device.report, device.patience());
    if (turn.require() != 0)
        return 1;
    return IBCpuMgrMpx3::sendReceiveSpi(tx, rx, size, received);
}

} // namespace HwLatixel
