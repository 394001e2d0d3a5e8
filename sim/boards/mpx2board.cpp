// The Medipix2 and Timepix readout board: making it, its faults, and its table of commands.
#include "sim/boards/mpx2board.h"

#include "sim/jsonkeys.h"

namespace sim {

using nlohmann::json;
using namespace flagset;

namespace {

constexpr std::uint32_t ANY_WORD = 0xFFFFFFFF;

Mpx2Kind chipKind(const json& board)
{
    const auto name = readKey<std::string>(board, "chip", "timepix");
    if (name != "timepix" && name != "medipix2")
        badKey("chip", "\"timepix\" or \"medipix2\"");
    return name == "timepix" ? Mpx2Kind::Timepix : Mpx2Kind::Medipix2;
}

} // namespace

const std::array<InterfaceBoard::Command<Mpx2Board>, 5> Mpx2Board::COMMANDS = {{
    {{PERI_CHIPS, 2, "TPX MUX", BARE | TAKES_OUTPUT, 0x1F}, &Mpx2Board::selectLines},
    {{PERI_CHIPS, 3, "TPX CLKTEST", TAKES_OUTPUT, 0}, &Mpx2Board::showPattern},
    {{PERI_CHIPS, 4, "TPX READOUT", TAKES_OUTPUT, ANY_WORD}, &Mpx2Board::readMatrix},
    {{PERI_CHIPS, 5, "TPX readout size", TAKES_OUTPUT, ANY_WORD}, &Mpx2Board::announceReadout},
    {{PERI_ACQ, 1, "ACQ START", TAKES_OUTPUT, 0x06FFFFFF}, &Mpx2Board::startFrame},
}};

Mpx2Board::Mpx2Board(const json& board, const json& bench)
    : Mpx2Firmware(board, {.firmware = "Firmware 1.7 TLA (18.10.2016)",
                           .lines = MODULE_COUNT,
                           .line = "module",
                           .timerTick = 2,
                           .muxHoldsByte = true,
                           .passBy = mpx2levels::PASS_BY})
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
    if (modules.size() > MODULE_COUNT)
        badKey("modules", "a list of five modules at most");
    ChipPlace place{.number = 0, .total = 0};
    for (const json& ids : modules) {
        if (!ids.is_array() || ids.size() > Mpx2Chain::MOST_CHIPS)
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
    Mpx2Firmware::powerCycle(now);
    announced.reset();
}

/// The CPU has set the bias, and measures what comes of it: a current, and a sensor that warms up a little.
void Mpx2Board::followBias(double volts)
{
    constexpr double DEGREES_PER_VOLT = 0.02;
    cpu().measure("BiasVolt", volts);
    cpu().measure("BiasCurr", biasSupply().currentAt(volts));
    cpu().measure("TempDet", cpu().restingValue("TempDet") + DEGREES_PER_VOLT * volts);
}

bool Mpx2Board::applyFault(const json& fault)
{
    if (Mpx2Firmware::applyFault(fault))
        return true;
    const auto kind = readKey<std::string>(fault, "kind");
    if (kind == "module_silent") {
        lineOf(fault).silence();
    } else if (kind == "chip_missing") {
        Mpx2Chain& module = lineOf(fault);
        const auto position = readKey<std::size_t>(fault, "position", 0);
        if (position >= module.size())
            badKey("position", "that of a chip of the module");
        module.lose(position);
    } else {
        return false;
    }
    return true;
}

std::unique_ptr<Board> makeMpx2Board(const json& board, const json& bench)
{
    return std::make_unique<Mpx2Board>(board, bench);
}

} // namespace sim
