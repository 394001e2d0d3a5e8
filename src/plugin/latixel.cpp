// The library object: opening, closing, settings.
#include "plugin/latixel.h"

#include "shared/inifile.h"
#include "shared/str.h"

#include <algorithm>

namespace HwLatixel {

namespace {

constexpr int MAX_DEVICE_KEYS = 10000; ///< more than any bus can have; keeps a nonsense count from holding up the host

} // namespace

int HwLib::open(IDorvet* host)
{
    dorvet = host;
    settingsPath = std::string(dorvet->configDirectory()) + "/latixel.ini";
    const std::string logPath = std::string(dorvet->logDirectory()) + "/latixel.log";
    log = std::make_unique<FileLog>(logPath, true, false, false, true);
    log->setLogLevel(MSG);
    loadSettings();
    if (oldDevices)
        initializeOldDevices();
    else
        initializeDevices();
    return 0;
}

int HwLib::close()
{
    return AHwLib::close();
}

void HwLib::loadSettings()
{
    IniFile ini(settingsPath.c_str(), "=");
    ini.load(nullptr);
    const int count = std::min(ini.getInt("Settings", "DeviceCount", 0), MAX_DEVICE_KEYS);
    for (int i = 0; i < count; ++i) {
        const std::string name = ini.get("Settings", str::format("Device%d", i).c_str(), "");
        if (!name.empty())
            deviceNames.push_back(name);
    }
    oldDevices = ini.getBool("Settings", "OldDevices", false);
    devNamePrefix = ini.get("Settings", "DevNamePrefix", "");
}

} // namespace HwLatixel
