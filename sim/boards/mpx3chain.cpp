// One channel of a Medipix3 board.
#include "sim/boards/mpx3chain.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint8_t OMR_HEADER = 0x30;
constexpr std::uint8_t DATA_HEADER = 0xA0;
constexpr std::size_t OMR_BYTES = 12; ///< of one chip: image of ten bytes, two that fall out
constexpr std::size_t HEADER_BYTES = 3;

bool allZero(std::span<const std::uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

/// A data record begins with a byte of zeros, the header, and a byte of zeros.
bool hasDataHeader(std::span<const std::uint8_t> record)
{
    return record[0] == 0 && record[1] == DATA_HEADER && record[2] == 0;
}

/// What one chip of a chain of `length` shifts out in a fuse read. The header comes through one chip more in a chain
/// of two, and so one bit later; the identifier then begins one byte later.
Bytes fuseRecord(const Mpx3Chip& chip, std::size_t length)
{
    constexpr std::size_t ID_START = 23;
    constexpr std::uint8_t EMPTY_CELL = 0x11;
    Bytes record(Mpx3Chain::FUSE_RECORD_BYTES, EMPTY_CELL);
    record[0] = 0;
    record[1] = static_cast<std::uint8_t>(DATA_HEADER >> (length - 1));
    const auto fuses = chip.fuses();
    std::ranges::copy(fuses, record.begin() + static_cast<std::ptrdiff_t>(ID_START + length - 1));
    return record;
}

} // namespace

/// A kind of stream, with the mode that the chips take it in and what is told when it is not as it should be.
struct Mpx3Chain::Load {
    unsigned mode;
    bool (Mpx3Chain::*take)(std::span<const std::uint8_t> bytes, std::size_t length);
    const char* objection;
};

const std::array<Mpx3Chain::Load, 5> Mpx3Chain::LOADS = {
    {{omrmode::LOAD_DACS, &Mpx3Chain::loadDacs, "DAC stream of the wrong size or form"},
     {omrmode::LOAD_COUNTER0, &Mpx3Chain::loadMatrix, "matrix stream of the wrong size, form or register"},
     {omrmode::LOAD_COUNTER1, &Mpx3Chain::loadMatrix, "matrix stream of the wrong size, form or register"},
     {omrmode::LOAD_CTPR, &Mpx3Chain::loadCtpr, "CTPR stream of the wrong size or form"},
     {omrmode::READ_FUSES, &Mpx3Chain::readFuses, "fuse request of the wrong size or form"}}};

void Mpx3Chain::shift(std::span<const std::uint8_t> bytes, std::size_t length, const Complain& complain)
{
    if (!powered)
        return;
    if (bytes[0] == OMR_HEADER) {
        if (!loadOmr(bytes, length))
            complain("OMR stream of the wrong size or form", bytes);
        return;
    }
    if (omr.mode() != omrmode::READ_FUSES)
        held.clear();
    const auto load = std::ranges::find(LOADS, omr.mode(), &Load::mode);
    if (load == LOADS.end())
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
    if (bytes.size() != OMR_BYTES && bytes.size() != OMR_BYTES * length)
        return false;
    for (std::size_t at = 0; at < bytes.size(); at += OMR_BYTES)
        if (bytes[at] != OMR_HEADER || bytes[at + 1] != 0 || !allZero(bytes.subspan(at + 8, OMR_BYTES - 8)))
            return false;
    for (std::size_t i = 0; i < chips.size(); ++i) {
        const std::size_t at = std::min(i * OMR_BYTES, bytes.size() - OMR_BYTES);
        chips[i]->loadOmr(Mpx3Omr(bytes.subspan(at + 2).first<6>()));
    }
    omr = Mpx3Omr(bytes.subspan(2).first<6>());
    secondHalf = false;
    return true;
}

bool Mpx3Chain::loadDacs(std::span<const std::uint8_t> bytes, std::size_t length)
{
    constexpr std::size_t SIZE = Mpx3Chip::DAC_RECORD_BYTES;
    constexpr std::size_t DAC_STREAM_BYTES = 29; ///< 226 bits
    if (bytes.size() != SIZE * length)
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        const auto record = bytes.subspan(i * SIZE, SIZE);
        if (!hasDataHeader(record) || !allZero(record.subspan(HEADER_BYTES + DAC_STREAM_BYTES)))
            return false;
        if (i < chips.size())
            chips[i]->loadDacs(record.subspan(HEADER_BYTES));
    }
    return true;
}

bool Mpx3Chain::loadCtpr(std::span<const std::uint8_t> bytes, std::size_t /*length*/)
{
    constexpr std::size_t HEADER = 2;
    if (bytes.size() != HEADER + Mpx3Chip::CTPR_BYTES + 2 || bytes[0] != DATA_HEADER || bytes[1] != 0)
        return false;
    for (const auto& chip : chips)
        chip->loadCtpr(bytes.subspan(HEADER, Mpx3Chip::CTPR_BYTES));
    return true;
}

bool Mpx3Chain::loadMatrix(std::span<const std::uint8_t> bytes, std::size_t length)
{
    const bool wholeRows = omr.depth() == 12 && omr.shape() == ReadoutShape{};
    if (bytes.size() != HALF_MATRIX_BYTES * length || !wholeRows)
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        const auto record = bytes.subspan(i * HALF_MATRIX_BYTES, HALF_MATRIX_BYTES);
        if (!hasDataHeader(record))
            return false;
        if (i < chips.size())
            chips[i]->loadHalf(omr.mode() == omrmode::LOAD_COUNTER0 ? 0 : 1, secondHalf,
                               record.subspan(HEADER_BYTES, 128 * Mpx3Pixels::ROW_BYTES));
    }
    secondHalf = !secondHalf;
    return true;
}

bool Mpx3Chain::readFuses(std::span<const std::uint8_t> bytes, std::size_t length)
{
    const std::size_t records = bytes.size() / FUSE_RECORD_BYTES;
    if (bytes.size() % FUSE_RECORD_BYTES != 0 || records == 0 || records > length)
        return false;
    for (std::size_t i = 0; i < records; ++i)
        if (bytes[i * FUSE_RECORD_BYTES] != DATA_HEADER ||
            !allZero(bytes.subspan(i * FUSE_RECORD_BYTES + 1, FUSE_RECORD_BYTES - 1)))
            return false;
    held.clear();
    for (const auto& chip : chips) {
        const Bytes record = fuseRecord(*chip, chips.size());
        held.insert(held.end(), record.begin(), record.end());
    }
    return true;
}

} // namespace sim
