// The analog side of an interface board.
#include "sim/boards/analog.h"

#include "sim/jsonkeys.h"

#include <algorithm>
#include <cmath>

namespace sim {

using nlohmann::json;

namespace {

constexpr double ADC_RANGE = 5;
constexpr double CODES_PER_VOLT = 255.0 / 112; ///< of the bias DAC, which is inverted, on a board without calibration

/// A number from the board's entry, or from the calibration in its flash, or `fallback`.
double calibrated(const json& bias, const char* key, const json& flash, const char* parameter, double fallback)
{
    for (const json& record : readList(flash, "parameters"))
        if (readKey<std::string>(record, "name") == parameter)
            fallback = readKey<double>(record, "value");
    return readKey(bias, key, fallback);
}

/// The letter in front of the serial marker tells the supply that is built in.
double typeCoeff(const std::string& description)
{
    return description.find("WB sn:") != std::string::npos ? 2.0 : 1.0;
}

} // namespace

Bytes BiasDac::exchange(std::span<const std::uint8_t> sent, const Complain& complain)
{
    if (sent.size() != 1)
        complain("bias DAC takes one byte", sent);
    else
        lastCode = sent[0];
    return Bytes(sent.size(), 0xFF);
}

Bytes Adc::exchange(std::span<const std::uint8_t> sent, const Complain& complain)
{
    constexpr unsigned MANUAL_MODE = 0x1000;
    constexpr unsigned SETS_RANGE = 0x0800;
    constexpr unsigned WIDE = 0x0040;
    constexpr unsigned KNOWN = MANUAL_MODE | SETS_RANGE | 0x0780 | WIDE;
    const unsigned word = sent.size() == 2 ? static_cast<unsigned>(sent[0] << 8U | sent[1]) : 0;
    if ((word & MANUAL_MODE) == 0 || (word & ~KNOWN) != 0) {
        complain("ADC does not know this word", sent);
        return Bytes(sent.size());
    }
    if ((word & SETS_RANGE) != 0)
        wideRange = (word & WIDE) != 0;
    const std::uint16_t answer = pipeline[0];
    pipeline = {pipeline[1], convert(word >> 7U & 0xFU)};
    return {static_cast<std::uint8_t>(answer >> 8U), static_cast<std::uint8_t>(answer)};
}

/// The conversion with the channel's number in front, as it is shifted out.
std::uint16_t Adc::convert(unsigned channel) const
{
    const double code = volts(channel) / (wideRange ? ADC_RANGE : ADC_RANGE / 2) * 4096;
    return static_cast<std::uint16_t>(channel << 12U |
                                      static_cast<unsigned>(std::clamp(std::round(code), 0.0, 4095.0)));
}

BiasSupply::BiasSupply(const json& bias, const json& flash, const std::string& description, const BiasWiring& wiring)
    : coeff(calibrated(bias, "coeff", flash, "BiasCoeff", typeCoeff(description))),
      setA(calibrated(bias, "set_a", flash, "BiasSetA", 0)),
      setB(calibrated(bias, "set_b", flash, "BiasSetB", 0)),
      voltA(calibrated(bias, "volt_a", flash, "BiasVoltA", 0)),
      voltB(calibrated(bias, "volt_b", flash, "BiasVoltB", 0)),
      currA(calibrated(bias, "curr_a", flash, "BiasCurrA", 0)),
      currB(calibrated(bias, "curr_b", flash, "BiasCurrB", 0)),
      currC(calibrated(bias, "curr_c", flash, "BiasCurrC", 0)),
      currD(calibrated(bias, "curr_d", flash, "BiasCurrD", 0)),
      currCoeff1(calibrated(bias, "curr_coeff1", flash, "BiasCurrCoeff1", 0)),
      currCoeff2(calibrated(bias, "curr_coeff2", flash, "BiasCurrCoeff2", 0)),
      currCoeff3(calibrated(bias, "curr_coeff3", flash, "BiasCurrCoeff3", 0)),
      leakage(readKey(bias, "leakage", 0.02)),
      senseOffset(wiring.senseOffset),
      voltsPerVolt(wiring.voltsPerVolt * (wiring.scalesWithCoeff ? coeff : 1)),
      voltAdc(static_cast<unsigned>(calibrated(bias, "volt_channel", flash, "BiasVoltChannel", wiring.voltChannel))),
      currentAdc(
          static_cast<unsigned>(calibrated(bias, "current_channel", flash, "BiasCurChannel", wiring.currentChannel)))
{
    refuseOtherKeys(bias,
                    {"about", "coeff", "set_a", "set_b", "volt_a", "volt_b", "curr_a", "curr_b", "curr_c", "curr_d",
                     "curr_coeff1", "curr_coeff2", "curr_coeff3", "leakage", "volt_channel", "current_channel"});
}

double BiasSupply::volts(int code) const
{
    if (code < 0)
        return 0;
    return setA != 0 ? (code - setB) / setA : (255 - code) / CODES_PER_VOLT * coeff;
}

double BiasSupply::voltSense(int code) const
{
    return voltA != 0 ? (volts(code) - voltB) / voltA : senseOffset + volts(code) / voltsPerVolt;
}

double BiasSupply::currentOfSense(double sense) const
{
    const bool linear = currA != 0 || currB != 0 || currC != 0 || currD != 0;
    const double c = linear ? sense * currA + currB : (sense - ADC_RANGE / 2) * 1000 / currCoeff1;
    return (linear ? currC : currCoeff2) * c * std::exp((linear ? currD : currCoeff3) * std::abs(c));
}

double BiasSupply::currentSense(int code) const
{
    const double wanted = current(code);
    if (currC == 0 && (currCoeff1 == 0 || currCoeff2 == 0))
        return ADC_RANGE / 2; // an amplifier that rests in the middle
    double low = 0;
    double high = ADC_RANGE;
    const bool rising = currentOfSense(low) < currentOfSense(high);
    for (int step = 0; step < 40; ++step) {
        const double middle = (low + high) / 2;
        ((currentOfSense(middle) < wanted) == rising ? low : high) = middle;
    }
    return low;
}

} // namespace sim
