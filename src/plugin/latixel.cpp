// The library object: opening, closing, settings.
#include "plugin/latixel.h"

#include "shared/contained.h"
#include "shared/inifile.h"
#include "shared/osdepend.h"
#include "shared/str.h"

#include <algorithm>
#include <dlfcn.h>
#include <utility>

namespace HwLatixel {

namespace {

constexpr int MAX_DEVICE_KEYS = 10000; ///< more than any bus can have; keeps a nonsense count from holding up the host
constexpr unsigned int CLOSE_LIMIT_MS = 2000; ///< devices have waited for their threads: these are only leaving
constexpr unsigned int UNLOAD_LIMIT_MS = 200;

/// Keeps the library in memory whatever the host does: a thread that is still in here could go nowhere else.
void stayLoaded()
{
    Dl_info own{};
    if (dladdr(reinterpret_cast<const void*>(&stayLoaded), &own) != 0)
        dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
}

} // namespace

HwLib::~HwLib()
{
    if (waitForThreads(UNLOAD_LIMIT_MS))
        return;
    static_cast<void>(log.release());
    for (auto& former : formerLogs)
        static_cast<void>(former.release());
}

int HwLib::open(IDorvet* host)
{
    bool opened = false;
    contained([&] { opened = openFor(host); }, reportTo("Opening"));
    return opened ? 0 : 1;
}

bool HwLib::openFor(IDorvet* host)
{
    if (host == nullptr || host->configDirectory() == nullptr || host->logDirectory() == nullptr)
        return false;
    dorvet = host;
    settingsPath = std::string(dorvet->configDirectory()) + "/latixel.ini";
    openLog();
    loadSettings();
    if (oldDevices)
        initializeOldDevices();
    else
        initializeDevices();
    return true;
}

int HwLib::close()
{
    closeDevices(reportTo("Closing a device"));
    if (waitForThreads(CLOSE_LIMIT_MS))
        formerLogs.clear();
    else
        stayLoaded();
    return 0;
}

void HwLib::openLog()
{
    const std::string path = std::string(dorvet->logDirectory()) + "/latixel.log";
    formerLogs.push_back(std::make_unique<FileLog>(path, true, false, false, true));
    std::swap(log, formerLogs.back());
    log->setLogLevel(MSG);
}

AHwLib::Report HwLib::reportTo(const char* what) const
{
    return [this, what](const char* text) {
        if (log != nullptr)
            log->log(ERR, "%s failed: %s", what, text);
    };
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
