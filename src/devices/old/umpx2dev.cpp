// Life, commands and configuration of a board of the older generation.
#include "devices/old/umpx2dev.h"

#include "board/adcscale.h"
#include "chipdata/bits.h"
#include "chipdata/mpx2dacs.h"
#include "chipdata/mpx2matrix.h"
#include "chipdata/mpx2pixelcfg.h"
#include "devices/common/devicename.h"
#include "shared/fileops.h"
#include "shared/inifile.h"
#include "shared/str.h"

#include <algorithm>
#include <cstdarg>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double COMMAND_TIMEOUT = 1.0; ///< seconds
constexpr double SWITCH_TIMEOUT = 2.0;  ///< seconds
constexpr double TEST_PAUSE = 0.1;      ///< seconds
constexpr int TEST_ROUNDS = 10;
constexpr double RESET_PAUSE = 0.1; ///< seconds
constexpr double DACS_PAUSE = 0.05; ///< seconds that the chips need behind new DACs

constexpr double CLOSING_CALLS_LIMIT = 0.5; ///< seconds for what closing itself asks of the link

constexpr int MAX_MODULES = 256;   ///< values of the module switch
constexpr double MAX_DELAY = 60.0; ///< seconds; keeps a nonsense setting from holding up the host

constexpr double MIN_BIAS = 3.0;   ///< volts
constexpr double MAX_BIAS = 114.5; ///< volts
constexpr unsigned char BIAS_WORD = 0x18;

constexpr int INTERFACE_DACS = 5;
constexpr double INTERFACE_DAC_STEPS = 2000; ///< for each volt
constexpr int INTERFACE_DAC_SELECT = 4;      ///< bit of the first DAC

/// The inputs of a kind of board's ADC.
struct AdcKind {
    unsigned char lastChannel;
    unsigned char senseChannel; ///< carries the chips' analog sense output
    double volts;               ///< at full scale of the sense channel
};
constexpr AdcKind OLD_ADC{7, 2, 3.0};
constexpr AdcKind NEW_ADC{16, 0, 5.0};

constexpr const char* NEW_BOARD_NAMES[] = {"FENXEL 3.0", "Latixel Fenxel"};

/// The DACs of a chip while its identifier is read.
constexpr unsigned short DEF_DACS[MPX2_MXR_DAC_COUNT] = {20,  255, 255, 255, 255, 255, 300, 255,
                                                         255, 255, 255, 255, 255, 255, 255};

double clampDelay(double seconds)
{
    return seconds > 0 ? std::min(seconds, MAX_DELAY) : 0.0;
}

} // namespace

UMpx2Dev::UMpx2Dev(std::string deviceName, IDorvet* host, std::string logFolder, std::string settings)
    : dorvet(host),
      name(std::move(deviceName)),
      logDirectory(std::move(logFolder)),
      settingsPath(std::move(settings)),
      serial(serialFromDeviceName(name)),
      newBoard(std::ranges::any_of(NEW_BOARD_NAMES, [this](const char* mark) { return str::contains(name, mark); }))
{
}

UMpx2Dev::~UMpx2Dev()
{
    dropLink();
}

// ---- Life cycle ----

int UMpx2Dev::initDevice()
{
    if (cmdMgr != nullptr)
        closeDevice();
    const std::string logPath = logDirectory + "/latixel_" + asFileName(serial) + ".log";
    loadSettings((std::string(dorvet->configDirectory()) + "/latixel.ini").c_str());
    log = std::make_unique<FileLog>(logPath, true, false, false, true);
    log->setLogLevel(DBG);
    ftdi = std::make_unique<FtdiDev>(name, false);
    cmdMgr = std::make_unique<CmdMgrOld>(ftdi.get(), log.get(), MPX2CMDTABLE);
    cmdMgr->setLogBuffers(logBuffers);
    if (const int result = ftdi->openDevice(true, 0); result != 0) {
        log->log(ERR, "Cannot open device %s, error=%d (%s)", name.c_str(), result, ftdi->getLastError());
        dropLink();
        return result;
    }
    ftdi->setBitMode(FtdiBitModeFifo);
    if (const int result = testDevice(); result != 0) {
        closeDevice();
        return result;
    }
    std::string firmware;
    getFirmwareVersion(firmware, nullptr);
    log->log(MSG, "%s", firmware.c_str());
    if (const int result = getFrequencies(); result != 0) {
        closeDevice();
        return result;
    }
    resetMedipix();
    readChipInfo();
    connected = true;
    noChip = chipTotal <= 0;
    double clock = 10.0;
    setTimepixClock(&clock);
    setBias(0.0);
    setPower(false);
    setPower(true);
    log->setLogLevel(debugLog ? DBG : ERR);
    return 0;
}

void UMpx2Dev::beginClosing()
{
    storeFlag(stopRequested, true);
    if (ftdi != nullptr)
        ftdi->startClosing();
}

void UMpx2Dev::cancelClosing()
{
    if (ftdi != nullptr)
        ftdi->cancelClosing();
}

int UMpx2Dev::closeDevice()
{
    beginClosing();
    storeFlag(noChip, true);
    storeFlag(connected, false);
    // A stop may still be on its way.
    ThreadLock lock(&devSync);
    if (ftdi != nullptr) {
        const FtdiDev::ClosingCalls own(*ftdi, CLOSING_CALLS_LIMIT);
        ftdi->setBitMode(FtdiBitModeBitBang);
    }
    dropLink();
    return 0;
}

void UMpx2Dev::dropLink()
{
    cmdMgr.reset();
    if (ftdi != nullptr)
        ftdi->closeDevice();
    ftdi.reset();
    log.reset();
}

void UMpx2Dev::loadSettings(const char* path)
{
    if (!fileExists(path)) {
        logError(0, "The settings file %s does not exists !", path);
        return;
    }
    const char* section = serial.c_str();
    IniFile ini(path, "=");
    ini.load(nullptr);
    debugLog = ini.getBool(section, "DebugLog", false);
    moduleCount = std::clamp(ini.getInt(section, "ModuleCount", 0), 0, MAX_MODULES);
    chipCountSetting = ini.getInt(section, "ChipCount", 0);
    firstSwitchDelay = clampDelay(ini.getDouble(section, "FirstSwitchDelay", 0.1));
    switchDelay = clampDelay(ini.getDouble(section, "SwitchDelay", 0.001));
    overrideChipIds = ini.getBool(section, "OverrideChipIDs", false);
    startModule = ini.getInt(section, "StartModule", 0);
    logBuffers = ini.getBool(section, "LogBuffers", true);
    modules.clear();
    for (int i = 0; i < moduleCount; ++i)
        modules.push_back(ini.getInt(section, str::format("Module%d", i).c_str(), 0));
}

int UMpx2Dev::testDevice()
{
    ftdi->clearBuffers();
    for (int round = 0; round < TEST_ROUNDS; ++round) {
        cmdMgr->sendFrame(oldcmd::TEST, 0, 0, 0);
        sleepThread(TEST_PAUSE);
        char frame[CmdMgrOld::FRAME_SIZE] = {};
        const int result = cmdMgr->receiveFrame(frame, COMMAND_TIMEOUT);
        ftdi->clearBuffers();
        if (result == 0)
            return 0;
    }
    return logError(1, "Device not responding");
}

int UMpx2Dev::resetDevice()
{
    if (cmdMgr == nullptr)
        return logError(1, "Device not connected");
    ftdi->setBitMode(FtdiBitModeBitBang);
    sleepThread(RESET_PAUSE);
    ftdi->setBitMode(FtdiBitModeFifo);
    return testDevice();
}

int UMpx2Dev::getFirmwareVersion(std::string& text, int* version)
{
    char ack[3] = {};
    const int result = command(oldcmd::TEST, 0, 0, 0, ack);
    const auto byte = [&ack](int i) { return static_cast<unsigned char>(ack[i]); };
    text =
        str::format("Firmware %d (date: %d. %d. 20%02d)", byte(2), byte(1) & 0x1F, byte(0) & 0x0F, (byte(0) >> 4) + 10);
    if (version != nullptr)
        *version = byte(2);
    return result;
}

int UMpx2Dev::getFrequencies()
{
    char ack[3] = {};
    if (const int result = command(oldcmd::SYS_FREQ, 0, 0, 0, ack); result != 0)
        return result;
    timerFrequency = static_cast<unsigned char>(ack[0]);
    if (const int result = command(oldcmd::MEAS_FREQ, 0, 0, 0, ack); result != 0)
        return result;
    timepixFrequency = static_cast<unsigned char>(ack[0]);
    return 0;
}

// ---- Commands ----

int UMpx2Dev::refuseNull() const
{
    return logError(1, "No place for a result, or no data, given.");
}

int UMpx2Dev::requireChips() const
{
    return loadFlag(connected) && !loadFlag(noChip) ? 0 : logError(1, "Device not connected or no chip");
}

/// Sends a command without data. `ack` takes the three bytes of its answer.
int UMpx2Dev::command(unsigned char code, unsigned char p0, unsigned char p1, unsigned char p2, char* ack) const
{
    if (cmdMgr == nullptr)
        return logError(1, "Device not connected");
    char params[3] = {static_cast<char>(p0), static_cast<char>(p1), static_cast<char>(p2)};
    return cmdMgr->sendCmd(code, params, ack, COMMAND_TIMEOUT);
}

/// Sends a command with data in either direction.
int UMpx2Dev::transfer(unsigned char code, std::span<unsigned char> out, std::span<unsigned char> in) const
{
    if (cmdMgr == nullptr)
        return logError(1, "Device not connected");
    char params[3] = {};
    return cmdMgr->sendCmd(code, params, reinterpret_cast<char*>(out.data()), out.size(), nullptr,
                           reinterpret_cast<char*>(in.data()), in.size(), nullptr, COMMAND_TIMEOUT);
}

const char* UMpx2Dev::linkError() const
{
    return cmdMgr != nullptr ? cmdMgr->getLastError() : "Device not connected";
}

int UMpx2Dev::switchModule(int index, bool useMap)
{
    if (index < 0 || index >= moduleCount)
        return -1;
    currentModule = index;
    const int value = useMap ? modules[static_cast<std::size_t>(index)] : index;
    const auto bus = static_cast<unsigned char>(value);
    if (cmdMgr != nullptr && newBoard)
        cmdMgr->sendCmd(oldcmd::SWITCH_MODULE, 0, 0, bus, SWITCH_TIMEOUT);
    else if (cmdMgr != nullptr)
        cmdMgr->sendCmd(oldcmd::SWITCH_MODULE_OLD, bus, bus, bus, SWITCH_TIMEOUT);
    if (log != nullptr)
        log->log(MSG, "Switched Module: %d (delay=%f) #################", index, switchDelay);
    sleepThread(switchDelay);
    return 0;
}

int UMpx2Dev::readChipInfo()
{
    chipTotal = 0;
    chipIdList.clear();
    switchModule(startModule, false);
    sleepThread(firstSwitchDelay);
    char ack[3] = {};
    const auto wanted = static_cast<unsigned char>(std::max(chipCountSetting, 0));
    if (const int result = command(oldcmd::CHIP_COUNT, 0, 0, wanted, ack); result != 0)
        return logError(result, "Cannot read chip count (%s)", linkError());
    chipsPerModule = ack[2] & 0x1F;
    for (int module = 0; module < moduleCount; ++module) {
        if (const int result = readModuleIds(module); result != 0) {
            chipIdList.clear();
            return result;
        }
    }
    chipTotal = chipsPerModule * moduleCount;
    for (std::size_t i = 0; i < chipIdList.size(); ++i) {
        const auto perModule = static_cast<std::size_t>(chipsPerModule);
        log->log(MSG, "ChipID[module=%d, chip=%d]: %s", modules[i / perModule], static_cast<int>(i % perModule),
                 chipIdList[i].c_str());
        if (overrideChipIds)
            chipIdList[i] = str::format("A%02d-W0%s", static_cast<int>(i), serial.c_str());
    }
    return 0;
}

int UMpx2Dev::readModuleIds(int module)
{
    switchModule(module, true);
    std::vector<unsigned short> dacs;
    for (int chip = 0; chip < chipsPerModule; ++chip)
        dacs.insert(dacs.end(), std::begin(DEF_DACS), std::end(DEF_DACS));
    std::vector<unsigned char> block(static_cast<std::size_t>(chipsPerModule) * MPX2_DAC_STREAM_SIZE);
    dacsToStreamMPX2(dacs.data(), block.data(), chipsPerModule, timepix, 0, 0, 0, 0);
    if (const int result = exchangeDacs(block, block.data()); result != 0)
        return result;
    bool type = timepix;
    getChipIDsFromDACStreamMpx2(block.data(), static_cast<unsigned>(chipsPerModule), &type, chipIdList);
    return 0;
}

int UMpx2Dev::exchangeDacs(std::span<unsigned char> block, unsigned char* answer) const
{
    if (const int result = transfer(oldcmd::WRITE_FSR, block, {answer, block.size()}); result != 0)
        return logError(result, "Cannot not set DACs (%s)", linkError());
    return 0;
}

// ---- Configuration ----

int UMpx2Dev::resetMedipix()
{
    if (const int result = command(oldcmd::RESET_MEDIPIX, 0, 0, 0); result != 0)
        return logError(result, "Cannot reset chip (%s)", linkError());
    return 0;
}

int UMpx2Dev::setPower(bool on)
{
    return command(oldcmd::MPX_POWER, 0, 0, on ? 1 : 0);
}

int UMpx2Dev::setBias(double volts)
{
    // What is not a number counts as the lowest voltage.
    const double limited = volts > MIN_BIAS ? std::min(volts, MAX_BIAS) : MIN_BIAS;
    const auto code = static_cast<int>(258.0 - limited * 2.244 / 0.9);
    const auto byte = static_cast<unsigned char>(std::clamp(code, 1, 255));
    command(oldcmd::BIAS, BIAS_WORD, byte, byte);
    return 0;
}

int UMpx2Dev::setInterfaceDac(char dac, double volts)
{
    if (requireChips() != 0)
        return 1;
    if (!(volts >= 0))
        return 0;
    const auto index = static_cast<unsigned char>(dac);
    if (index >= INTERFACE_DACS)
        return logError(1, "Invalid interface DAC (%d). Range is only 0-3.", dac);
    // Only the low 14 bits travel.
    const auto value = static_cast<unsigned>(std::min(volts * INTERFACE_DAC_STEPS, 1e9));
    if (command(oldcmd::EXT_DAC, static_cast<unsigned char>(1U << (index + INTERFACE_DAC_SELECT)),
                static_cast<unsigned char>(value >> 8 & 0x3F), static_cast<unsigned char>(value)) != 0)
        return logError(-2, "Cannot set interface dac %d (%s)", dac, linkError());
    return 0;
}

int UMpx2Dev::setTimepixClock(double* mhz)
{
    if (mhz == nullptr)
        return refuseNull();
    ThreadLock lock(&devSync);
    if (timepixFrequency == 0)
        return logError(-1, "Device frequencies unknown");
    constexpr double MAX_DIVIDER = 0xFFFF;
    const double wanted = *mhz > 0 ? timepixFrequency / *mhz / 2 - 1 + 0.5 : 0.0;
    const auto divider = static_cast<unsigned>(std::clamp(wanted, 0.0, MAX_DIVIDER));
    const bool undivided = *mhz == timepixFrequency;
    const int result = command(oldcmd::TPX_CLOCK, static_cast<unsigned char>(divider >> 8),
                               static_cast<unsigned char>(divider), undivided ? 1 : 0);
    *mhz = timepixFrequency / ((divider + 1) * 2.0);
    return result;
}

int UMpx2Dev::setTimer(double seconds)
{
    unsigned char b[6];
    doubleToInt48(seconds * timerFrequency * TICKS_PER_MHZ, b);
    if (command(oldcmd::TIMER_LOW, b[2], b[1], b[0]) != 0 || command(oldcmd::TIMER_HIGH, b[5], b[4], b[3]) != 0)
        return logError(1, "Cannot set time (%s)", linkError());
    return 0;
}

int UMpx2Dev::getADC(unsigned char channel, unsigned short* value) const
{
    if (!loadFlag(connected))
        return logError(1, "Device not connected");
    const AdcKind& adc = newBoard ? NEW_ADC : OLD_ADC;
    if (channel > adc.lastChannel)
        return logError(1, "Invalid adc index (%u > %u)", static_cast<unsigned>(channel),
                        static_cast<unsigned>(adc.lastChannel));
    char ack[3] = {};
    const int result = command(oldcmd::READ_AD, 0, 0, channel, ack);
    if (value != nullptr)
        *value = static_cast<unsigned short>((ack[0] & 0x0F) << 8 | static_cast<unsigned char>(ack[1]));
    return result;
}

int UMpx2Dev::analogValue(unsigned, double* value)
{
    if (value == nullptr)
        return refuseNull();
    const AdcKind& adc = newBoard ? NEW_ADC : OLD_ADC;
    unsigned short code = 0;
    getADC(adc.senseChannel, &code);
    *value = code * adc.volts / ADC_STEPS;
    return 0;
}

double UMpx2Dev::adcValue(unsigned channel) const
{
    unsigned short code = 0;
    getADC(static_cast<unsigned char>(std::min(channel, 255U)), &code);
    return adcVolts(code);
}

int UMpx2Dev::dacCount() const
{
    return timepix ? MPX2_TPX_DAC_COUNT : MPX2_MXR_DAC_COUNT;
}

int UMpx2Dev::setMpx2Dacs(const unsigned short* dacs, unsigned long size, int chip, int senseChip, int senseDac,
                          int extDac, unsigned ctpr)
{
    if (requireChips() != 0)
        return 1;
    std::vector<char> stream(static_cast<std::size_t>(chipsPerModule) * MPX2_DAC_STREAM_SIZE);
    return setDACs(dacs, size, stream.data(), chip, senseChip, senseDac, extDac, ctpr, false);
}

int UMpx2Dev::setDACs(const unsigned short* dacs, unsigned long size, char* stream, int chip, int senseChip,
                      int senseDac, int extDac, unsigned ctpr, bool idsOnly)
{
    logBanner(DBG, "SET DACS");
    ThreadLock lock(&devSync);
    const auto perModule = static_cast<std::size_t>(chipsPerModule) * static_cast<std::size_t>(dacCount());
    if (dacs == nullptr || size < perModule || chipsPerModule == 0)
        return -1;
    for (int module = 0; module < moduleCount; ++module) {
        // -1 alone stands for all; no chip has another negative number.
        if (chip != -1 && (chip < 0 || chip / chipsPerModule != module))
            continue;
        switchModule(module, true);
        std::vector<unsigned char> block(static_cast<std::size_t>(chipsPerModule) * MPX2_DAC_STREAM_SIZE, 0xFF);
        auto* answer = reinterpret_cast<unsigned char*>(stream);
        // Timepix chips are loaded behind a chain of ones.
        if (timepix && !idsOnly) {
            if (const int result = exchangeDacs(block, answer); result != 0)
                return result;
        }
        const std::size_t first = std::min(static_cast<std::size_t>(module) * perModule, size);
        std::vector<unsigned short> values(perModule);
        std::copy_n(dacs + first, std::min(perModule, size - first), values.begin());
        dacsToStreamMPX2(values.data(), block.data(), chipsPerModule, timepix, senseChip, senseDac, extDac, ctpr);
        if (const int result = exchangeDacs(block, answer); result != 0)
            return result;
    }
    sleepThread(DACS_PAUSE);
    return 0;
}

int UMpx2Dev::setPixelCfg(const unsigned char* cfg, unsigned long size)
{
    if (requireChips() != 0)
        return 1;
    if (cfg == nullptr)
        return refuseNull();
    std::vector<unsigned short> words(std::min(size, static_cast<unsigned long>(chipTotal) * MPX2_CHIP_PIXELS));
    pixelCfgToMatrixMpx2(cfg, words.size(), timepix, words.data());
    return writeMatrix(words.data(), words.size(), false);
}

// ---- Reports ----

int UMpx2Dev::logError(int code, const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    // The text without the NUL bytes behind it. NOLINTNEXTLINE(readability-redundant-string-cstr)
    const std::string text = str::formatv(format, args).c_str();
    va_end(args);
    if (log != nullptr)
        log->log(code, ERR, text);
    lastErrorText.set(text);
    return code;
}

void UMpx2Dev::logBanner(LogLevel level, const char* title) const
{
    constexpr const char* LEFT = "########################################";
    constexpr const char* RIGHT = "######################################################";
    if (log != nullptr)
        log->logNoTime(level, str::format("\n%s  %s %s\n", LEFT, title, RIGHT).c_str());
}

} // namespace HwLatixel
