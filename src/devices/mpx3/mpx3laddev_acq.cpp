// Series of several Medipix3 boards as one detector, and the way of their frames to the host.
#include "devices/mpx3/mpx3laddev.h"

#include <algorithm>
#include <utility>

namespace HwLatixel {

namespace {

constexpr double MEMBER_END_LIMIT = 5.0; ///< seconds for what the members do behind their last frame
constexpr double END_POLL = 0.05;        ///< seconds between two looks at a closing
constexpr double STOP_PATIENCE = 1.0;    ///< seconds that a stop waits for the frames on the wire
constexpr double ERASE_PATIENCE = 5.0;   ///< seconds that the members' turns are waited for behind a failure
constexpr unsigned READ_POLL_MS = 100;   ///< between two looks at the stop flag
constexpr double LONG_FRAME = 0.5;       ///< seconds, from which the members are looked at less often
constexpr unsigned LONG_POLL_MS = 100;
constexpr unsigned SHORT_POLL_MS = 10;

// Trigger settings of the followers, which the level of the master's output holds.
constexpr unsigned char FOLLOW_HIGH = 1;
constexpr unsigned char FOLLOW_LOW = 0;

} // namespace

int Mpx3LadDev::startAcquisition(unsigned count, double time)
{
    logFunction("Start acquisition");
    const double deadline = getPreciseTime() + SeriesLife::START_LIMIT;
    if (beginSeries(count, time) != 0)
        return 1;
    // The last events of the series before would be taken for those of the new one.
    if (!awaitMembers(deadline)) {
        life.giveUp();
        return logError(1, "Device is busy");
    }
    configureTriggers();
    int result = 0;
    {
        // A closing gets the turn behind this, and finds the thread of the series.
        const TurnBudget budget(turnLimit());
        const DeviceTurn turn = operationTurn();
        const int ready = turn.require() != 0 || requireMembers() != 0 ? 1 : prepareAcq();
        result = runSeries(ready);
    }
    if (result != 0)
        abandonPreparation();
    return result;
}

/// Waits until no member runs a series, up to `deadline` or a closing, which waits for the members itself.
bool Mpx3LadDev::awaitMembers(double deadline) const
{
    for (std::size_t i = 0; i < members.size(); ++i) {
        while (!members[i].awaitSeriesGone(END_POLL)) {
            if (getPreciseTime() >= deadline || closing)
                return false;
        }
    }
    return true;
}

int Mpx3LadDev::prepareAcq()
{
    logFunction("Prepare acq");
    const int result =
        untilFailure([this](Mpx3Dev& member) { return member.prepareAcquisition(acqCount, acqTime, false); });
    bool whole = false;
    forAll([&](const Mpx3Dev& member) { whole = whole || member.preparedWhole(); });
    if (result == 0 && whole)
        linkTurn.beginWholeSeries();
    return result;
}

void Mpx3LadDev::abandonPreparation()
{
    linkTurn.endWholeSeries();
    forAll([](Mpx3Dev& member) { member.giveUpPreparation(); });
}

/// The master takes the composite's mode and trigger; the others are held by the level of the master's output.
void Mpx3LadDev::configureTriggers() const
{
    const bool synced = paramBool(params, "Synced");
    const unsigned char setting = paramByte(params, "TriggerStg");
    const bool tdiSeries = paramBool(params, "TriggerTdiSeries");
    const unsigned char outLevel = paramByte(params, "TriggerOutLevel");
    const int tdiRows = paramInt32(params, "TdiRowCount");
    const unsigned char follower = outLevel != 0 ? FOLLOW_HIGH : FOLLOW_LOW;
    for (std::size_t i = 0; i < members.size(); ++i) {
        members[i].setAcqMode(synced ? unsigned{dv::ACQMODE_EXT_TRIGGER_START} : acqMode.load());
        dv::IParamMgr& own = *members[i].parameters();
        own.get("TriggerWaitForReady")->setBool(true);
        own.get("TriggerMaster")->setBool(i == 0);
        own.get("TriggerOutLevel")->setByte(outLevel);
        own.get("TdiRowCount")->setInt32(tdiRows);
        own.get("TriggerTdiSeries")->setBool(tdiSeries);
        own.get("TriggerStg")->setByte(i == 0 ? setting : follower);
    }
}

int Mpx3LadDev::stopAcquisition()
{
    logFunction("Stop acquisition");
    life.stop();
    linkTurn.endWholeSeries();
    dismissSeries();
    // A handler may be what the members' frames wait for.
    stopMembers(life.caller() == SeriesLife::Caller::Host ? STOP_PATIENCE : 0.0);
    return 0;
}

/// Tells all members to stop before it waits for the first.
void Mpx3LadDev::stopMembers(double patience)
{
    forAll([](Mpx3Dev& member) { member.beginStop(); });
    const double deadline = getPreciseTime() + patience;
    forAll([deadline](Mpx3Dev& member) { member.endStop(deadline); });
}

/// Wakes the members that wait for the host: they see that nobody takes their frames any more.
void Mpx3LadDev::dismissSeries()
{
    setMatrixRead();
}

void Mpx3LadDev::acqFunc()
{
    setCurrentThreadName("mpx3ladacq");
    logFunction("Acquisition");
    setBusy(true);
    storeFlag(inAcquisition, true);
    events.dispatcher().startThread();
    startMembers();
    takeFrames();
    report.line(DBG, "Acq: All acq finished.");
    life.framesOver();
    dismissSeries();
    // The host may use the boards from the last event on. One that does not fall silent is not waited for any longer.
    awaitMembers(getPreciseTime() + MEMBER_END_LIMIT);
    events.dispatcher().stopThread();
    linkTurn.endWholeSeries();
    setBusy(false);
    storeFlag(inAcquisition, false);
    {
        ThreadLock lock(&frameSync);
        frameAnnounced = false;
    }
    endSeries(life.stopped() ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
    report.line(DBG, "Acq: Thread finished.");
}

/// Starts the members that no stop has come for. One that does not start has failed.
void Mpx3LadDev::startMembers()
{
    for (const auto& info : devEventInfos) {
        info->result = 0;
        info->framesEnded = 0;
        info->failed = false;
        info->filled = false;
        info->acqFinished.reset();
        info->readAllowed.set();
    }
    // The trigger master stands first.
    for (const auto& info : devEventInfos) {
        Mpx3Dev& member = members[info->index];
        if (life.stopped())
            member.giveUpPreparation();
        else if (member.startAcquisitionFromLad() != 0)
            endMemberFrame(*info, HWEVENT_ACQ_FAILED);
    }
    report.line(DBG, "Acquisitions started.");
}

void Mpx3LadDev::takeFrames()
{
    for (unsigned i = 0; i < acqCount; ++i) {
        logFunction("Acquisition");
        report.line(DBG, "Acq: Waiting for acq finish %u/%u", i, acqCount.load());
        if (!waitForMembers(i)) {
            abortMembers();
            events.send(HWEVENT_ACQ_FAILED, static_cast<long>(i), false);
            return;
        }
        report.line(DBG, "Acq: Single acq finished %d", static_cast<int>(i));
        // A stop still delivers the frame that was in progress, and before the worker is sent away.
        const bool stopped = life.stopped();
        events.send(HWEVENT_FRAME_READY, static_cast<long>(i), !stopped && i + 1 < acqCount);
        if (stopped)
            return;
    }
}

/// Waits until each member has ended its frame, for a stop, or until one has failed: the others may wait for its
/// trigger. False in the last case.
bool Mpx3LadDev::waitForMembers(unsigned frame)
{
    const unsigned poll = acqTime >= LONG_FRAME ? LONG_POLL_MS : SHORT_POLL_MS;
    for (const auto& info : devEventInfos) {
        while (info->framesEnded <= frame && !isFailed(frame) && !life.stopped())
            info->acqFinished.wait(poll);
        report.line(DBG, "Acq[%d]: Acq %d finished with result %d", static_cast<int>(info->index),
                    static_cast<int>(frame), info->result.load());
    }
    return !isFailed(frame);
}

/// Whether a member has failed before it ended that frame.
bool Mpx3LadDev::isFailed(unsigned frame) const
{
    return std::ranges::any_of(devEventInfos,
                               [frame](const auto& info) { return info->failed && info->framesEnded <= frame; });
}

/// Stops all members and clears their counters; their results don't count.
void Mpx3LadDev::abortMembers()
{
    // A member that is held by its event can't end.
    life.framesOver();
    dismissSeries();
    stopMembers(STOP_PATIENCE);
    const TurnBudget budget(ERASE_PATIENCE);
    forAll([](Mpx3Dev& member) { member.eraseMatrix(); });
}

void Mpx3LadDev::beforeFrame(void* lad)
{
    static_cast<Mpx3LadDev*>(lad)->announceFrame();
}

/// The host's handler of a frame event comes next: from here on reads get this frame. No member is at it: they may read
/// the next one when the host has taken this one, and behind a stop none at all.
void Mpx3LadDev::announceFrame()
{
    unsigned long expected = 0;
    unsigned long missing = 0;
    for (const auto& info : devEventInfos) {
        ThreadLock lock(&info->sliceSync);
        const unsigned long whole = members[info->index].frameBytes();
        if (!info->filled) {
            const auto slice = memberSlice(matrix.data(), matrix.size(), info->index, LAD_CHIP_PIXELS);
            std::fill_n(slice.data, slice.size, 0U);
            info->missing = whole;
        }
        info->filled = false;
        missing += info->missing;
        expected += whole;
    }
    if (missing != 0)
        report.line(ERR, "Frame is incomplete: %lu of %lu bytes received", expected - missing, expected);
    ThreadLock lock(&frameSync);
    std::swap(matrix, announced);
    announcedMissing = missing;
    frameAnnounced = true;
    frameTaken = false;
}

/// False where there is no announced frame.
bool Mpx3LadDev::copyAnnounced(unsigned* data, std::size_t size, unsigned long* missing)
{
    ThreadLock lock(&frameSync);
    if (!frameAnnounced || size < announced.size())
        return false;
    std::ranges::copy(announced, data);
    *missing = announcedMissing;
    return true;
}

/// The announced frame is in the host's hands: the members may go on with the next one. A second read of the same
/// frame gives nothing more away.
void Mpx3LadDev::letMembersRead()
{
    {
        ThreadLock lock(&frameSync);
        if (!frameAnnounced || frameTaken)
            return;
        frameTaken = true;
    }
    setMatrixRead();
}

void Mpx3LadDev::setMatrixRead()
{
    for (const auto& info : devEventInfos)
        info->readAllowed.set();
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
    if (event == HWEVENT_FRAME_READY) {
        report.line(DBG, "DevAcqEvent[%d]: before read", index);
        const bool allowed = waitForReadAllowed(info);
        report.line(DBG, "DevAcqEvent[%d]: after read", index);
        if (!allowed)
            return;
        readMatrixFromDevice(info);
        endMemberFrame(info, event);
        report.line(DBG, "DevAcqEvent[%d]: Acq event single finished.", index);
    } else if (event == HWEVENT_ACQ_FAILED || event == HWEVENT_ACQ_ABORTED) {
        // Waits for no reader: a member that has ended must not be held by a host that takes no frames.
        endMemberFrame(info, event);
        report.line(DBG, "DevAcqEvent[%d]: Acq event failed/aborted.", index);
    }
}

/// Takes an event of a member into account, and wakes the series.
void Mpx3LadDev::endMemberFrame(DevEventInfo& info, unsigned event) const
{
    info.result = static_cast<int>(event);
    if (event == HWEVENT_ACQ_FAILED)
        info.failed = true;
    else
        ++info.framesEnded;
    info.acqFinished.set();
}

/// Waits until the member may read into its part of the frame. False where nobody takes frames any more.
bool Mpx3LadDev::waitForReadAllowed(DevEventInfo& info) const
{
    while (isRunning()) {
        if (info.readAllowed.wait(READ_POLL_MS))
            return isRunning();
    }
    return false;
}

/// Where a member's read fails, its part of the frame is empty; the frame counts as delivered.
void Mpx3LadDev::readMatrixFromDevice(DevEventInfo& info)
{
    report.line(DBG, "Read Matrix From Device [%d]", static_cast<int>(info.index));
    Mpx3Dev& member = members[info.index];
    {
        ThreadLock lock(&info.sliceSync);
        // The stopped frame is announced without what has not come by then.
        if (!isRunning())
            return;
        const auto slice = memberSlice(matrix.data(), matrix.size(), info.index, LAD_CHIP_PIXELS);
        info.filled = member.readFrame(slice.data, slice.size, true, &info.missing) == 0;
        if (info.filled)
            return;
    }
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
