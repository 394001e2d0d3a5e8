// The pixel matrix of a Medipix2 or Timepix board on its way to the host: module by module, or all modules at once.
#include "devices/mpx2/mpx2dev.h"

#include "chipdata/mpx2matrix.h"

#include <algorithm>
#include <optional>

namespace HwLatixel {

namespace {

constexpr double MODULE_TIMEOUT = 1.5;       ///< seconds of silence in a readout of one module
constexpr double PARALLEL_TIMEOUT = 0.5;     ///< the same in a readout of all modules
constexpr double MODULE_DRAIN_TIMEOUT = 0.2; ///< seconds of silence after which the link counts as empty
constexpr double PARALLEL_DRAIN_TIMEOUT = 1.0;
constexpr unsigned long DRAIN_CHUNK = 100000; ///< bytes
constexpr int MODULE_DRAIN_READS = 10000;     ///< a board that never falls silent is left alone
constexpr int PARALLEL_DRAIN_READS = 20;

} // namespace

int Mpx2Dev::eraseMatrix()
{
    if (requireChips() != 0)
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    logFunction("Erase matrix");
    discardMatrix();
    return 0;
}

int Mpx2Dev::readMatrixFromDevice()
{
    return readForComposite([this](StreamCount& count) {
        return buffers.receive([&](std::span<unsigned char> stream) { return readStream(stream, count); });
    });
}

int Mpx2Dev::readMatrixAside()
{
    spareStream.resize(buffers.size());
    return readForComposite([this](StreamCount& count) { return readStream(spareStream, count); });
}

void Mpx2Dev::takeAside()
{
    buffers.receive([this](std::span<unsigned char> stream) {
        std::copy_n(spareStream.begin(), std::min(spareStream.size(), stream.size()), stream.begin());
    });
}

template <typename Read>
int Mpx2Dev::readForComposite(Read read)
{
    if (requireChips() != 0)
        return 1;
    const DeviceTurn turn = operationTurn();
    if (turn.require() != 0)
        return 1;
    StreamCount count;
    const int result = read(count);
    streamMissing = count.missing();
    return result;
}

/// A stream that comes short is a failure here, so that there is nothing to count.
int Mpx2Dev::readStream(std::span<unsigned char> stream, StreamCount&)
{
    if (requireChips() != 0)
        return 1;
    logFunction("Read Matrix");
    return readParallel ? readAllModules(stream) : readModules(stream);
}

int Mpx2Dev::readModules(std::span<unsigned char> stream)
{
    for (const auto& group : chipGroups()) {
        if (const int result = switchModule(group.number); result != 0)
            return result;
        if (group.chips == 0)
            continue;
        const auto chips = static_cast<std::size_t>(group.chips);
        if (const int result = readModule(mpx2ModuleReadout(chips), stream); result != 0)
            return result;
        stream = stream.subspan(std::min(mpx2ModuleStride(chips), stream.size()));
    }
    return 0;
}

int Mpx2Dev::readModule(const Mpx2Readout& readout, std::span<unsigned char> stream)
{
    std::optional<Link::Exchange> whole(link);
    changePins({{&TpxPins::M0, 0}, {&TpxPins::M1, 0}, {&TpxPins::OUTEN, 1}});
    changePins({{&TpxPins::ENIN, 0}, {&TpxPins::PS, 0}});
    sendReadout(readout);
    const unsigned long expected = std::min(readout.bytes, stream.size());
    unsigned long received = expected;
    const int result = link.receive(stream.data(), &received, MODULE_TIMEOUT);
    whole.reset();
    if (mpx2TailOutOfStep(stream.first(received))) {
        logError(1, "Reading more data");
        drainTail(MODULE_DRAIN_TIMEOUT, MODULE_DRAIN_READS);
    }
    changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}});
    return reportReadout(1, received, expected, result);
}

int Mpx2Dev::readAllModules(std::span<unsigned char> stream)
{
    if (const int result = switchModule(ENABLED_MODULES); result != 0)
        return result;
    std::optional<Link::Exchange> whole(link);
    changePins({{&TpxPins::M0, 0}, {&TpxPins::M1, 0}, {&TpxPins::OUTEN, 1}, {&TpxPins::ENIN, 0}, {&TpxPins::PS, 0}});
    const Mpx2Readout readout =
        mpx2ParallelReadout(static_cast<std::size_t>(chipCount_), static_cast<std::size_t>(activeModuleCount));
    sendReadout(readout);
    const unsigned long expected = std::min(readout.bytes, stream.size());
    unsigned long received = expected;
    const int result = link.receive(stream.data(), &received, PARALLEL_TIMEOUT);
    whole.reset();
    if (mpx2TailOutOfStep(stream.first(received)))
        drainTail(PARALLEL_DRAIN_TIMEOUT, PARALLEL_DRAIN_READS);
    changePins({{&TpxPins::ENIN, 1}, {&TpxPins::OUTEN, 0}});
    return reportReadout(-1, received, expected, result);
}

/// Reads and drops what follows a readout whose closing frame has not come yet. Each read asks for as many bytes as the
/// one before has brought.
void Mpx2Dev::drainTail(double timeout, int maxReads) const
{
    std::vector<unsigned char> scratch(DRAIN_CHUNK);
    unsigned long received = DRAIN_CHUNK;
    for (int i = 0; i < maxReads && received > 0; ++i)
        if (link.receive(scratch.data(), &received, timeout) != 0)
            return;
}

/// The result of a readout. One that failed outright leaves the count as it was asked for.
int Mpx2Dev::reportReadout(int shortCode, unsigned long received, unsigned long expected, int result) const
{
    if (received < expected)
        return logError(shortCode, "Reading matrix failed - not enough data received (%u < %u)",
                        static_cast<unsigned>(received), static_cast<unsigned>(expected));
    if (result != 0)
        return logError(1, "Reading matrix failed %d (%s)", result, link.lastError());
    return 0;
}

int Mpx2Dev::readMatrixCounting(unsigned short* matrix, std::size_t size, bool convert, std::size_t& missing)
{
    const int pixels = chipCount_ * MPX2_CHIP_PIXELS;
    if (static_cast<int>(size) < pixels) {
        // It counts as a read all the same: the series goes on.
        takeAnnouncedFrame();
        return logError(1, "Invalid size for matrix (%lu < %lu)", static_cast<unsigned long>(size),
                        static_cast<unsigned long>(pixels));
    }
    if (!givesAnnouncedFrame())
        return readChipsNow(matrix, static_cast<std::size_t>(pixels), convert, missing);
    takeAnnouncedFrame();
    missing = buffers.copyMissing();
    getConvertedMatrix(matrix, static_cast<std::size_t>(pixels), convert, true);
    return 0;
}

void Mpx2Dev::decodeStream(std::span<const unsigned char> stream, std::span<unsigned short> matrix, bool convert) const
{
    if (!readParallel) {
        decodeModules(stream, matrix, convert);
        return;
    }
    const auto modules = static_cast<std::size_t>(activeModuleCount);
    decodeMpx2Modules(stream, modules, mpx2ChipsPerModule(static_cast<std::size_t>(chipCount_), modules), matrix,
                      convert);
}

void Mpx2Dev::decodeModules(std::span<const unsigned char> stream, std::span<unsigned short> matrix, bool convert) const
{
    for (const auto& group : chipGroups()) {
        const auto chips = static_cast<std::size_t>(group.chips);
        const auto own = matrix.first(std::min(chips * MPX2_CHIP_PIXELS, matrix.size()));
        decodeMpx2Modules(stream, 1, chips, own, convert);
        matrix = matrix.subspan(own.size());
        if (group.chips > 0)
            stream = stream.subspan(std::min(mpx2ModuleStride(chips), stream.size()));
    }
    // Of what is left there is no chip.
    decodeMpx2Modules({}, 1, 0, matrix, convert);
}

} // namespace HwLatixel
