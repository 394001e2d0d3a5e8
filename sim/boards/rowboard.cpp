// The row board.
#include "sim/boards/rowboard.h"

#include "sim/jsonkeys.h"

#include <algorithm>

namespace sim {

using nlohmann::json;
using namespace flagset;

const std::array<InterfaceBoard::Command<RowBoard>, 4> RowBoard::COMMANDS = {{
    {{PERI_CHIPS, 2, "TPX MUX", BARE | TAKES_OUTPUT, 0xFF}, &RowBoard::selectLines},
    {{PERI_CHIPS, 4, "TPX READOUT", TAKES_OUTPUT, 0xFFFFFFFF}, &RowBoard::readMatrix},
    {{PERI_CHIPS, 5, "TPX row bits", TAKES_OUTPUT, 0xFFFFFF}, &RowBoard::setRowBits},
    {{PERI_ACQ, 1, "ACQ START", TAKES_OUTPUT, 0x07FFFFFF}, &RowBoard::startFrames},
}};

RowBoard::RowBoard(const json& board, const json& bench)
    : Mpx2Firmware(board, {.firmware = "Firmware 1.2 TRA (11.10.2016)",
                           .lines = CHANNEL_COUNT,
                           .line = "channel",
                           .timerTick = 1,
                           .muxHoldsByte = false,
                           .passBy = mpx2levels::PASS_BY_ANY_MODE})
{
    buildChains(board, bench);
    reset();
}

void RowBoard::buildChains(const json& board, const json& bench)
{
    std::vector<std::string> ids;
    for (const json& id : readList(board, "channels"))
        ids.push_back(valueAs<std::string>(id, "channels"));
    if (ids.size() > CHANNEL_COUNT)
        badKey("channels", "a list of seven chip identifiers at most");
    const auto chips = ids.size() - static_cast<std::size_t>(std::ranges::count(ids, ""));
    const auto scene = Scene::behind(board, bench);
    ChipPlace place{.number = 0, .total = static_cast<unsigned>(chips)};
    for (std::size_t number = 0; number < ids.size(); ++number) {
        if (ids[number].empty())
            continue;
        chains[number].add(std::make_unique<Mpx2Chip>(ids[number], Mpx2Kind::Timepix, place, scene));
        ++place.number;
    }
}

void RowBoard::powerCycle(Time now)
{
    Mpx2Firmware::powerCycle(now);
    rowBits.reset();
}

bool RowBoard::applyFault(const json& fault)
{
    if (Mpx2Firmware::applyFault(fault))
        return true;
    if (readKey<std::string>(fault, "kind") != "chip_missing")
        return false;
    Mpx2Chain& channel = lineOf(fault);
    if (channel.size() == 0)
        badKey("channel", "that of a chip");
    channel.lose(0);
    channel.silence();
    return true;
}

/// The host can select the last channels only together with the others, and writes to them with none selected. The
/// lines are pulled up, and the multiplexer delivers that.
void RowBoard::shiftNowhere(const Frame& frame)
{
    constexpr std::uint8_t PULLED_UP = 0xFF;
    if ((pins() & PIN_ENABLE_OUT) != 0)
        deliver(Output::Chips, Bytes(frame.payload.size(), PULLED_UP));
}

void RowBoard::readMatrix(const Frame& frame, Time /*now*/)
{
    if (!takeOutput(frame, mpx2levels::READ_MATRIX))
        return;
    const auto channels = selectedLines();
    const auto rows = rowsOfBits(frame.word());
    const bool whole = frame.word() == ROW_BOARD_MATRIX_BITS;
    if (channels.empty() || !(whole || rows))
        violate("readout of no channel, or of bits that are no number of rows", frame.head());
    else if (whole)
        deliverReadout(readout.read(channels, 1, channels.size() * (Mpx2Chip::IMAGE_BYTES + 1)));
    else
        deliverReadout(readout.readRows(channels, {.step = {.rows = *rows}, .exposure = std::nullopt}));
}

void RowBoard::setRowBits(const Frame& frame, Time /*now*/)
{
    giveOutput(Output::Chips);
    rowBits = frame.word();
}

void RowBoard::startFrames(const Frame& frame, Time now)
{
    constexpr std::uint8_t CONTINUOUS = 1;
    if ((frame.d[0] & CONTINUOUS) != 0) {
        startSeries(frame, now);
        return;
    }
    if (shutterState().idle())
        blockRows = 0;
    startFrame(frame, now);
}

void RowBoard::startSeries(const Frame& frame, Time now)
{
    if (!takeOutput(frame, mpx2levels::EXPOSE_ROWS))
        return;
    const std::uint32_t blocks = frame.word24();
    const auto rows = rowsOfBits(rowBits.value_or(0));
    if (blocks == 0)
        return;
    if (!rows || selectedLines().empty()) {
        violate("series of no channel, or of blocks that are no number of rows", frame.head());
        return;
    }
    blockRows = *rows;
    openShutter({.oneTriggerStarts = true, .frames = blocks, .period = std::uint64_t{*rowBits} + 1}, frame, now);
}

void RowBoard::finishFrame(const ShutterFrame& frame)
{
    if (blockRows == 0) {
        Mpx2Firmware::finishFrame(frame);
        return;
    }
    const Mpx2Exposure exposure = exposureOf(frame);
    const RowStep step{.number = frame.index, .rows = blockRows, .seconds = exposure.seconds};
    closeFrame(frame);
    deliverReadout(readout.readRows(selectedLines(), {.step = step, .exposure = exposure}));
}

std::unique_ptr<Board> makeRowBoard(const json& board, const json& bench)
{
    return std::make_unique<RowBoard>(board, bench);
}

} // namespace sim
