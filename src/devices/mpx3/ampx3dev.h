// The part of a Medipix3 device that needs no hardware: records, settings, log, callbacks, the software trigger.
#pragma once

#include "devices/common/devdefaults.h"
#include "devices/common/devicereport.h"
#include "devices/common/guarded.h"
#include "devices/common/hostevents.h"
#include "devices/common/linkturn.h"
#include "devices/common/serieslife.h"
#include "devices/common/softtrigger.h"
#include "host/idorvet.h"
#include "shared/buffer.h"
#include "shared/osdepend.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

/// Base of a Medipix3 device. Every operation on hardware has a harmless default here, so that a concrete device
/// overrides what its board can do.
///
/// Order of a device's life: constructor, `initDevice`, configuration and series in any order, `closeDevice`,
/// `destroy`. Flags that one thread sets and another polls are plain bools behind `loadFlag` and `storeFlag`.
class AMpx3Dev : public HwLatixel::DevDefaults<dv::IHwDevMpx3> {
public:
    /// `name` is the USB description, `logDir` the folder of the device's log, `settingsFile` the library's settings.
    AMpx3Dev(std::string name, IDorvet* dorvet, std::string logDir, std::string settingsFile);

    // Life cycle
    /// Reads the settings, opens the device's log `<logDir>/latixel_<serial>.log` and takes two parameter managers from
    /// the host. Returns 0.
    int initDevice() override;
    /// Releases log and parameter managers and forgets the log callback; the event callback stays. Returns 0.
    int closeDevice() override;
    bool isConnected() const override { return loadFlag(connected); }
    bool isBusy() const override { return loadFlag(busy); }

    // Identity and reports
    int deviceType() const override { return 2; }
    int devInfo(dv::_DevInfo* info) const override;
    int devMpxInfo(dv::_DevMpxInfo* info) const override;
    int devMpx3Info(dv::_DevMpx3Info* info) const override;
    const char* deviceName() const override { return deviceNameText.c_str(); }
    const char* deviceStatusText() const override { return ""; }
    int deviceStatus() const override { return 0; }
    int chipIDList(dv::IStrList* list) const override;
    const char* lastError() const override { return report.lastError(); }
    dv::IParamMgr* parameters() const override { return devParams; }
    dv::IParamMgr* inDeviceConfigParameters() const override { return inDeviceParams; }
    int setEventFunc(dv::EventFunc func, void* user) override;
    int setLogMsgFunc(dv::LogMsgFunc func, void* user) override;
    int setIDevice(dv::IDev* device) override;

    // Configuration
    int resetMedipix() override { return 0; }
    int eraseMatrix() override { return 0; }
    int setAcqMode(unsigned mode) override;
    int setPolarity(int chip, bool positive) override;
    int setDacs(const unsigned short*, std::size_t, int) override { return 0; }
    /// Keeps the host's configuration and, with a chip at hand, writes it to counter 1 as it stands.
    /// -1 where there is no link or no chip, otherwise the result of the write. 1 for more than a board can have.
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override;
    int setConfig(dv::_Mpx3Config config) override;
    int setBias(double volts) override;
    int biasVoltageCurrentSense(double* volts, double* amperes) const override;
    int analogValue(unsigned, double*) override { return 0; }
    int adcCount() const override { return 0; }
    double adcValue(unsigned) const override { return 0.0; }
    int sendTestPulses(unsigned, double, const unsigned char*) override { return 0; }
    int senseDac(unsigned, unsigned) override { return 0; }
    int setExtDac(unsigned, int, double) override { return 0; }

    // Matrices and series
    int readMatrix(unsigned*, std::size_t, bool) override { return 0; }
    int writeMatrix(const unsigned*, std::size_t, bool) override { return 0; }
    int startAcquisition(unsigned, double) override { return 0; }
    int stopAcquisition() override { return 0; }
    double lastAcqTime() const override { return lastAcqTimeValue; }
    dv::IMpxFrame* lastData() override;
    /// Ends one wait for a software trigger, also one that begins later.
    int doSoftwareTrigger(unsigned number) override;

    ~AMpx3Dev() override;

    // What a concrete device adds or replaces
    /// The series; runs on the acquisition thread.
    virtual void acqFunc() {}
    /// As the host's `readMatrix`, of the counter 0 or 1, or of both with 2.
    virtual int readMatrix(unsigned*, std::size_t, unsigned char /*counter*/, bool) { return 0; }
    /// As the host's `writeMatrix`, of the counter 0 or 1, or of both with 2.
    virtual int writeMatrix(const unsigned*, std::size_t, unsigned char /*counter*/, bool) { return 0; }
    /// Reports a failure to log, host and `lastError`; returns `code`. See HwLatixel::DeviceReport::errorV.
    virtual int logError(int code, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    virtual void logDbg(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    virtual void logMsg(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    /// Tells the host of a change by HWEVENT_BUSY_CHANGED, called directly on this thread.
    virtual void setBusy(bool value);
    /// Brings a device back after a failure: reset, pixel configuration, DACs, bias, erased matrix. False at the first
    /// step that fails.
    virtual bool reinitDeviceAfterError();
    virtual int resetDevice() { return 0; }
    /// Reads the section "Settings" of the file `path`; a missing file or key leaves the present values.
    virtual void loadSettings(const char* path);
    /// Sends HWEVENT_WAIT_TRIGGER and waits for `doSoftwareTrigger`, or until `*stop` is true where `stop` is given.
    virtual void waitForSoftwareTrigger(bool* stop);

protected:
    /// Thread entry: runs `acqFunc` of the object `device`.
    static void acqFuncWrapper(void* device);
    /// Level that the log goes back to after a periodic poll.
    LogLevel usualLogLevel() const { return loadFlag(debugLog) ? DBG : MSG; }

    mutable HwLatixel::LinkTurn linkTurn; ///< who may use the link
    mutable HwLatixel::DeviceReport report{HwLatixel::DeviceReport::Order::CallThenStore};
    mutable HwLatixel::SeriesLife series;
    HwLatixel::SoftTrigger softTrigger; ///< fired by `doSoftwareTrigger`

    // Records: written before and in `initDevice`, then only read
    dv::_DevInfo devInfo_;
    dv::_DevMpxInfo devMpxInfo_;
    dv::_DevMpx3Info devMpx3Info_;
    HwLatixel::Guarded<dv::_Mpx3Config> config; ///< last configuration
    IDorvet* dorvet;                            ///< the host, not owned
    dv::IDev* iDevice = nullptr;
    dv::IParamMgr* devParams = nullptr;      ///< owned through its `destroy`
    dv::IParamMgr* inDeviceParams = nullptr; ///< owned through its `destroy`
    std::string deviceNameText;
    std::string logDir;
    std::string settingsFile;
    std::string serialText;
    std::vector<std::string> chipIds; ///< one identifier for each chip

    HwLatixel::Guarded<std::vector<unsigned char>> pixelCfg; ///< last configuration given to `setPixelCfg`
    Buffer<unsigned short> dacs{0, false};                   ///< for `reinitDeviceAfterError`; nothing fills it
    HwLatixel::HostEvents events{series};
    std::unique_ptr<FileLog> devLog;
    ThreadSyncObject hostObjectsSync; ///< keeps together that log and parameters are given up

    bool connected = false; ///< the USB link is open
    bool noChip = true;     ///< no chip has been detected
    bool busy = false;
    bool polarityPositive = true;
    std::atomic<int> chipCountValue{0};
    std::atomic<unsigned> acqMode{0};          ///< bits of dv::AcqMode; a series takes them when it is prepared
    std::atomic<double> lastAcqTimeValue{0.0}; ///< measured length of the last frame, seconds
    std::atomic<double> acqTime{0.0};          ///< requested length of a frame, seconds
    double biasValue = 0.0;
    bool debugLog = false;
    bool logRotate = false;
    bool rawLog = false;

    /// Reports a null pointer that the host has given for something that `what` names. Returns 1.
    int refuseNull(const char* what) const { return logError(1, "No place for %s given.", what); }

private:
    void readSettings(const char* path);
    void releaseHostObjects();
};
