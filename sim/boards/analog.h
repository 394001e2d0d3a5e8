// The analog side of an interface board: bias supply with its DAC, and the ADC with what its channels measure.
#pragma once

#include "sim/wire/spi.h"

#include <array>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace sim {

/// The DAC that sets the bias voltage: one 8-bit code.
class LATIXELSIM_API BiasDac : public SpiSlave {
public:
    BiasDac() : SpiSlave("bias DAC", 0x10, 5) {}

    Bytes exchange(std::span<const std::uint8_t> sent, const Complain& complain) override;
    void powerCycle() override { lastCode = -1; }

    /// Code that was set last, or -1 after switching on.
    int code() const { return lastCode; }

private:
    int lastCode = -1;
};

/// 12-bit ADC with 16 channels, pipelined: an exchange brings the conversion that was asked for two exchanges before.
class LATIXELSIM_API Adc : public SpiSlave {
public:
    static constexpr unsigned CHANNELS = 16;

    /// `volts` tells what lies on a channel at the moment of conversion.
    explicit Adc(std::function<double(unsigned channel)> voltsOf) : SpiSlave("ADC", 0x20, 5), volts(std::move(voltsOf))
    {
    }

    Bytes exchange(std::span<const std::uint8_t> sent, const Complain& complain) override;
    void powerCycle() override { pipeline = {}; }

private:
    std::uint16_t convert(unsigned channel) const;

    std::function<double(unsigned)> volts;
    std::array<std::uint16_t, 2> pipeline{}; ///< conversions under way, the older one first
    bool wideRange = false;                  ///< 0 to 5 V instead of 0 to 2.5 V
};

/// How a family of boards senses its bias where no calibration says otherwise.
struct BiasWiring {
    unsigned voltChannel;
    unsigned currentChannel;
    double senseOffset;   ///< volts at the ADC without bias
    double voltsPerVolt;  ///< bias for each volt at the ADC
    bool scalesWithCoeff; ///< that is so for a coefficient of 1, and grows with it
};

/// The bias supply: what voltage and current a DAC code gives, and what the sense dividers make of them.
class LATIXELSIM_API BiasSupply {
public:
    /// From {"coeff", "set_a", "set_b", "volt_a", "volt_b", "curr_a" .. "curr_d", "curr_coeff1" .. "curr_coeff3",
    /// "volt_channel", "current_channel", "leakage" in microamperes per volt}. Keys that are missing come from the
    /// calibration in the flash store ("BiasSetA", ...), then from the board type at the end of the name's type token.
    BiasSupply(const nlohmann::json& bias, const nlohmann::json& flash, const std::string& description,
               const BiasWiring& wiring);

    /// Bias in volts at a DAC code; -1 stands for no code yet, which gives 0.
    double volts(int code) const;
    /// Leakage current in the units of the calibration.
    double current(int code) const { return currentAt(volts(code)); }
    double currentAt(double biasVolts) const { return biasVolts * leakage; }
    /// Volts at the ADC for the two sense channels.
    double voltSense(int code) const;
    double currentSense(int code) const;

    unsigned voltChannel() const { return voltAdc; }
    unsigned currentChannel() const { return currentAdc; }

private:
    double currentOfSense(double sense) const;

    double coeff, setA, setB, voltA, voltB;
    double currA, currB, currC, currD;
    double currCoeff1, currCoeff2, currCoeff3;
    double leakage;
    double senseOffset, voltsPerVolt;
    unsigned voltAdc, currentAdc;
};

} // namespace sim
