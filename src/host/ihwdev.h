// The device interfaces that the plug-in implements for the host. The host calls the operations by their position:
// their order is part of the interface. None declares a destructor; a device is released with `destroy`.
// Operations return 0 on success unless told otherwise, and may be called from any host thread.
#pragma once

#include "host/impxframe.h"
#include "host/iparam.h"
#include "host/records.h"
#include "host/values.h"

#include <cstddef>
#include <string>
#include <vector>

namespace dv {

class IDev;
class ISettingsBin;

/// Event callback of a device: an HwEvent, its data, and the word given with the callback. Events arrive on the
/// acquisition thread or on the dispatcher's thread.
using EventFunc = void (*)(unsigned int event, long data, void* user);

/// Log callback of a device. `level` is 1 for errors, 2 for messages, 3 for the third class of message.
using LogMsgFunc = void (*)(unsigned int level, const char* text, void* user);

/// Any device.
class IHwDev {
public:
    /// 1 for Medipix2, Timepix and their composites, 2 for Medipix3 and its composite.
    virtual int deviceType() const = 0;
    virtual int devInfo(_DevInfo* info) const = 0;
    /// Opens the device and brings it up. The library deletes the object on anything but 0.
    virtual int initDevice() = 0;
    /// Powers the device down and closes it.
    virtual int closeDevice() = 0;
    virtual bool isConnected() const = 0;
    /// True while an acquisition exposes.
    virtual bool isBusy() const = 0;
    virtual int setEventFunc(EventFunc func, void* user) = 0;
    /// A new frame with the last matrix, owned by the caller, or null on failure.
    virtual IMpxFrame* lastData() = 0;
    /// The device's parameters. A Medipix3 device has none, and gives null, before `initDevice` and after
    /// `closeDevice`.
    virtual IParamMgr* parameters() const = 0;
    /// The parameters stored in the device's flash.
    virtual IParamMgr* inDeviceConfigParameters() const = 0;
    /// Text of the last error; empty at first.
    virtual const char* lastError() const = 0;
    virtual int setLogMsgFunc(LogMsgFunc func, void* user) = 0;
    /// The USB description of a single device, the name of a composite.
    virtual const char* deviceName() const = 0;
    /// Null in all classes.
    virtual void* privateInterface() = 0;
    /// Text of the last status, from the interface board's CPU.
    virtual const char* deviceStatusText() const = 0;
    /// Status code, from the interface board's CPU: 0 and 1 are good, 2 is an error.
    virtual int deviceStatus() const = 0;
    /// The host's own handle of this device.
    virtual int setIDevice(IDev* device) = 0;
    /// Raw USB traffic; -1026 where it is not supported.
    virtual int sendRawData(unsigned char* data, unsigned long size, unsigned long a, unsigned long b,
                            unsigned long c) = 0;
    virtual int receiveRawData(unsigned char* data, unsigned long size, unsigned long a, unsigned long b,
                               unsigned long c) = 0;
    /// Deletes the object.
    virtual void destroy() = 0;
};

/// A device with pixel chips.
class IHwDevMpx : public IHwDev {
public:
    virtual int devMpxInfo(_DevMpxInfo* info) const = 0;
    /// Resets the chips.
    virtual int resetMedipix() = 0;
    /// Clears the counters.
    virtual int eraseMatrix() = 0;
    /// Starts a series of `count` frames of `time` seconds each and returns; the series runs in a thread of its own.
    virtual int startAcquisition(unsigned count, double time) = 0;
    /// Asks the running series to end. Its end is told by HWEVENT_ACQ_ABORTED.
    virtual int stopAcquisition() = 0;
    /// Sets the mode of the next series, a sum of AcqMode bits.
    virtual int setAcqMode(unsigned mode) = 0;
    /// Seconds of the last exposure: as the board measured it in a single Medipix3 device, else as requested.
    virtual double lastAcqTime() const = 0;
    virtual double lastAcqStartTime() const = 0;
    /// Sets the DACs from an array that holds the values of all chips, one chip after another; `chip` -1 sets all.
    virtual int setDacs(const unsigned short* dacs, std::size_t count, int chip) = 0;
    /// The analog sense output in volts.
    virtual int analogValue(unsigned chip, double* value) = 0;
    /// Sets the sensor's bias in volts.
    virtual int setBias(double volts) = 0;
    /// Measured bias in volts and in the unit of the board's current calibration; either pointer may be null.
    virtual int biasVoltageCurrentSense(double* volts, double* amperes) const = 0;
    virtual int doSensorRefresh() = 0;
    virtual int setPolarity(int chip, bool positive) = 0;
    /// Appends the identifier of each chip to `list`.
    virtual int chipIDList(IStrList* list) const = 0;
    /// Number of ADC channels: 16 for each board.
    virtual int adcCount() const = 0;
    /// One ADC reading in volts.
    virtual double adcValue(unsigned index) const = 0;
    /// Releases a wait for a software trigger.
    virtual int doSoftwareTrigger(unsigned number) = 0;
    virtual bool isConfigurationInDeviceSupported() const = 0;
    virtual bool hasConfigurationInDevice() const = 0;
    virtual int loadConfigurationFromDevice(ISettingsBin* settings) = 0;
    virtual int saveConfigurationToDevice(ISettingsBin* settings) = 0;
    virtual int chipsLayout(unsigned* a, unsigned* b, unsigned* c, unsigned* d) const = 0;
    virtual bool isTriggerMaster() const = 0;

    /// The identifier of each chip.
    std::vector<std::string> chipIDs() const
    {
        StrList list;
        chipIDList(&list);
        return list.vect();
    }
};

/// A device with Medipix3 chips. A matrix holds 65536 words for each chip, row by row, the low counter in bits
/// 0 to 11 and the high one in bits 16 to 27, or one count of 24 bits.
class IHwDevMpx3 : public IHwDevMpx {
public:
    virtual int devMpx3Info(_DevMpx3Info* info) const = 0;
    /// Reads the counters into `size` words; with `convert` the chip's counter code becomes counts.
    virtual int readMatrix(unsigned* data, std::size_t size, bool convert) = 0;
    /// Writes the counters from `size` words; with `convert` counts become the chip's counter code.
    virtual int writeMatrix(const unsigned* data, std::size_t size, bool convert) = 0;
    /// Writes the pixel configuration: two bytes for each pixel, low byte first.
    virtual int setPixelCfg(const unsigned char* cfg, std::size_t size) = 0;
    virtual int sendTestPulses(unsigned count, double period, const unsigned char* ctpr) = 0;
    /// Routes a DAC of a chip to the analog sense output.
    virtual int senseDac(unsigned chip, unsigned dac) = 0;
    virtual int setExtDac(unsigned chip, int dac, double value) = 0;
    virtual int setConfig(_Mpx3Config config) = 0;
};

/// A device with Medipix2 or Timepix chips. A matrix holds 65536 words for each chip, row by row.
class IHwDevMpx2 : public IHwDevMpx {
public:
    virtual int devMpx2Info(_DevMpx2Info* info) const = 0;
    virtual int setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac,
                            int extDac, unsigned ctpr) = 0;
    virtual int setExtDacValue(double value) = 0;
    virtual int readMatrix(unsigned short* data, std::size_t size, bool convert) = 0;
    virtual int writeMatrix(const unsigned short* data, std::size_t size, bool convert) = 0;
    virtual int setPixelCfg(const unsigned char* cfg, std::size_t size) = 0;
    virtual int sendTestPulses(unsigned count, double height, double period) = 0;
    /// Sets the clock of the Timepix counters in MHz; `mhz` becomes the clock that the board can make.
    virtual int setTimepixClock(double* mhz) = 0;
    virtual bool isTimepix() const = 0;
};

} // namespace dv
