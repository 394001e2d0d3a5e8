// Series on a row board: of single frames, and of rows that the board delivers while one shutter stays open (TDI).
#include "devices/row/mpx2devrow.h"

#include "link/tpxcmds.h"

#include <algorithm>

namespace HwLatixel {

namespace {

constexpr unsigned TDI_ROWS = RowTimes::ROWS; ///< of a frame

} // namespace

int Mpx2DevRow::setAcqMode(unsigned mode)
{
    tdiMode = (mode & dv::ACQMODE_TDI) != 0;
    return AMpx2Dev::setAcqMode(mode);
}

/// A TDI frame takes its time for all of its rows together.
double Mpx2DevRow::shutterTime(double seconds) const
{
    return tdiMode ? seconds / TDI_ROWS : seconds;
}

/// Rows of a block, as the host wants them. 0 brings no rows, and a series of such frames lasts until it is stopped; so
/// does less than 0.
unsigned Mpx2DevRow::tdiRowCount() const
{
    return static_cast<unsigned>(std::max(paramInt32(devParams, "TdiRowCount"), 0));
}

int Mpx2DevRow::setReadoutBitCount()
{
    const std::uint32_t bits = mpx2TdiBlockBits(tdiRowCount());
    return link.send(tpx::TpxCmd::AnnounceLength, CmdArgs::byteAnd24(0, bits), cmdflag::OUTPUT);
}

int Mpx2DevRow::prepareAcquisition(double seconds)
{
    // Erasing takes both locks, so the frame's one can't wait until then.
    const FrameGap gap(*this);
    return AMpx2Dev::prepareAcquisition(seconds);
}

int Mpx2DevRow::startAcquisition(unsigned count, double seconds)
{
    // Both locks are held until the thread is there, so that nothing comes between the preparation and the series. They
    // are taken in the usual order: whoever waited for a frame's end with devSync in hand would keep the thread that
    // exposes it from reading it, and both would wait for ever.
    const FrameGap gap(*this);
    return AMpx2Dev::startAcquisition(count, seconds);
}

int Mpx2DevRow::stopAcquisition()
{
    const StopsUnderWay::Scope stop(stopsUnderWay);
    // Ahead of the refusal: without chips, or with chips that are switched off, a series has nothing else to end it.
    storeFlag(stopRequested, true);
    return AMpx2Dev::stopAcquisition();
}

void Mpx2DevRow::acqFunc()
{
    setCurrentThreadName("mpx2rowacq");
    if (tdiMode) {
        acqFuncContinuous();
        return;
    }
    openSeries();
    runFrames();
    endSeries(recoverResult != 0);
}

void Mpx2DevRow::acqFuncContinuous()
{
    openSeries();
    rowTimes.clear();
    rowsMissed = false;
    const unsigned rows = tdiRowCount();
    const std::uint64_t frames = acqCount;
    if (startRows(rows != 0 ? frames * TDI_ROWS / rows : 0) != 0) {
        abandonSeries();
        return;
    }
    for (std::uint64_t frame = 0; frame < frames && !loadFlag(stopRequested); ++frame) {
        readTdiFrame(rows);
        announceFrame(frame);
    }
    // Blocks that the board has sent meanwhile, or that have come late, must not meet the next exchange.
    if (loadFlag(stopRequested) || rowsMissed) {
        stopsUnderWay.wait();
        ThreadLock lock(&devSync);
        link.drain(DRAIN_TIMEOUT);
    }
    endExposure();
    endSeries(false);
}

/// Opens the shutter for a series of `blocks` blocks of rows, of which the command takes 24 bits.
int Mpx2DevRow::startRows(std::uint64_t blocks)
{
    // Under the lock that a stop takes for its command: behind it no series is started.
    ThreadLock lock(&devSync);
    if (loadFlag(stopRequested))
        return 0;
    const unsigned flags = triggerFlags() | unsigned{tpx::startflag::CONTINUOUS};
    return startExposure(static_cast<unsigned char>(flags), static_cast<std::uint32_t>(blocks));
}

void Mpx2DevRow::readTdiFrame(unsigned rows)
{
    ThreadLock lock(&acqSync);
    // The rows go where the frame before may still lie: its reader is waited for, whatever a stop says.
    waitForReader();
    rowsRead = 0;
    while (rowsRead < TDI_ROWS) {
        readContinuousMatrixFromDevice(rows);
        if (loadFlag(stopRequested))
            break;
    }
    matrixReadEvent.reset();
}

void Mpx2DevRow::describeFrame(dv::IMpxFrame& frame)
{
    if (loadFlag(acquiring) && tdiMode)
        rowTimes.addNextTo(frame, acqTime);
}

} // namespace HwLatixel
