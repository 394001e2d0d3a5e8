// Discovery: which detectors hang on the bus, of which family they are, and who drives them.
#include "plugin/latixel.h"

#include "devices/common/containeddevice.h"
#include "devices/common/devicename.h"
#include "devices/mpx2/mpx2dev.h"
#include "devices/mpx2/mpx2laddev.h"
#include "devices/mpx3/mpx3dev.h"
#include "devices/mpx3/mpx3laddev.h"
#include "devices/old/uladdev.h"
#include "devices/row/mpx2devrow.h"
#include "link/ftdidev.h"
#include "shared/contained.h"
#include "shared/str.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr const char* TYPE_ROW = "TR";
constexpr const char* TYPE_MPX3 = "M3";
constexpr const char* DEFAULT_TYPE = "TLWA"; ///< of a name that tells none: Medipix2 or Timepix
constexpr const char* DEFAULT_VARIANT = "A";

enum class Family { Row, Mpx3Member, Mpx2Member, Mpx3, Mpx2 };

/// What the log says of a device of each family.
constexpr const char* FAMILY_TEXT[] = {"Latixel ROW device", "Latixel MPX3 device (part of LAD)",
                                       "Latixel device (part of LAD)", "Latixel MPX3 device", "Latixel device"};

/// A row device is never part of a composite.
Family classify(const std::string& typeCode, bool member)
{
    if (typeCode == TYPE_ROW)
        return Family::Row;
    if (member)
        return typeCode == TYPE_MPX3 ? Family::Mpx3Member : Family::Mpx2Member;
    return typeCode == TYPE_MPX3 ? Family::Mpx3 : Family::Mpx2;
}

} // namespace

bool HwLib::parseDeviceNameParameters(const std::string& name, std::string* familyWord, std::string* typeCode,
                                      std::string* variantChar3, std::string* variant, std::string* ladNumber)
{
    return parseDeviceName(name, familyWord, typeCode, variantChar3, variant, ladNumber);
}

bool HwLib::isPartOfLAD(const std::string& name) const
{
    return std::ranges::any_of(deviceNames, [&](const std::string& entry) { return str::contains(name, entry); });
}

std::vector<const char*> HwLib::nameFilter(bool old) const
{
    if (old)
        return {std::begin(DEVFILTER_OLD), std::end(DEVFILTER_OLD)};
    if (!devNamePrefix.empty())
        return {devNamePrefix.c_str()};
    return {std::begin(DEVFILTER), std::end(DEVFILTER)};
}

std::vector<std::string> HwLib::listConnectedDevices(bool old)
{
    std::vector<const char*> filter = nameFilter(old);
    std::vector<FtdiDevInfo> found;
    const int result = FtdiDev::listDevicesByNameFast(filter.data(), filter.size(), found, true, false);
    if (result != 0)
        log->log(ERR, "Listing FTDI devices failed (%d)", result);
    log->log(MSG, "Found %d devices:", static_cast<int>(found.size()));
    std::vector<std::string> names;
    for (const auto& device : found) {
        log->log(MSG, "   Device (name=%s, serial=%s, vidpix=%04X)", device.name.c_str(), device.serial.c_str(),
                 device.vidPid);
        names.push_back(device.name);
    }
    return names;
}

int HwLib::initializeDevices()
{
    log->log(MSG, "Listing FTDI devices...");
    const std::vector<std::string> names = listConnectedDevices(false);
    log->log(MSG, "Initializing Latixel devices...");
    std::vector<std::string> mpx2Members;
    std::vector<std::string> mpx3Members;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const std::string& name = names[i];
        if (name.empty())
            continue;
        std::string typeCode = DEFAULT_TYPE;
        std::string variant = DEFAULT_VARIANT;
        std::string ladNumber;
        parseDeviceNameParameters(name, nullptr, &typeCode, nullptr, &variant, &ladNumber);
        const Family family = classify(typeCode, isPartOfLAD(name) || !ladNumber.empty());
        log->log(MSG, "   Device #%d \"%s\" is %s", static_cast<int>(i), name.c_str(),
                 FAMILY_TEXT[static_cast<std::size_t>(family)]);
        switch (family) {
        case Family::Row:
            createMpx2RowDevice(name, variant);
            break;
        case Family::Mpx3Member:
            mpx3Members.push_back(name);
            break;
        case Family::Mpx2Member:
            mpx2Members.push_back(name);
            break;
        case Family::Mpx3:
            createMpx3Device(name, variant);
            break;
        case Family::Mpx2:
            createMpx2Device(name, variant);
            break;
        }
    }
    // The order of the names is that of the chips, whatever the order on the bus is.
    std::ranges::sort(mpx2Members);
    std::ranges::sort(mpx3Members);
    createComposite<Mpx2LadDev>(std::move(mpx2Members));
    createComposite<Mpx3LadDev>(std::move(mpx3Members));
    return 0;
}

int HwLib::initializeOldDevices()
{
    log->log(MSG, "Listing FTDI devices...");
    const std::vector<std::string> names = listConnectedDevices(true);
    log->log(MSG, "Initializing old Latixel devices...");
    // Only what the settings name is used, and the chips stand in the order of the bus.
    std::vector<std::string> members;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i].empty() || !isPartOfLAD(names[i]))
            continue;
        log->log(MSG, "   Device #%d \"%s\" is old Latixel device", static_cast<int>(i), names[i].c_str());
        members.push_back(names[i]);
    }
    createComposite<ULadDev>(std::move(members));
    return 0;
}

template <typename Device, typename... Arguments>
void HwLib::create(Arguments&&... arguments)
{
    const auto createOne = [&] {
        auto device = std::make_unique<Contained<Device>>(std::forward<Arguments>(arguments)...);
        // What is thrown here is the library's to tell.
        if (device->Device::initDevice() != 0)
            return;
        devices.push_back(device.get());
        static_cast<void>(device.release());
    };
    contained(createOne, reportTo("Initializing a device"));
}

template <typename Composite>
void HwLib::createComposite(std::vector<std::string> names)
{
    if (!names.empty())
        create<Composite>(dorvet, dorvet->logDirectory(), log.get(), settingsPath, std::move(names));
}

void HwLib::createMpx2Device(const std::string& name, const std::string& variant)
{
    create<Mpx2Dev>(name, dorvet, dorvet->logDirectory(), settingsPath, variant, false);
}

void HwLib::createMpx2RowDevice(const std::string& name, const std::string& variant)
{
    create<Mpx2DevRow>(name, dorvet, dorvet->logDirectory(), settingsPath, variant);
}

void HwLib::createMpx3Device(const std::string& name, const std::string& variant)
{
    create<Mpx3Dev>(name, dorvet, dorvet->logDirectory(), settingsPath, variant, false);
}

} // namespace HwLatixel
