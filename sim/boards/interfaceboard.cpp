// What the readout boards of the newer generations have in common.
#include "sim/boards/interfaceboard.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <charconv>

namespace sim {

using nlohmann::json;

namespace {

enum SlaveSelect : std::uint8_t { SELECT_ADC = 1, SELECT_FLASH = 3, SELECT_BIAS_DAC = 4, SELECT_CPU = 7 };

/// Volts on the ADC's channels that nothing else is known of: supplies and references.
constexpr std::array<double, Adc::CHANNELS> USUAL_VOLTS = {0,   0,    1.502, 1.498, 2.497, 3.304, 1.801, 1.203,
                                                           2.5, 0.75, 4.98,  3.29,  1.1,   0.42,  0,     0};

std::string checkedFirmware(std::string text)
{
    if (text.size() > InterfaceBoard::FIRMWARE_BYTES)
        badKey("firmware", "29 characters at most");
    return text;
}

std::array<double, Adc::CHANNELS> readVolts(const json& board)
{
    auto volts = USUAL_VOLTS;
    const json given = readObject(board, "adc");
    for (const auto& [key, value] : given.items()) {
        unsigned channel = Adc::CHANNELS;
        std::from_chars(key.data(), key.data() + key.size(), channel);
        if (channel >= Adc::CHANNELS)
            badKey("adc", "an object with channels from \"0\" to \"15\"");
        volts[channel] = valueAs<double>(value, "adc");
    }
    return volts;
}

} // namespace

InterfaceBoard::InterfaceBoard(const json& board, const char* firmwareName, const BiasWiring& wiring)
    : Board(readKey<std::string>(board, "description")),
      firmware(checkedFirmware(readKey<std::string>(board, "firmware", firmwareName))),
      usualFirmware(firmware),
      flashEntry(readObject(board, "flash")),
      boardCpu(board.value("cpu", json())),
      adc([this](unsigned channel) { return adcVolts(channel); }),
      bias(readObject(board, "bias"), flashEntry, description(), wiring),
      temperature(readKey(board, "temperature", 31.5)),
      restingVolts(readVolts(board))
{
    flashChip.setContents(flashImage(flashEntry));
    spi.attach(SELECT_ADC, adc);
    spi.attach(SELECT_FLASH, flashChip);
    spi.attach(SELECT_BIAS_DAC, biasDac);
    spi.attach(SELECT_CPU, boardCpu);
}

void InterfaceBoard::powerCycle(Time /*now*/)
{
    boardCpu.powerCycle();
    biasDac.powerCycle();
    adc.powerCycle();
    fifoMode = true;
    hung = false;
    resetLink();
}

void InterfaceBoard::resetLink()
{
    parser.reset();
    spi.reset();
    output = Output::Chips;
    chipBacklog.clear();
}

bool InterfaceBoard::applyFault(const json& fault)
{
    const auto kind = readKey<std::string>(fault, "kind");
    if (kind == "cpu_overheated") {
        boardCpu.fail(BoardCpu::STATUS_OVERHEATED, readKey<std::string>(fault, "text", "Chip temperature over limit"));
        applyPower();
    } else if (kind == "cpu_status") {
        boardCpu.fail(readKey(fault, "status", BoardCpu::STATUS_ERROR),
                      readKey<std::string>(fault, "text", "Supply voltage out of range"));
        applyPower();
    } else if (kind == "flash") {
        json entry = flashEntry;
        for (const char* key : {"parameters", "magic", "version", "total_size", "record_size", "image"})
            if (fault.contains(key))
                entry[key] = fault[key];
        flashChip.setContents(flashImage(entry));
    } else if (kind == "firmware") {
        firmware = checkedFirmware(readKey<std::string>(fault, "text"));
    } else if (kind == "hang") {
        hung = true;
    } else {
        return false;
    }
    return true;
}

void InterfaceBoard::clearFaults()
{
    boardCpu.clearStatus();
    applyPower();
    flashChip.setContents(flashImage(flashEntry));
    firmware = usualFirmware;
    hung = false;
}

void InterfaceBoard::receive(std::span<const std::uint8_t> bytes, Time now)
{
    advance(now);
    if (hung)
        return;
    if (!fifoMode) {
        violate("bytes while the chip is not in FIFO mode", bytes);
        return;
    }
    parser.feed(
        bytes, [&](Frame&& frame) { handle(std::move(frame), now); }, complainAbout());
    advance(now);
}

void InterfaceBoard::advance(Time now)
{
    if (!hung)
        run(now);
}

void InterfaceBoard::setBitMode(std::uint8_t /*mask*/, std::uint8_t mode, Time /*now*/)
{
    constexpr std::uint8_t BIT_BANG = 0x01;
    fifoMode = mode != BIT_BANG;
    if (fifoMode)
        return;
    // The pins that the host now waves are the FIFO's: the firmware starts its side of the link anew.
    hung = false;
    endSeries();
    resetLink();
}

void InterfaceBoard::handle(Frame&& frame, Time now)
{
    seen.push_back(std::move(frame));
    obey(seen.back(), now);
}

void InterfaceBoard::giveOutput(Output to)
{
    output = to;
    if (to == Output::Chips && !chipBacklog.empty())
        emit(std::exchange(chipBacklog, {}));
}

void InterfaceBoard::deliver(Output from, std::span<const std::uint8_t> bytes)
{
    if (output == from)
        emit(bytes);
    else if (from == Output::Chips)
        chipBacklog.insert(chipBacklog.end(), bytes.begin(), bytes.end());
}

Complain InterfaceBoard::complainAbout()
{
    return [this](std::string what, std::span<const std::uint8_t> bytes) {
        violate(std::move(what), bytes.first(std::min<std::size_t>(64, bytes.size())));
    };
}

double InterfaceBoard::adcVolts(unsigned channel) const
{
    constexpr unsigned BOARD_TEMPERATURE = 1;
    if (channel == bias.voltChannel())
        return bias.voltSense(suppliedCode());
    if (channel == bias.currentChannel())
        return bias.currentSense(suppliedCode());
    if (channel == BOARD_TEMPERATURE)
        return (temperature + 50) / 100;
    return restingVolts[channel];
}

void InterfaceBoard::tellFirmware(const Frame& /*frame*/, Time /*now*/)
{
    giveOutput(Output::Info);
    Bytes text(firmware.begin(), firmware.end());
    text.resize(FIRMWARE_BYTES);
    deliver(Output::Info, text);
}

void InterfaceBoard::spiData(const Frame& frame, Time /*now*/)
{
    if (!frame.has(FRAME_ACTS_AT_ONCE)) {
        spi.hold(frame.payload);
        return;
    }
    giveOutput(Output::Spi);
    deliver(Output::Spi, spi.exchange(frame.payload, complainAbout()));
    applyPower(); // the CPU may have let the chips on again
}

void InterfaceBoard::spiSet(const Frame& frame, Time /*now*/)
{
    spi.set(frame.d[0], frame.word24());
}

void InterfaceBoard::spiSelect(const Frame& frame, Time /*now*/)
{
    if (frame.has(FRAME_TAKES_OUTPUT))
        giveOutput(Output::Spi);
    spi.select(frame.d[3]);
}

void InterfaceBoard::spiSend(const Frame& /*frame*/, Time /*now*/)
{
    deliver(Output::Spi, spi.send(complainAbout()));
}

} // namespace sim
