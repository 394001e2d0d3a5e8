// The Medipix2 and Timepix readout board: what the commands of the chips do.
#include "sim/mpx2board.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t longestModule = (Mpx2Chip::imageBytes + 1) * Mpx2Chain::mostChips;
constexpr std::uint8_t spareByte = 0x5A; ///< what comes where a stream is longer than it should be

} // namespace

/// True if the chips are under power and out of reset, with the pins as they belong and the shutter closed.
bool Mpx2Board::chipsReady(const Frame& frame, const Mpx2Levels& levels)
{
    constexpr std::uint16_t alive = pinPower | pinReset;
    const char* against = nullptr;
    if ((pinWord & alive) != alive)
        against = "chips addressed without power or in reset";
    else if (!shutter.idle())
        against = "chips addressed while the shutter works";
    else if (!levels.hold(pinWord))
        against = "control pins that do not fit the command";
    if (against != nullptr)
        violate(against, frame.head());
    return against == nullptr;
}

std::vector<Mpx2Chain*> Mpx2Board::selectedModules()
{
    std::vector<Mpx2Chain*> modules;
    for (std::size_t number = 0; number < moduleCount; ++number)
        if ((selected >> number & 1) != 0)
            modules.push_back(&chains[number]);
    return modules;
}

/// Gives the output back to the chips; with a payload, shifts it into the chips or past them, as the pins say.
void Mpx2Board::shiftChips(const Frame& frame, Time /*now*/)
{
    giveOutput(Output::chips);
    if (!frame.has(frameHasPayload))
        return;
    const bool pass = mpx2levels::passBy.hold(pinWord);
    const bool write = mpx2levels::writeMatrix.hold(pinWord);
    const Mpx2Levels shift = write ? mpx2levels::writeMatrix : mpx2levels::shiftDacs;
    if (!chipsReady(frame, pass ? mpx2levels::passBy : shift))
        return;
    const auto modules = selectedModules();
    if (modules.empty())
        violate("transfer to no module", frame.head());
    std::vector<Lane> lanes;
    for (Mpx2Chain* const module : modules) {
        if (write) {
            module->writeMatrix(frame.payload, complainAbout());
            continue;
        }
        lanes.push_back(pass ? module->passBy(frame.payload) : module->shiftDacs(frame.payload, complainAbout()));
        lanes.back().head.insert(lanes.back().head.begin(), mpx2LeadByte);
    }
    if ((pinWord & pinEnableOut) == 0)
        return;
    Bytes answer;
    interleave(lanes, frame.payload.size() * lanes.size(), answer);
    deliver(Output::chips, answer);
}

void Mpx2Board::setPins(const Frame& frame, Time /*now*/)
{
    pinWord = static_cast<std::uint16_t>(frame.word());
    applyPower();
    if ((pinWord & pinPower) == 0)
        endSeries();
    for (Mpx2Chain& chain : chains)
        chain.setReset((pinWord & pinReset) == 0);
}

void Mpx2Board::selectModules(const Frame& frame, Time /*now*/)
{
    if (frame.has(frameTakesOutput))
        giveOutput(Output::chips);
    selected = frame.d[3];
}

/// Clocks a pattern through all modules: each that answers shows 0, 1, 0, 1, ... on its own bit.
void Mpx2Board::showPattern(const Frame& frame, Time /*now*/)
{
    constexpr unsigned patternBytes = 14;
    giveOutput(Output::chips);
    if (!chipsReady(frame, mpx2levels::testPattern))
        return;
    Bytes pattern = {mpx2LeadByte};
    for (unsigned step = 0; step < patternBytes; ++step) {
        unsigned lanes = 0;
        for (std::size_t number = 0; number < moduleCount; ++number)
            lanes |= (chains[number].answers() ? step & 1U : chains[number].restingByte() & 1U) << number;
        pattern.push_back(static_cast<std::uint8_t>(lanes));
    }
    deliver(Output::chips, pattern);
}

void Mpx2Board::announceReadout(const Frame& frame, Time /*now*/)
{
    giveOutput(Output::chips);
    announced = frame.word();
}

void Mpx2Board::readMatrix(const Frame& frame, Time /*now*/)
{
    if (chipsWait())
        violate("readout asked for while something waits for the output", frame.head());
    giveOutput(Output::chips);
    if (!chipsReady(frame, mpx2levels::readMatrix))
        return;
    const auto modules = selectedModules();
    if (!announced || modules.empty()) {
        violate("readout of no module, or of a size that was not announced", frame.head());
        return;
    }
    const Mpx2ReadoutOrder order{.announced = *std::exchange(announced, std::nullopt), .bits = frame.word()};
    const std::size_t wanted = std::size_t{order.announced} + 1;
    const std::size_t size = std::min(wanted, modules.size() * std::min(order.clocked(), longestModule));
    if (!order.chips() || size < wanted)
        violate("readout of bits that fit no chain, or of more bytes than they bring", frame.head());

    const Bytes& stream = readout.read(modules, order.chips().value_or(Mpx2Chain::mostChips), size);
    if (const std::size_t missing = shortStream.hit()) {
        deliver(Output::chips, std::span(stream).first(size - std::min(missing, size)));
        return;
    }
    deliver(Output::chips, stream);
    deliver(Output::chips, Bytes(lateTail.hit(), spareByte));
    deliver(Output::chips, mpx2Packet(periChips, size));
}

} // namespace sim
