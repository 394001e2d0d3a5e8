// The Medipix3 readout board: making it, its faults, and its way from bytes to commands.
#include "sim/boards/mpx3board.h"

#include "sim/jsonkeys.h"

namespace sim {

using nlohmann::json;

namespace {

/// Readout images after switching on: the register's resting values with the two readout modes.
constexpr std::array<std::array<std::uint8_t, 8>, 2> RESTING_IMAGES = {
    {{0x30, 0x00, 0x08, 0x20, 0, 0, 0x10, 0}, {0x30, 0x00, 0x28, 0x20, 0, 0, 0x10, 0}}};

constexpr BiasWiring WIRING{
    .voltChannel = 15, .currentChannel = 14, .senseOffset = 0, .voltsPerVolt = 34, .scalesWithCoeff = false};

} // namespace

using namespace flagset;

const std::array<InterfaceBoard::Command<Mpx3Board>, 23> Mpx3Board::COMMANDS = {{
    {{PERI_CHIPS, 0, "MPX DATA", TAKES_OUTPUT | PAYLOAD, 0}, &Mpx3Board::handOutputBack},
    {{PERI_CHIPS, 1, "MPX PINS", BARE, 0xF}, &Mpx3Board::setPins},
    {{PERI_CHIPS, 2, "MPX START", TAKES_OUTPUT, 0x03FFFFFF}, &Mpx3Board::readNow},
    {{PERI_CHIPS, 3, "MPX CHAN", BARE, 0x1F1F}, &Mpx3Board::selectChannels},
    {{PERI_CHIPS, 4, "MPX stream parameters", BARE, 0x03FFFFFF}, &Mpx3Board::storeReadout},
    {{PERI_CHIPS, 5, "MPX image 0 low", BARE, 0xFFFFFFFF}, &Mpx3Board::storeImage},
    {{PERI_CHIPS, 6, "MPX image 0 high", BARE, 0xFFFFFFFF}, &Mpx3Board::storeImage},
    {{PERI_CHIPS, 7, "MPX image 4 low", BARE, 0xFFFFFFFF}, &Mpx3Board::storeImage},
    {{PERI_CHIPS, 8, "MPX image 4 high", BARE, 0xFFFFFFFF}, &Mpx3Board::storeImage},
    {{PERI_CHIPS, 9, "MPX continuous read-write", BARE, 1}, &Mpx3Board::setContinuous},
    {{PERI_CHIPS, 10, "MPX two chips", BARE, 1}, &Mpx3Board::setChainLength},
    {{PERI_CHIPS, 255, "MPX shift", PAYLOAD | ANSWERED_PAYLOAD, 0}, &Mpx3Board::shiftChips},
    {{PERI_INFO, 1, "INF INFO", TAKES_OUTPUT, 0}, &Mpx3Board::tellFirmware},
    {{PERI_SPI, 0, "SPI DATA", HELD_PAYLOAD | ANSWERED_PAYLOAD, 0}, &Mpx3Board::spiData},
    {{PERI_SPI, 1, "SPI SET", BARE, 0xFFFFFFFF}, &Mpx3Board::spiSet},
    {{PERI_SPI, 2, "SPI CS", BARE | TAKES_OUTPUT, 7}, &Mpx3Board::spiSelect},
    {{PERI_SPI, 3, "SPI SEND", BARE, 0}, &Mpx3Board::spiSend},
    {{PERI_SPI, 4, "SPI discharge", BARE, 4}, &Mpx3Board::switchDischarge},
    {{PERI_ACQ, 1, "ACQ START", TAKES_OUTPUT, 0x0FFFFFFF}, &Mpx3Board::startFrames},
    {{PERI_ACQ, 2, "ACQ STOP", TAKES_OUTPUT, 0}, &Mpx3Board::stopFrames},
    {{PERI_ACQ, 3, "ACQ CNTLOW", BARE, 0xFFFFFFFF}, &Mpx3Board::setTimer},
    {{PERI_ACQ, 4, "ACQ CNTHIGH", BARE, 0xFFFF}, &Mpx3Board::setTimer},
    {{PERI_ACQ, 5, "ACQ TRGSTG", BARE, 0x3F}, &Mpx3Board::setTrigger},
}};

Mpx3Board::Mpx3Board(const json& board, const json& bench)
    : InterfaceBoard(board, "Latixel M3 FW 3.12 2023-11-08", WIRING),
      trigger(board),
      pace(board)
{
    buildChains(board, bench);
    reset();
}

void Mpx3Board::buildChains(const json& board, const json& bench)
{
    const json channels = readList(board, "channels");
    if (channels.size() > CHANNEL_COUNT)
        badKey("channels", "a list of five channels at most");
    ChipPlace place{.number = 0, .total = 0};
    for (const json& chips : channels) {
        if (!chips.is_array() || chips.size() > 2)
            badKey("channels", "a list of channels, each a list of two chip identifiers at most");
        place.total += static_cast<unsigned>(chips.size());
    }
    const auto scene = Scene::behind(board, bench);
    for (std::size_t number = 0; number < channels.size(); ++number)
        for (const json& id : channels[number]) {
            chains[number].add(std::make_unique<Mpx3Chip>(valueAs<std::string>(id, "channels"), place, scene));
            ++place.number;
        }
}

void Mpx3Board::powerCycle(Time now)
{
    InterfaceBoard::powerCycle(now);
    frameNumber = 0;
    reset();
}

/// Everything as after switching on; what the board is made of stays.
void Mpx3Board::reset()
{
    pinWord = 0;
    applyPower();
    selectedChannels = enabledChannels = 0;
    chainLength = 1;
    continuous = discharged = false;
    trigger.set(0);
    timer = 0;
    stored.reset();
    images = RESTING_IMAGES;
    endSeries();
    lastPacket = endPacket(0, 0);
}

void Mpx3Board::applyPower()
{
    for (Mpx3Chain& chain : chains)
        chain.setPower(chipsPowered());
}

bool Mpx3Board::applyFault(const json& fault)
{
    if (InterfaceBoard::applyFault(fault))
        return true;
    const auto kind = readKey<std::string>(fault, "kind");
    const auto chainOf = [&]() -> Mpx3Chain& {
        const auto number = readKey<std::size_t>(fault, "channel");
        if (number >= CHANNEL_COUNT)
            badKey("channel", "a number from 0 to 4");
        return chains[number];
    };
    if (kind == "stuck_channel") {
        chainOf().stickLine(readKey(fault, "level", 0U) != 0 ? 0xFF : 0x00);
    } else if (kind == "chip_missing") {
        const auto position = readKey<std::size_t>(fault, "position", 0);
        if (position > 1)
            badKey("position", "0 or 1");
        chainOf().lose(position);
    } else {
        return false;
    }
    return true;
}

void Mpx3Board::clearFaults()
{
    InterfaceBoard::clearFaults();
    for (Mpx3Chain& chain : chains)
        chain.clearFaults();
}

double Mpx3Board::adcVolts(unsigned number) const
{
    constexpr unsigned SENSE_OUTPUT = 0;
    if (number == SENSE_OUTPUT && chipsPowered())
        for (const Mpx3Chain& chain : chains)
            if (const auto volts = chain.senseVolts())
                return *volts;
    return InterfaceBoard::adcVolts(number);
}

std::unique_ptr<Board> makeMpx3Board(const json& board, const json& bench)
{
    return std::make_unique<Mpx3Board>(board, bench);
}

} // namespace sim
