// What the host gets in place of a device: the same device, out of whose operations no exception comes.
#pragma once

#include "host/ihwdev.h"
#include "shared/contained.h"

#include <cstddef>
#include <type_traits>

namespace HwLatixel {

/// Contains the operations that all devices have. Where one throws, its text is the device's last error, and the
/// answer 1, null, 0.0 or an empty text. The others only hand something out.
template <typename Device>
class ContainedMpx : public Device {
public:
    using Device::Device;

    int devInfo(dv::_DevInfo* info) const override
    {
        return guarded([&] { return Device::devInfo(info); });
    }
    int initDevice() override
    {
        return guarded([&] { return Device::initDevice(); });
    }
    int closeDevice() override
    {
        return guarded([&] { return Device::closeDevice(); });
    }
    dv::IMpxFrame* lastData() override
    {
        return guarded([&] { return Device::lastData(); });
    }
    const char* deviceStatusText() const override
    {
        return guarded([&] { return Device::deviceStatusText(); });
    }
    int deviceStatus() const override
    {
        return guarded([&] { return Device::deviceStatus(); });
    }
    int sendRawData(unsigned char* data, unsigned long size, unsigned long a, unsigned long b, unsigned long c) override
    {
        return guarded([&] { return Device::sendRawData(data, size, a, b, c); });
    }
    int receiveRawData(unsigned char* data, unsigned long size, unsigned long a, unsigned long b,
                       unsigned long c) override
    {
        return guarded([&] { return Device::receiveRawData(data, size, a, b, c); });
    }
    void destroy() override
    {
        // The device may be gone behind it.
        contained([&] { Device::destroy(); });
    }
    int devMpxInfo(dv::_DevMpxInfo* info) const override
    {
        return guarded([&] { return Device::devMpxInfo(info); });
    }
    int resetMedipix() override
    {
        return guarded([&] { return Device::resetMedipix(); });
    }
    int eraseMatrix() override
    {
        return guarded([&] { return Device::eraseMatrix(); });
    }
    int startAcquisition(unsigned count, double time) override
    {
        return guarded([&] { return Device::startAcquisition(count, time); });
    }
    int stopAcquisition() override
    {
        return guarded([&] { return Device::stopAcquisition(); });
    }
    int setAcqMode(unsigned mode) override
    {
        return guarded([&] { return Device::setAcqMode(mode); });
    }
    int setDacs(const unsigned short* values, std::size_t count, int chip) override
    {
        return guarded([&] { return Device::setDacs(values, count, chip); });
    }
    int analogValue(unsigned chip, double* value) override
    {
        return guarded([&] { return Device::analogValue(chip, value); });
    }
    int setBias(double volts) override
    {
        return guarded([&] { return Device::setBias(volts); });
    }
    int biasVoltageCurrentSense(double* volts, double* amperes) const override
    {
        return guarded([&] { return Device::biasVoltageCurrentSense(volts, amperes); });
    }
    int chipIDList(dv::IStrList* list) const override
    {
        return guarded([&] { return Device::chipIDList(list); });
    }
    double adcValue(unsigned index) const override
    {
        return guarded([&] { return Device::adcValue(index); });
    }

protected:
    template <typename Call>
    auto guarded(Call call) const
    {
        using Result = std::invoke_result_t<Call>;
        Result result{};
        if constexpr (std::is_same_v<Result, int>)
            result = 1;
        if constexpr (std::is_same_v<Result, const char*>)
            result = "";
        contained([&] { result = call(); },
                  [&](const char* text) { this->logError(1, "Operation failed (%s)", text); });
        return result;
    }
};

/// The same for Medipix3 devices.
template <typename Device>
class ContainedMpx3 : public ContainedMpx<Device> {
public:
    using ContainedMpx<Device>::ContainedMpx;

    int devMpx3Info(dv::_DevMpx3Info* info) const override
    {
        return this->guarded([&] { return Device::devMpx3Info(info); });
    }
    int readMatrix(unsigned* data, std::size_t size, bool convert) override
    {
        return this->guarded([&] { return Device::readMatrix(data, size, convert); });
    }
    int writeMatrix(const unsigned* data, std::size_t size, bool convert) override
    {
        return this->guarded([&] { return Device::writeMatrix(data, size, convert); });
    }
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override
    {
        return this->guarded([&] { return Device::setPixelCfg(cfg, size); });
    }
    int sendTestPulses(unsigned count, double period, const unsigned char* ctpr) override
    {
        return this->guarded([&] { return Device::sendTestPulses(count, period, ctpr); });
    }
    int senseDac(unsigned chip, unsigned dac) override
    {
        return this->guarded([&] { return Device::senseDac(chip, dac); });
    }
    int setExtDac(unsigned chip, int dac, double value) override
    {
        return this->guarded([&] { return Device::setExtDac(chip, dac, value); });
    }
    int setConfig(dv::_Mpx3Config newConfig) override
    {
        return this->guarded([&] { return Device::setConfig(newConfig); });
    }
};

/// The same for Medipix2 and Timepix devices.
template <typename Device>
class ContainedMpx2 : public ContainedMpx<Device> {
public:
    using ContainedMpx<Device>::ContainedMpx;

    int devMpx2Info(dv::_DevMpx2Info* info) const override
    {
        return this->guarded([&] { return Device::devMpx2Info(info); });
    }
    int setMpx2Dacs(const unsigned short* values, std::size_t size, int chip, int senseChip, int senseDac, int extDac,
                    unsigned ctpr) override
    {
        return this->guarded(
            [&] { return Device::setMpx2Dacs(values, size, chip, senseChip, senseDac, extDac, ctpr); });
    }
    int readMatrix(unsigned short* data, std::size_t size, bool convert) override
    {
        return this->guarded([&] { return Device::readMatrix(data, size, convert); });
    }
    int writeMatrix(const unsigned short* data, std::size_t size, bool convert) override
    {
        return this->guarded([&] { return Device::writeMatrix(data, size, convert); });
    }
    int setPixelCfg(const unsigned char* cfg, std::size_t size) override
    {
        return this->guarded([&] { return Device::setPixelCfg(cfg, size); });
    }
    int setTimepixClock(double* mhz) override
    {
        return this->guarded([&] { return Device::setTimepixClock(mhz); });
    }
};

/// A device or composite of the family of its interface.
template <typename Device>
using Contained =
    std::conditional_t<std::is_base_of_v<dv::IHwDevMpx3, Device>, ContainedMpx3<Device>, ContainedMpx2<Device>>;

} // namespace HwLatixel
