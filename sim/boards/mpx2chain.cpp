// One module of a Medipix2 or Timepix board.
#include "sim/boards/mpx2chain.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint8_t LEAD_BYTE = 0xFF;
constexpr std::size_t LEAD_BYTES = 1; ///< for each chip

} // namespace

void Mpx2Chain::add(std::unique_ptr<Mpx2Chip> chip)
{
    chips.push_back({std::move(chip)});
    held.assign(chips.size(), 0);
}

void Mpx2Chain::setPower(bool on)
{
    if (powered && !on)
        for (const Member& member : chips)
            member.chip->powerOff();
    powered = on;
}

void Mpx2Chain::setReset(bool active)
{
    if (active && !inReset) {
        std::ranges::fill(held, std::uint8_t{0});
        for (const Member& member : chips)
            member.chip->reset();
    }
    inReset = active;
}

bool Mpx2Chain::answers() const
{
    return awake() && !chips.empty() && !silent && !stuck;
}

/// The chips that are there.
std::vector<Mpx2Chip*> Mpx2Chain::members() const
{
    std::vector<Mpx2Chip*> there;
    for (const Member& member : chips)
        if (!member.missing)
            there.push_back(member.chip.get());
    return there;
}

/// True for a stream for as many chips as the host may have counted: also those that have got lost since.
bool Mpx2Chain::fits(std::size_t bytes, std::size_t perChip) const
{
    return bytes == perChip * chips.size() || (bytes != 0 && bytes == perChip * members().size());
}

/// The data line with these bytes on it, unless no chip drives it.
Lane Mpx2Chain::line(Bytes bytes) const
{
    if (!answers())
        bytes.clear();
    return {.head = std::move(bytes), .body = {}, .rest = restingByte()};
}

Lane Mpx2Chain::passBy(std::span<const std::uint8_t> bytes)
{
    if (!awake())
        return line({});
    held.resize(members().size());
    Bytes out = held;
    out.insert(out.end(), bytes.begin(), bytes.end());
    held.assign(out.end() - static_cast<std::ptrdiff_t>(held.size()), out.end());
    out.resize(bytes.size());
    return line(std::move(out));
}

Lane Mpx2Chain::shiftDacs(std::span<const std::uint8_t> bytes, const Complain& complain)
{
    constexpr std::size_t SIZE = Mpx2Chip::RECORD_BYTES;
    if (!awake())
        return line({});
    if (!fits(bytes.size(), SIZE + LEAD_BYTES) || bytes[0] != LEAD_BYTE) {
        complain("DAC stream of the wrong size or form", bytes);
        return line({});
    }
    const auto there = members();
    Bytes out(there.size(), LEAD_BYTE);
    for (std::size_t i = 0; i < there.size(); ++i) {
        const Mpx2Chip::Record old = there[i]->shiftRecord(bytes.subspan(LEAD_BYTES + i * SIZE, SIZE));
        out.insert(out.end(), old.begin(), old.end());
    }
    return line(std::move(out));
}

void Mpx2Chain::writeMatrix(std::span<const std::uint8_t> bytes, const Complain& complain)
{
    constexpr std::size_t SIZE = Mpx2Chip::IMAGE_BYTES;
    if (!awake())
        return;
    if (!fits(bytes.size(), SIZE + LEAD_BYTES) || bytes[0] != LEAD_BYTE) {
        complain("matrix stream of the wrong size or form", bytes);
        return;
    }
    const auto there = members();
    for (std::size_t i = 0; i < there.size(); ++i)
        there[i]->loadMatrix(bytes.subspan(LEAD_BYTES + i * SIZE, SIZE));
}

Lane Mpx2Chain::readMatrix(std::size_t wanted, std::vector<std::uint64_t>& made)
{
    Lane lane = line({});
    made.insert(made.end(), {reinterpret_cast<std::uintptr_t>(this), lane.rest});
    if (!awake())
        return lane;
    const auto there = members();
    if (answers())
        lane.head.assign(there.size(), LEAD_BYTE);
    for (std::size_t i = 0; i < std::min(wanted, there.size()); ++i) {
        const ChipStream& stream = there[i]->read();
        if (!answers())
            continue;
        lane.body.emplace_back(stream.bytes);
        made.insert(made.end(), {reinterpret_cast<std::uintptr_t>(there[i]), stream.version});
    }
    return lane;
}

Lane Mpx2Chain::readRows(const Mpx2RowRead& order)
{
    Lane lane = line({});
    const auto there = members();
    if (!awake() || there.empty())
        return lane;
    const ChipStream& stream = there.front()->readRows(order);
    if (answers()) {
        lane.head = {LEAD_BYTE};
        lane.body.emplace_back(stream.bytes);
    }
    return lane;
}

void Mpx2Chain::expose(const Mpx2Exposure& exposure)
{
    if (!awake())
        return;
    for (Mpx2Chip* const chip : members())
        chip->expose(exposure);
}

void Mpx2Chain::lose(std::size_t position)
{
    chips.at(position).missing = true;
}

void Mpx2Chain::clearFaults()
{
    silent = false;
    stuck.reset();
    for (Member& member : chips)
        member.missing = false;
}

} // namespace sim
