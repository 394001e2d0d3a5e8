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
    return untilFailure([mhz](UMpx2Dev& member) { return member.setTimepixClock(mhz); });
}

int ULadDev::readMatrix(unsigned short* data, std::size_t size, bool convert)
{
    if (const int result = checkMatrixSize(size); result != 0)
        return result;
    return untilFailure([&](UMpx2Dev& member, std::size_t i) {
        const auto slice = memberSlice(data, size, i, LAD_CHIP_PIXELS);
        return member.readMatrix(slice.data, slice.size, convert);
    });
}

// ---- Series ----

int ULadDev::startAcquisition(unsigned count, double time)
{
    if (beginSeries(count, time) != 0)
        return 1;
    return runSeries(untilFailure([time](UMpx2Dev& member) { return member.prepareAcquisition(time); }));
}

void ULadDev::acqFunc()
{
    for (unsigned i = 0; i < acqCount; ++i) {
        if (!takeFrame()) {
            // The other members are not stopped, and no end of the series is told.
            life.framesOver();
            endSeries(HWEVENT_ACQ_FAILED, -1);
            return;
        }
        // The members hold the frame until the next start: the host reads it now or never.
        events.send(HWEVENT_FRAME_READY, static_cast<long>(i), false);
        if (life.stopped())
            break;
    }
    life.framesOver();
    endSeries(life.stopped() ? HWEVENT_ACQ_ABORTED : HWEVENT_ACQ_FINISHED, 0);
}

/// One frame on all members. A stop lets it count as taken.
bool ULadDev::takeFrame()
{
    if (untilFailure([](UMpx2Dev& member) { return member.startAcquisition(); }) != 0)
        return false;
    return untilFailure([this](UMpx2Dev& member) {
               // Behind the member at which a stop has come nobody is waited for.
               return life.stopped() && &member != &members[0] ? 0 : member.waitForAcqFinish();
           }) == 0;
}

} // namespace HwLatixel
