// One channel of a Medipix3 board.
#include "sim/boards/mpx3chain.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint8_t omrHeader = 0x30;
constexpr std::uint8_t dataHeader = 0xA0;
constexpr std::size_t omrBytes = 12; ///< of one chip: image of ten bytes, two that fall out
constexpr std::size_t headerBytes = 3;

bool allZero(std::span<const std::uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// A data record begins with a byte of zeros, the header, and a byte of zeros.
bool hasDataHeader(std::span<const std::uint8_t> record)
{
    return record[0] == 0 && record[1] == dataHeader && record[2] == 0;
}

/// What one chip of a chain of `length` shifts out in a fuse read. The header comes through one chip more in a chain
/// of two, and so one bit later; the identifier then begins one byte later.
Bytes fuseRecord(const Mpx3Chip& chip, std::size_t length)
{
    constexpr std::size_t idStart = 23;
    constexpr std::uint8_t emptyCell = 0x11;
    Bytes record(Mpx3Chain::fuseRecordBytes, emptyCell);
    record[0] = 0;
    record[1] = static_cast<std::uint8_t>(dataHeader >> (length - 1));
    const auto fuses = chip.fuses();
    std::ranges::copy(fuses, record.begin() + static_cast<std::ptrdiff_t>(idStart + length - 1));
    return record;
}

} // namespace

/// A kind of stream, with the mode that the chips take it in and what is told when it is not as it should be.
struct Mpx3Chain::Load {
    unsigned mode;
    bool (Mpx3Chain::*take)(std::span<const std::uint8_t> bytes, std::size_t length);
    const char* objection;
};

const std::array<Mpx3Chain::Load, 5> Mpx3Chain::loads = {
    {{omrmode::loadDacs, &Mpx3Chain::loadDacs, "DAC stream of the wrong size or form"},
     {omrmode::loadCounter0, &Mpx3Chain::loadMatrix, "matrix stream of the wrong size, form or register"},
     {omrmode::loadCounter1, &Mpx3Chain::loadMatrix, "matrix stream of the wrong size, form or register"},
     {omrmode::loadCtpr, &Mpx3Chain::loadCtpr, "CTPR stream of the wrong size or form"},
     {omrmode::readFuses, &Mpx3Chain::readFuses, "fuse request of the wrong size or form"}}};

void Mpx3Chain::shift(std::span<const std::uint8_t> bytes, std::size_t length, const Complain& complain)
{
    if (!powered)
        return;
    if (bytes[0] == omrHeader) {
        if (!loadOmr(bytes, length))
            complain("OMR stream of the wrong size or form", bytes);
        return;
    }
    if (omr.mode() != omrmode::readFuses)
        held.clear();
    const auto load = std::ranges::find(loads, omr.mode(), &Load::mode);
    if (load == loads.end())
        complain("data shifted while the register says readout", bytes);
    else if (!(this->*load->take)(bytes, length))
        complain(load->objection, bytes);
}

Bytes Mpx3Chain::answer(std::size_t bytes) const
{
    if (!powered || stuck || chips.empty() || missing[0])
        return Bytes(bytes, restingByte());
    Bytes shifted = held;
    shifted.resize(bytes);
    return shifted;
}

void Mpx3Chain::setPower(bool on)
{
    if (powered && !on)
        reset();
    powered = on;
}

void Mpx3Chain::reset()
{
    for (const auto& chip : chips)
        chip->reset();
    omr = {};
    secondHalf = false;
    held.clear();
}

void Mpx3Chain::expose(double seconds, unsigned depth, std::uint64_t frame)
{
    if (!powered)
        return;
    for (const auto& chip : chips)
        chip->expose(seconds, depth, frame);
}

void Mpx3Chain::exposeRow(std::uint64_t step, double seconds, unsigned depth)
{
    if (!powered)
        return;
    for (const auto& chip : chips)
        chip->exposeRow(step, seconds, depth);
}

void Mpx3Chain::clearCounters()
{
    for (const auto& chip : chips)
        chip->clearCounters();
}

const ChipStream* Mpx3Chain::read(std::size_t position, unsigned counter, const ReadoutShape& shape)
{
    if (!powered || position >= chips.size())
        return nullptr;
    held.clear();
    const ChipStream& stream = chips[position]->read(counter, shape);
    return stuck || missing.at(position) ? nullptr : &stream;
}

std::optional<double> Mpx3Chain::senseVolts() const
{
    for (const auto& chip : chips)
        if (const auto volts = chip->senseVolts())
            return volts;
    return std::nullopt;
}

void Mpx3Chain::clearFaults()
{
    stuck.reset();
    missing = {};
}

bool Mpx3Chain::loadOmr(std::span<const std::uint8_t> bytes, std::size_t length)
{
    if (bytes.size() != omrBytes && bytes.size() != omrBytes * length)
        return false;
    for (std::size_t at = 0; at < bytes.size(); at += omrBytes)
        if (bytes[at] != omrHeader || bytes[at + 1] != 0 || !allZero(bytes.subspan(at + 8, omrBytes - 8)))
            return false;
    for (std::size_t i = 0; i < chips.size(); ++i) {
        const std::size_t at = std::min(i * omrBytes, bytes.size() - omrBytes);
        chips[i]->loadOmr(Mpx3Omr(bytes.subspan(at + 2).first<6>()));
    }
    omr = Mpx3Omr(bytes.subspan(2).first<6>());
    secondHalf = false;
    return true;
}

bool Mpx3Chain::loadDacs(std::span<const std::uint8_t> bytes, std::size_t length)
{
    constexpr std::size_t size = Mpx3Chip::dacRecordBytes;
    constexpr std::size_t dacStreamBytes = 29; ///< 226 bits
    if (bytes.size() != size * length)
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        const auto record = bytes.subspan(i * size, size);
        if (!hasDataHeader(record) || !allZero(record.subspan(headerBytes + dacStreamBytes)))
            return false;
        if (i < chips.size())
            chips[i]->loadDacs(record.subspan(headerBytes));
    }
    return true;
}

bool Mpx3Chain::loadCtpr(std::span<const std::uint8_t> bytes, std::size_t /*length*/)
{
    constexpr std::size_t header = 2;
    if (bytes.size() != header + Mpx3Chip::ctprBytes + 2 || bytes[0] != dataHeader || bytes[1] != 0)
        return false;
    for (const auto& chip : chips)
        chip->loadCtpr(bytes.subspan(header, Mpx3Chip::ctprBytes));
    return true;
}

bool Mpx3Chain::loadMatrix(std::span<const std::uint8_t> bytes, std::size_t length)
{
    const bool wholeRows = omr.depth() == 12 && omr.shape() == ReadoutShape{};
    if (bytes.size() != halfMatrixBytes * length || !wholeRows)
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        const auto record = bytes.subspan(i * halfMatrixBytes, halfMatrixBytes);
        if (!hasDataHeader(record))
            return false;
        if (i < chips.size())
            chips[i]->loadHalf(omr.mode() == omrmode::loadCounter0 ? 0 : 1, secondHalf,
                               record.subspan(headerBytes, 128 * Mpx3Pixels::rowBytes));
    }
    secondHalf = !secondHalf;
    return true;
}

bool Mpx3Chain::readFuses(std::span<const std::uint8_t> bytes, std::size_t length)
{
    const std::size_t records = bytes.size() / fuseRecordBytes;
    if (bytes.size() % fuseRecordBytes != 0 || records == 0 || records > length)
        return false;
    for (std::size_t i = 0; i < records; ++i)
        if (bytes[i * fuseRecordBytes] != dataHeader ||
            !allZero(bytes.subspan(i * fuseRecordBytes + 1, fuseRecordBytes - 1)))
            return false;
    held.clear();
    for (const auto& chip : chips) {
        const Bytes record = fuseRecord(*chip, chips.size());
        held.insert(held.end(), record.begin(), record.end());
    }
    return true;
}

} // namespace sim
