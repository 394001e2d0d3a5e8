// Series on a row board: of single frames, and of rows that the board delivers while one shutter stays open (TDI).
#include "devices/row/mpx2devrow.h"

#include "devices/common/seriesturn.h"
#include "link/tpxcmds.h"

#include <algorithm>
#include <optional>

namespace HwLatixel {

namespace {

constexpr unsigned TDI_ROWS = RowTimes::ROWS; ///< of a frame

} // namespace

/// A TDI frame takes its time for all of its rows together.
double Mpx2DevRow::shutterTime(double seconds) const
{
    return preparedForRows() ? seconds / TDI_ROWS : seconds;
}

/// Rows of a block, as the host wants them. 0 brings no rows, and a series of such frames lasts until it is stopped; so
/// does less than 0.
unsigned Mpx2DevRow::tdiRowCount() const
{
    constexpr int MOST = static_cast<int>(MAX_BLOCK_ROWS);
    return static_cast<unsigned>(std::clamp(paramInt32(devParams, "TdiRowCount"), 0, MOST));
}

std::uint64_t Mpx2DevRow::blocksOf(std::uint64_t frames) const
{
    const unsigned rows = tdiRowCount();
    return rows != 0 ? frames * TDI_ROWS / rows : 0;
}

/// The board counts the blocks of a series; one that counts on from 0 again would end early.
int Mpx2DevRow::checkSeries(unsigned count)
{
    if (!preparedForRows() || blocksOf(count) <= MAX_BLOCKS)
        return 0;
    return logError(1, "Too many frames for a series of rows: %u", count);
}

int Mpx2DevRow::setReadoutBitCount()
{
    const std::uint32_t bits = mpx2TdiBlockBits(tdiRowCount());
    return link.send(tpx::TpxCmd::AnnounceLength, CmdArgs::byteAnd24(0, bits), cmdflag::OUTPUT);
}

void Mpx2DevRow::acqFunc()
{
    setCurrentThreadName("mpx2rowacq");
    seriesOfRows = preparedForRows();
    if (seriesOfRows) {
        acqFuncContinuous();
        return;
    }
    openSeries();
    endSeries(runFrames(), false);
}

/// The turn is kept for a series of rows throughout, but held only where the host is not called.
void Mpx2DevRow::reserveLink()
{
    if (!preparedForRows())
        return;
    linkTurn.beginWholeSeries();
    linkTurn.reserve();
    if (life.stopped())
        linkTurn.endWholeSeries();
}

void Mpx2DevRow::acqFuncContinuous()
{
    openSeries();
    rowTimes.clear();
    rowsMissed = false;
    std::uint64_t frame = 0;
    StreamCount count;
    const Pass last = runRows(frame, count);
    // The last frame is told once the board is at rest, so that its handler may stop the series and go on at once.
    if (count.expected != 0 && (last == Pass::Taken || count.received != 0)) {
        acqCount = frame + 1;
        announceFrame(frame, count);
    }
    linkTurn.endWholeSeries();
    // One that could not be started leaves the device busy.
    endSeries(last, last == Pass::Lost);
}

/// The rows of a series, up to the last frame, which is left to be told; `count` is empty where there is none.
Mpx2DevRow::Pass Mpx2DevRow::runRows(std::uint64_t& frame, StreamCount& count)
{
    std::optional<SeriesTurn> turn;
    turn.emplace(linkTurn, report);
    const std::uint64_t frames = acqCount;
    const unsigned rows = tdiRowCount();
    Pass last = Pass::Stopped;
    if (turn->taken() && !life.stopped())
        last = startRows(blocksOf(frames)) == 0 ? Pass::Taken : Pass::Lost;
    const bool started = last == Pass::Taken;
    while (last == Pass::Taken && frame < frames) {
        count = {};
        if (!readTdiFrame(rows, count) || life.stopped()) {
            last = Pass::Stopped;
            break;
        }
        if (frame + 1 == frames)
            break;
        turn.reset();
        announceFrame(frame, count);
        turn.emplace(linkTurn, report);
        if (!turn->taken())
            last = Pass::Stopped;
        count = {};
        ++frame;
    }
    if (started)
        leaveRows();
    turn.reset();
    linkTurn.endReservation();
    return last;
}

/// Brings the board to rest. Blocks that it has sent meanwhile, or that have come late, must not meet the next
/// exchange.
void Mpx2DevRow::leaveRows()
{
    if ((life.stopped() || rowsMissed) && !loadFlag(closing)) {
        stopsUnderWay.wait();
        link.drain(DRAIN_TIMEOUT, DRAIN_LIMIT);
    }
    endExposure();
}

/// Opens the shutter for a series of `blocks` blocks of rows.
int Mpx2DevRow::startRows(std::uint64_t blocks)
{
    // A stop is seen here, or its command goes behind the start.
    const Link::Exchange whole(link);
    if (!whole)
        return 1;
    if (life.stopped())
        return 0;
    const unsigned flags = triggerFlags() | unsigned{tpx::startflag::CONTINUOUS};
    return startExposure(static_cast<unsigned char>(flags), static_cast<std::uint32_t>(blocks));
}

/// Collects a frame. False where a stop has come before its first row: the frame before may still lie where its rows
/// go.
bool Mpx2DevRow::readTdiFrame(unsigned rows, StreamCount& count)
{
    if (!awaitReader([] { return false; }))
        return false;
    rowsRead = 0;
    while (rowsRead < TDI_ROWS) {
        readRows(rows, count);
        if (life.stopped())
            break;
    }
    if (rowsRead < TDI_ROWS)
        count.expected += (TDI_ROWS - rowsRead) * static_cast<std::size_t>(chipCount_) * MPX2_ROW_STREAM_STRIDE;
    matrixReadEvent.reset();
    return true;
}

void Mpx2DevRow::describeFrame(dv::IMpxFrame& frame)
{
    if (givesAnnouncedFrame() && seriesOfRows)
        rowTimes.addNextTo(frame, acqTime);
}

} // namespace HwLatixel
