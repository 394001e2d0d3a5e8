// Matrices of a Medipix3 board: writing, erasing, and reading by hand or during a series.
#include "devices/mpx3/mpx3dev.h"

#include "chipdata/mpx3counters.h"

#include <algorithm>
#include <optional>

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
    return requireChips() != 0 ? 1 : writeMatrix(data, size, config.get().counterSelect, convert);
}

int Mpx3Dev::writeMatrix(const unsigned* data, std::size_t size, unsigned char counter, bool convert)
{
    if (requireChips() != 0)
        return 1;
    if (data == nullptr && size != 0)
        return logError(1, "No matrix given.");
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
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
    switchChannel(channel, false, false, true);
    const OMR saved = omrValue.get();
    omrValue.update([](OMR& image) { selectWholeMatrix(image, WRITE_ROW_BLOCK); });
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
            omrValue.set(saved);
            return result;
        }
    }
    const unsigned char lastMode = counter == 0 ? MPX3_MODE_WRITE_FIRST : MPX3_MODE_WRITE_SECOND;
    if (const int result = sendOMRMode(lastMode); result != 0)
        return result;
    const int result = writeMatrixSingleCounter(data, size, true);
    omrValue.set(saved);
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
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    logFunction("Erase Matrix");
    if (!link.exists())
        return requireLink();
    readoutDisturbed = true;
    const OMR saved = omrValue.get();
    omrValue.update([](OMR& image) { selectWholeMatrix(image, ERASE_ROW_BLOCK); });
    // The board keeps these readout images until the next setReadoutOMRs.
    setReadoutOMRs();
    // With data disabled the chips shift out and clear their counters, and only the packets come.
    switchChannel(ALL_CHANNELS, false, false, true);
    unsigned char packets[ERASE_PACKETS + 1];
    const int result = link->sendRecv(mpx3::MpxCmd::Start,
                                      CmdArgs::byteAnd24(SELECT_BOTH, static_cast<std::uint32_t>(getReadBitsSize())),
                                      packets, ERASE_PACKETS, cmdflag::OUTPUT, READ_TIMEOUT);
    omrValue.set(saved);
    return result;
}

int Mpx3Dev::fastClearMatrix()
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    // The pins bracket what is clocked through.
    const Link::Exchange whole(link);
    logFunction("Fast Clear Matrix");
    const unsigned char zeros[mpx3::FAST_CLEAR_SIZE] = {};
    int sum = setPins(mpx3::pinword::FAST_CLEAR_LOW);
    switchChannel(ALL_CHANNELS, false, true, false);
    sum += link.sendPayload(mpx3::MpxCmd::Data, zeros, sizeof(zeros), cmdflag::PAYLOAD | cmdflag::ACT);
    sum += setPins(mpx3::pinword::FAST_CLEAR_HIGH);
    return sum != 0 ? logError(sum, "Cannot fast clear matrix: %s", link.lastError()) : 0;
}

/// As much of the host's array as belongs to this device's chips.
std::span<unsigned> Mpx3Dev::hostMatrix(unsigned* data, std::size_t size) const
{
    const std::size_t pixels = static_cast<std::size_t>(chipCountValue) * CHIP_PIXELS;
    return {data, data != nullptr ? std::min(size, pixels) : 0};
}

int Mpx3Dev::readMatrix(unsigned* data, std::size_t size, bool convert)
{
    unsigned long missing = 0;
    return readFrame(data, size, convert, &missing);
}

int Mpx3Dev::readFrame(unsigned* data, std::size_t size, bool convert, unsigned long* missing)
{
    *missing = 0;
    if (requireChips() != 0)
        return 1;
    if (!loadFlag(frameAnnounced))
        return readMatrixFromDevice(hostMatrix(data, size), config.get().counterSelect, convert, missing);
    Stream about;
    readAnnounced(hostMatrix(data, size), nullptr, convert, &about);
    *missing = about.missing;
    return 0;
}

int Mpx3Dev::readMatrix(unsigned* data, std::size_t size, unsigned char counter, bool convert)
{
    if (!loadFlag(frameAnnounced))
        return readMatrixFromDevice(hostMatrix(data, size), counter, convert, nullptr);
    const int counters = counter;
    readAnnounced(hostMatrix(data, size), &counters, convert, nullptr);
    return 0;
}

/// Decodes the frame that was announced last, the counters that it was taken with or those of `counters`. Tells its
/// circumstances to `about`, but for the bytes.
void Mpx3Dev::readAnnounced(std::span<unsigned> matrix, const int* counters, bool convert, Stream* about)
{
    ThreadLock lock(&readerSync);
    {
        ThreadLock streamLock(&streamSync);
        reading.shape = announced->shape;
        reading.received = announced->received;
        reading.missing = announced->missing;
        reading.counters = announced->counters;
        reading.frameTime = announced->frameTime;
        // A TDI frame is decoded from the records of all rows, of which the count tells the last one.
        const std::size_t used = announced->shape.tdi ? announced->bytes.size() : announced->received;
        std::copy_n(announced->bytes.begin(), std::min(used, reading.bytes.size()), reading.bytes.begin());
    }
    // The series may overwrite the stream from here on, before the slow decoding starts.
    matrixReadEvent.set();
    decodeMpx3MatrixStream(reading.shape, reading.bytes, reading.received, matrix, matrix.size(),
                           counters != nullptr ? *counters : reading.counters, convert);
    if (about == nullptr)
        return;
    about->shape = reading.shape;
    about->missing = reading.missing;
    about->frameTime = reading.frameTime;
}

/// Reads the chips by hand. Adds what did not come to `missing`, if given.
int Mpx3Dev::readMatrixFromDevice(std::span<unsigned> matrix, int counters, bool convert, unsigned long* missing)
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    logFunction("Read Matrix");
    std::ranges::fill(matrix, 0U);
    const auto readInto = [&](std::span<unsigned> part, std::size_t convertSize, int channel) {
        switchChannel(channel, true, false, true);
        if (const int result = readMatrixStream(channel, true); result != 0)
            return result;
        if (missing != nullptr)
            *missing += incoming->missing;
        convertMpx3MatrixStream(streamShape(channel), incoming->bytes, incoming->received, part, convertSize, counters,
                                convert);
        return 0;
    };
    if (readParallel) {
        // With two chips on a channel this converts the first half of the pixels only; the others keep the chip's code.
        const std::size_t convertSize = static_cast<std::size_t>(channelCount) * CHIP_PIXELS;
        if (const int result = readInto(matrix, convertSize, ALL_CHANNELS); result != 0)
            return logError(result, "Cannot read matrix (counter=%d).", counters);
        return 0;
    }
    const std::size_t channelSize = static_cast<std::size_t>(chipsPerChannel()) * CHIP_PIXELS;
    for (int channel = 0; channel < channelCount; ++channel) {
        const std::size_t first = std::min(matrix.size(), static_cast<std::size_t>(channel) * channelSize);
        if (const int result = readInto(matrix.subspan(first), channelSize, channel); result != 0)
            return logError(result, "Cannot read matrix (chan=%d, counter=%d).", channel, counters);
    }
    return 0;
}

CmdArgs Mpx3Dev::streamParams() const
{
    const unsigned char counters = bothCounters() ? SELECT_BOTH : config.get().counterSelect;
    return CmdArgs::byteAnd24(counters, static_cast<std::uint32_t>(mpx3ReadCommandBits(omrValue.get(), twoChips)));
}

int Mpx3Dev::setMatrixStreamParams()
{
    return link.send(mpx3::MpxCmd::StreamParams, streamParams());
}

/// Receives a stream into `incoming`; the caller has the turn.
int Mpx3Dev::readMatrixStream(int channel, bool sendCommand)
{
    std::optional<Link::Exchange> whole;
    if (sendCommand) {
        whole.emplace(link);
        link.send(mpx3::MpxCmd::Start, streamParams(), cmdflag::OUTPUT);
    }
    const unsigned long expected = matrixStreamSize(channel == ALL_CHANNELS ? channelCount.load() : 1);
    incoming->received = expected;
    const int result = link.receive(incoming->bytes.data(), &incoming->received, READ_TIMEOUT);
    if (result != 0)
        incoming->received = 0;
    incoming->missing = expected - incoming->received;
    if (result == 0 && incoming->missing != 0)
        reportShort(incoming->received, expected);
    return result;
}

/// A stream that stops short is no failure; the frame carries the count of what is missing.
void Mpx3Dev::reportShort(unsigned long received, unsigned long expected) const
{
    report.line(ERR, "Frame is incomplete: %lu of %lu bytes received", received, expected);
}

unsigned long Mpx3Dev::matrixStreamSize(int channels) const
{
    return std::min<unsigned long>(mpx3ReadSize(omrValue.get(), twoChips, channels, bothCounters()),
                                   incoming->bytes.size());
}

Mpx3StreamShape Mpx3Dev::streamShape(int channel) const
{
    Mpx3StreamShape shape;
    shape.omr = omrValue.get();
    shape.channels = channel == ALL_CHANNELS ? channelCount.load() : 1;
    shape.twoChips = twoChips;
    return shape;
}

} // namespace HwLatixel
