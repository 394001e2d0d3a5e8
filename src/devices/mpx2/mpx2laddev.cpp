// Several Medipix2 or Timepix boards as one detector: bring-up, broadcasts, frames.
#include "devices/mpx2/mpx2laddev.h"

#include "devices/common/seriesturn.h"
#include "shared/inifile.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr unsigned READER_POLL_MS = 300;
constexpr double THREAD_POLL = 0.001;   ///< seconds
constexpr double STATUS_PATIENCE = 0.1; ///< seconds that a status poll waits for the end of a frame

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
}

Mpx2LadDev::~Mpx2LadDev()
{
    shutDown();
}

int Mpx2LadDev::initDevice()
{
    loadSettings();
    const int result = bringUpMembers();
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

// ---- Status ----

int Mpx2LadDev::deviceStatus() const
{
    const DeviceTurn turn(linkTurn, report, STATUS_PATIENCE);
    if (turn.taken())
        lastStatus = LadDev::deviceStatus();
    return lastStatus;
}

const char* Mpx2LadDev::deviceStatusText() const
{
    const DeviceTurn turn(linkTurn, report, STATUS_PATIENCE);
    return turn.taken() ? LadDev::deviceStatusText() : statusText.get();
}

double Mpx2LadDev::adcValue(unsigned index) const
{
    const DeviceTurn turn = operationTurn();
    return turn.require() != 0 ? 1 : LadDev::adcValue(index);
}

// ---- Configuration ----

int Mpx2LadDev::resetMedipix()
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::resetMedipix();
}

int Mpx2LadDev::eraseMatrix()
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::eraseMatrix();
}

int Mpx2LadDev::setBias(double volts)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::setBias(volts);
}

int Mpx2LadDev::setTimepixClock(double* mhz)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
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
}

int Mpx2LadDev::setMpx2Dacs(const unsigned short* dacs, std::size_t size, int chip, int senseChip, int senseDac,
                            int extDac, unsigned ctpr)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::setMpx2Dacs(dacs, size, chip, senseChip, senseDac, extDac, ctpr);
}

int Mpx2LadDev::setPixelCfg(const unsigned char* cfg, std::size_t size)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::setPixelCfg(cfg, size);
}

// ---- Matrices ----

int Mpx2LadDev::writeMatrix(const unsigned short* data, std::size_t size, bool convert)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    return Mpx2Lad::writeMatrix(data, size, convert);
}

int Mpx2LadDev::readMatrix(unsigned short* data, std::size_t size, bool convert)
{
    if (size < pixelCount()) {
        matrixRead.set();
        return checkMatrixSize(size);
    }
    const bool running = loadFlag(inAcquisition);
    if (running)
        forAll([](Mpx2Dev& member) { member.copyMatrixStreamToSecondBuffer(); });
    // The series may overwrite the members' streams from here on, before the slow decoding starts.
    matrixRead.set();
    return untilFailure([&](Mpx2Dev& member, std::size_t i) {
        if (!running) {
            const DeviceTurn turn = operationTurn();
            if (turn.require() != 0)
                return 1;
            if (const int result = member.readMatrixFromDevice(); result != 0)
                return result;
        }
        const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
        member.getConvertedMatrix(slice.data, slice.size, convert, running);
        return 0;
    });
}

// ---- Series ----

int Mpx2LadDev::startAcquisition(unsigned count, double time)
{
    return beginSeries(count, time) != 0 ? 1 : runSeries(prepareAcq());
}

int Mpx2LadDev::prepareAcq()
{
    return untilFailure([this](Mpx2Dev& member) { return member.prepareAcquisition(acqTime); });
}

void Mpx2LadDev::dismissSeries()
{
    matrixRead.set();
    Mpx2Lad::dismissSeries();
}

void Mpx2LadDev::acqFunc()
{
    setBusy(true);
    storeFlag(inAcquisition, true);
    events.dispatcher().startThread();
    // The first frame waits for no reader.
    matrixRead.set();
    unsigned index = 0;
    while (index < acqCount) {
        const Pass pass = takeFrame();
        if (pass == Pass::Lost) {
            // Nothing is taken back: the composite stays busy and in its series until the next bring-up or series.
            life.framesOver();
            endSeries(HWEVENT_ACQ_FAILED, -1);
            return;
        }
        if (pass == Pass::Stopped)
            break;
        if (pass == Pass::Again)
            continue;
        const bool stopped = life.stopped();
        announceFrame(index, stopped);
        if (stopped)
            break;
        ++index;
    }
    events.dispatcher().stopThread();
    setBusy(false);
    storeFlag(inAcquisition, false);
    life.framesOver();
    endSeries(life.stopped() ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
}

/// One attempt at a frame. A stop lets the frame in progress end, and it is delivered; one that comes before the first
/// shutter has opened ends the series there.
Mpx2LadDev::Pass Mpx2LadDev::takeFrame()
{
    const SeriesTurn turn(linkTurn, report);
    if (!turn.taken() || life.stopped())
        return Pass::Stopped;
    if (const Pass pass = stepAllMembers([](Mpx2Dev& member) { return member.startSingleAcquisition(); });
        pass != Pass::Taken)
        return pass;
    // A member that has been told to stop before it was started exposes all the same.
    if (life.stopped())
        forAll([](Mpx2Dev& member) { member.stopAcquisition(); });
    if (const Pass pass = stepAllMembers([](Mpx2Dev& member) { return member.waitForAcqFinish(false); });
        pass != Pass::Taken)
        return pass;
    // Only the host's read of the frame before ends this; a stop doesn't.
    while (!matrixRead.wait(READER_POLL_MS)) {
    }
    if (readMatrixesFromDevices() != 0) {
        logError(1, "Reading matrix from devices failed, reattempting acq.");
        matrixRead.set();
        return Pass::Again;
    }
    matrixRead.reset();
    return Pass::Taken;
}

/// Runs one step of a frame on all members. A member that fails is recovered, and the frame given up.
template <typename Step>
Mpx2LadDev::Pass Mpx2LadDev::stepAllMembers(Step step)
{
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (step(members[i]) == 0)
            continue;
        memberFailed(i, members[i].lastError());
        if (recoverDevice(members[i]) != 0)
            return Pass::Lost;
        abortAcqAllDevs();
        return Pass::Again;
    }
    return Pass::Taken;
}

/// Hands a frame over: through the dispatcher's worker, so that the next one exposes meanwhile; the last one, behind
/// which the worker is sent away, at once.
void Mpx2LadDev::announceFrame(unsigned index, bool last)
{
    setBusy(false);
    events.send(HWEVENT_FRAME_READY, static_cast<long>(index), !last && index + 1 < acqCount);
    setBusy(true);
}

/// Reads the streams of all members. 0, or the result of the last member that failed; those have been recovered, as far
/// as they could be.
int Mpx2LadDev::readMatrixesFromDevices()
{
    parallelReadout = paramBool(params, "ParallelReadout");
    return parallelReadout ? readInParallel() : readInSequence();
}

int Mpx2LadDev::readInSequence()
{
    int failure = 0;
    for (std::size_t i = 0; i < members.size(); ++i) {
        const int result = members[i].readMatrixFromDevice();
        if (result == 0)
            continue;
        failure = result;
        memberFailed(i, members[i].lastError());
        recoverDevice(members[i]);
    }
    return failure;
}

int Mpx2LadDev::readInParallel()
{
    std::vector<std::unique_ptr<ThreadObject>> reads;
    for (std::size_t i = 0; i < members.size(); ++i) {
        reads.push_back(std::make_unique<ThreadObject>());
        reads.back()->dev = &members[i];
        // Where the system has no thread to give, this one reads.
        if (createThread(readThread, reads.back().get()) == 0)
            readThread(reads.back().get());
    }
    int failure = 0;
    for (std::size_t i = 0; i < reads.size(); ++i) {
        while (!reads[i]->finished.load(std::memory_order_acquire))
            sleepThread(THREAD_POLL);
        if (reads[i]->result == 0)
            continue;
        failure = reads[i]->result;
        // The text names the member behind the one that failed; the last one is named itself.
        memberFailed(i + 1, members[i].lastError());
        recoverDevice(members[i]);
    }
    return failure;
}

void Mpx2LadDev::readThread(void* object)
{
    auto* read = static_cast<ThreadObject*>(object);
    read->result = read->dev->readMatrixFromDevice();
    read->finished.store(true, std::memory_order_release);
}

int Mpx2LadDev::recoverDevice(Mpx2Dev& member)
{
    logError(1, "Reconnecting device %s ...", member.deviceName());
    for (int attempt = 0; attempt < recoverAttemptCount; ++attempt) {
        int result = member.recoverDevice();
        if (loadFlag(inAcquisition))
            result += member.prepareAcquisition(acqTime);
        if (result == 0)
            return 0;
    }
    return -1;
}

} // namespace HwLatixel
