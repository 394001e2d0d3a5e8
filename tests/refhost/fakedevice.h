// A device and a library object without hardware: the series is a script that runs on a thread of its own.
#pragma once

#include "host/ihwlib.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>

/// What the families have in common: `Interface` is dv::IHwDevMpx2 or dv::IHwDevMpx3.
template <class Interface>
class FakeMpx : public Interface {
public:
    explicit FakeMpx(IDorvet* dorvet, std::string deviceName)
        : host(dorvet),
          params(dorvet->createParamMgr()),
          name(std::move(deviceName))
    {
    }
    virtual ~FakeMpx() { join(); }

    /// What the acquisition thread does; `startAcquisition` returns `startResult`.
    std::function<void(FakeMpx&)> script;
    int startResult = 0;
    int kind = std::is_same_v<Interface, dv::IHwDevMpx3> ? 2 : 1;
    unsigned frameChips = 1; ///< chips in the frames, to tell a wrong size
    bool noFrames = false;
    std::atomic<bool> stopped{false};
    std::atomic<int> softTriggers{0};
    long frameCount = 0; ///< as the last series was asked for
    double frameTime = 0;
    unsigned mode = 0;

    void send(unsigned event, long data = 0) { eventFunc(event, data, eventUser); }
    void log(unsigned level, const char* text) { logFunc(level, text, logUser); }
    void join()
    {
        if (thread.joinable())
            thread.join();
    }

    int deviceType() const override { return kind; }
    int devInfo(dv::_DevInfo* info) const override
    {
        *info = {"Latixel", 8, 2, 1, 1};
        return 0;
    }
    int initDevice() override { return 0; }
    int closeDevice() override
    {
        join();
        if (params != nullptr)
            params->destroy();
        params = nullptr;
        return 0;
    }
    bool isConnected() const override { return true; }
    bool isBusy() const override { return false; }
    int setEventFunc(dv::EventFunc func, void* user) override
    {
        eventFunc = func;
        eventUser = user;
        return 0;
    }
    dv::IMpxFrame* lastData() override
    {
        if (noFrames)
            return nullptr;
        dv::IMpxFrame* frame = host->frameFactory()->createFrame(256 * frameChips, 256, kind == 1 ? 2 : 5);
        static_cast<unsigned char*>(frame->dataPointer(0))[0] = ++frameNumber;
        return frame;
    }
    dv::IParamMgr* parameters() const override { return params; }
    dv::IParamMgr* inDeviceConfigParameters() const override { return nullptr; }
    const char* lastError() const override { return ""; }
    int setLogMsgFunc(dv::LogMsgFunc func, void* user) override
    {
        logFunc = func;
        logUser = user;
        return 0;
    }
    const char* deviceName() const override { return name.c_str(); }
    void* privateInterface() override { return nullptr; }
    const char* deviceStatusText() const override { return ""; }
    int deviceStatus() const override { return 0; }
    int setIDevice(dv::IDev*) override { return 0; }
    int sendRawData(unsigned char*, unsigned long, unsigned long, unsigned long, unsigned long) override { return 0; }
    int receiveRawData(unsigned char*, unsigned long, unsigned long, unsigned long, unsigned long) override
    {
        return 0;
    }
    void destroy() override { delete this; }

    int devMpxInfo(dv::_DevMpxInfo* info) const override
    {
        *info = {65536, 1, 3, 0, 100, 4e-8, 86400, 0, 7, 0, {1}};
        return 0;
    }
    int resetMedipix() override { return 0; }
    int eraseMatrix() override { return 0; }
    int startAcquisition(unsigned count, double seconds) override
    {
        join();
        stopped = false;
        frameCount = count;
        frameTime = seconds;
        if (startResult == 0)
            thread = std::thread([this] { script(*this); });
        return startResult;
    }
    int stopAcquisition() override
    {
        stopped = true;
        return 0;
    }
    int setAcqMode(unsigned newMode) override
    {
        mode = newMode;
        return 0;
    }
    double lastAcqTime() const override { return 0.5; }
    double lastAcqStartTime() const override { return 0; }
    int setDacs(const unsigned short*, std::size_t, int) override { return 0; }
    int analogValue(unsigned, double*) override { return 0; }
    int setBias(double volts) override
    {
        if (volts <= 100)
            return 0;
        log(1, "Too much for this sensor\n");
        return -1;
    }
    int biasVoltageCurrentSense(double*, double*) const override { return 0; }
    int doSensorRefresh() override { return -1026; }
    int setPolarity(int, bool) override { return 0; }
    int chipIDList(dv::IStrList* list) const override { return list->add("A01-W0001"); }
    int adcCount() const override { return 16; }
    double adcValue(unsigned) const override { return 0; }
    int doSoftwareTrigger(unsigned) override
    {
        ++softTriggers;
        return 0;
    }
    bool isConfigurationInDeviceSupported() const override { return false; }
    bool hasConfigurationInDevice() const override { return false; }
    int loadConfigurationFromDevice(dv::ISettingsBin*) override { return -1026; }
    int saveConfigurationToDevice(dv::ISettingsBin*) override { return -1026; }
    int chipsLayout(unsigned*, unsigned*, unsigned*, unsigned*) const override { return -1026; }
    bool isTriggerMaster() const override { return true; }
    int setPixelCfg(const unsigned char*, std::size_t) override { return 0; }

private:
    IDorvet* host;
    dv::IParamMgr* params;
    std::string name;
    dv::EventFunc eventFunc = nullptr;
    void* eventUser = nullptr;
    dv::LogMsgFunc logFunc = nullptr;
    void* logUser = nullptr;
    unsigned char frameNumber = 0;
    std::thread thread;
};

class FakeDevice final : public FakeMpx<dv::IHwDevMpx3> {
public:
    explicit FakeDevice(IDorvet* dorvet, const std::string& called = "Fake A sn: 1 WA") : FakeMpx(dorvet, called) {}

    int devMpx3Info(dv::_DevMpx3Info*) const override { return 0; }
    int readMatrix(unsigned*, std::size_t, bool) override { return 0; }
    int writeMatrix(const unsigned*, std::size_t, bool) override { return 0; }
    int sendTestPulses(unsigned, double, const unsigned char*) override { return 0; }
    int senseDac(unsigned, unsigned) override { return 0; }
    int setExtDac(unsigned, int, double) override { return 0; }
    int setConfig(dv::_Mpx3Config) override { return 0; }
};

class FakeTimepix final : public FakeMpx<dv::IHwDevMpx2> {
public:
    explicit FakeTimepix(IDorvet* dorvet) : FakeMpx(dorvet, "Fake T sn: 2 WA") {}

    bool timepix = true;
    double clockMade = 0; ///< what `setTimepixClock` answers with

    int devMpx2Info(dv::_DevMpx2Info*) const override { return 0; }
    int setMpx2Dacs(const unsigned short*, std::size_t, int, int, int, int, unsigned) override { return 0; }
    int setExtDacValue(double) override { return 0; }
    int readMatrix(unsigned short*, std::size_t, bool) override { return 0; }
    int writeMatrix(const unsigned short*, std::size_t, bool) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int setTimepixClock(double* mhz) override
    {
        *mhz = clockMade;
        return 0;
    }
    bool isTimepix() const override { return timepix; }
};

/// A library object over devices that the test made.
class FakeLibrary final : public dv::IHwLib {
public:
    std::function<void(IDorvet*, FakeLibrary&)> onOpen;
    std::vector<dv::IHwDev*> devices;
    bool destroysDevices = true;

    int open(IDorvet* host) override
    {
        onOpen(host, *this);
        return 0;
    }
    int close() override
    {
        for (dv::IHwDev* device : devices) {
            device->closeDevice();
            if (destroysDevices)
                device->destroy();
        }
        devices.clear();
        return 0;
    }
    int deviceList(dv::IPtrList<dv::IHwDev*>* list) const override
    {
        for (dv::IHwDev* device : devices)
            list->add(device);
        return 0;
    }
    int refreshDevices() override { return 0; }
    void setLibEventFunc(dv::EventFunc, void*) override {}
    dv::IParamMgr* parameters() const override { return nullptr; }
};
