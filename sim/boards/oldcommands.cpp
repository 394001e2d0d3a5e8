// The readout boards of the old generation: the table of commands, and what they do.
#include "sim/boards/oldboard.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>

namespace sim {

namespace {

constexpr std::uint32_t ANY_PARAMETERS = 0xFFFFFF;
constexpr std::size_t RECORD_DATA = Mpx2Chip::RECORD_BYTES + 1; ///< of the data for each chip, a byte in front
constexpr std::size_t IMAGE_DATA = Mpx2Chip::IMAGE_BYTES + 1;

constexpr std::uint8_t STATUS_COMMAND = 0x06;
constexpr OldParams SHUTTER_OPENED = {0x22, 0x22, 0x22};
constexpr OldParams SHUTTER_CLOSED = {0x44, 0x44, 0x44};

/// Volts on the ADC's channels that nothing else is known of: supplies, references, temperature.
constexpr std::array<double, 16> USUAL_VOLTS = {0.02,  1.215, 0.03, 2.497, 1.802, 1.651, 1.498, 0.815,
                                                2.201, 1.102, 0.75, 3.304, 4.102, 0.42,  2.5,   0.01};

/// The lowest bytes of a number, the highest of them first.
OldParams lowBytes(std::uint64_t number)
{
    return {static_cast<std::uint8_t>(number >> 16U), static_cast<std::uint8_t>(number >> 8U),
            static_cast<std::uint8_t>(number)};
}

} // namespace

const std::array<OldBoard::Command, 22> OldBoard::COMMANDS = {{
    {0x00, "Test", 0, 0, &OldBoard::tellFirmware, nullptr, 0},
    {0x03, "TimerH", 0, ANY_PARAMETERS, &OldBoard::setTimerHigh, nullptr, 0},
    {0x04, "TimerL", 0, ANY_PARAMETERS, &OldBoard::setTimerLow, nullptr, 0},
    {0x05, "ExtDac", 0, 0xF03FFF, &OldBoard::setExternalDac, nullptr, 0},
    {STATUS_COMMAND, "Meas Status", 0, 0, nullptr, nullptr, 0}, // the board's own
    {0x07, "Bias", 0x180000, 0x00FFFF, &OldBoard::setBias, nullptr, 0},
    {0x08, "TpxClock", 0, 0xFFFF01, &OldBoard::setTimepixClock, nullptr, 0},
    {0x13, "Chip Count", 0, 0x00001F, &OldBoard::countChips, nullptr, 0},
    {0x14, "Meas Stg", 0, 0x000380, &OldBoard::setMeasurement, nullptr, 0},
    {0x20, "Read Matrix", 0, 0, &OldBoard::checkChips, &OldBoard::readMatrix, 0},
    {0x21, "Write Matrix", 0, 0, &OldBoard::checkChips, &OldBoard::writeMatrix, IMAGE_DATA},
    {0x22, "MEAS START", 0x400000, 0, &OldBoard::startMeasurement, nullptr, 0},
    {0x23, "MEAS BREAK", 0, 0, &OldBoard::breakMeasurement, nullptr, 0},
    {0x24, "Write FSR", 0, 0, &OldBoard::checkChips, &OldBoard::shiftDacs, RECORD_DATA},
    {0x26, "Reset Medipix", 0, 0, &OldBoard::resetChips, nullptr, 0},
    {0x27, "Erase Matrix", 0, 0, &OldBoard::eraseMatrix, nullptr, 0},
    {0x35, "Sys Freq", 0, 0, &OldBoard::tellTimerClock, nullptr, 0},
    {0x36, "Meas Freq", 0, 0, &OldBoard::tellTimepixClock, nullptr, 0},
    {0x40, "Read AD", 0, 0x00001F, &OldBoard::readAdc, nullptr, 0},
    {0x41, "Mpx Power", 0, 0x000001, &OldBoard::setPower, nullptr, 0},
    {0x43, "SwitchModule", 0, 0x0000FF, &OldBoard::switchModule, nullptr, 0},
    {0x68, "SwitchModule", 0, ANY_PARAMETERS, &OldBoard::switchModule, nullptr, 0},
}};

Mpx2Chain* OldBoard::activeModule()
{
    for (std::size_t number = 0; number < chains.size(); ++number)
        if (addresses[number] == active)
            return &chains[number];
    return nullptr;
}

OldBoard::Answer OldBoard::tellFirmware(const OldFrame& /*frame*/, Time /*now*/)
{
    return firmware;
}

OldBoard::Answer OldBoard::setTimerHigh(const OldFrame& frame, Time /*now*/)
{
    timer = std::uint64_t{frame.word()} << 24U | (timer & ANY_PARAMETERS);
    return OldParams{};
}

OldBoard::Answer OldBoard::setTimerLow(const OldFrame& frame, Time /*now*/)
{
    timer = (timer & ~std::uint64_t{ANY_PARAMETERS}) | frame.word();
    return OldParams{};
}

/// Sets the DACs that p0 names, which may be none.
OldBoard::Answer OldBoard::setExternalDac(const OldFrame& frame, Time /*now*/)
{
    for (std::size_t dac = 0; dac < EXTERNAL_DACS; ++dac)
        if ((frame.params[0] >> (dac + 4) & 1) != 0)
            dacCodes[dac] = static_cast<std::uint16_t>(frame.word());
    return OldParams{};
}

double OldBoard::externalDacVolts(std::size_t dac) const
{
    return dacCodes.at(dac) / 2000.0;
}

OldBoard::Answer OldBoard::setBias(const OldFrame& frame, Time /*now*/)
{
    if (frame.params[1] != frame.params[2]) {
        violate("Bias with two codes", frame.bytes());
        return std::nullopt;
    }
    bias = frame.params[2];
    return OldParams{};
}

double OldBoard::biasVolts() const
{
    constexpr double CODES_PER_VOLT = 2.244 / 0.9;
    return bias < 0 ? 0 : (258 - bias) / CODES_PER_VOLT;
}

OldBoard::Answer OldBoard::setTimepixClock(const OldFrame& frame, Time /*now*/)
{
    clockWord = frame.word();
    return OldParams{};
}

double OldBoard::timepixClockMhz() const
{
    const bool undivided = (clockWord & 1) != 0;
    return undivided ? timepixMhz : timepixMhz / (((clockWord >> 8U) + 1) * 2.0);
}

/// Takes the host's word for the number of chips, or shifts ones through those of the active module and counts them.
OldBoard::Answer OldBoard::countChips(const OldFrame& frame, Time /*now*/)
{
    constexpr std::uint8_t UPPER_BITS = 0x80; ///< that tell nothing of the chips
    constexpr std::size_t PATTERN = 14;
    if (!chipsReady() || frame.params[2] > Mpx2Chain::MOST_CHIPS)
        return std::nullopt;
    counted = frame.params[2];
    if (Mpx2Chain* const chain = activeModule(); chain != nullptr && counted == 0) {
        chain->passBy(Bytes(PATTERN, 0xFF));
        const Lane lane = chain->passBy(Bytes(PATTERN, 0x00));
        counted = static_cast<std::size_t>(std::ranges::count(lane.head, 0xFF));
    }
    return OldParams{0, 0, static_cast<std::uint8_t>(UPPER_BITS | counted)};
}

OldBoard::Answer OldBoard::setMeasurement(const OldFrame& frame, Time /*now*/)
{
    trigger = frame.params[1];
    return OldParams{};
}

OldBoard::Answer OldBoard::startMeasurement(const OldFrame& /*frame*/, Time now)
{
    constexpr unsigned START_ON_TRIGGER = 1;
    constexpr unsigned STOP_ON_TRIGGER = 2;
    if (!chipsReady())
        return std::nullopt;
    constexpr std::uint64_t SHUTTER_MHZ = 100;
    shutter.start({.startWaits = (trigger & START_ON_TRIGGER) != 0,
                   .stopWaits = (trigger & STOP_ON_TRIGGER) != 0,
                   .period = (timer * SHUTTER_MHZ + timerMhz / 2) / timerMhz},
                  now);
    return OldParams{};
}

OldBoard::Answer OldBoard::breakMeasurement(const OldFrame& /*frame*/, Time now)
{
    if (const auto cut = shutter.stop(now))
        finishFrame(*cut);
    return OldParams{};
}

void OldBoard::externalTrigger(Time now)
{
    advance(now);
    shutter.trigger(now);
    advance(now);
}

/// Tells when the shutter opens, and closes it when its time is over.
void OldBoard::run(Time now)
{
    if (shutter.takeOpened())
        send(STATUS_COMMAND, SHUTTER_OPENED, shutter.sinceWhen());
    if (const auto frame = shutter.next(now))
        finishFrame(*frame);
}

void OldBoard::finishFrame(const ShutterFrame& frame)
{
    constexpr double SHUTTER_TICKS = 1e8; ///< a second
    constexpr std::uint64_t TICKS_MHZ = 100;
    const Mpx2Exposure exposure{.seconds = static_cast<double>(frame.length) / SHUTTER_TICKS,
                                .frame = frameNumber++,
                                .clockMhz = timepixClockMhz()};
    for (Mpx2Chain& chain : chains)
        chain.expose(exposure);
    measured = (frame.length * timerMhz + TICKS_MHZ / 2) / TICKS_MHZ;
    send(STATUS_COMMAND, SHUTTER_CLOSED, frame.end);
}

/// Data for the chips, or of theirs, need chips that have been counted.
OldBoard::Answer OldBoard::checkChips(const OldFrame& /*frame*/, Time /*now*/)
{
    return chipsReady() && counted > 0 ? Answer(OldParams{}) : std::nullopt;
}

/// Where no module answers to the address, the line brings zeros.
Bytes OldBoard::readMatrix(std::span<const std::uint8_t> /*data*/)
{
    Bytes stream(counted * IMAGE_DATA);
    if (Mpx2Chain* const chain = activeModule())
        stream = readout.read(std::span(&chain, 1), counted, stream.size());
    for (const OldFrame& part : {OldFrame{0x03, lowBytes(measured >> 24U), {}}, OldFrame{0x04, lowBytes(measured), {}}})
        std::ranges::copy(part.bytes(), std::back_inserter(stream));
    return stream;
}

Bytes OldBoard::writeMatrix(std::span<const std::uint8_t> data)
{
    if (Mpx2Chain* const chain = activeModule())
        chain->writeMatrix(data, complainAbout());
    return {};
}

Bytes OldBoard::shiftDacs(std::span<const std::uint8_t> data)
{
    Bytes old(data.size());
    if (Mpx2Chain* const chain = activeModule()) {
        const Lane lane = chain->shiftDacs(data, complainAbout());
        interleave(std::span(&lane, 1), data.size(), old);
    }
    return old;
}

/// Ends also a measurement that a host has left behind.
OldBoard::Answer OldBoard::resetChips(const OldFrame& /*frame*/, Time /*now*/)
{
    shutter.stop({});
    for (Mpx2Chain& chain : chains) {
        chain.setReset(true);
        chain.setReset(false);
    }
    return OldParams{};
}

OldBoard::Answer OldBoard::eraseMatrix(const OldFrame& /*frame*/, Time /*now*/)
{
    if (!chipsReady())
        return std::nullopt;
    std::vector<std::uint64_t> made;
    if (Mpx2Chain* const chain = activeModule())
        chain->readMatrix(chain->size(), made);
    return OldParams{};
}

OldBoard::Answer OldBoard::tellTimerClock(const OldFrame& /*frame*/, Time /*now*/)
{
    return OldParams{static_cast<std::uint8_t>(timerMhz), 0, 0};
}

OldBoard::Answer OldBoard::tellTimepixClock(const OldFrame& /*frame*/, Time /*now*/)
{
    return OldParams{static_cast<std::uint8_t>(timepixMhz), 0, 0};
}

/// The conversion with the channel's number in front, as the ADC shifts it out.
OldBoard::Answer OldBoard::readAdc(const OldFrame& frame, Time /*now*/)
{
    const unsigned channel = frame.params[2];
    if (channel >= build.adcChannels)
        return std::nullopt;
    const double code = std::clamp(std::round(adcVolts(channel) / build.adcRange * 4096), 0.0, 4095.0);
    const unsigned word = channel << 12U | static_cast<unsigned>(code);
    return OldParams{static_cast<std::uint8_t>(word >> 8U), static_cast<std::uint8_t>(word), 0};
}

/// Volts on a channel of the ADC. The sense outputs of the active module's chips are joined.
double OldBoard::adcVolts(unsigned channel)
{
    const Mpx2Chain* const chain = activeModule();
    if (channel == build.senseChannel && powered && chain != nullptr)
        for (std::size_t position = 0; position < chain->size(); ++position)
            if (const auto volts = chain->chip(position).senseVolts())
                return *volts;
    return USUAL_VOLTS.at(channel);
}

OldBoard::Answer OldBoard::setPower(const OldFrame& frame, Time /*now*/)
{
    applyPower(frame.params[2] != 0);
    return OldParams{};
}

/// The firmware takes chips that get their power out of reset. Without it there is no measurement.
void OldBoard::applyPower(bool on)
{
    powered = on;
    if (!on)
        shutter.stop({});
    for (Mpx2Chain& chain : chains) {
        chain.setPower(on);
        chain.setReset(!on);
    }
}

/// The modules hang on one bus: the board does not know whether one answers to the address.
OldBoard::Answer OldBoard::switchModule(const OldFrame& frame, Time /*now*/)
{
    constexpr std::uint8_t IN_ALL_THREE = 0x68;
    const auto [first, second, address] = frame.params;
    if (frame.command == IN_ALL_THREE && (first != address || second != address)) {
        violate("SwitchModule with different modules", frame.bytes());
        return std::nullopt;
    }
    active = address;
    return OldParams{};
}

} // namespace sim
