// Construction, bring-up and closing of a Medipix3 board, and the search for its chips.
#include "devices/mpx3/mpx3dev.h"

#include "chipdata/mpx3fuses.h"
#include "devices/common/boardreports.h"
#include "devices/common/devicename.h"
#include "shared/fileops.h"
#include "shared/inifile.h"
#include "shared/str.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double LINK_RESET_PAUSE = 0.01; ///< seconds
constexpr double POWER_PAUSE = 0.1;       ///< seconds that the supply needs after each switching
constexpr double CHIP_RESET_PAUSE = 1.0;  ///< seconds that the chips need after a reset
constexpr double FIRMWARE_TIMEOUT = 2.0;  ///< seconds
constexpr double FUSE_TIMEOUT = 0.5;      ///< seconds
constexpr double SERIES_END_LIMIT = 2.3;  ///< seconds that closing waits for a series and for operations
constexpr double POWER_DOWN_LIMIT = 0.4;  ///< seconds for closing's own commands

/// Bytes of one chip on each channel that a whole stream of one counter takes, and what a stream may have beyond it.
constexpr unsigned long STREAM_CHANNEL_BYTES = 98308;
constexpr unsigned long STREAM_SPARE_BYTES = 10000;

constexpr int MODULE_BY_CHIP_ID = -1; ///< use a channel only if its chip identifier is valid
constexpr int MODULE_OFF = 0;         ///< never use a channel

constexpr int BIAS_DEVICE_TYPE = 2; ///< how these boards sense the bias voltage
constexpr unsigned char VOLT_SENSE_CHANNEL = 15;
constexpr unsigned char CURRENT_SENSE_CHANNEL = 14;

constexpr dv::_DevInfo DEV_INFO{"Latixel", 8, 2, 0, 1};
constexpr dv::_Mpx3Config DEFAULT_CONFIG{2, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0};
constexpr unsigned SINGLE_DEVICE_MODES =
    dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP | dv::ACQMODE_SOFT_TRIGGER;

} // namespace

Mpx3Dev::Mpx3Dev(std::string name, IDorvet* host, std::string logFolder, std::string settings, std::string variant,
                 bool partOfLad)
    : AMpx3Dev(std::move(name), host, std::move(logFolder), std::move(settings)),
      biasParams(variant, false),
      biasTypeText(std::move(variant)),
      fromLad(partOfLad)
{
    biasParams.setDeviceType(BIAS_DEVICE_TYPE);
    serialText = serialNum();
    devInfo_ = DEV_INFO;
    devInfo_.serialNumber = str::toNumDef<int>(serialText, 0);
    devMpxInfo_.acqModeMask = SINGLE_DEVICE_MODES;
    config.set(DEFAULT_CONFIG);
}

Mpx3Dev::~Mpx3Dev()
{
    beginClosing();
    series.stop();
    // Nothing is freed under a thread, however long it takes.
    while (!series.awaitThreads(SERIES_END_LIMIT)) {
    }
    events.dispatcher().stopThreadAndWait();
}

std::string Mpx3Dev::serialNum() const
{
    return serialFromDeviceName(deviceNameText);
}

int Mpx3Dev::initDevice()
{
    // The host's log callback stays; closing by itself forgets it.
    if (const int result = link.exists() ? endSession() : 0; result != 0)
        return result;
    AMpx3Dev::initDevice();
    if (const int result = openLink(); result != 0)
        return result;
    storeFlag(overheated, false);
    storeFlag(noChip, true);
    omrValue.set(OMR());
    applyConfig(config.get());
    lastCpuStatus = 0;
    storeFlag(connected, true);
    logFunction("Init Device");
    const Link::BringUp watched(link, boardMute);
    const SeriesLife::Callback hostsCode(series); // which the bring-up calls, and which must not close the device
    resetDevice();
    sleepThread(LINK_RESET_PAUSE);
    readFirmware();
    initParameters();
    readFlashParameters();
    initCpu();
    findChips();
    if (chipCountValue > 0)
        storeFlag(noChip, false);
    sizeBuffers();
    completeMpxInfo();
    report.plain(MSG, "\n\n\n\n");
    return 0;
}

/// The chips come up from a cold start, whatever state a former session left them in.
void Mpx3Dev::findChips()
{
    const DeviceTurn turn(linkTurn, report, OPERATION_PATIENCE);
    forgetChips();
    if (turn.require() != 0)
        return;
    switchChannel(ALL_CHANNELS, false, true, true);
    setPower(false);
    sleepThread(POWER_PAUSE);
    setPower(true);
    sleepThread(POWER_PAUSE);
    resetMedipix();
    detectChipCount();
    readChipIDs();
}

void Mpx3Dev::forgetChips()
{
    chipCountValue = 0;
    chipIds.clear();
    channelMasks.clear();
    channelCount = 0;
}

int Mpx3Dev::openLink()
{
    if (const int result = link.open(deviceNameText, devLog); result != 0)
        return result;
    link.usb()->clearBuffers();
    link.usb()->setBitMode(FtdiBitModeFifo);
    return 0;
}

int Mpx3Dev::closeDevice()
{
    if (const int result = endSession(); result != 0)
        return result;
    return AMpx3Dev::closeDevice();
}

void Mpx3Dev::beginClosing()
{
    if (!loadFlag(leaving))
        closingSince = getPreciseTime();
    storeFlag(leaving, true);
    linkTurn.beginClosing();
    linkTurn.endWholeSeries();
    series.stop();
    link.startClosing();
}

void Mpx3Dev::cancelClosing()
{
    link.cancelClosing();
    storeFlag(leaving, false);
    linkTurn.endClosing();
}

/// Ends the series and gives link and board up. 1 with a text, and nothing given up, where the host's own code is in
/// the way.
int Mpx3Dev::endSession()
{
    if (series.caller() == SeriesLife::Caller::Handler)
        return logError(1, "Device cannot be closed from an event handler.");
    giveUpPreparation();
    beginClosing();
    const double deadline = closingSince + SERIES_END_LIMIT;
    const bool alone = series.awaitThreads(deadline - getPreciseTime());
    DeviceTurn turn(linkTurn, report, alone ? deadline - getPreciseTime() : 0.0);
    const bool free = alone && turn.taken();
    if (free)
        giveBoardUp();
    else
        link.cancelClosing();
    storeFlag(leaving, false);
    turn.release();
    linkTurn.endClosing();
    if (free)
        return 0;
    tellBoardStop();
    return logError(1, "Device cannot be closed: a call of it has not returned.");
}

void Mpx3Dev::giveBoardUp()
{
    link.runClosingCalls(POWER_DOWN_LIMIT, [this] {
        tellBoardStop();
        setPower(false);
    });
    storeFlag(connected, false);
    storeFlag(boardMute, false);
    storeFlag(cpuPresent, false);
    // Flash and CPU refer to the command manager. The parameters still call the flash.
    if (ibFlash != nullptr)
        ibFlash->attach(nullptr);
    ibCpu.reset();
    link.drop();
}

void Mpx3Dev::destroy()
{
    if (series.caller() == SeriesLife::Caller::Handler) {
        logError(1, "Device cannot be destroyed from an event handler.");
        return;
    }
    Mpx3Dev::closeDevice();
    if (series.abandon())
        delete this;
}

int Mpx3Dev::resetDevice()
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    logFunction("Reset Device");
    if (!link.exists())
        return 0;
    link.usb()->setBitMode(FtdiBitModeBitBang);
    link.usb()->setBitMode(FtdiBitModeFifo);
    link.usb()->clearBuffers();
    return 0;
}

int Mpx3Dev::setPins(unsigned char word) const
{
    return link.send(mpx3::MpxCmd::Pins, CmdArgs::low(word));
}

int Mpx3Dev::resetMedipix()
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    logFunction("Reset Medipix");
    const int low = setPins(mpx3::pinword::RESET_LOW);
    const int high = setPins(mpx3::pinword::RESET_HIGH);
    sleepThread(CHIP_RESET_PAUSE);
    return low + high;
}

int Mpx3Dev::setPower(bool on)
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    logFunction("Power");
    const int result = setPins(on ? mpx3::pinword::POWER_ON : mpx3::pinword::POWER_OFF);
    if (ibCpu != nullptr)
        ibCpu->setPowerOn(on);
    return result;
}

void Mpx3Dev::loadSettings(const char* path)
{
    AMpx3Dev::loadSettings(path);
    if (!fileExists(path)) {
        logError(0, "The settings file %s does not exists !", path);
        return;
    }
    IniFile ini(path, "=");
    ini.load(nullptr);
    readParallel = ini.getBool("Settings", "ReadParallel", readParallel);
    skipPeriodicLog = ini.getBool("Settings", "DebugLogSkipPeriodic", skipPeriodicLog);
    for (std::size_t i = 0; i < moduleEnable.size(); ++i)
        moduleEnable[i] = ini.getInt("Settings", str::format("Module%zu", i).c_str(), MODULE_BY_CHIP_ID);
}

void Mpx3Dev::readFirmware()
{
    logFunction("Read Firmware");
    unsigned char text[FIRMWARE_TEXT_SIZE + 1] = {};
    {
        const DeviceTurn turn(linkTurn, report, OPERATION_PATIENCE);
        if (turn.require() == 0)
            link->sendRecv(InfoCmd::Info, {}, text, FIRMWARE_TEXT_SIZE, cmdflag::OUTPUT, FIRMWARE_TIMEOUT);
    }
    firmwareText = reinterpret_cast<const char*>(text);
    logError(2, "Firmware is: %s", firmwareText.c_str());
}

void Mpx3Dev::readFlashParameters()
{
    logFunction("Read Parameters in Flash");
    ibFlash = std::make_unique<IBFlashFpxMpx3<CmdMgrMpx3>>(link.manager());
    ibFlash->setReadGate([this](const std::function<int()>& read) { readFlashLate(read); });
    ibFlash->loadParameters(inDeviceParams, false);
    logFlashParameters(report, *inDeviceParams);
    biasParams.setVoltCurrentSenseChannels(VOLT_SENSE_CHANNEL, CURRENT_SENSE_CHANNEL);
    biasParams.readFlashParameters(inDeviceParams);
}

/// Reads the big values, once somebody has asked for one of them. The frames of a series are not held up for it: then
/// they can be read later.
void Mpx3Dev::readFlashLate(const std::function<int()>& read)
{
    if (inSeries()) {
        logError(1, "Acquisition is running");
        return;
    }
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() == 0)
        read();
}

void Mpx3Dev::initCpu()
{
    logFunction("Initialize CPU");
    auto cpu = std::make_unique<TurnCpu>(*this);
    if (!cpu->isSupported()) {
        logDbg("CPU is not present on IB or invalid version of CPU !");
        return;
    }
    logDbg("CPU is present on IB and supported.");
    logDbg("CPU Firmware version: %s", cpu->getVersion().c_str());
    cpu->temperatureReset();
    cpu->dumpValuesAndCreateParams(devParams, paramReadSetFuncCpu, reinterpret_cast<long>(this));
    logDbg("CPU Values:\n %s", cpu->dumpValuesToString().c_str());
    const DeviceTurn turn(linkTurn, report, OPERATION_PATIENCE);
    if (turn.require() != 0)
        return;
    ibCpu = std::move(cpu);
    storeFlag(cpuPresent, true);
}

int Mpx3Dev::detectChipCount()
{
    logFunction("Chip Count");
    if (const int result = handBackOutput(*link); result != 0)
        return result;
    twoChips = false;
    int channels = 0;
    int chips = 0;
    for (int channel = 0; channel < PHYSICAL_CHANNELS; ++channel) {
        if (moduleEnable[static_cast<std::size_t>(channel)] == MODULE_OFF)
            continue;
        report.plain(
            DBG, str::format("\n================== CHIP Count CHANNEL (%d) =====================\n", channel).c_str());
        if (const int result = countChips(channel, &chips); result != 0)
            return result;
        ++channels;
    }
    if (channels == 0 || chips / channels < 2) {
        logMsg("One chip per channel.");
    } else {
        logMsg("Two chips per channel.");
        twoChips = true;
        if (const int result = link.send(mpx3::MpxCmd::TwoChipsChannel, CmdArgs::low(1)); result != 0)
            return result;
    }
    switchChannel(ALL_CHANNELS, false, true, false);
    return 0;
}

int Mpx3Dev::countChips(int channel, int* chips)
{
    unsigned char answer[MPX3_FUSE_BLOCK_SIZE + 1] = {};
    if (const int result = exchangeFuses(channel, MPX3_FUSE_RECORD_SIZE, answer); result != 0)
        return result;
    *chips += answer[1] == MPX3_FUSE_TWO_CHIPS ? 2 : 1;
    return 0;
}

/// Each pass shifts out what the chips held from the pass before: the answer of the first one is overwritten by the
/// second.
int Mpx3Dev::exchangeFuses(int channel, std::size_t size, unsigned char* answer)
{
    const auto request = mpx3FuseRequest();
    for (int pass = 0; pass < 2; ++pass) {
        if (const int result = switchChannel(channel, false, true, false); result != 0)
            return result;
        if (const int result = sendOMRMode(MPX3_MODE_READ_FUSES); result != 0)
            return result;
        if (const int result = switchChannel(channel, true, true, false); result != 0)
            return result;
        const Link::Exchange whole(link);
        if (const int result = sendShift(request.data(), size, cmdflag::EXCHANGE); result != 0)
            return result;
        std::fill_n(answer, size, static_cast<unsigned char>(0));
        unsigned long received = size;
        if (const int result = link.receive(answer, &received, FUSE_TIMEOUT); result != 0)
            return result;
    }
    return 0;
}

int Mpx3Dev::readChipIDs()
{
    logFunction("Read Chip IDs");
    if (const int result = handBackOutput(*link); result != 0)
        return result;
    forgetChips();
    for (int channel = 0; channel < PHYSICAL_CHANNELS; ++channel) {
        if (moduleEnable[static_cast<std::size_t>(channel)] == MODULE_OFF)
            continue;
        report.plain(
            DBG,
            str::format("\n================== READ CHIP ID CHANNEL (%d) =====================\n", channel).c_str());
        if (const int result = readChannelIDs(channel); result != 0)
            return result;
    }
    logDetected();
    switchChannel(ALL_CHANNELS, false, true, false);
    return 0;
}

int Mpx3Dev::readChannelIDs(int channel)
{
    unsigned char answer[MPX3_FUSE_BLOCK_SIZE + 1] = {};
    const std::size_t size = MPX3_FUSE_RECORD_SIZE * (twoChips ? 2 : 1);
    if (const int result = exchangeFuses(channel, size, answer); result != 0)
        return result;
    const Mpx3FuseId id0 = mpx3FuseId(answer, 0);
    if (!mpx3FuseIdValid(id0)) {
        logError(1, "Channel not working properly ! \n");
        if (moduleEnable[static_cast<std::size_t>(channel)] == MODULE_BY_CHIP_ID)
            return 0;
    }
    if (twoChips) {
        addChip(getFuseText(id0.data() + 1));
        addChip(getFuseText(mpx3FuseId(answer, 1).data() + 1));
    } else {
        addChip(getFuseText(id0.data()));
    }
    channelMasks.push_back(1 << channel);
    ++channelCount;
    return 0;
}

void Mpx3Dev::addChip(const std::string& id)
{
    logError(2, "ChipID is: %s\n\n", id.c_str());
    chipIds.push_back(id);
    ++chipCountValue;
}

void Mpx3Dev::logDetected() const
{
    std::string masks;
    for (const int mask : channelMasks)
        masks += str::fromNum(mask) + " ";
    logMsg("Detected channels: %s", masks.c_str());
    logMsg("ChipIDs:");
    for (std::size_t i = 0; i < chipIds.size(); ++i)
        logMsg("%d = %s", static_cast<int>(i), chipIds[i].c_str());
}

void Mpx3Dev::sizeBuffers()
{
    const auto channels = static_cast<unsigned long>(channelCount);
    const unsigned long size = (channels * STREAM_CHANNEL_BYTES + STREAM_SPARE_BYTES) * (twoChips ? 4 : 2);
    ThreadLock lock(&readerSync);
    ThreadLock streamLock(&streamSync);
    for (Stream* stream : {incoming.get(), announced.get(), &reading}) {
        *stream = Stream();
        stream->bytes.resize(size);
    }
}

void Mpx3Dev::completeMpxInfo()
{
    devMpxInfo_.chipTotal = static_cast<unsigned>(chipCountValue);
    devMpxInfo_.pixelTotal = devMpxInfo_.chipTotal * MPX3_CHIP_PIXELS;
    devMpxInfo_.biasMin = biasParams.minBias();
    devMpxInfo_.biasMax = biasParams.maxBias();
    devMpxInfo_.acqModeMask = SINGLE_DEVICE_MODES;
    if (!twoChips)
        devMpxInfo_.acqModeMask |= dv::ACQMODE_TDI;
}

} // namespace HwLatixel
