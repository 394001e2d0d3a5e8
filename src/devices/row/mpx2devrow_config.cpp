// What a row board's CPU tells, bias and pixel configuration of its chips, and their matrix on its way to the host.
#include "devices/row/mpx2devrow.h"

#include "board/adcscale.h"
#include "chipdata/mpx2pixelcfg.h"
#include "link/tpxcmds.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

namespace HwLatixel {

namespace {

constexpr double READ_TIMEOUT = 0.5;      ///< seconds of silence in a readout
constexpr double ROWS_TIMEOUT = 2.0;      ///< the same for a block of rows of a TDI series
constexpr double EMPTY_BLOCK_PAUSE = 0.1; ///< seconds, where nothing can come at once

} // namespace

int Mpx2DevRow::requireChips() const
{
    if (loadFlag(overheated))
        return logError(1, "%s", TOO_HOT);
    return AMpx2Dev::requireChips();
}

void Mpx2DevRow::onReadParam(dv::IParam* param)
{
    if (std::string_view(param->name()) != "Temperature")
        return;
    const double temperature = adcCelsius(pollAdcCode(TEMPERATURE_ADC_CHANNEL));
    const SeriesLife::Callback hostsCode(life);
    param->setDouble(temperature);
}

// ---- Configuration ----

int Mpx2DevRow::setBias(double volts)
{
    logFunction("Set Bias");
    if (devMpxInfoRec.biasMin == 0.0 && devMpxInfoRec.biasMax == 0.0)
        return -1;
    if (!loadFlag(connected))
        return logError(1, "%s", NOT_CONNECTED);
    if (std::isnan(volts))
        return logError(1, "Bias voltage is not a number.");
    biasValue = volts;
    return sendBiasCode(volts);
}

double Mpx2DevRow::getMaxBias() const
{
    if (biasTypeText == "C")
        return 0.0;
    return biasTypeText == "B" ? 200.0 : 100.0;
}

int Mpx2DevRow::setInterfaceDac(char dac, double value)
{
    return AMpx2Dev::setInterfaceDac(dac, value);
}

int Mpx2DevRow::setPixelCfg(const unsigned char* cfg, std::size_t size)
{
    if (requireChips() != 0)
        return 1;
    if (cfg == nullptr && size != 0)
        return refuseNull();
    if (!checkSize(size))
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    std::vector<unsigned short> words(size);
    pixelCfgToMatrixMpx2(cfg, size, timepix, words.data());
    // A recovery hands in the backup itself.
    if (cfg != pixelCfgBackup.data())
        pixelCfgBackup.assignData(cfg, size);
    return writeMatrix(words.data(), words.size(), false);
}

int Mpx2DevRow::writeMatrix(const unsigned short* matrix, std::size_t size, bool convert)
{
    if (requireChips() != 0)
        return 1;
    if (matrix == nullptr && size != 0)
        return refuseNull();
    if (!checkSize(size))
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Write Matrix");
    return writeChips(matrix, size, convert);
}

// ---- Matrices ----

int Mpx2DevRow::eraseMatrix()
{
    if (requireChips() != 0)
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Erase matrix");
    discardMatrix();
    // A TDI frame is put together in the stream: it begins with counters that read as 0.
    if (!loadFlag(acquiring))
        buffers.receive([](std::span<unsigned char> stream) { std::ranges::fill(stream, BLANK_STREAM); });
    return 0;
}

int Mpx2DevRow::readMatrixFromDevice(bool rowOnly)
{
    if (requireChips() != 0)
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    StreamCount count;
    return buffers.receive([&](std::span<unsigned char> stream) { return readOut(stream, rowOnly, count); });
}

int Mpx2DevRow::readStream(std::span<unsigned char> stream, StreamCount& count)
{
    return readOut(stream, false, count);
}

int Mpx2DevRow::readOut(std::span<unsigned char> stream, bool rowOnly, StreamCount& count)
{
    if (requireChips() != 0)
        return 1;
    logFunction("Read Matrix");
    if (const int result = switchChannel(ENABLED_CHANNELS); result != 0)
        return result;
    const Link::Exchange whole(link);
    changePins({{&TpxPins::M0, 0}, {&TpxPins::M1, 0}, {&TpxPins::OUTEN, 1}, {&TpxPins::ENIN, 0}});
    const int result = rowOnly ? receiveRow(stream) : receiveStream(stream, count);
    changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}});
    return result != 0 ? logError(1, "Reading matrix failed %d (%s)", result, link.lastError()) : 0;
}

int Mpx2DevRow::receiveStream(std::span<unsigned char> stream, StreamCount& count)
{
    const Mpx2Readout readout = mpx2RowDeviceReadout(static_cast<std::size_t>(chipCount_));
    link.send(tpx::TpxCmd::Readout, CmdArgs::word(readout.bits), cmdflag::OUTPUT);
    unsigned long received = std::min(readout.bytes, stream.size());
    count.expected = received;
    const int result = link.receive(stream.data(), &received, READ_TIMEOUT);
    count.received = received;
    return result;
}

int Mpx2DevRow::receiveRow(std::span<unsigned char> stream)
{
    link.send(tpx::TpxCmd::Readout, CmdArgs::word(MPX2_SINGLE_ROW_READOUT.bits), cmdflag::OUTPUT);
    std::array<unsigned char, MPX2_SINGLE_ROW_READOUT.bytes> row{};
    unsigned long received = row.size();
    const int result = link.receive(row.data(), &received, READ_TIMEOUT);
    if (result == 0)
        pushMpx2Row(stream, std::span(row).first(received));
    return result;
}

int Mpx2DevRow::readContinuousMatrixFromDevice(unsigned long rows)
{
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    StreamCount count;
    return readRows(rows, count);
}

/// The next block of rows of a TDI series.
int Mpx2DevRow::readRows(unsigned long rows, StreamCount& count)
{
    logFunction("Read Acq Finished & Matrix");
    const auto chips = static_cast<std::size_t>(chipCount_);
    const unsigned long blockRows = std::min<unsigned long>(rows, MAX_BLOCK_ROWS);
    std::vector<unsigned char> block(mpx2TdiBlockSize(chips, blockRows));
    unsigned long received = block.size();
    const int result = link.receive(block.data(), &received, ROWS_TIMEOUT);
    if (result != 0)
        received = 0;
    count.expected += block.size();
    count.received += received;
    if (received < block.size())
        rowsMissed = true;
    // A link that fails does so at once, and so may blocks without rows come.
    if (result != 0 || rows == 0)
        sleepThread(EMPTY_BLOCK_PAUSE);
    buffers.receive([&](std::span<unsigned char> stream) {
        storeMpx2TdiBlock(std::span(block).first(received), chips, blockRows, rowsRead, stream);
    });
    rowsRead += rows;
    return 0;
}

int Mpx2DevRow::readMatrixCounting(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing)
{
    const std::size_t taken = std::min(size, static_cast<std::size_t>(chipCount_) * MPX2_CHIP_PIXELS);
    if (!givesAnnouncedFrame()) {
        const int result = readChipsNow(matrix, taken, convert, missing);
        matrixReadEvent.set();
        return result;
    }
    takeAnnouncedFrame();
    missing = buffers.copyMissing();
    return getConvertedMatrix(matrix, taken, convert, true);
}

void Mpx2DevRow::decodeStream(std::span<const unsigned char> stream, std::span<unsigned short> matrix,
                              bool convert) const
{
    decodeMpx2RowDevice(stream, static_cast<std::size_t>(chipCount_), matrix, convert);
}

} // namespace HwLatixel
