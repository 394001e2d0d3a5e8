// The plug-in's library object: settings, log, and the discovery of devices on the bus.
#pragma once

#include "plugin/ahwlib.h"
#include "shared/filelog.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

/// What USB descriptions of the detectors begin with.
inline constexpr const char* DEVFILTER[] = {"Latixel Latixel"};
/// The same for the older generation.
inline constexpr const char* DEVFILTER_OLD[] = {"MPX2 USB2", "FENXEL 3.0", "Latixel Fenxel"};

/// The library. All of its work is done on the thread that calls `open`; there is one object, `hwLib`.
///
/// Nothing that goes wrong while opening reaches the host as a result: settings that can't be read are defaults, and a
/// device that does not come up is missing in the list and told of in the logs.
class HwLib : public AHwLib {
public:
    HwLib() = default;
    /// Leaves the logs alone if a thread is left that may write to them.
    ~HwLib() override;
    HwLib(const HwLib&) = delete;
    HwLib& operator=(const HwLib&) = delete;

    /// Makes the log `<log directory>/latixel.log`, reads `<config directory>/latixel.ini` and brings up the devices
    /// found. Returns 0; 1 where nothing is opened, since host or one of its directories is null. A second call without
    /// a close in between adds what it finds now: the devices that are there stay, and keep the log that they have.
    int open(IDorvet* host) override;
    /// Closes and destroys all devices, then waits for the library's threads, so that the host can unload it. Where one
    /// cannot be waited for, which is the case in a callback of a device on the thread of its series, the library
    /// stays in memory until the process ends, even if the host unloads it. Returns 0.
    int close() override;

    /// Names (USB descriptions) of the detectors on the bus, of the older generation if `old`, in the order of the bus.
    std::vector<std::string> listConnectedDevices(bool old);
    /// Brings up the detectors found: single devices as they are listed, then one composite of each kind. Returns 0.
    int initializeDevices();
    /// The same for the older generation, of which only devices named in the settings are used. Returns 0.
    int initializeOldDevices();
    /// Whether the settings name the device as part of a composite: `name` contains one of `deviceNames`.
    bool isPartOfLAD(const std::string& name) const;
    /// See HwLatixel::parseDeviceName.
    static bool parseDeviceNameParameters(const std::string& name, std::string* familyWord, std::string* typeCode,
                                          std::string* variantChar3, std::string* variant, std::string* ladNumber);

private:
    bool openFor(IDorvet* host);
    void openLog();
    void loadSettings();
    Report reportTo(const char* what) const;
    std::vector<const char*> nameFilter(bool old) const;
    void createMpx2Device(const std::string& name, const std::string& variant);
    void createMpx2RowDevice(const std::string& name, const std::string& variant);
    void createMpx3Device(const std::string& name, const std::string& variant);
    /// Makes one composite of all devices named, if there are any.
    template <typename Composite>
    void createComposite(std::vector<std::string> names);
    /// Makes a device, brings it up and takes it into the list; one that does not come up is deleted.
    template <typename Device, typename... Arguments>
    void create(Arguments&&... arguments);

    std::unique_ptr<FileLog> log;                     ///< of the last `open`; stays open until the library is unloaded
    std::vector<std::unique_ptr<FileLog>> formerLogs; ///< until `close`: composites of an `open` before write to them
    std::string settingsPath;                         ///< full path of latixel.ini
    std::vector<std::string> deviceNames;             ///< the settings Device0 onward that are not empty
    bool oldDevices = false;                          ///< setting "OldDevices"
    std::string devNamePrefix;                        ///< setting "DevNamePrefix"
};

extern HwLib hwLib;

} // namespace HwLatixel
