// A device of a plug-in: calls with words for their failures, and the callbacks.
#include "refhost/device.h"

#include "refhost/error.h"

#include <cmath>
#include <cstdio>
#include <mutex>

namespace refhost {
namespace {

thread_local int handlerDepth = 0;

std::string textOrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

std::string trimmed(std::string text)
{
    const std::size_t last = text.find_last_not_of(" \t\r\n");
    text.erase(last == std::string::npos ? 0 : last + 1);
    return text;
}

bool isKnownEvent(unsigned type)
{
    return type == dv::HWEVENT_FRAME_READY || type == dv::HWEVENT_ACQ_FINISHED || type == dv::HWEVENT_ACQ_FAILED ||
           type == dv::HWEVENT_ACQ_ABORTED || type == dv::HWEVENT_BUSY_CHANGED || type == dv::HWEVENT_WAIT_TRIGGER;
}

std::vector<Param*> paramsOf(dv::IParamMgr* manager)
{
    return manager != nullptr ? static_cast<ParamMgr*>(manager)->all() : std::vector<Param*>{};
}

} // namespace

/// Its functions are called by the device, on any thread. Handlers are called without the lock.
struct Device::Tap {
    Tap(Host& ownerHost, std::string deviceName) : host(ownerHost), name(std::move(deviceName)) {}

    static void event(unsigned type, long data, void* user);
    static void log(unsigned level, const char* text, void* user);

    Host& host;
    const std::string name;

    std::mutex mutex; // guards everything below
    bool closed = false;
    std::shared_ptr<const EventHandler> eventHandler;
    std::shared_ptr<const LogHandler> logHandler;
    std::string lastErrorLine;
};

void Device::Tap::event(unsigned type, long data, void* user)
{
    auto& tap = *static_cast<Tap*>(user);
    std::shared_ptr<const EventHandler> handler;
    bool late = false;
    {
        const std::lock_guard lock(tap.mutex);
        late = tap.closed;
        handler = tap.eventHandler;
    }
    if (late)
        tap.host.complain("event " + std::to_string(type) + " of " + tap.name + " after it was closed");
    else if (!isKnownEvent(type))
        tap.host.complain("unknown event " + std::to_string(type) + " of " + tap.name);
    else if (handler != nullptr) {
        ++handlerDepth;
        (*handler)({type, data});
        --handlerDepth;
    }
}

void Device::Tap::log(unsigned level, const char* text, void* user)
{
    auto& tap = *static_cast<Tap*>(user);
    if (text == nullptr)
        tap.host.complain("a null text in the log of " + tap.name);
    const LogLine line{level, trimmed(textOrEmpty(text))};
    std::shared_ptr<const LogHandler> handler;
    {
        const std::lock_guard lock(tap.mutex);
        if (level == 1)
            tap.lastErrorLine = line.text;
        handler = tap.logHandler;
    }
    if (handler != nullptr)
        (*handler)(line);
}

Device::Device(Host& host, dv::IHwDev* device) : owner(host)
{
    const int kind = device->deviceType();
    if (kind == 2)
        dev = mpx3Dev = static_cast<dv::IHwDevMpx3*>(device);
    else if (kind == 1)
        dev = mpx2Dev = static_cast<dv::IHwDevMpx2*>(device);
    else
        throw Error("device " + textOrEmpty(device->deviceName()) + " is of the unknown type " + std::to_string(kind));
    tap = std::make_shared<Tap>(host, name());
    host.keep(tap);
    dev->setEventFunc(&Tap::event, tap.get());
    dev->setLogMsgFunc(&Tap::log, tap.get());
}

Device::~Device()
{
    onEvent({});
    onLog({});
}

std::string Device::name() const
{
    return textOrEmpty(dev->deviceName());
}

unsigned Device::chipCount() const
{
    // A device that found no chips still tells the one that it began with.
    return chipIDs().empty() ? 0 : mpxInfo().chipTotal;
}

std::vector<std::string> Device::chipIDs() const
{
    return dev->chipIDs();
}

dv::_DevInfo Device::info() const
{
    dv::_DevInfo record{};
    dev->devInfo(&record);
    return record;
}

dv::_DevMpxInfo Device::mpxInfo() const
{
    dv::_DevMpxInfo record{};
    dev->devMpxInfo(&record);
    return record;
}

std::string Device::lastError() const
{
    return trimmed(textOrEmpty(dev->lastError()));
}

std::string Device::statusText() const
{
    return trimmed(textOrEmpty(dev->deviceStatusText()));
}

std::vector<Param*> Device::params() const
{
    return paramsOf(dev->parameters());
}

std::vector<Param*> Device::flashParams() const
{
    return paramsOf(dev->inDeviceConfigParameters());
}

Param* Device::findParam(const std::string& wanted) const
{
    for (dv::IParamMgr* manager : {dev->parameters(), dev->inDeviceConfigParameters()}) {
        Param* param = manager != nullptr ? static_cast<ParamMgr*>(manager)->find(wanted) : nullptr;
        if (param != nullptr)
            return param;
    }
    return nullptr;
}

template <typename Call>
void Device::require(const char* action, Call call)
{
    forgetErrorLine();
    const int result = call();
    if (result == 0)
        return;
    const std::string words = errorLine();
    throw Error("cannot " + std::string(action) + " of " + name() + ": " +
                (words.empty() ? "the device answered with code " + std::to_string(result) : words));
}

void Device::setBias(double volts)
{
    require("set the bias", [&] { return dev->setBias(volts); });
}

BiasReading Device::bias() const
{
    BiasReading reading;
    // The result only tells that both readings are exactly 0.
    dev->biasVoltageCurrentSense(&reading.volts, &reading.current);
    return reading;
}

unsigned Device::adcCount() const
{
    const int count = dev->adcCount();
    return count > 0 ? static_cast<unsigned>(count) : 0;
}

unsigned Device::dacsPerChip() const
{
    if (isMpx3())
        return 27;
    return mpx2Dev->isTimepix() ? 14 : 15;
}

void Device::setDacs(const std::vector<unsigned short>& dacs)
{
    const std::size_t needed = std::size_t{chipCount()} * dacsPerChip();
    if (dacs.size() != needed)
        throw Error("the chips of " + name() + " take " + std::to_string(needed) + " DAC values, not " +
                    std::to_string(dacs.size()));
    require("set the DACs", [&] { return dev->setDacs(dacs.data(), dacs.size(), -1); });
}

void Device::setPixelCfg(const std::vector<unsigned char>& cfg)
{
    const std::size_t needed = std::size_t{chipCount()} * PIXELS_PER_CHIP * pixelCfgBytes();
    if (cfg.size() != needed)
        throw Error("the pixel configuration of " + name() + " takes " + std::to_string(needed) + " bytes, not " +
                    std::to_string(cfg.size()));
    require("set the pixel configuration", [&] {
        return mpx3Dev != nullptr ? mpx3Dev->setPixelCfg(cfg.data(), cfg.size())
                                  : mpx2Dev->setPixelCfg(cfg.data(), cfg.size());
    });
}

void Device::setConfig(const dv::_Mpx3Config& config)
{
    if (mpx3Dev == nullptr)
        throw Error(name() + " has no Medipix3 chips, which this configuration is for");
    require("set the configuration", [&] { return mpx3Dev->setConfig(config); });
    lastConfig = config;
}

double Device::setTimepixClock(double mhz)
{
    if (!isTimepix())
        throw Error(name() + " has no Timepix chips, which this clock is for");
    if (!(mhz > 0) || !std::isfinite(mhz))
        throw Error("the Timepix clock must be above 0 MHz");
    double made = mhz;
    require("set the Timepix clock", [&] { return mpx2Dev->setTimepixClock(&made); });
    if (!(made > 0) || !std::isfinite(made))
        throw Error(name() + " cannot make a Timepix clock of " + std::to_string(mhz) + " MHz");
    lastClock = made;
    return made;
}

void Device::setAcqMode(unsigned mode)
{
    const unsigned missing = mode & ~mpxInfo().acqModeMask;
    if (missing != 0) {
        std::string names;
        if ((missing & dv::ACQMODE_TDI) != 0)
            names += " TDI";
        if ((missing & (dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP)) != 0)
            names += " an external trigger";
        if ((missing & dv::ACQMODE_SOFT_TRIGGER) != 0)
            names += " a software trigger";
        throw Error(name() + " does not offer" + (names.empty() ? " this mode" : names));
    }
    require("set the acquisition mode", [&] { return dev->setAcqMode(mode); });
    lastMode = mode;
}

void Device::softwareTrigger()
{
    require("trigger a frame", [&] { return dev->doSoftwareTrigger(0); });
}

FramePtr Device::lastData()
{
    return adopt(dev->lastData());
}

void Device::onEvent(EventHandler handler)
{
    auto shared = handler ? std::make_shared<const EventHandler>(std::move(handler)) : nullptr;
    const std::lock_guard lock(tap->mutex);
    tap->eventHandler = std::move(shared);
}

void Device::onLog(LogHandler handler)
{
    auto shared = handler ? std::make_shared<const LogHandler>(std::move(handler)) : nullptr;
    const std::lock_guard lock(tap->mutex);
    tap->logHandler = std::move(shared);
}

bool Device::insideHandler()
{
    return handlerDepth > 0;
}

void Device::markClosed()
{
    const std::lock_guard lock(tap->mutex);
    tap->closed = true;
}

std::string Device::errorLine() const
{
    const std::lock_guard lock(tap->mutex);
    return tap->lastErrorLine;
}

void Device::forgetErrorLine()
{
    const std::lock_guard lock(tap->mutex);
    tap->lastErrorLine.clear();
}

} // namespace refhost
