// Construction, bring-up and recovery of a row board, and the search for its chips.
#include "devices/row/mpx2devrow.h"

#include "chipdata/mpx2dacs.h"
#include "link/tpxcmds.h"
#include "shared/fileops.h"
#include "shared/inifile.h"
#include "shared/str.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double PATTERN_TIMEOUT = 1.0; ///< seconds
constexpr double RESTORE_PAUSE = 0.1;   ///< seconds

/// Goes past the chips at once. Each byte comes back seven times, once for each channel, behind seven other bytes.
constexpr std::array<unsigned char, 5> PATTERN = {0xAA, 0xFF, 0x55, 0xAA, 0xFF};
constexpr std::size_t COMPARED_BYTES = PATTERN.size() - 1;
constexpr unsigned char ALL_LINES = 0xFF;
constexpr int FIRST_SHARED_CHANNEL = 5; ///< from here on the multiplexer does not select a channel alone

constexpr const char* FIRMWARES[] = {"Firmware 1.1 TRA", "Firmware 1.2 TRA"};

constexpr ParamRow SENSOR_PARAMS[] = {
    {"Temperature", "Temperature (deg. C)", ParamKind::Double, 0, dv::PARAM_READ_ONLY, true},
};
constexpr ParamRow LAST_PARAMS[] = {
    {"TdiRowCount", "Number of rows to read in TDI mode (1 is default)", ParamKind::Int32, 1, dv::PARAM_CONFIG, false},
};

constexpr Mpx2BoardKind BOARD_KIND{
    .firmwares = FIRMWARES,
    .correctFirmware = "Firmware 1.2 TRA (11.10.2016)",
    .firmwareTries = 1,
    .acqModeMask =
        dv::ACQMODE_EXT_TRIGGER_START | dv::ACQMODE_EXT_TRIGGER_STOP | dv::ACQMODE_SOFT_TRIGGER | dv::ACQMODE_TDI,
    .ticksPerSecond = tpx::ROW_SHUTTER_TICKS_PER_SECOND,
    .biasHandBack = ibspi::BiasHandBack::Last,
    .adcClose = ibspi::AdcClose::HandBackBeforeRead,
    .adcReadCounts = true,
    .quietServices = false,
    .collectsCutFrame = false,
    .tellsRecoveredRead = false,
    .sensorParams = SENSOR_PARAMS,
    .lastParams = LAST_PARAMS,
};

} // namespace

Mpx2DevRow::Mpx2DevRow(std::string name, IDorvet* host, std::string logFolder, std::string settings,
                       std::string biasType)
    : AMpx2Dev(BOARD_KIND, std::move(name), host, std::move(logFolder), std::move(settings), biasType),
      biasTypeText(std::move(biasType))
{
}

Mpx2DevRow::~Mpx2DevRow()
{
    shutDown();
}

int Mpx2DevRow::initDevice()
{
    if (const int result = openBoard(); result != 0)
        return result;
    logFunction("Init Device");
    storeFlag(overheated, false);
    const Link::BringUp watched(link, boardMute);
    const SeriesLife::Callback hostsCode(life); // which the bring-up calls, and which must not close the device
    identifyBoard();
    powerCycle();
    findChips();
    devMpxInfoRec.biasMin = biasParams.minBias();
    devMpxInfoRec.biasMax = biasParams.maxBias();
    completeBringUp();
    // Unlike on other boards the log stays at DBG, whatever the settings say.
    report.plain(ERR, "\n\n\n\n");
    return 0;
}

/// A board without chips goes through all of this too, but for the identifiers.
void Mpx2DevRow::findChips()
{
    getChipCount();
    report.line(MSG, "ChipCount is: %d", chipCount_);
    setChipCount(chipCount_);
    if (chipCount_ < 1)
        logError(-1, "No chip connected");
    const auto chips = static_cast<std::size_t>(chipCount_);
    pixelCfgBackup.reinit(chips * MPX2_CHIP_PIXELS);
    pixelCfgBackup.setVal(0);
    dacsBackup.reinit(chips * MPX2_TPX_DAC_COUNT);
    dacsBackup.setVal(0);
    resetMedipix();
    chipIds.clear();
    if (chipCount_ > 0)
        readChipInfo();
    if (chipIdsMatch())
        logChipIds();
}

void Mpx2DevRow::logChipIds() const
{
    std::size_t index = 0;
    for (const auto& group : chipGroups()) {
        if (index >= chipIds.size())
            return;
        report.line(MSG, "Channel %u, ChipID %d is: %s", static_cast<unsigned>(group.number), static_cast<int>(index),
                    chipIds[index].c_str());
        ++index;
    }
}

void Mpx2DevRow::loadSettings(const char* path)
{
    if (!fileExists(path)) {
        logError(0, "The settings file %s does not exists !", path);
        return;
    }
    IniFile ini(path, "=");
    ini.load(nullptr);
    debugLog = ini.getBool("Settings", "DebugLog", debugLog);
    logRotate = ini.getBool("Settings", "LogRotate", logRotate);
}

std::unique_ptr<IBCpuMgr<CmdMgr>> Mpx2DevRow::makeCpu()
{
    return std::make_unique<IBCpuMgrTpxRow>(link.manager());
}

std::vector<AMpx2Dev::ChipGroup> Mpx2DevRow::chipGroups() const
{
    std::vector<ChipGroup> groups;
    for (int channel = 0; channel < CHANNELS; ++channel)
        if (channelEnabled[static_cast<std::size_t>(channel)] > 0)
            groups.push_back({channel, 1});
    return groups;
}

int Mpx2DevRow::switchChannel(int channel)
{
    report.plain(DBG, str::format("\nSwitch channel (%d)\n", channel).c_str());
    unsigned mask = 0;
    if (channel >= 0 && channel < FIRST_SHARED_CHANNEL)
        mask = 1U << channel;
    if (channel == ENABLED_CHANNELS)
        for (const auto& group : chipGroups())
            mask |= 1U << group.number;
    const int result = link.send(tpx::TpxCmd::Mux, CmdArgs::low(static_cast<unsigned char>(mask)));
    return result != 0 ? logError(result, "Cannot switch to channel #%d (%s)", channel, link.lastError()) : 0;
}

void Mpx2DevRow::exchangePattern(std::span<unsigned char> reply)
{
    const Link::Exchange whole(link);
    changePins({{&TpxPins::RST, 1}, {&TpxPins::OUTEN, 1}, {&TpxPins::ENIN, 1}});
    link.send(tpx::TpxCmd::Mux, CmdArgs::low(ALL_LINES), cmdflag::OUTPUT);
    link.sendPayload(tpx::TpxCmd::Data, PATTERN.data(), PATTERN.size(), cmdflag::EXCHANGE);
    unsigned long received = reply.size();
    link.receive(reply.data(), &received, PATTERN_TIMEOUT);
}

int Mpx2DevRow::getChipCount()
{
    logFunction("Get Chip Count");
    chipCount_ = 0;
    std::array<unsigned char, PATTERN.size() * CHANNELS> reply{};
    exchangePattern(reply);
    std::string text;
    for (std::size_t channel = 0; channel < channelEnabled.size(); ++channel) {
        bool answers = true;
        for (std::size_t i = 0; i < COMPARED_BYTES; ++i)
            answers = answers && reply[(i + 1) * CHANNELS + channel] == PATTERN[i];
        channelEnabled[channel] = answers ? 1 : 0;
        if (!answers)
            continue;
        text += str::fromNum(channel) + " ";
        ++chipCount_;
    }
    report.line(MSG, "Active channels: %s", text.c_str());
    return 0;
}

int Mpx2DevRow::recoverDevice()
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Recover device");
    if (!reconnect())
        return logError(-1, "Could not recover device");
    {
        ThreadLock lock(&pinSync);
        pins = TpxRowPins();
    }
    setPower(false);
    setPower(true);
    changePins({{&TpxPins::RST, 0}});
    changePins({{&TpxPins::RST, 1}});
    setBias(biasValue);
    double clock = timepixClock;
    setTimepixClock(&clock);
    if (recoveryCut())
        return logError(-2, "Could not recover device");
    // What is written first behind a power-up does not stay: only the second time counts.
    restoreChips();
    return recoveryCut() || restoreChips() != 0 ? logError(-2, "Could not recover device") : 0;
}

/// Gives the chips what the host has written to them last. 0 if all of it worked.
int Mpx2DevRow::restoreChips()
{
    const int configured = setPixelCfg(pixelCfgBackup.data(), pixelCfgBackup.size());
    const int set = setMpx2Dacs(dacsBackup.data(), dacsBackup.size(), 0, 0, 0, 0, 0);
    sleepThread(RESTORE_PAUSE);
    const int erased = eraseMatrix();
    return configured != 0 || set != 0 || erased != 0 ? -1 : 0;
}

} // namespace HwLatixel
