// A device of a plug-in, as host code likes to see it.
#pragma once

#include "host/ihwdev.h"
#include "refhost/frame.h"
#include "refhost/host.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace refhost {

/// An event of a device: a dv::HwEvent and its data.
struct Event {
    unsigned type = 0;
    long data = 0;
};

/// A line from a device's log callback; `level` is 1 for errors, 2 for messages, 3 for the third class of message.
struct LogLine {
    unsigned level = 0;
    std::string text;
};

/// Measured bias. The current is in the unit of the board's calibration.
struct BiasReading {
    double volts = 0;
    double current = 0;
};

using EventHandler = std::function<void(const Event&)>;
using LogHandler = std::function<void(const LogLine&)>;

/// A device that the plug-in owns. Its calls forward to the device and may come from any thread; those that return
/// nothing throw Error with the device's own words when the device refuses. A device of the plug-in's list is valid
/// until Plugin::close.
class Device {
public:
    static constexpr unsigned PIXELS_PER_CHIP = 256 * 256;

    /// Takes the device's event and log callbacks for itself. Throws Error on a device of an unknown type.
    Device(Host& host, dv::IHwDev* device);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    std::string name() const;
    /// 1 for Medipix2, Timepix and their composites, 2 for Medipix3 and its composite.
    int type() const { return dev->deviceType(); }
    bool isMpx3() const { return mpx3Dev != nullptr; }
    /// False for Medipix2 chips. A device that found no chips tells true too: it begins with that.
    bool isTimepix() const { return mpx2Dev != nullptr && mpx2Dev->isTimepix(); }
    unsigned chipCount() const;
    std::vector<std::string> chipIDs() const;
    dv::_DevInfo info() const;
    dv::_DevMpxInfo mpxInfo() const;
    bool isConnected() const { return dev->isConnected(); }
    bool isBusy() const { return dev->isBusy(); }
    std::string lastError() const;
    int status() const { return dev->deviceStatus(); }
    std::string statusText() const;

    /// The device's parameters, and those stored in its flash; empty where the device has none.
    std::vector<Param*> params() const;
    std::vector<Param*> flashParams() const;
    /// A parameter by its name, first among the device's own, then among those of the flash; null if there is none.
    Param* findParam(const std::string& name) const;

    void setBias(double volts);
    BiasReading bias() const;
    double adc(unsigned index) const { return dev->adcValue(index); }
    unsigned adcCount() const;
    /// DACs of one chip: 27 for Medipix3, 14 for Timepix, 15 for Medipix2.
    unsigned dacsPerChip() const;
    /// `dacs` holds the values of all chips, one chip after another.
    void setDacs(const std::vector<unsigned short>& dacs);
    /// Bytes of the pixel configuration for each pixel: 2 for Medipix3, 1 for Medipix2 and Timepix.
    unsigned pixelCfgBytes() const { return isMpx3() ? 2 : 1; }
    /// `cfg` holds the bytes of all chips, one chip after another.
    void setPixelCfg(const std::vector<unsigned char>& cfg);
    /// Medipix3 only.
    void setConfig(const dv::_Mpx3Config& config);
    /// The last configuration set here, if any.
    std::optional<dv::_Mpx3Config> config() const { return lastConfig; }
    /// Sets the clock that Timepix pixels measure times with. Returns the one that the board can make of it, in MHz
    /// too. Throws where there are no Timepix chips.
    double setTimepixClock(double mhz);
    /// MHz of the Timepix clock: the last one set here, or the one that devices begin with.
    double timepixClock() const { return lastClock; }
    /// A sum of dv::AcqMode bits. Throws when the device does not offer one of them.
    void setAcqMode(unsigned mode);
    unsigned acqMode() const { return lastMode; }
    void softwareTrigger();
    /// Seconds of the last exposure.
    double lastAcqTime() const { return dev->lastAcqTime(); }
    FramePtr lastData();

    /// Starts a series on the device itself; Series is the way to run one. Returns the device's result.
    int startAcquisition(unsigned count, double seconds) { return dev->startAcquisition(count, seconds); }
    int stopAcquisition() { return dev->stopAcquisition(); }

    /// Replaces the handler of events; an empty one removes it. A call that runs already goes on. Handlers run on
    /// the device's threads and throw nothing.
    void onEvent(EventHandler handler);
    /// The same for log lines.
    void onLog(LogHandler handler);
    /// True while the calling thread is inside an event handler of any device.
    static bool insideHandler();

    dv::IHwDevMpx* mpx() const { return dev; }
    /// The Medipix3 interface, or null.
    dv::IHwDevMpx3* mpx3() const { return mpx3Dev; }
    /// The Medipix2 interface, or null.
    dv::IHwDevMpx2* mpx2() const { return mpx2Dev; }
    Host& host() const { return owner; }

    /// From now on every event of the device is a complaint. For after its close.
    void markClosed();
    /// The last line of level 1 in the device's log callback since `forgetErrorLine`; empty if there was none.
    std::string errorLine() const;
    void forgetErrorLine();

private:
    struct Tap; // where the callbacks arrive; the host keeps it, so that late ones meet something

    /// Runs `call`, and throws Error with `action` and the device's words when its result is not 0.
    template <typename Call>
    void require(const char* action, Call call);

    Host& owner;
    dv::IHwDevMpx* dev = nullptr;
    dv::IHwDevMpx3* mpx3Dev = nullptr;
    dv::IHwDevMpx2* mpx2Dev = nullptr;
    std::shared_ptr<Tap> tap;
    std::optional<dv::_Mpx3Config> lastConfig; // set by setConfig, from one thread at a time
    unsigned lastMode = 0;                     // set by setAcqMode, likewise
    double lastClock = 10;                     // set by setTimepixClock, likewise
};

} // namespace refhost
