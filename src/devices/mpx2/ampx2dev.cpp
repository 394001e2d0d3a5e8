// Life, records and bring-up of Medipix2 and Timepix devices, as far as both kinds of board have them in common.
#include "devices/mpx2/ampx2dev.h"

#include "chipdata/mpx2dacs.h"
#include "chipdata/mpx2matrix.h"
#include "devices/common/devicename.h"
#include "shared/str.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double POWER_PAUSE = 1.0;   ///< seconds that the chips need after power comes
constexpr double RESET_PAUSE = 0.1;   ///< seconds that the board needs after a step through bit-bang
constexpr double RESET_TIMEOUT = 0.1; ///< seconds of silence after which the link counts as empty
constexpr double RESET_LIMIT = 1.0;   ///< seconds of draining in one pass
constexpr int RESET_PASSES = 2;
constexpr unsigned long RESET_CHUNK = 100000; ///< bytes

constexpr double DEFAULT_TIMEPIX_CLOCK = 10.0; ///< MHz
constexpr double ID_TIMEOUT = 1.0;             ///< seconds for what comes out of a DAC chain

constexpr std::size_t STREAM_SPARE_BYTES = 100;
constexpr const char* UNREADABLE_ID = "000-W0000"; ///< of a chip whose fuses tell nothing

constexpr double CLOSE_LIMIT = 2.3;         ///< seconds that closing waits for a series and for operations
constexpr double POWER_DOWN_LIMIT = 0.4;    ///< seconds for closing's own commands
constexpr double CLOSING_SILENCE = 0.05;    ///< seconds of silence after which the link counts as empty
constexpr double CLOSING_DRAIN_LIMIT = 0.2; ///< seconds

constexpr dv::_DevInfo DEV_INFO{"Latixel", 8, 2, 1, 1};
constexpr dv::_DevMpxInfo MPX_INFO{MPX2_CHIP_PIXELS, 1, 2, 0.0, 100.0, 4e-08, 86400.0, 0, 0, 0, {1}};

/// The DACs of a Timepix chip while its identifier is read.
constexpr unsigned short DEF_DACS[MPX2_TPX_DAC_COUNT] = {20,  255, 255, 255, 255, 255, 300,
                                                         255, 255, 255, 255, 255, 255, 255};

} // namespace

AMpx2Dev::AMpx2Dev(const Mpx2BoardKind& boardKind, std::string name, IDorvet* host, std::string logFolder,
                   std::string settings, const std::string& biasType)
    : kind(boardKind),
      biasParams(biasType, false),
      devInfoRec(DEV_INFO),
      devMpxInfoRec(MPX_INFO),
      dorvet(host),
      devParams(host->createParamMgr()),
      inDeviceParams(host->createParamMgr()),
      deviceNameText(std::move(name)),
      logDir(std::move(logFolder)),
      settingsFile(std::move(settings)),
      serialText(serialFromDeviceName(deviceNameText))
{
    devInfoRec.serialNumber = str::toNumDef<int>(serialText, DEV_INFO.serialNumber);
    devMpxInfoRec.acqModeMask = kind.acqModeMask;
    report.setTurn(&linkTurn, &life);
}

AMpx2Dev::~AMpx2Dev()
{
    // The parameters call flash and device, so they go first.
    devParams->destroy();
    inDeviceParams->destroy();
}

/// For the destructor of a concrete class: the series runs operations of that class.
void AMpx2Dev::shutDown()
{
    AMpx2Dev::closeDevice();
    events.dispatcher().stopThreadAndWait();
}

void AMpx2Dev::beginClosing()
{
    const bool begun = loadFlag(closing);
    if (!begun)
        closingSince = getPreciseTime();
    storeFlag(closing, true);
    storeFlag(halfStopped, true);
    linkTurn.beginClosing();
    const bool running = life.stop();
    closedInSeries = running || (begun && closedInSeries);
    linkTurn.endWholeSeries();
    link.startClosing();
}

void AMpx2Dev::cancelClosing()
{
    link.cancelClosing();
    storeFlag(closing, false);
    linkTurn.endClosing();
}

int AMpx2Dev::closeDevice()
{
    if (life.caller() == SeriesLife::Caller::Handler)
        return logError(1, "The device cannot be closed from its own callback.");
    beginClosing();
    const double deadline = closingSince + CLOSE_LIMIT;
    const bool alone = life.awaitThreads(deadline - getPreciseTime());
    DeviceTurn turn(linkTurn, report, alone ? deadline - getPreciseTime() : 0.0);
    const bool free = alone && turn.taken();
    if (free)
        giveBoardUp(closedInSeries || loadFlag(exposing));
    else
        link.cancelClosing();
    storeFlag(closing, false);
    turn.release();
    linkTurn.endClosing();
    if (free)
        return 0;
    if (closedInSeries)
        stopBoard();
    return logError(1, alone ? "Device is busy" : "The device cannot be closed: a callback of the host does not end.");
}

/// Closing's own commands, and the end of link and log. The caller has the turn.
void AMpx2Dev::giveBoardUp(bool stopFirst)
{
    link.runClosingCalls(POWER_DOWN_LIMIT, [&] {
        if (stopFirst) {
            stopBoard();
            link.drain(CLOSING_SILENCE, CLOSING_DRAIN_LIMIT);
        }
        setPower(false);
    });
    // The parameters still call the flash.
    if (ibFlash != nullptr)
        ibFlash->attach(nullptr);
    ibCpu.reset();
    link.drop();
    report.attachLog(nullptr);
    devLog.reset();
    storeFlag(noChip, true);
    storeFlag(connected, false);
    storeFlag(exposing, false);
    storeFlag(boardMute, false);
}

void AMpx2Dev::destroy()
{
    if (life.caller() == SeriesLife::Caller::Handler) {
        logError(1, "The device cannot be destroyed from its own callback.");
        return;
    }
    closeDevice();
    // From here on the host may take down whatever its callbacks use.
    events.setFunc(nullptr, nullptr);
    report.setLogMsgFunc(nullptr, nullptr);
    if (life.abandon())
        delete this;
}

int AMpx2Dev::devInfo(dv::_DevInfo* info) const
{
    if (info == nullptr)
        return refuseNull();
    *info = devInfoRec;
    return 0;
}

int AMpx2Dev::devMpxInfo(dv::_DevMpxInfo* info) const
{
    if (info == nullptr)
        return refuseNull();
    *info = devMpxInfoRec;
    return 0;
}

int AMpx2Dev::devMpx2Info(dv::_DevMpx2Info* info) const
{
    if (info == nullptr)
        return refuseNull();
    *info = {};
    return 0;
}

int AMpx2Dev::chipIDList(dv::IStrList* list) const
{
    if (list == nullptr)
        return refuseNull();
    for (const auto& id : chipIds)
        list->add(id.c_str());
    return 0;
}

int AMpx2Dev::setEventFunc(dv::EventFunc func, void* user)
{
    events.setFunc(func, user);
    return 0;
}

int AMpx2Dev::setLogMsgFunc(dv::LogMsgFunc func, void* user)
{
    report.setLogMsgFunc(func, user);
    return 0;
}

int AMpx2Dev::logError(int code, const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    report.errorV(code, format, args);
    va_end(args);
    return code;
}

/// Opens log, settings and link. Returns the link's result.
int AMpx2Dev::openBoard()
{
    // Also without a link, where a series may be failing that was started all the same.
    if (const int result = closeDevice(); result != 0)
        return result;
    // A series that ended by a failed recovery has left it.
    storeFlag(busy, false);
    needsRecovery = false;
    timepix = true;
    chipIds.clear();
    const std::string logPath = logDir + "/latixel_" + asFileName(serialText) + ".log";
    const std::string settingsPath = std::string(dorvet->configDirectory()) + "/latixel.ini";
    // The settings come behind the log, so that "LogRotate" counts from the second bring-up of an object on.
    devLog = std::make_unique<FileLog>(logPath, true, false, logRotate, true);
    devLog->setLogLevel(DBG);
    report.attachLog(devLog.get());
    loadSettings(settingsPath.c_str());
    return link.open(deviceNameText, devLog);
}

/// Everything that the board tells before its chips have power.
void AMpx2Dev::identifyBoard()
{
    link.usb()->setBitMode(FtdiBitModeFifo);
    resetDevice();
    link.usb()->clearBuffers();
    getFirmwareVersion(firmwareText, nullptr);
    report.line(MSG, "%s", firmwareText.c_str());
    checkFirmwareVersion();
    initParameters();
    readFlashParameters();
    initCpu();
}

int AMpx2Dev::resetDevice()
{
    if (!link.exists())
        return 0;
    std::vector<char> scratch(RESET_CHUNK);
    for (int pass = 0; pass < RESET_PASSES && !loadFlag(closing); ++pass) {
        link.usb()->setBitMode(FtdiBitModeBitBang);
        link.usb()->setBitMode(FtdiBitModeFifo);
        sleepThread(RESET_PAUSE);
        const double start = getPreciseTime();
        int received = 0;
        do
            received = link.usb()->receive(scratch.data(), scratch.size(), scratch.size(), RESET_TIMEOUT, true);
        while (received > 0 && getPreciseTime() - start < RESET_LIMIT);
        if (received <= 0)
            return 0;
    }
    return 0;
}

void AMpx2Dev::powerCycle()
{
    setPower(false);
    setPower(true);
    sleepThread(POWER_PAUSE);
}

void AMpx2Dev::setChipCount(int count)
{
    chipCount_ = count;
    devMpxInfoRec.chipTotal = static_cast<unsigned>(count);
    devMpxInfoRec.pixelTotal = devMpxInfoRec.chipTotal * MPX2_CHIP_PIXELS;
}

/// Reads the identifiers, which come out of the DAC chains while a first set of DACs goes in. `streamOffset` is where
/// the first group's record begins in what came out.
int AMpx2Dev::readChipInfo(std::size_t streamOffset)
{
    chipIds.clear();
    const auto chips = static_cast<std::size_t>(chipCount_);
    std::vector<unsigned short> dacs;
    for (std::size_t chip = 0; chip < chips; ++chip)
        dacs.insert(dacs.end(), std::begin(DEF_DACS), std::end(DEF_DACS));
    std::vector<char> stream(chips * MPX2_DAC_STREAM_SIZE + 1);
    if (const int result = setDACs(dacs.data(), dacs.size(), stream.data(), 0, 0, 0, 0, 0, ID_TIMEOUT, true);
        result != 0)
        return result;
    std::size_t done = 0;
    bool known = false;
    for (const auto& group : chipGroups()) {
        if (group.chips == 0)
            continue;
        const auto* records =
            reinterpret_cast<const unsigned char*>(stream.data()) + done * MPX2_DAC_STREAM_SIZE + streamOffset;
        bool groupTimepix = false;
        getChipIDsFromDACStreamMpx2(records, static_cast<unsigned>(group.chips), &groupTimepix, chipIds);
        // A line without a chip behind it keeps its level and says nothing of the chips' kind; nor does a chip without
        // an identifier.
        const std::span<const unsigned char> told(records,
                                                  static_cast<std::size_t>(group.chips) * MPX2_DAC_STREAM_SIZE);
        const bool alive = std::ranges::any_of(told, [&](unsigned char byte) { return byte != told[0]; });
        const bool readable = std::any_of(chipIds.end() - group.chips, chipIds.end(),
                                          [](const std::string& id) { return id != UNREADABLE_ID; });
        if (alive && readable) {
            timepix = groupTimepix;
            known = true;
        }
        done += static_cast<std::size_t>(group.chips);
    }
    if (!known)
        timepix = false;
    return 0;
}

/// Whether each chip has told an identifier. Otherwise the device goes on without chips, but keeps their number in its
/// record.
bool AMpx2Dev::chipIdsMatch()
{
    if (chipIds.size() == static_cast<std::size_t>(chipCount_))
        return true;
    resetDevice();
    logError(-1, "Invalid Chip IDs count (%u = %u)", static_cast<unsigned>(chipIds.size()),
             static_cast<unsigned>(chipCount_));
    chipCount_ = 0;
    chipIds.clear();
    return false;
}

/// The last steps of a bring-up.
void AMpx2Dev::completeBringUp()
{
    storeFlag(connected, true);
    if (chipCount_ > 0) {
        storeFlag(noChip, false);
        double clock = DEFAULT_TIMEPIX_CLOCK;
        setTimepixClock(&clock);
    }
    buffers.resize(static_cast<std::size_t>(chipCount_) * MPX2_STREAM_STRIDE + STREAM_SPARE_BYTES);
}

} // namespace HwLatixel
