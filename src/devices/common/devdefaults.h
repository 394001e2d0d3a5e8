// The answers that are the same in every device class, once for all of them.
#pragma once

#include "host/ihwdev.h"

#include <cstddef>

namespace HwLatixel {

/// Implements, over one of the host's device interfaces, the operations that no detector of this family supports or
/// that answer with a fixed value. The order of the interface's operations does not change by it; the virtual
/// destructor comes behind the last of them.
template <typename Interface>
class DevDefaults : public Interface {
public:
    virtual ~DevDefaults() = default;
    DevDefaults() = default;
    DevDefaults(const DevDefaults&) = delete;
    DevDefaults& operator=(const DevDefaults&) = delete;

    void* privateInterface() override { return nullptr; }
    int setIDevice(dv::IDev*) override { return dv::RESULT_OK; }
    int sendRawData(unsigned char*, unsigned long, unsigned long, unsigned long, unsigned long) override
    {
        return dv::RESULT_NOT_SUPPORTED;
    }
    int receiveRawData(unsigned char*, unsigned long, unsigned long, unsigned long, unsigned long) override
    {
        return dv::RESULT_NOT_SUPPORTED;
    }
    void destroy() override { delete this; }

    double lastAcqStartTime() const override { return 0.0; }
    int doSensorRefresh() override { return dv::RESULT_NOT_SUPPORTED; }
    int setPolarity(int, bool) override { return dv::RESULT_OK; }
    bool isConfigurationInDeviceSupported() const override { return false; }
    bool hasConfigurationInDevice() const override { return false; }
    int loadConfigurationFromDevice(dv::ISettingsBin*) override { return dv::RESULT_NOT_SUPPORTED; }
    int saveConfigurationToDevice(dv::ISettingsBin*) override { return dv::RESULT_NOT_SUPPORTED; }
    int chipsLayout(unsigned*, unsigned*, unsigned*, unsigned*) const override { return dv::RESULT_NOT_SUPPORTED; }
    bool isTriggerMaster() const override { return true; }
};

} // namespace HwLatixel
