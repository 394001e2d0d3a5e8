// The boards of the older generation as one detector: broadcasts and frames.
#include "devices/old/uladdev.h"

#include <utility>

namespace HwLatixel {

namespace {

constexpr ParamRow PARAMS[] = {{"Version", "Version", ParamKind::Text, 0, dv::PARAM_READ_ONLY, false}};

} // namespace

ULadDev::ULadDev(IDorvet* host, std::string logFolder, FileLog* log, std::string settings,
                 std::vector<std::string> names)
    : Mpx2Lad(host, std::move(logFolder), log, std::move(settings), std::move(names))
{
    // Nothing tells these boards' limits.
    devMpxInfoRec = {};
    devMpxInfoRec.chipKind = CHIP_KIND;
    devMpxInfoRec.reservedBlock[0] = 1;
    tellsMemberResult = true;
    wrongArgumentCode = dv::RESULT_INVALID_INDEX;
    const ParamContent contents[] = {{"Version", "Version 1.0"}};
    addParams(*params, PARAMS, contents, nullptr, 0);
}

ULadDev::~ULadDev()
{
    shutDown();
}

int ULadDev::initDevice()
{
    return bringUpMembers();
}

std::unique_ptr<UMpx2Dev> ULadDev::makeMember(const std::string& name, const std::string&)
{
    return std::make_unique<UMpx2Dev>(name, dorvet, logDirectory, settingsPath);
}

int ULadDev::setTimepixClock(double* mhz)
{
    if (mhz == nullptr)
        return refuseNull();
    return operate([&] { return untilFailure([mhz](UMpx2Dev& member) { return member.setTimepixClock(mhz); }); });
}

int ULadDev::readMatrix(unsigned short* data, std::size_t size, bool convert)
{
    if (data == nullptr)
        return refuseNull();
    if (const int result = checkMatrixSize(size); result != 0)
        return result;
    return operate([&] {
        return untilFailure([&](UMpx2Dev& member, std::size_t i) {
            const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
            return member.readMatrix(slice.data, slice.size, convert);
        });
    });
}

// ---- Series ----

int ULadDev::startAcquisition(unsigned count, double time)
{
    if (beginSeries(count, time) != 0)
        return 1;
    return runSeries(
        operate([&] { return untilFailure([time](UMpx2Dev& member) { return member.prepareAcquisition(time); }); }));
}

void ULadDev::acqFunc()
{
    readings.begin();
    storeFlag(inAcquisition, true);
    Pass last = Pass::Taken;
    for (unsigned i = 0; i < acqCount && last == Pass::Taken; ++i) {
        serveReadings();
        const SeriesTurn turn(linkTurn, report);
        last = turn.taken() ? takeFrame() : Pass::Stopped;
        if (last != Pass::Taken)
            break;
        // The members hold the frame until the next start: the host reads it now or never, and nobody gets at the
        // boards before it has.
        events.send(HWEVENT_FRAME_READY, static_cast<long>(i), false);
        if (life.stopped())
            last = Pass::Stopped;
    }
    life.framesOver();
    storeFlag(inAcquisition, false);
    // Behind a failure the other members are not stopped, and no end of the series is told.
    if (last == Pass::Failed)
        endSeries(HWEVENT_ACQ_FAILED, -1);
    else
        endSeries(life.stopped() ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
}

/// One frame on all members. A stop lets it count as taken, unless it has come before the last member has begun.
ULadDev::Pass ULadDev::takeFrame()
{
    for (std::size_t i = 0; i < members.size(); ++i) {
        ThreadLockManual lock(&startSync, true);
        if (life.stopped())
            return Pass::Stopped;
        const int result = members[i].startAcquisition();
        lock.unlock();
        if (result != 0)
            return failedMember(i, result);
    }
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (const int result = members[i].waitForAcqFinish(); result != 0)
            return failedMember(i, result);
        // Nobody else is waited for.
        if (life.stopped())
            break;
    }
    return Pass::Taken;
}

/// A stop that cuts an exchange makes no failure of it.
ULadDev::Pass ULadDev::failedMember(std::size_t index, int result)
{
    memberFailed(index, members[index].lastError(), result);
    return life.stopped() ? Pass::Stopped : Pass::Failed;
}

} // namespace HwLatixel
