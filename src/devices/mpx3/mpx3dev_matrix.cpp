// Matrices of a Medipix3 board: writing, erasing, and reading by hand or during a series.
#include "devices/mpx3/mpx3dev.h"

#include "chipdata/mpx3counters.h"

#include <algorithm>
#include <cstring>

namespace HwLatixel {

namespace {

constexpr double READ_TIMEOUT = 0.5; ///< seconds of silence after which a stream counts as ended
constexpr unsigned char BOTH_COUNTERS = 2;
constexpr unsigned char SELECT_BOTH = 3;                       ///< both counters in the read command
constexpr unsigned long ERASE_PACKETS = 2 * END_OF_FRAME_SIZE; ///< one packet for each counter

constexpr std::size_t CHIP_PIXELS = MPX3_CHIP_PIXELS;

/// The image in which a matrix is written and erased: all rows and columns, 12 bits.
void selectWholeMatrix(OMR& omr, unsigned char rowBlock)
{
    omr.ColumnBlockSel = 0;
    omr.RowBlockSel = 0;
    omr.ColumnBlock = 0;
    omr.RowBlock = rowBlock;
    omr.PS = 0;
    omr.CountL = 2;
}

constexpr unsigned char WRITE_ROW_BLOCK = 7;
constexpr unsigned char ERASE_ROW_BLOCK = 0;

} // namespace

int Mpx3Dev::writeMatrix(const unsigned* data, std::size_t size, bool convert)
{
    return requireChips() != 0 ? 1 : writeMatrix(data, size, config.counterSelect, convert);
}

int Mpx3Dev::writeMatrix(const unsigned* data, std::size_t size, unsigned char counter, bool convert)
{
    if (requireChips() != 0)
        return 1;
    // Pixels that the caller does not have are written as 0.
    std::vector<unsigned> words(static_cast<std::size_t>(chipCountValue) * CHIP_PIXELS);
    std::copy_n(data, std::min(size, words.size()), words.begin());
    const std::size_t channelSize = static_cast<std::size_t>(chipsPerChannel()) * CHIP_PIXELS;
    for (int channel = 0; channel < channelCount; ++channel) {
        const unsigned* first = words.data() + static_cast<std::size_t>(channel) * channelSize;
        if (const int result = writeMatrixChannel(first, channelSize, counter, channel, convert); result != 0)
            return logError(result, "Cannot write matrix (chan=%d, counter=%d).", channel, counter);
    }
    return 0;
}

int Mpx3Dev::writeMatrixChannel(const unsigned* data, unsigned long size, unsigned char counter, int channel,
                                bool convert)
{
    logFunction("Write Matrix");
    ThreadLock devLock(&devSync);
    ThreadLock dataLock(&dataSync);
    switchChannel(channel, false, false, true);
    const OMR saved = omrValue;
    selectWholeMatrix(omrValue, WRITE_ROW_BLOCK);
    std::vector<unsigned> copy(data, data + size);
    if (convert) {
        const unsigned char depth = counter == BOTH_COUNTERS ? 24 : 12;
        // From here on the image comes back only behind the last write: a failure before it leaves the image in write
        // form until the next setConfig.
        if (const int failed = convertCountsMpx3(copy.data(), size, depth, true, false); failed != 0)
            return logError(failed, "Cannot convert counts.");
    }
    return writeCounters(copy.data(), size, counter, saved);
}

int Mpx3Dev::writeCounters(const unsigned* data, unsigned long size, unsigned char counter, const OMR& saved)
{
    if (counter >= BOTH_COUNTERS) {
        if (const int result = sendOMRMode(MPX3_MODE_WRITE_FIRST); result != 0)
            return result;
        if (const int result = writeMatrixSingleCounter(data, size, false); result != 0) {
            omrValue = saved;
            return result;
        }
    }
    const unsigned char lastMode = counter == 0 ? MPX3_MODE_WRITE_FIRST : MPX3_MODE_WRITE_SECOND;
    if (const int result = sendOMRMode(lastMode); result != 0)
        return result;
    const int result = writeMatrixSingleCounter(data, size, true);
    omrValue = saved;
    return result;
}

int Mpx3Dev::writeMatrixSingleCounter(const unsigned* data, unsigned long size, bool lowCounter)
{
    std::vector<unsigned char> payload(MPX3_WRITE_BUFFER_SIZE);
    for (const Mpx3Half half : {Mpx3Half::Lower, Mpx3Half::Upper}) {
        const std::size_t bytes = fillMpx3WritePayload(data, size, twoChips, lowCounter, half, payload.data());
        if (const int result = sendShift(payload.data(), bytes, cmdflag::PAYLOAD | cmdflag::ACT); result != 0)
            return logError(result, "Cannot write matrix: %s", link.lastError());
    }
    return setPins(mpx3::pinword::MATRIX_WRITTEN);
}

int Mpx3Dev::eraseMatrix()
{
    logFunction("Erase Matrix");
    if (!link.exists())
        return requireLink();
    const OMR saved = omrValue;
    selectWholeMatrix(omrValue, ERASE_ROW_BLOCK);
    // The board keeps these readout images until the next setReadoutOMRs.
    setReadoutOMRs();
    // With data disabled the chips shift out and clear their counters, and only the packets come.
    switchChannel(ALL_CHANNELS, false, false, true);
    unsigned char packets[ERASE_PACKETS + 1];
    const int result = link->sendRecv(mpx3::MpxCmd::Start,
                                      CmdArgs::byteAnd24(SELECT_BOTH, static_cast<std::uint32_t>(getReadBitsSize())),
                                      packets, ERASE_PACKETS, cmdflag::OUTPUT, READ_TIMEOUT);
    omrValue = saved;
    return result;
}

int Mpx3Dev::fastClearMatrix()
{
    logFunction("Fast Clear Matrix");
    const unsigned char zeros[mpx3::FAST_CLEAR_SIZE] = {};
    int sum = setPins(mpx3::pinword::FAST_CLEAR_LOW);
    switchChannel(ALL_CHANNELS, false, true, false);
    sum += link.sendPayload(mpx3::MpxCmd::Data, zeros, sizeof(zeros), cmdflag::PAYLOAD | cmdflag::ACT);
    sum += setPins(mpx3::pinword::FAST_CLEAR_HIGH);
    return sum != 0 ? logError(sum, "Cannot fast clear matrix: %s", link.lastError()) : 0;
}

int Mpx3Dev::readMatrix(unsigned* data, std::size_t size, bool convert)
{
    return requireChips() != 0 ? 1 : readMatrix(data, size, config.counterSelect, convert);
}

int Mpx3Dev::readMatrix(unsigned* data, std::size_t size, unsigned char counter, bool convert)
{
    if (!loadFlag(acquiring))
        return readMatrixFromDevice(data, size, counter, convert);
    const unsigned long received = readBytes;
    // A TDI frame is decoded from the records of all rows, of which the count tells the last one.
    std::memcpy(streamCopy.data(), streamBuffer.data(), tdiMode ? streamBuffer.size() : received);
    // The acquisition thread may overwrite the stream from here on, before the slow decoding starts.
    matrixReadEvent.set();
    decodeMpx3MatrixStream(streamShape(ALL_CHANNELS), {streamCopy.data(), streamCopy.size()}, received,
                           {data, data != nullptr ? size : 0}, size, counter, convert);
    return 0;
}

int Mpx3Dev::readMatrixFromDevice(unsigned* data, std::size_t size, unsigned char counter, bool convert)
{
    logFunction("Read Matrix");
    const std::span<unsigned> matrix(data, data != nullptr ? size : 0);
    std::ranges::fill(matrix, 0U);
    if (readParallel) {
        switchChannel(ALL_CHANNELS, true, false, true);
        if (const int result = readMatrixStream(ALL_CHANNELS, true); result != 0)
            return logError(result, "Cannot read matrix (counter=%d).", counter);
        // With two chips on a channel this converts the first half of the pixels only; the others keep the chip's code.
        const std::size_t convertSize = static_cast<std::size_t>(channelCount) * CHIP_PIXELS;
        convertMatrixStream(streamBuffer, readBytes, matrix, convertSize, counter, ALL_CHANNELS, convert);
        return 0;
    }
    const std::size_t channelSize = static_cast<std::size_t>(chipsPerChannel()) * CHIP_PIXELS;
    for (int channel = 0; channel < channelCount; ++channel) {
        switchChannel(channel, true, false, true);
        if (const int result = readMatrixStream(channel, true); result != 0)
            return logError(result, "Cannot read matrix (chan=%d, counter=%d).", channel, counter);
        const std::size_t first = std::min(matrix.size(), static_cast<std::size_t>(channel) * channelSize);
        convertMatrixStream(streamBuffer, readBytes, matrix.subspan(first), channelSize, counter, channel, convert);
    }
    return 0;
}

CmdArgs Mpx3Dev::streamParams() const
{
    const unsigned char counters = config.counterSelect == BOTH_COUNTERS ? SELECT_BOTH : config.counterSelect;
    return CmdArgs::byteAnd24(counters, static_cast<std::uint32_t>(mpx3ReadCommandBits(omrValue, twoChips)));
}

int Mpx3Dev::setMatrixStreamParams()
{
    return link.send(mpx3::MpxCmd::StreamParams, streamParams());
}

int Mpx3Dev::readMatrixStream(int channel, bool sendCommand)
{
    if (sendCommand)
        link.send(mpx3::MpxCmd::Start, streamParams(), cmdflag::OUTPUT);
    readBytes = matrixStreamSize(channel == ALL_CHANNELS ? channelCount : 1);
    return link.receive(streamBuffer.data(), &readBytes, READ_TIMEOUT);
}

/// Takes the stream of a frame that a stop has cut off the link. It goes to nobody, and must not go where the reader of
/// the frame before still copies.
int Mpx3Dev::dropMatrixStream()
{
    std::vector<unsigned char> scratch(streamBuffer.size());
    unsigned long received = matrixStreamSize(channelCount);
    return link.receive(scratch.data(), &received, READ_TIMEOUT);
}

unsigned long Mpx3Dev::matrixStreamSize(int channels) const
{
    return std::min<unsigned long>(mpx3ReadSize(omrValue, twoChips, channels, config.counterSelect == BOTH_COUNTERS),
                                   streamBuffer.size());
}

void Mpx3Dev::convertMatrixStream(const Buffer<unsigned char>& stream, unsigned long received,
                                  std::span<unsigned> matrix, std::size_t convertSize, int counters, int channel,
                                  bool convert) const
{
    convertMpx3MatrixStream(streamShape(channel), {stream.data(), stream.size()}, received, matrix, convertSize,
                            counters, convert);
}

Mpx3StreamShape Mpx3Dev::streamShape(int channel) const
{
    Mpx3StreamShape shape;
    shape.omr = omrValue;
    shape.channels = channel == ALL_CHANNELS ? channelCount : 1;
    shape.twoChips = twoChips;
    shape.tdi = tdiMode && loadFlag(acquiring);
    return shape;
}

} // namespace HwLatixel
