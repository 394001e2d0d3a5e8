// Construction, bring-up and recovery of a Medipix2 or Timepix board, and the search for its modules and chips.
#include "devices/mpx2/mpx2dev.h"

#include "chipdata/mpx2dacs.h"
#include "chipdata/mpx2matrix.h"
#include "link/tpxcmds.h"
#include "shared/fileops.h"
#include "shared/inifile.h"
#include "shared/str.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double RECOVERY_POWER_PAUSE = 0.1;  ///< seconds
constexpr double PATTERN_RESET_PAUSE = 0.001; ///< seconds
constexpr double PATTERN_TIMEOUT = 0.5;       ///< seconds
constexpr double CHIP_COUNT_TIMEOUT = 0.2;    ///< seconds

constexpr std::size_t CHAIN_TEST_SIZE = 14; ///< bytes of ones, then of zeros, that count a module's chips
constexpr int MAX_CHAIN = 10;               ///< chips of a module; a line stuck at high looks longer

constexpr int MODULE_BY_DETECTION = -1; ///< use a module if it answers
constexpr int MODULE_OFF = 0;           ///< never use a module

constexpr const char* CPU_WITH_BIAS = "LTX5x5"; ///< version of CPUs that make the bias themselves

constexpr const char* FIRMWARES[] = {"Firmware 1.7 TLA", "Firmware 1.5 TLA"};

constexpr Mpx2BoardKind BOARD_KIND{
    .firmwares = FIRMWARES,
    .correctFirmware = "Firmware 1.7 TLA (18.10.2016)",
    .firmwareTries = 3,
    .acqModeMask = dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP | dv::ACQMODE_SOFT_TRIGGER,
    .ticksPerSecond = tpx::SHUTTER_TICKS_PER_SECOND,
    .biasHandBack = ibspi::BiasHandBack::AfterSet,
    .adcClose = ibspi::AdcClose::DeselectAfterRead,
    .adcReadCounts = false,
    .quietServices = true,
    .collectsCutFrame = true,
    .tellsRecoveredRead = true,
    .sensorParams = {},
    .lastParams = {},
};

} // namespace

Mpx2Dev::Mpx2Dev(std::string name, IDorvet* host, std::string logFolder, std::string settings,
                 const std::string& biasType, bool serialSection)
    : AMpx2Dev(BOARD_KIND, std::move(name), host, std::move(logFolder), std::move(settings), biasType),
      useSerialSection(serialSection)
{
}

Mpx2Dev::~Mpx2Dev()
{
    shutDown();
}

int Mpx2Dev::initDevice()
{
    if (const int result = openBoard(); result != 0)
        return result;
    storeFlag(overheated, false);
    chipCount_ = 0;
    logFunction("Init Device");
    const Link::BringUp watched(link, boardMute);
    const SeriesLife::Callback hostsCode(life); // which the bring-up calls, and which must not close the device
    identifyBoard();
    powerCycle();
    detectModules();
    // The test pattern has left the chips in a state that only a cold start ends.
    powerCycle();
    resetMedipix();
    devMpxInfoRec.biasMin = biasParams.minBias();
    devMpxInfoRec.biasMax = biasParams.maxBias();
    if (activeModuleCount == 0)
        logError(-1, "No modules detected.");
    else
        findChips();
    completeBringUp();
    report.setLevel(debugLog ? DBG : ERR);
    report.plain(ERR, "\n\n\n\n");
    return 0;
}

void Mpx2Dev::findChips()
{
    getChipCount();
    report.line(MSG, "ChipCount is: %d", chipCount_);
    if (chipCount_ < 1) {
        resetDevice();
        logError(-1, "No chip connected");
        return;
    }
    setChipCount(chipCount_);
    const auto chips = static_cast<std::size_t>(chipCount_);
    matrixBackup.reinit(chips * MPX2_CHIP_PIXELS);
    matrixBackup.setVal(0);
    dacsBackup.reinit(chips * MPX2_TPX_DAC_COUNT);
    dacsBackup.setVal(0);
    resetMedipix();
    readChipInfo();
    if (chipIdsMatch())
        logChipIds();
}

void Mpx2Dev::logChipIds() const
{
    std::size_t index = 0;
    for (const auto& group : chipGroups())
        for (int chip = 0; chip < group.chips && index < chipIds.size(); ++chip)
            report.line(MSG, "Module %d, ChipID %d is: %s", group.number, chip, chipIds[index++].c_str());
}

void Mpx2Dev::loadSettings(const char* path)
{
    if (!fileExists(path)) {
        logError(0, "The settings file %s does not exists !", path);
        return;
    }
    const char* section = useSerialSection ? serialText.c_str() : "Settings";
    IniFile ini(path, "=");
    ini.load(nullptr);
    debugLog = ini.getBool(section, "DebugLog", debugLog);
    logRotate = ini.getBool(section, "LogRotate", logRotate);
    overrideChipIds = ini.getBool(section, "OverrideChipIDs", overrideChipIds);
    readParallel = ini.getBool(section, "ReadParallel", readParallel);
    for (std::size_t i = 0; i < moduleEnable.size(); ++i)
        moduleEnable[i] = ini.getInt(section, str::format("Module%zu", i).c_str(), MODULE_BY_DETECTION);
}

std::unique_ptr<IBCpuMgr<CmdMgr>> Mpx2Dev::makeCpu()
{
    return std::make_unique<IBCpuMgrTpx>(link.manager());
}

void Mpx2Dev::initCpu()
{
    biasInCpu = false;
    biasSetParamIndex = -1;
    AMpx2Dev::initCpu();
    if (ibCpu == nullptr)
        return;
    logTraffic(false, true, true);
    biasInCpu = paramByte(inDeviceParams, "BiasInCpu") != 0 || str::startsWith(ibCpu->getVersion(), CPU_WITH_BIAS);
    biasSetParamIndex = ibCpu->parameterIndex("*BiasSet");
    logTraffic(true, true, true);
}

std::vector<AMpx2Dev::ChipGroup> Mpx2Dev::chipGroups() const
{
    std::vector<ChipGroup> groups;
    for (int module = 0; module < MODULES; ++module)
        if (moduleEnable[static_cast<std::size_t>(module)] != MODULE_OFF)
            groups.push_back({module, moduleChips[static_cast<std::size_t>(module)]});
    return groups;
}

int Mpx2Dev::switchModule(int module)
{
    report.plain(DBG, str::format("\nSwitch module (%d)\n", module).c_str());
    unsigned mask = 0;
    if (module >= 0 && module < MODULES)
        mask = 1U << module;
    for (int m = 0; m < MODULES; ++m)
        if (module == ALL_MODULES || (module == ENABLED_MODULES && moduleEnable[static_cast<std::size_t>(m)] > 0))
            mask |= 1U << m;
    const int result = link.send(tpx::TpxCmd::Mux, CmdArgs::low(static_cast<unsigned char>(mask)));
    return result != 0 ? logError(result, "Cannot switch to module #%d (%s)", module, link.lastError()) : 0;
}

int Mpx2Dev::detectModules()
{
    logFunction("Detect modules");
    std::array<unsigned char, 16> pattern{};
    // Only the second reading counts: the first may begin in the middle of a clock.
    for (int reading = 0; reading < 2; ++reading) {
        changePins(
            {{&TpxPins::M0, 1}, {&TpxPins::M1, 0}, {&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}, {&TpxPins::RST, 0}});
        sleepThread(PATTERN_RESET_PAUSE);
        const Link::Exchange whole(link);
        changePins({{&TpxPins::RST, 1}});
        link.send(tpx::TpxCmd::ClockTest, {}, cmdflag::OUTPUT);
        pattern.fill(0);
        unsigned long received = tpx::CLOCK_TEST_SIZE;
        link.receive(pattern.data(), &received, PATTERN_TIMEOUT);
    }
    activeModuleCount = 0;
    std::string text = "Active modules: ";
    for (int module = 0; module < MODULES; ++module) {
        int& enable = moduleEnable[static_cast<std::size_t>(module)];
        const bool on = enable != MODULE_OFF && (enable > 0 || moduleAnswers(module, pattern));
        enable = on ? 1 : MODULE_OFF;
        if (!on)
            continue;
        text += str::fromNum(module) + " ";
        ++activeModuleCount;
    }
    report.line(MSG, "%s", text.c_str());
    changePins({{&TpxPins::RST, 0}});
    changePins({{&TpxPins::RST, 1}, {&TpxPins::OUTEN, 0}});
    return 0;
}

/// Whether a module's data line shows 0, 1, 0, 1 and so on behind the status byte.
bool Mpx2Dev::moduleAnswers(int module, const std::array<unsigned char, 16>& pattern) const
{
    for (std::size_t i = 0; i + 1 < tpx::CLOCK_TEST_SIZE; ++i)
        if ((pattern[i + 1] >> module & 1U) != (i & 1U))
            return false;
    return true;
}

int Mpx2Dev::getChipCount()
{
    logFunction("Get Chip Count");
    changePins({{&TpxPins::M0, 1}, {&TpxPins::M1, 0}, {&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}, {&TpxPins::RST, 0}});
    changePins({{&TpxPins::RST, 1}});
    chipCount_ = 0;
    moduleChips.fill(0);
    for (int module = 0; module < MODULES; ++module) {
        const auto index = static_cast<std::size_t>(module);
        if (moduleEnable[index] <= 0)
            continue;
        int chips = 0;
        if (const int result = countModuleChips(module, &chips); result != 0)
            return result;
        report.line(MSG, "Module %d chip count: %d", module, chips);
        moduleChips[index] = chips;
        chipCount_ += chips;
        // The module still counts as active, and with it in the sizes of a parallel read: those come out too small for
        // a device that has lost a whole module, until that is switched off in the settings.
        if (chips == 0)
            moduleEnable[index] = MODULE_OFF;
        changePins({{&TpxPins::RST, 0}});
        changePins({{&TpxPins::RST, 1}, {&TpxPins::OUTEN, 0}});
    }
    return 0;
}

/// A block of ones goes through the chain of chips, a block of zeros behind it: each chip holds a byte back, so as many
/// ones come out among the zeros as there are chips.
int Mpx2Dev::countModuleChips(int module, int* chips)
{
    if (const int result = switchModule(module); result != 0)
        return result;
    std::array<unsigned char, CHAIN_TEST_SIZE> block;
    const Link::Exchange whole(link);
    devLog->setLogBufferContent(false);
    block.fill(0xFF);
    link.sendPayload(tpx::TpxCmd::Data, block.data(), block.size(), cmdflag::EXCHANGE);
    changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 1}});
    block.fill(0);
    link.sendPayload(tpx::TpxCmd::Data, block.data(), block.size(), cmdflag::EXCHANGE);
    devLog->setLogBufferContent(true);
    unsigned long received = block.size();
    if (const int result = link.receive(block.data(), &received, CHIP_COUNT_TIMEOUT); result != 0)
        return logError(result, "Cannot not set DAC stream (%s)", link.lastError());
    const auto count = std::count(block.begin() + 1, block.end(), static_cast<unsigned char>(0xFF));
    *chips = count > MAX_CHAIN ? 0 : static_cast<int>(count);
    return 0;
}

int Mpx2Dev::readChipInfo()
{
    // Behind the module's lead byte.
    return AMpx2Dev::readChipInfo(1);
}

int Mpx2Dev::recoverDevice()
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Recover device");
    if (!reconnect())
        return logError(-1, "Could not recover device");
    setPins(TpxPins());
    setPower(false);
    setPower(true);
    sleepThread(RECOVERY_POWER_PAUSE);
    if (recoveryCut())
        return logError(-1, "Could not recover device");
    resetMedipix();
    setBias(biasValue);
    double clock = timepixClock;
    setTimepixClock(&clock);
    int result = setMpx2Dacs(dacsBackup.data(), dacsBackup.size(), 0, 0, 0, 0, 0);
    result += writeMatrix(matrixBackup.data(), matrixBackup.size(), false);
    if (loadFlag(acquiring))
        configureSeries(acqTime);
    return result != 0 ? logError(-2, "Could not recover device") : 0;
}

} // namespace HwLatixel
