// What the firmware of all boards with Medipix2 or Timepix chips does alike: its table of commands, what those for the
// chips do, and faults.
#include "sim/boards/mpx2firmware.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <limits>

namespace sim {

using nlohmann::json;
using namespace flagset;

namespace {

constexpr BiasWiring WIRING{
    .voltChannel = 14, .currentChannel = 15, .senseOffset = 2.5, .voltsPerVolt = 100 / 1.3, .scalesWithCoeff = true};

constexpr std::uint32_t ANY_WORD = 0xFFFFFFFF;
constexpr std::uint8_t MUX_BYTE = 0xC5;   ///< what stands in the multiplexer of some boards
constexpr std::uint8_t SPARE_BYTE = 0x5A; ///< what comes where a stream is longer than it should be

} // namespace

const std::array<InterfaceBoard::Command<Mpx2Firmware>, 18> Mpx2Firmware::COMMANDS = {{
    {{PERI_CHIPS, 0, "TPX DATA", TAKES_OUTPUT | ANSWERED_PAYLOAD, 0}, &Mpx2Firmware::shiftChips},
    {{PERI_CHIPS, 1, "TPX PINS", BARE, 0x1FFF}, &Mpx2Firmware::setPins},
    {{PERI_INFO, 1, "INF INFO", TAKES_OUTPUT, 0}, &Mpx2Firmware::tellFirmware},
    {{PERI_SPI, 0, "SPI DATA", HELD_PAYLOAD | ANSWERED_PAYLOAD, 0}, &Mpx2Firmware::spiData},
    {{PERI_SPI, 1, "SPI SET", BARE, ANY_WORD}, &Mpx2Firmware::spiSet},
    {{PERI_SPI, 2, "SPI CS", BARE | TAKES_OUTPUT, 7}, &Mpx2Firmware::spiSelect},
    {{PERI_SPI, 3, "SPI SEND", BARE, 0}, &Mpx2Firmware::spiSend},
    {{PERI_ACQ, 2, "ACQ STOP", TAKES_OUTPUT, 0}, &Mpx2Firmware::stopFrame},
    {{PERI_ACQ, ACQ_TIMER_LOW, "ACQ CNTLOW", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_TIMER_HIGH, "ACQ CNTHIGH", BARE, 0xFFFF}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, 5, "ACQ TRGSTG", BARE, 0x1F}, &Mpx2Firmware::setTrigger},
    {{PERI_ACQ, ACQ_PRE_DELAY, "ACQ PSWAIT", BARE, 0xFFFF}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_PRE_COUNT, "ACQ CNT1", BARE, 0xFFFFFF}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_PRE_DIVIDER, "ACQ DIV1", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, 18, "ACQ CNT2", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_TIMEPIX_DIVIDER, "ACQ DIV2", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_COUNT3, "ACQ CNT3", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
    {{PERI_ACQ, ACQ_DIVIDER3, "ACQ DIV3", BARE, ANY_WORD}, &Mpx2Firmware::setRegister},
}};

Mpx2Firmware::Mpx2Firmware(const json& board, const Build& itsBuild)
    : InterfaceBoard(board, itsBuild.firmware, WIRING),
      chains(itsBuild.lines),
      readout(itsBuild.muxHoldsByte ? Bytes{MUX_BYTE} : Bytes{}),
      build(itsBuild),
      trigger(board),
      pace(board)
{
}

void Mpx2Firmware::obey(const Frame& frame, Time now)
{
    if (!obeyIfKnown(COMMANDS, *this, frame, now))
        obeyOwn(frame, now);
}

void Mpx2Firmware::powerCycle(Time now)
{
    InterfaceBoard::powerCycle(now);
    frameNumber = 0;
    reset();
}

void Mpx2Firmware::reset()
{
    constexpr std::uint32_t USUAL_DIVIDER = 5;
    pinWord = 0;
    applyPower();
    for (Mpx2Chain& chain : chains)
        chain.setReset(true);
    selected = 0;
    registers = {};
    registers[ACQ_TIMEPIX_DIVIDER] = USUAL_DIVIDER;
    trigger.set(0);
    endSeries();
}

void Mpx2Firmware::applyPower()
{
    for (Mpx2Chain& chain : chains)
        chain.setPower(chipsPowered());
}

Mpx2Chain& Mpx2Firmware::lineOf(const json& fault)
{
    const auto number = readKey<std::size_t>(fault, build.line);
    if (number >= chains.size())
        badKey(build.line, "a number from 0 to " + std::to_string(chains.size() - 1));
    return chains[number];
}

bool Mpx2Firmware::applyFault(const json& fault)
{
    if (InterfaceBoard::applyFault(fault))
        return true;
    const auto kind = readKey<std::string>(fault, "kind");
    const auto streamFault = [&](std::size_t bytes) {
        return StreamFault{.bytes = readKey(fault, "bytes", bytes),
                           .readouts = readKey(fault, "readouts", std::numeric_limits<std::uint64_t>::max())};
    };
    if (kind == "stuck_line")
        lineOf(fault).stickLine(readKey(fault, "level", 0U) != 0 ? 0xFF : 0x00);
    else if (kind == "short_stream")
        shortStream = streamFault(1000);
    else if (kind == "tail_out_of_step")
        lateTail = streamFault(64);
    else
        return false;
    return true;
}

void Mpx2Firmware::clearFaults()
{
    InterfaceBoard::clearFaults();
    for (Mpx2Chain& chain : chains)
        chain.clearFaults();
    shortStream = lateTail = {};
}

double Mpx2Firmware::adcVolts(unsigned channel) const
{
    constexpr unsigned SENSE_OUTPUT = 0;
    if (channel == SENSE_OUTPUT && chipsPowered())
        for (const Mpx2Chain& chain : chains)
            for (std::size_t position = 0; position < chain.size(); ++position)
                if (const auto volts = chain.chip(position).senseVolts())
                    return *volts;
    return InterfaceBoard::adcVolts(channel);
}

bool Mpx2Firmware::chipsReady(const Frame& frame, const Mpx2Levels& levels)
{
    constexpr std::uint16_t ALIVE = PIN_POWER | PIN_RESET;
    const char* against = nullptr;
    if ((pinWord & ALIVE) != ALIVE)
        against = "chips addressed without power or in reset";
    else if (!shutter.idle())
        against = "chips addressed while the shutter works";
    else if (!levels.hold(pinWord))
        against = "control pins that do not fit the command";
    if (against != nullptr)
        violate(against, frame.head());
    return against == nullptr;
}

bool Mpx2Firmware::takeOutput(const Frame& frame, const Mpx2Levels& levels)
{
    if (chipsWait())
        violate("readout or start asked for while something waits for the output", frame.head());
    giveOutput(Output::Chips);
    return chipsReady(frame, levels);
}

std::vector<Mpx2Chain*> Mpx2Firmware::selectedLines()
{
    std::vector<Mpx2Chain*> lines;
    for (std::size_t number = 0; number < chains.size(); ++number)
        if ((selected >> number & 1) != 0)
            lines.push_back(&chains[number]);
    return lines;
}

/// Gives the output back to the chips; with a payload, shifts it into the chips or past them, as the pins say.
void Mpx2Firmware::shiftChips(const Frame& frame, Time /*now*/)
{
    giveOutput(Output::Chips);
    if (!frame.has(FRAME_HAS_PAYLOAD))
        return;
    const bool pass = build.passBy.hold(pinWord);
    const bool write = mpx2levels::WRITE_MATRIX.hold(pinWord);
    const Mpx2Levels shift = write ? mpx2levels::WRITE_MATRIX : mpx2levels::SHIFT_DACS;
    if (!chipsReady(frame, pass ? build.passBy : shift))
        return;
    const auto lines = selectedLines();
    if (lines.empty())
        shiftNowhere(frame);
    std::vector<Lane> lanes;
    for (Mpx2Chain* const line : lines) {
        if (write)
            line->writeMatrix(frame.payload, complainAbout());
        else
            lanes.push_back(
                readout.through(pass ? line->passBy(frame.payload) : line->shiftDacs(frame.payload, complainAbout())));
    }
    if ((pinWord & PIN_ENABLE_OUT) == 0)
        return;
    Bytes answer;
    interleave(lanes, frame.payload.size() * lanes.size(), answer);
    deliver(Output::Chips, answer);
}

void Mpx2Firmware::setPins(const Frame& frame, Time /*now*/)
{
    pinWord = static_cast<std::uint16_t>(frame.word());
    applyPower();
    if ((pinWord & PIN_POWER) == 0)
        endSeries();
    for (Mpx2Chain& chain : chains)
        chain.setReset((pinWord & PIN_RESET) == 0);
}

void Mpx2Firmware::selectLines(const Frame& frame, Time /*now*/)
{
    if (frame.has(FRAME_TAKES_OUTPUT))
        giveOutput(Output::Chips);
    selected = frame.d[3];
}

void Mpx2Firmware::deliverReadout(std::span<const std::uint8_t> stream)
{
    if (const std::size_t missing = shortStream.hit()) {
        deliver(Output::Chips, stream.first(stream.size() - std::min(missing, stream.size())));
        return;
    }
    deliver(Output::Chips, stream);
    deliver(Output::Chips, Bytes(lateTail.hit(), SPARE_BYTE));
    deliver(Output::Chips, mpx2Packet(PERI_CHIPS, stream.size()));
}

} // namespace sim
