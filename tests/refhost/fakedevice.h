// A device and a library object without hardware: a series is a script that runs on a thread of its own.
#pragma once

#include "devices/common/devdefaults.h"
#include "host/ihwlib.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

/// A Timepix device, whose series need the most care: it reads a frame when the host fetches it.
class FakeDevice final : public HwLatixel::DevDefaults<dv::IHwDevMpx2> {
public:
    explicit FakeDevice(IDorvet* dorvet, const char* deviceName = "Fake A sn: 1 WA") : host(dorvet), name(deviceName) {}

    /// What the acquisition thread does; `startAcquisition` returns `startResult`.
    std::function<void(FakeDevice&)> script;
    int startResult = 0;
    int kind = 1;
    unsigned frameChips = 1; ///< chips in the frames, to tell a wrong size
    int framesLeft = 1000;   ///< then it has none to fetch
    std::atomic<bool> stopped{false};
    std::atomic<int> softTriggers{0};

    void send(unsigned event, long data = 0) { eventFunc(event, data, eventUser); }
    void waitForStop() const
    {
        while (!stopped)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void log(unsigned level, const char* text) { logFunc(level, text, logUser); }

    int deviceType() const override { return kind; }
    int devInfo(dv::_DevInfo*) const override { return 0; }
    int initDevice() override { return 0; }
    int closeDevice() override
    {
        thread = {}; // waits for its end
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
        return framesLeft-- <= 0 ? nullptr : host->frameFactory()->createFrame(256 * frameChips, 256, 2);
    }
    dv::IParamMgr* parameters() const override { return nullptr; }
    dv::IParamMgr* inDeviceConfigParameters() const override { return nullptr; }
    const char* lastError() const override { return ""; }
    int setLogMsgFunc(dv::LogMsgFunc func, void* user) override
    {
        logFunc = func;
        logUser = user;
        return 0;
    }
    const char* deviceName() const override { return name; }
    const char* deviceStatusText() const override { return ""; }
    int deviceStatus() const override { return 0; }
    void destroy() override {}

    int devMpxInfo(dv::_DevMpxInfo* info) const override
    {
        *info = {65536, 1, 3, 0, 100, 4e-8, 86400, 0, 7, 0, {1}};
        return 0;
    }
    int resetMedipix() override { return 0; }
    int eraseMatrix() override { return 0; }
    int startAcquisition(unsigned, double) override
    {
        thread = {};
        stopped = false;
        if (startResult == 0)
            thread = std::jthread([this] { script(*this); });
        return startResult;
    }
    int stopAcquisition() override
    {
        stopped = true;
        return 0;
    }
    int setAcqMode(unsigned) override { return 0; }
    double lastAcqTime() const override { return 0.5; }
    int setDacs(const unsigned short*, std::size_t, int) override { return 0; }
    int analogValue(unsigned, double*) override { return 0; }
    int setBias(double) override { return 0; }
    int biasVoltageCurrentSense(double*, double*) const override { return 0; }
    int chipIDList(dv::IStrList* list) const override { return list->add("A01-W0001"); }
    int adcCount() const override { return 16; }
    double adcValue(unsigned) const override { return 0; }
    int doSoftwareTrigger(unsigned) override
    {
        ++softTriggers;
        return 0;
    }

    int devMpx2Info(dv::_DevMpx2Info*) const override { return 0; }
    int setMpx2Dacs(const unsigned short*, std::size_t, int, int, int, int, unsigned) override { return 0; }
    int setExtDacValue(double) override { return 0; }
    int readMatrix(unsigned short*, std::size_t, bool) override { return 0; }
    int writeMatrix(const unsigned short*, std::size_t, bool) override { return 0; }
    int setPixelCfg(const unsigned char*, std::size_t) override { return 0; }
    int sendTestPulses(unsigned, double, double) override { return 0; }
    int setTimepixClock(double*) override { return 0; }
    bool isTimepix() const override { return true; }

private:
    IDorvet* host;
    const char* name;
    dv::EventFunc eventFunc = nullptr;
    void* eventUser = nullptr;
    dv::LogMsgFunc logFunc = nullptr;
    void* logUser = nullptr;
    std::jthread thread; // the first to end, while the rest is there
};

/// A library object over devices that the test made.
class FakeLibrary final : public dv::IHwLib {
public:
    std::vector<dv::IHwDev*> devices;

    int open(IDorvet*) override { return 0; }
    int close() override
    {
        for (dv::IHwDev* device : devices)
            device->closeDevice();
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
