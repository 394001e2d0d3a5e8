// The SPI peripheral of an interface board: chip select, clock settings, and exchanges with the slaves behind it.
#pragma once

#include "sim/wire/frames.h"

#include <map>
#include <optional>

namespace sim {

/// One slave on the SPI lines.
class SpiSlave {
public:
    /// Clock mode and divider that the slave works with.
    SpiSlave(const char* slaveName, std::uint8_t spiMode, std::uint32_t clockDivider)
        : name(slaveName),
          mode(spiMode),
          divider(clockDivider)
    {
    }
    virtual ~SpiSlave() = default;
    SpiSlave(const SpiSlave&) = delete;
    SpiSlave& operator=(const SpiSlave&) = delete;

    /// One full-duplex exchange: takes the bytes and gives as many back.
    virtual Bytes exchange(std::span<const std::uint8_t> sent, const Complain& complain) = 0;
    /// The slave loses its power and gets it back.
    virtual void powerCycle() {}

    const char* const name;
    const std::uint8_t mode;
    const std::uint32_t divider;
};

/// The SPI lines with the settings that the host made.
class SpiBus {
public:
    /// Puts a slave, which is not owned, behind a chip select.
    void attach(std::uint8_t chipSelect, SpiSlave& slave) { slaves[chipSelect] = &slave; }

    void set(std::uint8_t newMode, std::uint32_t newDivider);
    /// Selects a slave; 0 selects none.
    void select(std::uint8_t chipSelect) { selected = chipSelect; }
    /// Keeps bytes until `send`.
    void hold(Bytes bytes) { held = std::move(bytes); }
    /// Shifts out what was kept and returns the slave's answer.
    Bytes send(const Complain& complain);
    /// Shifts bytes out at once and returns the slave's answer, as long as they are.
    Bytes exchange(std::span<const std::uint8_t> bytes, const Complain& complain);
    /// Back to the settings after switching on.
    void reset();

private:
    std::map<std::uint8_t, SpiSlave*> slaves;
    std::uint8_t mode = 0;
    std::uint32_t divider = 0;
    std::uint8_t selected = 0;
    std::optional<Bytes> held;
};

} // namespace sim
