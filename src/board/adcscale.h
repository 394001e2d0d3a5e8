// Scale of the readout boards' ADC.
#pragma once

/// Values of the ADC: 12 bits.
inline constexpr double ADC_STEPS = 4096.0;
/// Volts at full scale.
inline constexpr double ADC_REFERENCE_VOLTS = 5.0;

/// Volts at the ADC's input for one of its values.
constexpr double adcVolts(unsigned short value)
{
    return value / ADC_STEPS * ADC_REFERENCE_VOLTS;
}
