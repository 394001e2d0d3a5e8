// Several Medipix2 or Timepix boards as one detector: bring-up and clocks.
#include "devices/mpx2/mpx2laddev.h"

#include "shared/inifile.h"

#include <utility>

namespace HwLatixel {

namespace {

constexpr ParamRow PARAMS[] = {
    {"HwLibVer", "Library Version", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"Firmware", "Firmware", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"DeviceSerials", "Device Serials", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"PreShutterClockCount", "Preshutter Clock Count", ParamKind::Int32, 10, dv::PARAM_CONFIG, false},
    {"PreShutterClockDivider", "Preshutter Clock Divier", ParamKind::Int32, 2, dv::PARAM_CONFIG, false},
    {"PreShutterDelayClockCount", "Preshutter Delay Clock Count", ParamKind::Int32, 10, dv::PARAM_CONFIG, false},
    {"ParallelReadout", "Parallel Readout (Fast Readout, Experimental)", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
};

} // namespace

Mpx2LadDev::Mpx2LadDev(IDorvet* host, std::string logFolder, FileLog* log, std::string settings,
                       std::vector<std::string> names)
    : Mpx2Lad(host, std::move(logFolder), log, std::move(settings), std::move(names))
{
    devMpxInfoRec.chipKind = CHIP_KIND;
    const ParamContent contents[] = {{"HwLibVer", LIBRARY_VERSION}, {"Firmware", ""}, {"DeviceSerials", ""}};
    addParams(*params, PARAMS, contents, nullptr, 0);
    events.setBeforeFrame(placeFrame, this);
    events.setBehindFrame(goOnBehindFrame);
}

Mpx2LadDev::~Mpx2LadDev()
{
    shutDown();
}

int Mpx2LadDev::initDevice()
{
    loadSettings();
    const int result = bringUpMembers();
    unrecovered.clear();
    storeFlag(frameAnnounced, false);
    findChipKind();
    publishMembers();
    return result;
}

std::unique_ptr<Mpx2Dev> Mpx2LadDev::makeMember(const std::string& name, const std::string& biasType)
{
    return std::make_unique<Mpx2Dev>(name, dorvet, logDirectory, settingsPath, biasType, true);
}

void Mpx2LadDev::loadSettings()
{
    IniFile ini(settingsPath.c_str(), "=");
    ini.load(nullptr);
    recoverAttemptCount = ini.getInt("Settings", "RecoverAttemptCount", 5);
}

/// Medipix2 where all members with chips have such.
void Mpx2LadDev::findChipKind()
{
    bool anyTimepix = false;
    bool anyMedipix2 = false;
    forAll([&](const Mpx2Dev& member) {
        if (member.chipCount() > 0)
            (member.isTimepix() ? anyTimepix : anyMedipix2) = true;
    });
    timepix = anyTimepix || !anyMedipix2;
    if (anyTimepix && anyMedipix2)
        report.line(MSG, "Members with Medipix2 and with Timepix chips are taken for Timepix.");
}

int Mpx2LadDev::setTimepixClock(double* mhz)
{
    if (mhz == nullptr)
        return refuseNull();
    return operate([&] {
        preShutterClockCount = paramInt32(params, "PreShutterClockCount");
        preShutterClockDivider = paramInt32(params, "PreShutterClockDivider");
        preShutterDelayClockCount = paramInt32(params, "PreShutterDelayClockCount");
        const int result = untilFailure([&](Mpx2Dev& member) {
            member.setPreshutterParams(preShutterClockCount, preShutterClockDivider, preShutterDelayClockCount);
            return member.setTimepixClock(mhz);
        });
        if (result == 0)
            timepixClock = *mhz;
        return result;
    });
}

} // namespace HwLatixel
