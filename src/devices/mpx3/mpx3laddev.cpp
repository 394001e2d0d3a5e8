// Several Medipix3 boards as one detector: bring-up, broadcasts, series of all members.
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
constexpr std::size_t PIXEL_CFG_BYTES = 2 * LAD_CHIP_PIXELS; ///< of a chip

constexpr double SMALLEST_BIAS_AT_FIRST = 1000.0; ///< volts

constexpr double MEMBER_END_LIMIT = 5.0; ///< seconds for what a member does behind its last frame
constexpr unsigned READ_POLL_MS = 100;   ///< between two looks at the stop flag
constexpr double LONG_FRAME = 0.5;       ///< seconds, from which the members are looked at less often
constexpr unsigned LONG_POLL_MS = 100;
constexpr unsigned SHORT_POLL_MS = 10;

// Trigger settings of the followers, which the level of the master's output holds.
constexpr unsigned char FOLLOW_HIGH = 1;
constexpr unsigned char FOLLOW_LOW = 0;

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
}

Mpx3LadDev::~Mpx3LadDev()
{
    Mpx3LadDev::closeDevice();
    shutDown();
}

int Mpx3LadDev::initDevice()
{
    logFunction("Init Device");
    loadSettings();
    if (!members.empty() || life.state() != SeriesLife::State::Idle)
        if (const int closed = closeDevice(); closed != 0)
            return closed;
    devEventInfos.clear();
    smallestBias = SMALLEST_BIAS_AT_FIRST;
    largestBias = 0.0;
    const int result = bringUpMembers();
    publishMembers();
    devMpxInfoRec.biasMin = smallestBias;
    devMpxInfoRec.biasMax = largestBias;
    matrix.reinit(pixelCount());
    matrix.setVal(0);
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
    // Nobody takes the members' frames any more.
    storeFlag(membersDismissed, true);
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
    *info = MPX3_INFO;
    return 0;
}

// ---- Configuration ----

int Mpx3LadDev::resetMedipix()
{
    logFunction("Reset Medipix");
    forAll([](Mpx3Dev& member) { member.resetMedipix(); });
    return 0;
}

int Mpx3LadDev::eraseMatrix()
{
    logFunction("Erase Medipix");
    return untilFailure([](Mpx3Dev& member) { return member.eraseMatrix(); });
}

int Mpx3LadDev::setAcqMode(unsigned mode)
{
    acqMode = mode;
    return 0;
}

int Mpx3LadDev::setBias(double volts)
{
    logFunction("Set Bias");
    report.line(DBG, "Set Bias: %f", volts);
    return untilFailure([volts](Mpx3Dev& member) { return member.setBias(volts); });
}

int Mpx3LadDev::biasVoltageCurrentSense(double* volts, double* amperes) const
{
    if (volts == nullptr && amperes == nullptr)
        return 0;
    if (!loadFlag(inAcquisition) && !members.empty()) {
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
    if (size == 0)
        size = static_cast<std::size_t>(members.chipCount()) * DACS_PER_CHIP;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    if (chip < 0)
        return untilFailure([&](Mpx3Dev& member, std::size_t i) {
            const auto slice = memberSlice(dacs, size, i, DACS_PER_CHIP);
            return member.loadDacs(slice.data, slice.size, -1);
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
}

int Mpx3LadDev::setPixelCfg(const unsigned char* data, std::size_t size)
{
    logFunction("Set Pixel Cfg");
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return untilFailure([&](Mpx3Dev& member, std::size_t i) {
        const auto slice = memberSlice(data, size, i, PIXEL_CFG_BYTES);
        return member.setPixelCfg(slice.data, slice.size);
    });
}

int Mpx3LadDev::setConfig(dv::_Mpx3Config config)
{
    return untilFailure([config](Mpx3Dev& member) { return member.setConfig(config); });
}

int Mpx3LadDev::sendTestPulses(unsigned count, double period, const unsigned char* ctpr)
{
    return untilFailure([&](Mpx3Dev& member) { return member.sendTestPulses(count, period, ctpr); });
}

int Mpx3LadDev::senseDac(unsigned chip, unsigned dac)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    const auto* found = members.findChip(chip);
    return found != nullptr ? found->member->senseDac(static_cast<unsigned>(found->index), dac)
                            : logError(1, "Invalid chip index: %u", chip);
}

// ---- Matrices ----

int Mpx3LadDev::writeMatrix(const unsigned* data, std::size_t size, bool convert)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Write matrix");
    if (checkMatrixSize(size) != 0)
        return 1;
    return untilFailure([&](Mpx3Dev& member, std::size_t i) {
        const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
        return member.writeMatrix(slice.data, slice.size, convert);
    });
}

void Mpx3LadDev::setMatrixRead()
{
    for (const auto& info : devEventInfos)
        info->readAllowed.set();
}

int Mpx3LadDev::readMatrix(unsigned* data, std::size_t size, bool convert)
{
    const bool running = loadFlag(inAcquisition);
    if (!running)
        logFunction("Read matrix");
    if (size < pixelCount()) {
        setMatrixRead();
        return checkMatrixSize(size);
    }
    if (!running) {
        const int result = untilFailure([&](Mpx3Dev& member, std::size_t i) {
            const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
            return member.readMatrix(slice.data, slice.size, convert);
        });
        if (result != 0)
            return result;
    } else {
        for (const auto& info : devEventInfos) {
            ThreadLock lock(&info->sliceSync);
            const auto from = memberSlice(matrix.data(), matrix.size(), info->index, LAD_CHIP_PIXELS);
            std::copy_n(from.data, from.size, memberSlice(data, size, info->index, LAD_CHIP_PIXELS).data);
        }
    }
    setMatrixRead();
    return 0;
}

dv::IMpxFrame* Mpx3LadDev::lastData()
{
    return filledFrame(*dorvet, members.chipCount(), DTYPE_U32, [this](dv::IMpxFrame& frame) {
        return readMatrix(static_cast<unsigned*>(frame.dataPointer(0.0)), frame.pixelCount(), true);
    });
}

// ---- Series ----

int Mpx3LadDev::startAcquisition(unsigned count, double time)
{
    logFunction("Start acquisition");
    if (beginSeries(count, time) != 0)
        return 1;
    endSeriesBefore();
    const int prepared = prepareAcq();
    if (prepared == 0) {
        ThreadLock lock(&startSync);
        startedSeries.push_back(seriesNumber);
    }
    return runSeries(prepared);
}

/// The host may start right behind a stop, or behind the end of a series whose last frame nobody has taken. The
/// members' threads of that series would take frames of the new one, and their events its permissions to read.
void Mpx3LadDev::endSeriesBefore()
{
    ++seriesNumber;
    storeFlag(membersDismissed, true);
    forAll([](Mpx3Dev& member) { member.awaitSeriesEnd(); });
    storeFlag(membersDismissed, false);
}

int Mpx3LadDev::prepareAcq()
{
    logFunction("Prepare acq");
    const bool synced = paramBool(params, "Synced");
    const int result = untilFailure([&](Mpx3Dev& member, std::size_t i) {
        member.setAcqMode(synced ? unsigned{dv::ACQMODE_EXT_TRIGGER_START} : acqMode.load());
        configureTriggers(member, i == 0);
        return member.prepareAcquisition(acqCount, acqTime, false);
    });
    if (result != 0)
        forAll([](Mpx3Dev& member) { member.giveUpPreparation(); });
    return result;
}

/// The master takes the composite's trigger; the others are held by the level of the master's output.
void Mpx3LadDev::configureTriggers(Mpx3Dev& member, bool master) const
{
    dv::IParamMgr& own = *member.parameters();
    const unsigned char outLevel = paramByte(params, "TriggerOutLevel");
    const unsigned char follower = outLevel != 0 ? FOLLOW_HIGH : FOLLOW_LOW;
    own.get("TriggerWaitForReady")->setBool(true);
    own.get("TriggerMaster")->setBool(master);
    own.get("TriggerOutLevel")->setByte(outLevel);
    own.get("TdiRowCount")->setInt32(paramInt32(params, "TdiRowCount"));
    own.get("TriggerTdiSeries")->setBool(paramBool(params, "TriggerTdiSeries"));
    own.get("TriggerStg")->setByte(master ? paramByte(params, "TriggerStg") : follower);
}

int Mpx3LadDev::stopAcquisition()
{
    logFunction("Stop acquisition");
    life.stop();
    forAll([](Mpx3Dev& member) { member.stopAcquisition(); });
    return 0;
}

void Mpx3LadDev::acqFunc()
{
    setCurrentThreadName("mpx3ladacq");
    // One series at a time: one that the host has begun anew meanwhile ends first.
    ThreadLock lock(&seriesSync);
    const unsigned own = takeStartedSeries();
    logFunction("Acquisition");
    setBusy(true);
    storeFlag(inAcquisition, true);
    events.dispatcher().startThread();
    if (seriesNumber == own)
        startMembers();
    for (unsigned i = 0; i < acqCount && seriesNumber == own; ++i) {
        logFunction("Acquisition");
        report.line(DBG, "Acq: Waiting for acq finish %u/%u", i, acqCount.load());
        if (!waitForMembers(i, own)) {
            // Their events wait for nothing any more: a member that is held by its event can't be stopped.
            storeFlag(membersDismissed, true);
            abortAcqAllDevs();
            events.send(HWEVENT_ACQ_FAILED, static_cast<long>(i), false);
            break;
        }
        report.line(DBG, "Acq: Single acq finished %d", static_cast<int>(i));
        // A stop still delivers the frame that was in progress, and before the worker is sent away.
        const bool over = isOver(own);
        events.send(HWEVENT_FRAME_READY, static_cast<long>(i), !over && i + 1 < acqCount);
        if (over)
            break;
    }
    report.line(DBG, "Acq: All acq finished.");
    // The host may use the boards from the last event on. One that does not fall silent is not waited for any longer.
    forAll([](const Mpx3Dev& member) { member.awaitIdle(MEMBER_END_LIMIT); });
    events.dispatcher().stopThread();
    setBusy(false);
    storeFlag(inAcquisition, false);
    life.framesOver();
    endSeries(isOver(own) ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
    report.line(DBG, "Acq: Thread finished.");
}

unsigned Mpx3LadDev::takeStartedSeries()
{
    ThreadLock lock(&startSync);
    const unsigned number = startedSeries.front();
    startedSeries.pop_front();
    return number;
}

void Mpx3LadDev::startMembers()
{
    for (const auto& info : devEventInfos) {
        info->result = 0;
        info->acqFinished.reset();
        info->readAllowed.set();
    }
    // The trigger master stands first.
    forAll([](Mpx3Dev& member) { member.startAcquisitionFromLad(); });
    report.line(DBG, "Acquisitions started.");
}

/// Whether the host has stopped the series, or begun another one.
bool Mpx3LadDev::isOver(unsigned number) const
{
    return life.stopped() || seriesNumber != number;
}

/// Waits until each member has ended its frame, or for a stop. False where one has failed.
bool Mpx3LadDev::waitForMembers(unsigned frame, unsigned number)
{
    const unsigned poll = acqTime >= LONG_FRAME ? LONG_POLL_MS : SHORT_POLL_MS;
    bool ok = true;
    for (const auto& info : devEventInfos) {
        while (!info->acqFinished.wait(poll) && !isOver(number)) {
        }
        report.line(DBG, "Acq[%d]: Acq %d finished with result %d", static_cast<int>(info->index),
                    static_cast<int>(frame), info->result.load());
        ok = ok && info->result != HWEVENT_ACQ_FAILED;
    }
    return ok;
}

// ---- Events of the members ----

void Mpx3LadDev::devEventFuncWrapper(unsigned event, long data, void* user)
{
    auto* info = static_cast<DevEventInfo*>(user);
    info->lad->devEventFunc(*info, event, data);
}

void Mpx3LadDev::devEventFunc(DevEventInfo& info, unsigned event, long data)
{
    const int index = static_cast<int>(info.index);
    report.line(DBG, "DevAcqEvent[%d]: type=%d, data=%d", index, static_cast<int>(event), static_cast<int>(data));
    if (event == HWEVENT_BUSY_CHANGED)
        return;
    report.line(DBG, "DevAcqEvent[%d]: before read", index);
    const bool allowed = waitForReadAllowed(info);
    report.line(DBG, "DevAcqEvent[%d]: after read", index);
    if (!allowed) {
        // Nobody takes this frame any more. A TDI series holds the member until somebody does.
        members[info.index].releaseFrame();
        return;
    }
    info.result = static_cast<int>(event);
    if (event == HWEVENT_FRAME_READY) {
        readMatrixFromDevice(info);
        info.acqFinished.set();
        report.line(DBG, "DevAcqEvent[%d]: Acq event single finished.", index);
    } else if (event == HWEVENT_ACQ_FAILED || event == HWEVENT_ACQ_ABORTED) {
        info.acqFinished.set();
        report.line(DBG, "DevAcqEvent[%d]: Acq event failed/aborted.", index);
    }
    // Any other event has used the permission up as well, so that a finished member waits for the last frame's reader.
}

/// Waits until the member may read into its slice. False after a stop, a failed frame, and the start of another series.
bool Mpx3LadDev::waitForReadAllowed(DevEventInfo& info) const
{
    const auto given = [this] { return !life.stopped() && !loadFlag(membersDismissed); };
    while (given()) {
        if (info.readAllowed.wait(READ_POLL_MS))
            return given();
    }
    return false;
}

/// A member's read that fails leaves the frame before in its slice; the frame counts as delivered.
void Mpx3LadDev::readMatrixFromDevice(DevEventInfo& info)
{
    report.line(DBG, "Read Matrix From Device [%d]", static_cast<int>(info.index));
    Mpx3Dev& member = members[info.index];
    ThreadLock lock(&info.sliceSync);
    const auto slice = memberSlice(matrix.data(), matrix.size(), info.index, LAD_CHIP_PIXELS);
    if (member.readMatrix(slice.data, slice.size, true) == 0)
        return;
    memberFailed(info.index, member.lastError());
    recoverDevice(member.deviceName());
}

/// This composite has no reconnection, although the text says so.
int Mpx3LadDev::recoverDevice(const char* name) const
{
    logError(1, "Reconnecting device %s ...", name);
    return -1;
}

} // namespace HwLatixel
