// What a file tells of the device that took its frames.
#include "record/devicesettings.h"

#include "record/text.h"

#include <iterator>
#include <sstream>

namespace record {
namespace {

constexpr std::size_t LARGEST_AT_HAND = 10; // bytes
constexpr std::size_t BULK_ITEMS = 11;      // reading a parameter of so many items makes the plug-in read the flash

Setting settingOf(refhost::Param& param)
{
    Setting setting{param.name(), printable(param.description()), {}};
    const bool isText = param.type() == refhost::DataType::Text || param.type() == refhost::DataType::Char;
    if (isText) {
        setting.value = printable(param.getString());
    } else if (param.size() == 1) {
        setting.value = param.getFloat();
    } else {
        const auto bytes = param.data();
        setting.value = refhost::MetaData{{}, {}, param.type(), bytes}.numbers();
    }
    return setting;
}

SettingGroup groupOf(const std::string& name, const std::vector<refhost::Param*>& params)
{
    SettingGroup group{name, {}};
    for (refhost::Param* param : params)
        group.settings.push_back(settingOf(*param));
    return group;
}

SettingGroup configuration(const refhost::Device& device)
{
    SettingGroup group{"configuration", {}};
    const auto add = [&group](const char* name, const char* description, double value) {
        group.settings.push_back({name, description, value});
    };
    add("acq_mode", "sum of 1 external trigger starts, 2 external trigger stops, 4 software trigger, 32 TDI",
        device.acqMode());
    if (device.isTimepix())
        add("timepix_clock", "clock of pixels that measure times, in MHz", device.timepixClock());
    if (!device.config())
        return group;
    const dv::_Mpx3Config config = *device.config();
    add("counter_depth", "0, 1, 2, 3 for 1, 6, 12, 24 bits", config.counterDepth);
    add("column_block", "0 all columns, 1 to 8 an eighth, 9 to 12 a quarter, from 13 a half", config.columnBlock);
    add("row_block", "0 all rows, n the 2^(n-1) lowest rows", config.rowBlock);
    add("counter_select", "0, 1, or 2 for both", config.counterSelect);
    add("gain_mode", "gain of the preamplifier, 0 to 3", config.gainMode);
    add("continuous_rw", "one counter exposes while the other is read", config.continuousRW);
    add("csm_spm", "charge summing mode", config.csmSpm);
    add("colour_mode", "colour mode", config.colourMode);
    add("polarity", "positive input charge", config.polarity);
    add("equalization", "equalization mode", config.equalization);
    add("disc_csm_spm", "which discriminator the counter sees", config.discCsmSpm);
    return group;
}

SettingGroup bias(const refhost::Device& device)
{
    const auto limits = device.mpxInfo();
    const auto reading = device.bias();
    return {"bias",
            {{"voltage", "measured, in volts", reading.volts},
             {"current", "measured, in the unit of the board's calibration", reading.current},
             {"voltage_min", "lowest voltage in volts", limits.biasMin},
             {"voltage_max", "highest voltage in volts", limits.biasMax}}};
}

} // namespace

std::string paramText(const refhost::Device& device, const std::string& name)
{
    refhost::Param* param = device.findParam(name);
    return param != nullptr ? param->getString() : std::string();
}

std::string pluginVersion(const refhost::Device& device)
{
    return printable(paramText(device, "HwLibVer"));
}

std::string firmware(const refhost::Device& device)
{
    return printable(paramText(device, "Firmware"));
}

std::string chipKind(const refhost::Device& device)
{
    if (device.isMpx3())
        return "Medipix3";
    if (device.chipCount() == 0)
        return "Medipix2/Timepix";
    return device.isTimepix() ? "Timepix" : "Medipix2";
}

std::vector<std::string> memberSerials(const refhost::Device& device)
{
    std::istringstream text(printable(paramText(device, "DeviceSerials")));
    return {std::istream_iterator<std::string>(text), {}};
}

std::string clockText(double mhz)
{
    std::string number = fixed(mhz, 6);
    number.erase(number.find_last_not_of('0') + 1);
    if (number.back() == '.')
        number.pop_back();
    return number + " MHz";
}

bool isAtHand(refhost::Param& flashParam)
{
    return flashParam.size() * refhost::sizeOf(flashParam.type()) <= LARGEST_AT_HAND;
}

void loadFlash(const refhost::Device& device)
{
    for (refhost::Param* param : device.flashParams())
        if (param->size() >= BULK_ITEMS) {
            param->data(); // one for all
            return;
        }
}

SeriesInfo describe(const refhost::Device& device)
{
    SeriesInfo info;
    info.device = printable(device.name());
    info.serial = std::to_string(device.info().serialNumber);
    info.firmware = firmware(device);
    info.pluginVersion = pluginVersion(device);
    for (const std::string& id : device.chipIDs())
        info.chipIDs.push_back(printable(id));
    info.settings = {groupOf("parameters", device.params()), configuration(device), bias(device)};
    auto stored = device.flashParams();
    std::erase_if(stored, [](refhost::Param* param) { return !isAtHand(*param); });
    if (!stored.empty())
        info.settings.push_back(groupOf("flash", stored));
    return info;
}

} // namespace record
