// Several Medipix3 boards as one detector: bring-up, broadcasts, matrices.
#include "devices/mpx3/mpx3laddev.h"

#include "devices/common/frames.h"
#include "host/datatype.h"
#include "shared/inifile.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace HwLatixel {

namespace {

constexpr dv::_DevMpx3Info MPX3_INFO{1000, 10000.0, 10000.0, 0.000236};
constexpr int MPX3_CHIP_KIND = 3;
constexpr unsigned MODES = dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP | dv::ACQMODE_TDI;
constexpr std::size_t DACS_PER_CHIP = 27;
constexpr int ALL_CHIPS = -1;
constexpr std::size_t PIXEL_CFG_BYTES = 2 * LAD_CHIP_PIXELS; ///< of a chip

constexpr double SMALLEST_BIAS_AT_FIRST = 1000.0; ///< volts

constexpr ParamRow PARAMS[] = {
    {"HwLibVer", "Library Version", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"Firmware", "Firmware", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"DeviceSerials", "Device Serials", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false},
    {"DebugLog", "Debug log file", ParamKind::Bool, 0, dv::PARAM_CONFIG, true},
    {"Synced", "Internally synchronized acquisition", ParamKind::Bool, 0, dv::PARAM_CONFIG, false},
    {"TriggerStg", "Settings of trigger (0=log 0, 1 = log 1, 2 - rising edge, 3 - falling edge)", ParamKind::Byte, 0,
     dv::PARAM_CONFIG, false},
    {"TriggerTdiSeries", "Single Trigger in TDI mode for whole acq. series", ParamKind::Bool, 0, dv::PARAM_CONFIG,
     false},
    {"TriggerOutLevel", "Trigger out active level (0=log 0, 1 = log 1)", ParamKind::Byte, 0, dv::PARAM_CONFIG, false},
    {"TdiRowCount", "Number of rows to read in TDI mode (1 is default)", ParamKind::Int32, 1, dv::PARAM_CONFIG, false},
};

} // namespace

Mpx3LadDev::Mpx3LadDev(IDorvet* host, std::string logFolder, FileLog* log, std::string settings,
                       std::vector<std::string> names)
    : LadDev(host, std::move(logFolder), log, std::move(settings), std::move(names))
{
    devMpxInfoRec.chipKind = MPX3_CHIP_KIND;
    devMpxInfoRec.acqModeMask = MODES;
    const ParamContent contents[] = {{"HwLibVer", LIBRARY_VERSION}, {"Firmware", ""}, {"DeviceSerials", ""}};
    addParams(*params, PARAMS, contents, paramReadSetFunc, reinterpret_cast<long>(this));
    events.setBeforeFrame(beforeFrame, this);
}

Mpx3LadDev::~Mpx3LadDev()
{
    logFunction("Close Device");
    shutDown();
    // Their threads still call this class.
    members.clear();
}

int Mpx3LadDev::initDevice()
{
    logFunction("Init Device");
    loadSettings();
    if (const int closed = LadDev::closeDevice(); closed != 0)
        return closed;
    members.clear();
    devEventInfos.clear();
    smallestBias = SMALLEST_BIAS_AT_FIRST;
    largestBias = 0.0;
    const int result = bringUpMembers();
    publishMembers();
    devMpxInfoRec.biasMin = smallestBias;
    devMpxInfoRec.biasMax = largestBias;
    matrix.assign(pixelCount(), 0);
    announced.assign(pixelCount(), 0);
    if (result != 0)
        return result;
    report.setLevel(debugLog ? DBG : ERR);
    report.plain(ERR, "\n\n\n\n");
    return 0;
}

std::unique_ptr<Mpx3Dev> Mpx3LadDev::makeMember(const std::string& name, const std::string& biasType)
{
    return std::make_unique<Mpx3Dev>(name, dorvet, logDirectory, settingsPath, biasType, true);
}

void Mpx3LadDev::memberUp(Mpx3Dev& member, std::size_t index)
{
    auto info = std::make_unique<DevEventInfo>();
    info->lad = this;
    info->index = index;
    member.setEventFunc(devEventFuncWrapper, info.get());
    devEventInfos.push_back(std::move(info));
    dv::_DevMpxInfo limits;
    member.devMpxInfo(&limits);
    if (std::fabs(limits.biasMin) < std::fabs(smallestBias))
        smallestBias = limits.biasMin;
    if (std::fabs(limits.biasMax) > std::fabs(largestBias))
        largestBias = limits.biasMax;
}

int Mpx3LadDev::closeDevice()
{
    logFunction("Close Device");
    return LadDev::closeDevice();
}

void Mpx3LadDev::loadSettings()
{
    IniFile ini(settingsPath.c_str(), "=");
    ini.load(nullptr);
    // Read from the settings and used by nothing: a member that fails here ends the series.
    recoverAttemptCount = ini.getInt("Settings", "RecoverAttemptCount", 5);
    debugLog = ini.getBool("Settings", "DebugLog", false);
}

int Mpx3LadDev::paramReadSetFunc(dv::IParam* param, bool isRead, long user)
{
    if (!isRead)
        reinterpret_cast<Mpx3LadDev*>(user)->onWriteParam(param); // NOLINT(performance-no-int-to-ptr): the host's word
    return 0;
}

void Mpx3LadDev::onWriteParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "DebugLog")
        return;
    // What the settings switch on, the parameter can't switch off.
    const bool on = param->getBool() || debugLog;
    report.setLevel(on ? DBG : MSG);
    report.line(MSG, "Debug log enabled: %d\n", on ? 1 : 0);
    forAll([on](Mpx3Dev& member) { member.setDebugLog(on); });
}

int Mpx3LadDev::devMpx3Info(dv::_DevMpx3Info* info) const
{
    if (info == nullptr)
        return refuseNull();
    *info = MPX3_INFO;
    return 0;
}

// ---- Configuration ----

int Mpx3LadDev::resetMedipix()
{
    logFunction("Reset Medipix");
    return operate([this] {
        forAll([](Mpx3Dev& member) { member.resetMedipix(); });
        return 0;
    });
}

int Mpx3LadDev::eraseMatrix()
{
    logFunction("Erase Medipix");
    return operate([this] { return untilFailure([](Mpx3Dev& member) { return member.eraseMatrix(); }); });
}

int Mpx3LadDev::setAcqMode(unsigned mode)
{
    acqMode = mode;
    return 0;
}

/// Brings no answer, and goes out in the middle of a frame.
int Mpx3LadDev::setBias(double volts)
{
    logFunction("Set Bias");
    report.line(DBG, "Set Bias: %f", volts);
    if (requireMembers() != 0)
        return 1;
    return untilFailure([volts](Mpx3Dev& member) { return member.setBias(volts); });
}

int Mpx3LadDev::biasVoltageCurrentSense(double* volts, double* amperes) const
{
    if (volts == nullptr && amperes == nullptr)
        return 0;
    // In a series the member gives its last values, and measures between two frames.
    if (!members.empty()) {
        double measuredVolts = 0.0;
        double measuredCurrent = 0.0;
        members[0].biasVoltageCurrentSense(&measuredVolts, &measuredCurrent);
        lastBiasVoltage = measuredVolts;
        lastBiasCurrent = measuredCurrent;
    }
    if (volts != nullptr)
        *volts = lastBiasVoltage;
    if (amperes != nullptr)
        *amperes = lastBiasCurrent;
    return lastBiasVoltage == 0.0 && lastBiasCurrent == 0.0 ? -1 : 0;
}

int Mpx3LadDev::setDacs(const unsigned short* dacs, std::size_t size, int chip)
{
    logFunction("Set Dacs");
    if (dacs == nullptr)
        return logError(1, "No DAC values given.");
    // A host that tells no size has values for all chips.
    if (size == 0)
        size = static_cast<std::size_t>(members.chipCount()) * DACS_PER_CHIP;
    return operate([&] {
        if (chip == ALL_CHIPS)
            return untilFailure([&](Mpx3Dev& member, std::size_t i) {
                const auto slice = memberSlice(dacs, size, i, DACS_PER_CHIP);
                return member.loadDacs(slice.data, slice.size, ALL_CHIPS);
            });
        const auto* found = members.findChip(static_cast<unsigned>(chip));
        for (std::size_t i = 0; i < members.size(); ++i) {
            if (found == nullptr || found->member != &members[i])
                continue;
            const auto slice = memberSlice(dacs, size, i, DACS_PER_CHIP);
            // A failure for a single chip is seen in the member's log alone.
            members[i].loadDacs(slice.data, slice.size, found->index);
        }
        return 0;
    });
}

/// The size is not looked at: the host gives two bytes for each pixel of all chips, or what lies behind its array is
/// taken for them.
int Mpx3LadDev::setPixelCfg(const unsigned char* data, std::size_t)
{
    logFunction("Set Pixel Cfg");
    if (data == nullptr)
        return logError(1, "No pixel configuration given.");
    return operate([&] {
        const std::size_t size = static_cast<std::size_t>(members.chipCount()) * PIXEL_CFG_BYTES;
        return untilFailure([&](Mpx3Dev& member, std::size_t i) {
            const auto slice = memberSlice(data, size, i, PIXEL_CFG_BYTES);
            return member.setPixelCfg(slice.data, slice.size);
        });
    });
}

int Mpx3LadDev::setConfig(dv::_Mpx3Config config)
{
    return operate([&] { return untilFailure([&](Mpx3Dev& member) { return member.setConfig(config); }); });
}

int Mpx3LadDev::sendTestPulses(unsigned count, double period, const unsigned char* ctpr)
{
    return untilFailure([&](Mpx3Dev& member) { return member.sendTestPulses(count, period, ctpr); });
}

int Mpx3LadDev::senseDac(unsigned chip, unsigned dac)
{
    const auto* found = members.findChip(chip);
    if (found == nullptr)
        return logError(1, "Invalid chip index: %u", chip);
    return operate([&] { return found->member->senseDac(static_cast<unsigned>(found->index), dac); });
}

// ---- Matrices ----

int Mpx3LadDev::writeMatrix(const unsigned* data, std::size_t size, bool convert)
{
    logFunction("Write matrix");
    if (checkMatrixSize(size) != 0)
        return 1;
    if (data == nullptr)
        return refuseNull();
    return operate([&] {
        return untilFailure([&](Mpx3Dev& member, std::size_t i) {
            const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
            return member.writeMatrix(slice.data, slice.size, convert);
        });
    });
}

int Mpx3LadDev::readMatrix(unsigned* data, std::size_t size, bool convert)
{
    unsigned long missing = 0;
    return readFrame(data, size, convert, &missing);
}

/// As `readMatrix`; `missing` gets the bytes that have not come, of all members together.
int Mpx3LadDev::readFrame(unsigned* data, std::size_t size, bool convert, unsigned long* missing)
{
    if (!loadFlag(inAcquisition))
        logFunction("Read matrix");
    if (size < pixelCount()) {
        // A host that can't take the frame doesn't hold the series up for it.
        letMembersRead();
        return checkMatrixSize(size);
    }
    if (data == nullptr)
        return refuseNull();
    if (copyAnnounced(data, size, missing)) {
        letMembersRead();
        return 0;
    }
    return operate([&] {
        return untilFailure([&](Mpx3Dev& member, std::size_t i) {
            const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
            unsigned long ofMember = 0;
            const int result = member.readFrame(slice.data, slice.size, convert, &ofMember);
            *missing += ofMember;
            return result;
        });
    });
}

dv::IMpxFrame* Mpx3LadDev::lastData()
{
    unsigned long missing = 0;
    if (requireMembers() != 0)
        return nullptr;
    dv::IMpxFrame* made = filledFrame(*dorvet, members.chipCount(), DTYPE_U32, [&](dv::IMpxFrame& frame) {
        return readFrame(static_cast<unsigned*>(frame.dataPointer(0.0)), frame.pixelCount(), true, &missing);
    });
    if (made != nullptr)
        addMissingBytes(*made, missing);
    return made;
}

} // namespace HwLatixel
