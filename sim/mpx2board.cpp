// The Medipix2 and Timepix readout board: making it, its faults, and its table of commands.
#include "sim/mpx2board.h"

#include "sim/jsonkeys.h"

#include <limits>

namespace sim {

using nlohmann::json;
using namespace flagset;

namespace {

constexpr BiasWiring wiring{
    .voltChannel = 14, .currentChannel = 15, .senseOffset = 2.5, .voltsPerVolt = 100 / 1.3, .scalesWithCoeff = true};

constexpr std::uint32_t anyWord = 0xFFFFFFFF;

Mpx2Kind chipKind(const json& board)
{
    const auto name = readKey<std::string>(board, "chip", "timepix");
    if (name != "timepix" && name != "medipix2")
        badKey("chip", "\"timepix\" or \"medipix2\"");
    return name == "timepix" ? Mpx2Kind::timepix : Mpx2Kind::medipix2;
}

} // namespace

const std::array<InterfaceBoard::Command<Mpx2Board>, 23> Mpx2Board::commands = {{
    {{periChips, 0, "TPX DATA", takesOutput | answeredPayload, 0}, &Mpx2Board::shiftChips},
    {{periChips, 1, "TPX PINS", bare, 0x1FFF}, &Mpx2Board::setPins},
    {{periChips, 2, "TPX MUX", bare | takesOutput, 0x1F}, &Mpx2Board::selectModules},
    {{periChips, 3, "TPX CLKTEST", takesOutput, 0}, &Mpx2Board::showPattern},
    {{periChips, 4, "TPX READOUT", takesOutput, anyWord}, &Mpx2Board::readMatrix},
    {{periChips, 5, "TPX readout size", takesOutput, anyWord}, &Mpx2Board::announceReadout},
    {{periInfo, 1, "INF INFO", takesOutput, 0}, &Mpx2Board::tellFirmware},
    {{periSpi, 0, "SPI DATA", heldPayload | answeredPayload, 0}, &Mpx2Board::spiData},
    {{periSpi, 1, "SPI SET", bare, anyWord}, &Mpx2Board::spiSet},
    {{periSpi, 2, "SPI CS", bare | takesOutput, 7}, &Mpx2Board::spiSelect},
    {{periSpi, 3, "SPI SEND", bare, 0}, &Mpx2Board::spiSend},
    {{periAcq, 1, "ACQ START", takesOutput, 0x06FFFFFF}, &Mpx2Board::startFrame},
    {{periAcq, 2, "ACQ STOP", takesOutput, 0}, &Mpx2Board::stopFrame},
    {{periAcq, acqTimerLow, "ACQ CNTLOW", bare, anyWord}, &Mpx2Board::setRegister},
    {{periAcq, acqTimerHigh, "ACQ CNTHIGH", bare, 0xFFFF}, &Mpx2Board::setRegister},
    {{periAcq, 5, "ACQ TRGSTG", bare, 0x1F}, &Mpx2Board::setTrigger},
    {{periAcq, acqPreDelay, "ACQ PSWAIT", bare, 0xFFFF}, &Mpx2Board::setRegister},
    {{periAcq, acqPreCount, "ACQ CNT1", bare, 0xFFFFFF}, &Mpx2Board::setRegister},
    {{periAcq, acqPreDivider, "ACQ DIV1", bare, anyWord}, &Mpx2Board::setRegister},
    {{periAcq, 18, "ACQ CNT2", bare, anyWord}, &Mpx2Board::setRegister},
    {{periAcq, acqTimepixDivider, "ACQ DIV2", bare, anyWord}, &Mpx2Board::setRegister},
    {{periAcq, acqCount3, "ACQ CNT3", bare, anyWord}, &Mpx2Board::setRegister},
    {{periAcq, acqDivider3, "ACQ DIV3", bare, anyWord}, &Mpx2Board::setRegister},
}};

Mpx2Board::Mpx2Board(const json& board, const json& bench)
    : InterfaceBoard(board, "Firmware 1.7 TLA (18.10.2016)", wiring),
      trigger(board)
{
    buildChains(board, bench);
    cpu().whenSet([this](const std::string& name, double value) {
        if (name == "*BiasSet")
            followBias(value);
    });
    reset();
}

void Mpx2Board::buildChains(const json& board, const json& bench)
{
    const json modules = readList(board, "modules");
    if (modules.size() > moduleCount)
        badKey("modules", "a list of five modules at most");
    ChipPlace place{.number = 0, .total = 0};
    for (const json& ids : modules) {
        if (!ids.is_array() || ids.size() > Mpx2Chain::mostChips)
            badKey("modules", "a list of modules, each a list of ten chip identifiers at most");
        place.total += static_cast<unsigned>(ids.size());
    }
    const Mpx2Kind kind = chipKind(board);
    const auto scene = Scene::behind(board, bench);
    for (std::size_t number = 0; number < modules.size(); ++number)
        for (const json& id : modules[number]) {
            chains[number].add(std::make_unique<Mpx2Chip>(valueAs<std::string>(id, "modules"), kind, place, scene));
            ++place.number;
        }
}

void Mpx2Board::powerCycle(Time now)
{
    InterfaceBoard::powerCycle(now);
    frameNumber = 0;
    reset();
}

/// Everything as after switching on; what the board is made of stays.
void Mpx2Board::reset()
{
    constexpr std::uint32_t usualDivider = 5;
    pinWord = 0;
    applyPower();
    for (Mpx2Chain& chain : chains)
        chain.setReset(true);
    selected = 0;
    registers = {};
    registers[acqTimepixDivider] = usualDivider;
    announced.reset();
    trigger.set(0);
    endSeries();
}

void Mpx2Board::applyPower()
{
    for (Mpx2Chain& chain : chains)
        chain.setPower(chipsPowered());
}

/// The CPU has set the bias, and measures what comes of it: a current, and a sensor that warms up a little.
void Mpx2Board::followBias(double volts)
{
    constexpr double degreesPerVolt = 0.02;
    cpu().measure("BiasVolt", volts);
    cpu().measure("BiasCurr", biasSupply().currentAt(volts));
    cpu().measure("TempDet", cpu().restingValue("TempDet") + degreesPerVolt * volts);
}

bool Mpx2Board::applyFault(const json& fault)
{
    if (InterfaceBoard::applyFault(fault))
        return true;
    const auto kind = readKey<std::string>(fault, "kind");
    const auto chainOf = [&]() -> Mpx2Chain& {
        const auto number = readKey<std::size_t>(fault, "module");
        if (number >= moduleCount)
            badKey("module", "a number from 0 to 4");
        return chains[number];
    };
    const auto streamFault = [&](std::size_t bytes) {
        return StreamFault{.bytes = readKey(fault, "bytes", bytes),
                           .readouts = readKey(fault, "readouts", std::numeric_limits<std::uint64_t>::max())};
    };
    if (kind == "module_silent") {
        chainOf().silence();
    } else if (kind == "stuck_line") {
        chainOf().stickLine(readKey(fault, "level", 0U) != 0 ? 0xFF : 0x00);
    } else if (kind == "chip_missing") {
        const auto position = readKey<std::size_t>(fault, "position", 0);
        if (position >= chainOf().size())
            badKey("position", "that of a chip of the module");
        chainOf().lose(position);
    } else if (kind == "short_stream") {
        shortStream = streamFault(1000);
    } else if (kind == "tail_out_of_step") {
        lateTail = streamFault(64);
    } else {
        return false;
    }
    return true;
}

void Mpx2Board::clearFaults()
{
    InterfaceBoard::clearFaults();
    for (Mpx2Chain& chain : chains)
        chain.clearFaults();
    shortStream = lateTail = {};
}

double Mpx2Board::adcVolts(unsigned channel) const
{
    constexpr unsigned senseOutput = 0;
    if (channel == senseOutput && chipsPowered())
        for (const Mpx2Chain& chain : chains)
            for (std::size_t position = 0; position < chain.size(); ++position)
                if (const auto volts = chain.chip(position).senseVolts())
                    return *volts;
    return InterfaceBoard::adcVolts(channel);
}

std::unique_ptr<Board> makeMpx2Board(const json& board, const json& bench)
{
    return std::make_unique<Mpx2Board>(board, bench);
}

} // namespace sim
