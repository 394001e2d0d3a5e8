// The small CPU of an interface board: status, named values, and commands for power and temperature.
#pragma once

#include "sim/wire/spi.h"

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

namespace sim {

class LATIXELSIM_API BoardCpu : public SpiSlave {
public:
    /// Status codes that the CPU tells.
    static constexpr std::uint8_t STATUS_GOOD = 0, STATUS_ERROR = 2, STATUS_OVERHEATED = 4;

    /// From {"version": text, "values": [[name, value], ...], "status": code, "status_text": text}, or null for a board
    /// without a CPU, where the line stays low.
    explicit BoardCpu(const nlohmann::json& cpu);

    Bytes exchange(std::span<const std::uint8_t> sent, const Complain& complain) override;
    void powerCycle() override;

    /// Called with the name and the number of each value that the host sets.
    using SetHook = std::function<void(const std::string& name, double value)>;
    void whenSet(SetHook hook) { onSet = std::move(hook); }
    /// The CPU has measured a value. One that it does not publish is of no interest.
    void measure(const std::string& name, double value);
    /// Number of a value after switching on, or 0 if there is none of that name.
    double restingValue(const std::string& name) const;

    /// The status goes over to `code` with its text, until a temperature reset or `clearStatus`.
    void fail(std::uint8_t code, std::string text);
    void clearStatus();

    bool present() const { return isPresent; }
    bool overheated() const { return status == STATUS_OVERHEATED; }
    /// True when the last power command was "on". The CPU begins with power off.
    bool power() const { return powerOn; }
    std::size_t temperatureResets() const { return resets; }
    /// Names with their present values as text.
    const std::vector<std::pair<std::string, std::string>>& values() const { return valueList; }

private:
    Bytes text(std::size_t size, const std::string& content) const;
    std::string joined(bool names) const;
    void obey(std::span<const std::uint8_t> sent, const Complain& complain);

    bool isPresent;
    std::string version;
    std::string normalText;
    std::vector<std::pair<std::string, std::string>> normalValues;

    std::vector<std::pair<std::string, std::string>> valueList;
    std::uint8_t normalStatus;
    std::uint8_t status = STATUS_GOOD;
    std::string statusText;
    SetHook onSet;
    bool powerOn = false;
    std::size_t resets = 0;
};

} // namespace sim
