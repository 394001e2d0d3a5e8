// The small CPU of an interface board.
#include "sim/boards/boardcpu.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>

namespace sim {

using nlohmann::json;

namespace {

enum CpuCommand : std::uint8_t {
    CPU_STATUS = 2,
    CPU_VALUE_NAMES = 3,
    CPU_VALUES = 4,
    CPU_VERSION = 5,
    CPU_STATUS_TEXT = 6,
    CPU_SET_VALUE = 0x80,
};

/// Size of the block in which each command travels.
struct CommandSize {
    CpuCommand command;
    std::size_t bytes;
};
constexpr std::array<CommandSize, 6> COMMAND_SIZES = {{{CPU_STATUS, 4},
                                                       {CPU_VALUE_NAMES, 4096},
                                                       {CPU_VALUES, 4096},
                                                       {CPU_VERSION, 100},
                                                       {CPU_STATUS_TEXT, 100},
                                                       {CPU_SET_VALUE, 6}}};

// What a set command without a value does at these indexes.
constexpr std::uint8_t RESET_TEMPERATURE = 0;
constexpr std::uint8_t SWITCH_ON = 3;
constexpr std::uint8_t SWITCH_OFF = 4;

constexpr std::size_t ANSWER_START = 2; ///< the first two bytes of a block pass while the CPU reads the command

std::vector<std::pair<std::string, std::string>> readValues(const json& cpu)
{
    std::vector<std::pair<std::string, std::string>> values;
    for (const json& pair : readList(cpu, "values")) {
        if (!pair.is_array() || pair.size() != 2)
            badKey("values", "a list of pairs of a name and a value");
        const json& value = pair[1];
        values.emplace_back(valueAs<std::string>(pair[0], "values"),
                            value.is_string() ? value.get<std::string>() : value.dump());
    }
    return values;
}

std::string numberText(double number)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%g", number);
    return text.data();
}

} // namespace

BoardCpu::BoardCpu(const json& cpu)
    : SpiSlave("board CPU", 4, 50),
      isPresent(cpu.is_object()),
      normalStatus(STATUS_GOOD)
{
    if (!isPresent)
        return;
    refuseOtherKeys(cpu, {"about", "version", "values", "status", "status_text"});
    version = readKey<std::string>(cpu, "version", "1.7");
    normalText = readKey<std::string>(cpu, "status_text", "OK");
    normalStatus = readKey<std::uint8_t>(cpu, "status", STATUS_GOOD);
    normalValues = readValues(cpu);
    valueList = normalValues;
    clearStatus();
}

void BoardCpu::powerCycle()
{
    valueList = normalValues;
    powerOn = false;
    clearStatus();
}

void BoardCpu::measure(const std::string& label, double value)
{
    for (auto& [known, text] : valueList)
        if (known == label)
            text = numberText(value);
}

double BoardCpu::restingValue(const std::string& label) const
{
    for (const auto& [known, text] : normalValues)
        if (known == label)
            return std::strtod(text.c_str(), nullptr);
    return 0;
}

void BoardCpu::fail(std::uint8_t code, std::string text)
{
    status = code;
    statusText = std::move(text);
}

void BoardCpu::clearStatus()
{
    status = normalStatus;
    statusText = normalText;
}

Bytes BoardCpu::exchange(std::span<const std::uint8_t> sent, const Complain& complain)
{
    const auto known = std::ranges::find(COMMAND_SIZES, sent[0], &CommandSize::command);
    if (known == COMMAND_SIZES.end() || known->bytes != sent.size()) {
        complain("CPU command " + std::to_string(sent[0]) + " in a block of " + std::to_string(sent.size()) + " bytes",
                 sent);
        return Bytes(sent.size());
    }
    if (!isPresent)
        return Bytes(sent.size());
    switch (known->command) {
    case CPU_STATUS:
        return {0, 0, status, 0};
    case CPU_VALUE_NAMES:
        return text(sent.size(), joined(true));
    case CPU_VALUES:
        return text(sent.size(), joined(false));
    case CPU_VERSION:
        return text(sent.size(), version);
    case CPU_STATUS_TEXT:
        return text(sent.size(), statusText);
    case CPU_SET_VALUE:
        obey(sent, complain);
    }
    return Bytes(sent.size());
}

Bytes BoardCpu::text(std::size_t size, const std::string& content) const
{
    Bytes answer(size);
    std::copy_n(content.begin(), std::min(content.size(), size - ANSWER_START - 1), answer.begin() + ANSWER_START);
    return answer;
}

std::string BoardCpu::joined(bool names) const
{
    std::string all;
    for (const auto& [label, value] : valueList)
        all += (all.empty() ? "" : ";") + (names ? label : value);
    return all;
}

/// A set command: power and temperature where it carries no value, otherwise the value at the index.
void BoardCpu::obey(std::span<const std::uint8_t> sent, const Complain& complain)
{
    const std::uint8_t index = sent[1];
    std::uint32_t bits = 0;
    for (const std::uint8_t byte : sent.subspan(2))
        bits = bits << 8U | byte;
    if (bits == 0 && (index == SWITCH_ON || index == SWITCH_OFF)) {
        powerOn = index == SWITCH_ON;
    } else if (bits == 0 && index == RESET_TEMPERATURE) {
        ++resets;
        clearStatus();
    } else if (index < valueList.size()) {
        const auto number = static_cast<double>(std::bit_cast<float>(bits));
        valueList[index].second = numberText(number);
        if (onSet)
            onSet(valueList[index].first, number);
    } else {
        complain("CPU has no value at index " + std::to_string(index), sent);
    }
}

} // namespace sim
