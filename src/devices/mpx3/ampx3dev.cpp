// The part of a Medipix3 device that needs no hardware.
#include "devices/mpx3/ampx3dev.h"

#include "devices/common/devicename.h"
#include "devices/common/frames.h"
#include "host/datatype.h"
#include "shared/fileops.h"
#include "shared/inifile.h"
#include "shared/str.h"

#include <utility>

namespace {

constexpr dv::_DevInfo BASE_DEV_INFO{"device", 3, 2, 0, 1};
constexpr dv::_DevMpxInfo BASE_MPX_INFO{65536, 1, 3, 0.0, 100.0, 4e-08, 86400.0, 0, 0, 0, {1}};
constexpr dv::_DevMpx3Info MPX3_INFO{1000, 10000.0, 10000.0, 0.000236};
constexpr dv::_Mpx3Config BASE_CONFIG{2, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0};

/// The twelve configuration bits of a pixel as the chip takes them into its counter, from the host's two bytes.
/// The lowest two bits of the first byte (mask and test bit) are inverted on the chip and stand at both ends.
unsigned pixelCfgWord(unsigned char b0, unsigned char b1)
{
    const unsigned low = b0;
    const unsigned high = b1;
    return (~low & 1U) | (low >> 3U & 0x1FU) << 1U | (high & 0x1FU) << 6U | (~low >> 1U & 1U) << 11U;
}

/// Bytes of the largest configuration: five channels of two chips.
constexpr std::size_t PIXEL_CFG_LIMIT = std::size_t{2} * 65536 * 10;

} // namespace

AMpx3Dev::AMpx3Dev(std::string name, IDorvet* host, std::string logFolder, std::string settings)
    : devInfo_(BASE_DEV_INFO),
      devMpxInfo_(BASE_MPX_INFO),
      devMpx3Info_(MPX3_INFO),
      config(BASE_CONFIG),
      dorvet(host),
      deviceNameText(std::move(name)),
      logDir(std::move(logFolder)),
      settingsFile(std::move(settings))
{
    report.setTurn(&linkTurn, &series);
}

AMpx3Dev::~AMpx3Dev()
{
    releaseHostObjects();
}

void AMpx3Dev::releaseHostObjects()
{
    report.attachLog(nullptr);
    std::unique_ptr<FileLog> log;
    dv::IParamMgr* params = nullptr;
    dv::IParamMgr* inDevice = nullptr;
    {
        // Two threads may close at once.
        ThreadLock lock(&hostObjectsSync);
        log = std::move(devLog);
        params = std::exchange(devParams, nullptr);
        inDevice = std::exchange(inDeviceParams, nullptr);
    }
    for (dv::IParamMgr* manager : {params, inDevice})
        if (manager != nullptr)
            manager->destroy();
}

int AMpx3Dev::initDevice()
{
    const std::string familyLower = str::lower(devInfo_.familyName);
    const std::string logPath = logDir + "/" + familyLower + "_" + HwLatixel::asFileName(serialText) + ".log";
    const std::string settingsPath = std::string(dorvet->configDirectory()) + "/" + familyLower + ".ini";
    releaseHostObjects();
    loadSettings(settingsPath.c_str());
    devLog = std::make_unique<FileLog>(logPath.c_str(), true, false, logRotate, true);
    devLog->setLogLevel(DBG);
    report.attachLog(devLog.get());
    devParams = dorvet->createParamMgr();
    inDeviceParams = dorvet->createParamMgr();
    return 0;
}

int AMpx3Dev::closeDevice()
{
    releaseHostObjects();
    report.setLogMsgFunc(nullptr, nullptr);
    storeFlag(connected, false);
    storeFlag(noChip, true);
    return 0;
}

void AMpx3Dev::loadSettings(const char* path)
{
    if (fileExists(path))
        readSettings(path);
}

void AMpx3Dev::readSettings(const char* path)
{
    IniFile ini(path, "=");
    ini.load(nullptr);
    debugLog = ini.getBool("Settings", "DebugLog", debugLog);
    logRotate = ini.getBool("Settings", "LogRotate", logRotate);
    rawLog = ini.getBool("Settings", "RawLog", rawLog);
}

int AMpx3Dev::devInfo(dv::_DevInfo* info) const
{
    if (info == nullptr)
        return refuseNull("the record");
    *info = devInfo_;
    return 0;
}

int AMpx3Dev::devMpxInfo(dv::_DevMpxInfo* info) const
{
    if (info == nullptr)
        return refuseNull("the record");
    *info = devMpxInfo_;
    return 0;
}

int AMpx3Dev::devMpx3Info(dv::_DevMpx3Info* info) const
{
    if (info == nullptr)
        return refuseNull("the record");
    *info = devMpx3Info_;
    return 0;
}

int AMpx3Dev::chipIDList(dv::IStrList* list) const
{
    if (list == nullptr)
        return refuseNull("the list");
    for (const auto& id : chipIds)
        list->add(id.c_str());
    return 0;
}

int AMpx3Dev::setEventFunc(dv::EventFunc func, void* user)
{
    events.setFunc(func, user);
    return 0;
}

int AMpx3Dev::setLogMsgFunc(dv::LogMsgFunc func, void* user)
{
    report.setLogMsgFunc(func, user);
    return 0;
}

int AMpx3Dev::setIDevice(dv::IDev* device)
{
    iDevice = device;
    return 0;
}

int AMpx3Dev::setAcqMode(unsigned mode)
{
    acqMode = mode;
    return 0;
}

int AMpx3Dev::setPolarity(int, bool positive)
{
    polarityPositive = positive;
    return 0;
}

int AMpx3Dev::setPixelCfg(const unsigned char* cfg, std::size_t size)
{
    if (cfg == nullptr && size != 0)
        return logError(1, "No pixel configuration given.");
    if (size > PIXEL_CFG_LIMIT)
        return logError(1, "Invalid size for pixel configuration (%lu > %lu)", static_cast<unsigned long>(size),
                        static_cast<unsigned long>(PIXEL_CFG_LIMIT));
    pixelCfg.set(std::vector<unsigned char>(cfg, cfg + size));
    if (!loadFlag(connected) || loadFlag(noChip))
        return logError(dv::RESULT_FAILED, "Device not connected or no chip");
    std::vector<unsigned> words(size / 2);
    for (std::size_t i = 0; i < words.size(); ++i)
        words[i] = pixelCfgWord(cfg[2 * i], cfg[2 * i + 1]);
    return writeMatrix(words.data(), words.size(), 1, false);
}

int AMpx3Dev::setConfig(dv::_Mpx3Config newConfig)
{
    config.set(newConfig);
    return 0;
}

int AMpx3Dev::setBias(double volts)
{
    biasValue = volts;
    return 0;
}

int AMpx3Dev::biasVoltageCurrentSense(double* volts, double* amperes) const
{
    if (volts != nullptr)
        *volts = 0.0;
    if (amperes != nullptr)
        *amperes = 0.0;
    return dv::RESULT_NOT_SUPPORTED;
}

dv::IMpxFrame* AMpx3Dev::lastData()
{
    return HwLatixel::frameOf<unsigned>(*dorvet, chipCountValue, DTYPE_U32,
                                        [this](unsigned* pixels, std::size_t count) {
                                            return readMatrix(pixels, count, config.get().counterSelect, true);
                                        });
}

int AMpx3Dev::doSoftwareTrigger(unsigned)
{
    softTrigger.fire();
    return 0;
}

void AMpx3Dev::waitForSoftwareTrigger(bool* stop)
{
    softTrigger.wait(events.dispatcher(), stop);
}

void AMpx3Dev::setBusy(bool value)
{
    if (loadFlag(busy) == value)
        return;
    storeFlag(busy, value);
    events.sendDirectly(HWEVENT_BUSY_CHANGED, value ? 1 : 0);
}

bool AMpx3Dev::reinitDeviceAfterError()
{
    if (resetDevice() != 0 && resetDevice() != 0)
        return false;
    const std::vector<unsigned char> kept = pixelCfg.get();
    return setPixelCfg(kept.data(), kept.size()) == 0 && setDacs(dacs.data(), dacs.size(), -1) == 0 &&
           setBias(biasValue) == 0 && eraseMatrix() == 0;
}

int AMpx3Dev::logError(int code, const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    report.errorV(code, format, args);
    va_end(args);
    return code;
}

void AMpx3Dev::logDbg(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    report.lineV(DBG, format, args);
    va_end(args);
}

void AMpx3Dev::logMsg(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    report.lineV(MSG, format, args);
    va_end(args);
}

void AMpx3Dev::acqFuncWrapper(void* device)
{
    auto* self = static_cast<AMpx3Dev*>(device);
    self->acqFunc();
    // Where the host could not wait for this thread, it has left the device to it.
    if (!self->series.left())
        return;
    self->closeDevice();
    delete self;
}
