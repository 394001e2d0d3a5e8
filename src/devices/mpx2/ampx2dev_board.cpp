// The board of a Medipix2 or Timepix device: firmware, flash, CPU, pins and power, bias DAC and ADC, raw access.
#include "devices/mpx2/ampx2dev.h"

#include "devices/common/boardreports.h"
#include "shared/contained.h"
#include "shared/str.h"

#include <algorithm>
#include <string_view>

namespace HwLatixel {

namespace {

constexpr double FIRMWARE_TIMEOUT = 1.0; ///< seconds
constexpr double RAW_TIMEOUT = 1.0;      ///< seconds
constexpr int RECONNECT_TRIES = 5;
constexpr const char* FIRMWARE_MARK = "Firmware"; ///< what every firmware's text begins with

constexpr int MESSAGE_WARNING = 3;
constexpr const char* MESSAGE_TITLE = "Latixel Firmware";

constexpr unsigned char SENSE_ADC_CHANNEL = 0; ///< carries the chips' analog sense output
constexpr int INTERFACE_DACS = 5;

// Raw access of the host.
enum RawKind : unsigned long { RAW_COMMAND = 0, RAW_PAYLOAD = 1, RAW_BYTES = 2 };
constexpr unsigned long RAW_COMMAND_SIZE = 6;
constexpr unsigned long RAW_PAYLOAD_HEAD = 2;
constexpr unsigned long MAX_RAW_SIZE = 1UL << 26; ///< more than any board takes at once

constexpr ParamRow IDENTITY_PARAMS[] = {
    {"HwLibVer", "Library Version", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"Firmware", "Firmware", ParamKind::StoredText, 0, dv::PARAM_READ_ONLY, false},
};
constexpr ParamRow PARAMS[] = {
    {"DebugLog", "Debug log file", ParamKind::Bool, 0, dv::PARAM_CONFIG, true},
    {"PreShutterClockCount", "Preshutter Clock Count", ParamKind::StoredInt32, 0, dv::PARAM_CONFIG, false},
    {"PreShutterClockDivider", "Preshutter Clock Divier", ParamKind::StoredInt32, 0, dv::PARAM_CONFIG, false},
    {"PreShutterDelayClockCount", "Preshutter Delay Clock Count", ParamKind::StoredInt32, 0, dv::PARAM_CONFIG, false},
    {"TriggerStg", "Settings of trigger (0=log 0, 1 = log 1, 2 - rising edge, 3 - falling edge)", ParamKind::Byte, 0,
     dv::PARAM_CONFIG, false},
    {"TriggerWaitForReady", "Wait for trigger ready", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
    {"TriggerMaster", "Master device", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
    {"TriggerOutLevel", "Trigger out active level (0=log 0, 1 = log 1)", ParamKind::Byte, 0, dv::PARAM_CONFIG, false},
};

} // namespace

int AMpx2Dev::getFirmwareVersion(std::string& text, int* number)
{
    logFunction("Read Firmware");
    text.clear();
    for (int i = 0; i < kind.firmwareTries && text.empty(); ++i)
        text = askFirmware();
    if (number != nullptr)
        *number = 0;
    return 0;
}

std::string AMpx2Dev::askFirmware() const
{
    constexpr CmdId INFO = InfoCmd::Info;
    unsigned char answer[FIRMWARE_TEXT_SIZE + 1] = {};
    const Link::Exchange whole(link);
    if (whole)
        whole.manager()->sendRecv(INFO.perif, INFO.command, 0, 0, 0, 0, answer, FIRMWARE_TEXT_SIZE, cmdflag::OUTPUT,
                                  FIRMWARE_TIMEOUT, true);
    return reinterpret_cast<const char*>(answer);
}

int AMpx2Dev::checkFirmwareVersion()
{
    if (std::ranges::any_of(kind.firmwares, [&](const char* known) { return str::startsWith(firmwareText, known); }))
        return 1;
    report.line(ERR, "Incompatible firmware (%s). Correct firmware is: %s", firmwareText.c_str(), kind.correctFirmware);
    if (dv::IUiService* ui = dorvet->uiService())
        ui->showMessage(MESSAGE_TITLE,
                        str::format("The Latixel device has incompatible firmware: %s.\nPlease use %s.",
                                    firmwareText.c_str(), kind.correctFirmware)
                            .c_str(),
                        MESSAGE_WARNING);
    return 0;
}

void AMpx2Dev::logTraffic(bool commands, bool sentData, bool receivedData) const
{
    if (kind.quietServices && link.exists())
        link->enableLogging(commands, sentData, receivedData);
}

void AMpx2Dev::readFlashParameters()
{
    logFunction("Read Parameters in Flash");
    if (ibFlash == nullptr) {
        ibFlash = std::make_unique<IBFlashFpx<CmdMgr>>(link.manager());
        ibFlash->setReadGate([this](const std::function<int()>& read) { readFlashLate(read); });
    } else {
        ibFlash->attach(link.manager());
    }
    logTraffic(false, false, true);
    ibFlash->loadParameters(inDeviceParams, false);
    logFlashParameters(report, *inDeviceParams);
    biasParams.readFlashParameters(inDeviceParams);
    logTraffic(true, true, true);
}

/// Reads the big values, once somebody has asked for one of them. The frames of a series are not held up for it: then
/// they can be read later.
void AMpx2Dev::readFlashLate(const std::function<int()>& read)
{
    if (life.state() != SeriesLife::State::Idle) {
        logError(1, "Acquisition is running");
        return;
    }
    const DeviceTurn turn = operationTurn();
    if (turn.require() == 0)
        read();
}

void AMpx2Dev::initCpu()
{
    logFunction("Initialize CPU");
    ibCpu = makeCpu();
    logTraffic(false, true, true);
    if (ibCpu->isSupported()) {
        report.line(DBG, "CPU is present on IB and supported.");
        report.line(DBG, "CPU Firmware version: %s", ibCpu->getVersion().c_str());
        const CpuParamUpdate update;
        ibCpu->dumpValuesAndCreateParams(devParams, paramReadSetFuncCpu, reinterpret_cast<long>(this));
        report.line(DBG, "CPU Values:\n %s", ibCpu->dumpValuesToString().c_str());
    } else {
        report.line(DBG, "CPU is not present on IB or invalid version of CPU !");
        ibCpu.reset();
    }
    logTraffic(true, true, true);
}

void AMpx2Dev::setPins(TpxPins newPins)
{
    const Link::Exchange whole(link);
    ThreadLock lock(&pinSync);
    pins = newPins;
    if (!whole)
        return;
    const unsigned word = pinWord(pins);
    link.send(tpx::TpxCmd::Pins, {0, 0, static_cast<unsigned char>(word >> 8), static_cast<unsigned char>(word)});
}

void AMpx2Dev::changePins(std::initializer_list<PinChange> changes)
{
    const Link::Exchange whole(link);
    ThreadLock lock(&pinSync);
    for (const auto& change : changes)
        pins.*change.pin = change.level;
    setPins(pins);
}

int AMpx2Dev::resetMedipix()
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Reset Medipix");
    changePins({{&TpxPins::RST, 0}});
    changePins({{&TpxPins::RST, 1}});
    return 0;
}

int AMpx2Dev::setPower(bool on)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Set Medipix Power");
    changePins({{&TpxPins::PWR, static_cast<std::uint8_t>(on ? 1 : 0)}, {&TpxPins::RST, 0}});
    if (ibCpu != nullptr)
        ibCpu->setPowerOn(on);
    return 0;
}

int AMpx2Dev::setInterfaceDac(char dac, double value)
{
    if (requireChips() != 0)
        return 1;
    if (value < 0)
        return 0;
    if (static_cast<unsigned char>(dac) >= INTERFACE_DACS)
        return logError(1, "Invalid interface DAC (%d). Range is only 0-3.", dac);
    return 0;
}

/// Writes the bias DAC. What the link's failures between the first and the last command were is not told.
int AMpx2Dev::sendBiasCode(double volts)
{
    return link.writeBias(biasParams.getBiasCode(volts, false), kind.biasHandBack);
}

int AMpx2Dev::getADC(unsigned char channel, unsigned short* value, bool flag) const
{
    logFunction("Read ADC");
    if (!loadFlag(connected))
        return logError(1, "%s", NOT_CONNECTED);
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    const Link::Exchange whole(link);
    if (!whole)
        return logError(1, "%s", NOT_CONNECTED);
    logTraffic(false, true, true);
    const int selected = spiSet(*link, spislave::ADC);
    logTraffic(true, true, true);
    if (selected != 0)
        return logError(selected, "Failed sending command (%s)", link.lastError());
    unsigned short code = 0;
    const int result = ibspi::readAdc(*link, channel, flag, kind.adcClose, &code);
    adcCodes[channel % ADC_CHANNELS] = code;
    if (value != nullptr)
        *value = code;
    return kind.adcReadCounts ? result : 0;
}

unsigned short AMpx2Dev::readAdcCode(unsigned char channel) const
{
    unsigned short code = 0;
    getADC(channel, &code, true);
    return code;
}

/// The last value in a series, else a new one.
unsigned short AMpx2Dev::pollAdcCode(unsigned char channel) const
{
    const unsigned index = channel % ADC_CHANNELS;
    return loadFlag(connected) && leaveWish(1U << index) ? adcCodes[index].load() : readAdcCode(channel);
}

int AMpx2Dev::analogValue(unsigned, double* value)
{
    if (value == nullptr)
        return refuseNull();
    *value = adcVolts(readAdcCode(SENSE_ADC_CHANNEL));
    return 0;
}

double AMpx2Dev::adcValue(unsigned channel) const
{
    return adcVolts(pollAdcCode(static_cast<unsigned char>(channel)));
}

int AMpx2Dev::biasVoltageCurrentSense(double* volts, double* amperes) const
{
    const bool wantsVolts = volts != nullptr || amperes == nullptr;
    const bool wantsAmperes = amperes != nullptr || volts == nullptr;
    read((wantsVolts ? WISH_BIAS : 0U) | (wantsAmperes ? WISH_BIAS_CURRENT : 0U), turnLimit(),
         [&] { senseBias(wantsVolts, wantsAmperes); });
    publishCpuValues();
    if (volts != nullptr)
        *volts = biasSense;
    if (amperes != nullptr)
        *amperes = currentSense;
    return biasSense == 0.0 && currentSense == 0.0 ? -1 : 0;
}

void AMpx2Dev::senseBiasByAdc(bool volts, bool amperes) const
{
    if (volts)
        biasSense = biasParams.adcToSenseVoltage(readAdcCode(biasParams.voltSenseChannel()));
    if (amperes)
        currentSense = biasParams.adcToSenseCurrent(readAdcCode(biasParams.currentSenseChannel()));
}

/// Brings the link of a failed device back to life, as far as the firmware's answer.
bool AMpx2Dev::reconnect()
{
    if (!link.exists())
        return false;
    if (!link.usb()->isConnected()) {
        for (int i = 0; i < RECONNECT_TRIES && !recoveryCut(); ++i) {
            const int result = link.usb()->openDevice(true, 0);
            if (result == 0)
                break;
            report.line(ERR, "Cannot reconnect device %s (%d, %s)", deviceNameText.c_str(), result,
                        link.usb()->getLastError());
        }
        link.usb()->clearBuffers();
    }
    resetDevice();
    return !recoveryCut() && str::startsWith(askFirmware(), FIRMWARE_MARK);
}

/// Whether a recovery is to end at its next step: its series is to end, or the device.
bool AMpx2Dev::recoveryCut() const
{
    return loadFlag(closing) || (loadFlag(acquiring) && life.stopped()) || (loadFlag(driven) && loadFlag(halfStopped));
}

int AMpx2Dev::deviceStatus() const
{
    read(WISH_STATUS, STATUS_PATIENCE, [this] { pollStatus(); });
    return devStatus;
}

const char* AMpx2Dev::deviceStatusText() const
{
    if (loadFlag(boardMute))
        return BOARD_MUTE;
    read(WISH_STATUS_TEXT, STATUS_PATIENCE, [this] { pollStatusText(); });
    return statusText.get();
}

/// Asks the CPU for its status, with the turn in hand.
int AMpx2Dev::pollStatus() const
{
    logTraffic(false, false, true);
    if (ibCpu != nullptr) {
        logFunction("Get Device Status");
        devStatus = ibCpu->getStatus();
        if (devStatus == CPU_FAULT)
            reportCpuFault(report, *ibCpu, overheated);
    }
    logTraffic(true, true, true);
    return devStatus;
}

void AMpx2Dev::pollStatusText() const
{
    logTraffic(false, false, true);
    if (ibCpu != nullptr)
        statusText.set(ibCpu->getStatusText());
    logTraffic(true, true, true);
}

int AMpx2Dev::sendRawData(unsigned char* data, unsigned long size, unsigned long rawKind, unsigned long flags,
                          unsigned long)
{
    if (data == nullptr && size > 0)
        return refuseNull();
    if (size > MAX_RAW_SIZE)
        return logError(1, "Invalid size of raw data (%lu).", size);
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    const auto flagByte = static_cast<unsigned char>(flags);
    if (rawKind == RAW_COMMAND && size >= RAW_COMMAND_SIZE)
        return link->send(data[0], data[1], data[2], data[3], data[4], data[5], flagByte);
    if (rawKind == RAW_PAYLOAD && size >= RAW_PAYLOAD_HEAD)
        return link->send(data[0], data[1], data + RAW_PAYLOAD_HEAD, size - RAW_PAYLOAD_HEAD, flagByte);
    if (rawKind == RAW_BYTES)
        return link->sendRaw(reinterpret_cast<const char*>(data), size);
    return -1;
}

int AMpx2Dev::receiveRawData(unsigned char* data, unsigned long size, unsigned long rawKind, unsigned long,
                             unsigned long)
{
    if (rawKind != 0)
        return -1;
    if (data == nullptr)
        return refuseNull();
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return -1;
    unsigned long received = size;
    const int result = link.receive(data, &received, RAW_TIMEOUT);
    if (result == 0)
        return static_cast<int>(received);
    return result < 0 ? result : -1;
}

// ---- Parameters ----

void AMpx2Dev::initParameters()
{
    const int clocks = preShutterClockCount;
    const int divider = preShutterClockDivider;
    const int delay = preShutterDelayClockCount;
    const ParamContent contents[] = {{"HwLibVer", LIBRARY_VERSION},
                                     {"Firmware", firmwareText.c_str()},
                                     {"PreShutterClockCount", &clocks},
                                     {"PreShutterClockDivider", &divider},
                                     {"PreShutterDelayClockCount", &delay}};
    for (const std::span<const ParamRow> rows : {std::span<const ParamRow>(IDENTITY_PARAMS), kind.sensorParams,
                                                 std::span<const ParamRow>(PARAMS), kind.lastParams})
        addParams(*devParams, rows, contents, paramReadSetFunc, reinterpret_cast<long>(this));
}

void AMpx2Dev::onReadParamCpu()
{
    if (getPreciseTime() - lastCpuRead <= CPU_PARAM_INTERVAL || CpuParamUpdate::running())
        return;
    read(WISH_CPU_PARAMS, turnLimit(), [this] { fetchCpuParams(); });
    publishCpuValues();
}

void AMpx2Dev::fetchCpuParams() const
{
    fetchCpuValues();
    lastCpuRead = getPreciseTime();
}

/// Asks the CPU for its values, with the turn in hand.
void AMpx2Dev::fetchCpuValues() const
{
    if (ibCpu == nullptr)
        return;
    IBCpu::Values values = ibCpu->getValues();
    ThreadLock lock(&valueSync);
    cpuValues = std::move(values);
    cpuValuesNew = true;
}

/// Takes new values of the CPU over into the parameters, which are the host's: no lock and no turn is held. Their hooks
/// look at the thread: what is written here is not to be sent back to the CPU.
void AMpx2Dev::publishCpuValues() const
{
    IBCpu::Values values;
    {
        ThreadLock lock(&valueSync);
        if (!cpuValuesNew)
            return;
        cpuValuesNew = false;
        values = cpuValues;
    }
    const CpuParamUpdate update;
    const SeriesLife::Callback hostsCode(life);
    for (const auto& [name, text] : values)
        if (devParams->exists(name.c_str()))
            devParams->get(name.c_str())->setString(text.c_str());
}

/// A number that the CPU has told last; 0 where there is none of that name.
double AMpx2Dev::cpuValue(const char* name) const
{
    ThreadLock lock(&valueSync);
    for (const auto& [valueName, text] : cpuValues)
        if (valueName == name)
            return str::toDouble(text);
    return 0.0;
}

void AMpx2Dev::onWriteParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "DebugLog")
        return;
    // The settings keep the log on. Switched off here it goes to MSG, although a bring-up leaves it at ERR.
    const bool on = param->getBool() || debugLog;
    report.setLevel(on ? DBG : MSG);
    report.line(MSG, "Debug log enabled: %d\n", on ? 1 : 0);
}

int AMpx2Dev::paramReadSetFunc(dv::IParam* param, bool isRead, long user)
{
    auto* device = reinterpret_cast<AMpx2Dev*>(user); // NOLINT(performance-no-int-to-ptr): the host's word
    contained([&] { isRead ? device->onReadParam(param) : device->onWriteParam(param); });
    return 0;
}

int AMpx2Dev::paramReadSetFuncCpu(dv::IParam* param, bool isRead, long user)
{
    auto* device = reinterpret_cast<AMpx2Dev*>(user); // NOLINT(performance-no-int-to-ptr): the host's word
    contained([&] { isRead ? device->onReadParamCpu() : device->onWriteParamCpu(param); });
    return 0;
}

} // namespace HwLatixel
