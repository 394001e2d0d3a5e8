// Frames of several Medipix2 or Timepix boards: series, recoveries, and the frame on its way to the host.
#include "devices/mpx2/mpx2laddev.h"

#include <cstdint>

namespace HwLatixel {

namespace {

constexpr unsigned READER_POLL_MS = 10;   ///< for those who wait for the boards meanwhile
constexpr double OVERLAPPING_BELOW = 0.1; ///< seconds; frames so short do not wait for the host's handler

} // namespace

// ---- Matrices ----

/// Whether reads of the matrix give the frame that was announced last, in place of the chips.
bool Mpx2LadDev::givesAnnouncedFrame() const
{
    return inSeries() && (loadFlag(frameAnnounced) || !life.stopped());
}

/// Takes the announced frame over, so that the series may overwrite the members' streams, before the slow decoding.
void Mpx2LadDev::takeAnnouncedFrame()
{
    ThreadLock lock(&takeSync);
    bool taken = false;
    forAll([&](Mpx2Dev& member) { taken = member.takeAnnouncedMatrix() || taken; });
    if (taken)
        matrixRead.set();
}

int Mpx2LadDev::readMatrix(unsigned short* data, std::size_t size, bool convert)
{
    std::size_t missing = 0;
    return readMatrixCounting(data, size, convert, missing);
}

int Mpx2LadDev::readMatrixCounting(unsigned short* data, std::size_t size, bool convert, std::size_t& missing)
{
    if (data == nullptr)
        return refuseNull();
    if (size < pixelCount()) {
        // It counts as a read all the same: the series goes on.
        takeAnnouncedFrame();
        return checkMatrixSize(size);
    }
    if (!givesAnnouncedFrame())
        return readChipsNow(data, size, convert, missing);
    ThreadLock lock(&decodeSync);
    takeAnnouncedFrame();
    for (std::size_t i = 0; i < members.size(); ++i) {
        const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
        members[i].getConvertedMatrix(slice.data, slice.size, convert, true);
        missing += members[i].missingBytes();
    }
    return 0;
}

/// Up to the decoding in one turn: a series that begins meanwhile reads its first frame into the same streams.
int Mpx2LadDev::readChipsNow(unsigned short* data, std::size_t size, bool convert, std::size_t& missing)
{
    return operate([&] {
        return untilFailure([&](Mpx2Dev& member, std::size_t i) {
            if (const int result = member.readMatrixFromDevice(); result != 0)
                return result;
            const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
            missing += member.missingBytes();
            return member.getConvertedMatrix(slice.data, slice.size, convert, false);
        });
    });
}

dv::IMpxFrame* Mpx2LadDev::lastData()
{
    // Ahead of the host's frame, which takes its time to be made.
    if (givesAnnouncedFrame()) {
        ThreadLock lock(&decodeSync);
        takeAnnouncedFrame();
    }
    std::size_t missing = 0;
    dv::IMpxFrame* frame = frameOf<unsigned short>(
        *dorvet, members.chipCount(), DTYPE_I16,
        [&](unsigned short* pixels, std::size_t count) { return readMatrixCounting(pixels, count, true, missing); });
    if (frame != nullptr)
        addMissingBytes(*frame, missing);
    return frame;
}

// ---- Life of a series ----

int Mpx2LadDev::startAcquisition(unsigned count, double time)
{
    return beginSeries(count, time) != 0 ? 1 : runSeries(prepareAcq());
}

int Mpx2LadDev::prepareAcq()
{
    return operate([this] {
        if (completeRecoveries() != 0)
            return 1;
        parallelReadout = paramBool(params, "ParallelReadout");
        const auto prepare = [this](Mpx2Dev& member) { return member.prepareAcquisition(acqTime); };
        if (!parallelReadout)
            return untilFailure(prepare);
        std::vector<int> results(members.size(), 1);
        inParallel(members.size(), [&](std::size_t i) { results[i] = prepare(members[i]); });
        return untilFailure([&](Mpx2Dev&, std::size_t i) { return results[i]; });
    });
}

/// Makes up for recoveries that a stop has cut.
int Mpx2LadDev::completeRecoveries()
{
    return untilFailure([this](Mpx2Dev& member) {
        if (!unrecovered.contains(&member))
            return 0;
        const int result = member.recoverDevice();
        if (result == 0)
            unrecovered.erase(&member);
        return result;
    });
}

void Mpx2LadDev::acqFunc()
{
    openSeries();
    closeSeries(runFrames());
}

void Mpx2LadDev::openSeries()
{
    storeFlag(frameAnnounced, false);
    busyFollows = false;
    readings.begin();
    storeFlag(inAcquisition, true);
    forAll([](Mpx2Dev& member) { member.setDriven(true); });
    setBusy(true);
    events.dispatcher().startThread();
    // The first frame waits for no reader.
    matrixRead.set();
}

/// The frames of a series. Returns how the last pass ended. A stop lets the frame in progress end, and it is delivered
/// where the host has taken the one before.
Mpx2LadDev::Pass Mpx2LadDev::runFrames()
{
    unsigned index = 0;
    while (index < acqCount) {
        serveReadings();
        const Pass pass = takeFrame();
        if (pass == Pass::Again)
            continue;
        if (pass != Pass::Taken)
            return pass;
        matrixRead.reset();
        const bool stopped = life.stopped();
        announceFrame(index, stopped || index + 1 == acqCount);
        if (stopped)
            return Pass::Stopped;
        ++index;
    }
    return Pass::Taken;
}

/// Ends a series: all is in order for the next one before the last event tells the host.
void Mpx2LadDev::closeSeries(Pass last)
{
    team.reset();
    events.dispatcher().awaitDelivery();
    const bool stopped = life.stopped();
    life.framesOver();
    forAll([](Mpx2Dev& member) { member.setDriven(false); });
    if (last == Pass::Lost) {
        // Nothing is taken back: the composite stays busy and in its series until the next bring-up or series.
        endSeries(HWEVENT_ACQ_FAILED, -1);
        return;
    }
    events.dispatcher().stopThread();
    setBusy(false);
    storeFlag(inAcquisition, false);
    if (last == Pass::Overheated)
        events.send(HWEVENT_ACQ_FAILED, dv::RESULT_OVERHEATED, false);
    endSeries(stopped || last == Pass::Overheated ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
}

// ---- A frame ----

/// One attempt at a frame, in the turn from the first start command to the end of the streams.
Mpx2LadDev::Pass Mpx2LadDev::takeFrame()
{
    SeriesTurn turn(linkTurn, report);
    if (!turn.taken() || life.stopped())
        return Pass::Stopped;
    if (anyOverheated())
        return Pass::Overheated;
    parallelReadout = paramBool(params, "ParallelReadout");
    if (const Pass pass = startExposures(); pass != Pass::Taken)
        return pass;
    if (parallelReadout && matrixRead.wait(0))
        return awaitAndRead();
    if (const Pass pass = awaitExposures(); pass != Pass::Taken)
        return pass;
    if (awaitReader([this] { return linkTurn.wanted() || readings.due(); }))
        return readMatrixesFromDevices(&Mpx2Dev::readMatrixFromDevice, true);
    return life.stopped() ? Pass::Stopped : readAside(turn);
}

bool Mpx2LadDev::anyOverheated() const
{
    bool any = false;
    forAll([&](const Mpx2Dev& member) { any = any || member.isOverheated(); });
    return any;
}

Mpx2LadDev::Pass Mpx2LadDev::startExposures()
{
    for (std::size_t i = 0; i < members.size(); ++i) {
        ThreadLockManual lock(&startSync, true);
        if (life.stopped()) {
            lock.unlock();
            cutExposures(i);
            return Pass::Stopped;
        }
        const int result = members[i].startSingleAcquisition();
        lock.unlock();
        if (result != 0)
            return recoverMember(i);
    }
    return Pass::Taken;
}

/// A stop has come between two members' starts: those that expose end, and there is no frame.
void Mpx2LadDev::cutExposures(std::size_t started)
{
    for (std::size_t i = 0; i < started; ++i)
        members[i].waitForAcqFinish(false);
}

Mpx2LadDev::Pass Mpx2LadDev::awaitExposures()
{
    for (std::size_t i = 0; i < members.size(); ++i)
        if (members[i].waitForAcqFinish(false) != 0)
            return recoverMember(i);
    return Pass::Taken;
}

/// Waits and reads on all links at once, for a host that has taken the frame before.
Mpx2LadDev::Pass Mpx2LadDev::awaitAndRead()
{
    std::vector<int> ended(members.size(), 1);
    std::vector<int> reads(members.size(), 1);
    readers().run([&](std::size_t i) {
        ended[i] = members[i].waitForAcqFinish(false);
        if (ended[i] == 0)
            reads[i] = members[i].readMatrixFromDevice();
    });
    for (std::size_t i = 0; i < ended.size(); ++i) {
        if (ended[i] == 0)
            continue;
        matrixRead.set();
        return recoverMember(i);
    }
    bool failed = false;
    for (std::size_t i = 0; i < reads.size(); ++i)
        failed = !readWorked(i, reads[i]) || failed;
    return failed ? repeatRead(true) : Pass::Taken;
}

/// Waits until the host has taken the frame before out of the streams. False where a stop or `interrupted()` ends the
/// wait.
template <typename Interrupted>
bool Mpx2LadDev::awaitReader(Interrupted interrupted)
{
    while (!matrixRead.wait(READER_POLL_MS))
        if (life.stopped() || interrupted())
            return false;
    return true;
}

/// Somebody waits for the boards: the frame goes aside, and they need not wait for the reader as well.
Mpx2LadDev::Pass Mpx2LadDev::readAside(SeriesTurn& turn)
{
    if (const Pass pass = readMatrixesFromDevices(&Mpx2Dev::readMatrixAside, false); pass != Pass::Taken)
        return pass;
    turn.release();
    while (!awaitReader([this] { return readings.due(); })) {
        if (life.stopped())
            return Pass::Stopped;
        serveReadings();
        if (anyOverheated())
            return Pass::Overheated;
    }
    forAll([](Mpx2Dev& member) { member.takeAside(); });
    return Pass::Taken;
}

/// Reads the streams of all members, one after the other or at once.
Mpx2LadDev::Pass Mpx2LadDev::readMatrixesFromDevices(int (Mpx2Dev::*readStreams)(), bool readerCame)
{
    std::vector<int> results(members.size(), 1);
    const auto readOne = [&](std::size_t i) { results[i] = (members[i].*readStreams)(); };
    if (parallelReadout)
        readers().run(readOne);
    bool failed = false;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (!parallelReadout)
            readOne(i);
        failed = !readWorked(i, results[i]) || failed;
    }
    return failed ? repeatRead(readerCame) : Pass::Taken;
}

/// Reports and recovers a member whose stream could not be read; how that went shows in the next attempt.
bool Mpx2LadDev::readWorked(std::size_t index, int result)
{
    if (result == 0)
        return true;
    // In parallel the text names the member behind the one that failed; the last one is named itself.
    memberFailed(index + (parallelReadout ? 1 : 0), members[index].lastError());
    recoverDevice(members[index]);
    return false;
}

/// Where the host has taken the frame before, the repeated one waits for nobody.
Mpx2LadDev::Pass Mpx2LadDev::repeatRead(bool readerCame)
{
    logError(1, "Reading matrix from devices failed, reattempting acq.");
    if (readerCame)
        matrixRead.set();
    return Pass::Again;
}

WorkTeam& Mpx2LadDev::readers()
{
    if (team == nullptr)
        team = std::make_unique<WorkTeam>(members.size());
    return *team;
}

/// Hands a frame over: through the dispatcher's worker, so that the next one exposes meanwhile; the last one, behind
/// which the worker is sent away, at once.
void Mpx2LadDev::announceFrame(unsigned index, bool last)
{
    const bool overlaps = parallelReadout && !last && acqTime < OVERLAPPING_BELOW;
    // One event is under way at a time.
    events.dispatcher().awaitDelivery();
    setBusy(false);
    busyFollows = overlaps;
    events.send(HWEVENT_FRAME_READY, static_cast<long>(index), !last);
    if (!overlaps)
        setBusy(true);
}

/// The streams become the frame that readers get. On the thread of the frame event, behind the handler of the one
/// before: what that reads a second time is still its own frame.
void Mpx2LadDev::placeFrame(void* lad)
{
    auto* self = static_cast<Mpx2LadDev*>(lad);
    ThreadLock lock(&self->takeSync);
    self->forAll([](Mpx2Dev& member) { member.announceMatrix(); });
    storeFlag(self->frameAnnounced, true);
}

void Mpx2LadDev::goOnBehindFrame(void* lad)
{
    auto* self = static_cast<Mpx2LadDev*>(lad);
    if (self->busyFollows.exchange(false))
        self->setBusy(true);
}

// ---- Recovery ----

/// Behind a member whose exposure has failed: recovers it, and gives the frame up. A recovery that a stop cuts is made
/// up for by the next series.
Mpx2LadDev::Pass Mpx2LadDev::recoverMember(std::size_t index)
{
    memberFailed(index, members[index].lastError());
    if (recoverDevice(members[index]) != 0)
        return life.stopped() ? Pass::Stopped : Pass::Lost;
    abortAcqAllDevs();
    return Pass::Again;
}

int Mpx2LadDev::recoverDevice(Mpx2Dev& member)
{
    logError(1, "Reconnecting device %s ...", member.deviceName());
    for (int attempt = 0; attempt < recoverAttemptCount && !life.stopped(); ++attempt) {
        int result = member.recoverDevice();
        if (loadFlag(inAcquisition))
            result += member.prepareAcquisition(acqTime);
        if (result == 0)
            return 0;
    }
    if (life.stopped())
        unrecovered.insert(&member);
    return -1;
}

} // namespace HwLatixel
