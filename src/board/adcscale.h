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

/// Degrees Celsius for a value of the board's temperature sensor, whose scale runs from -50 to 450.
constexpr double adcCelsius(unsigned short value)
{
    return value / ADC_STEPS * 500.0 - 50.0;
}
/// The ADC channel that the sensor is on.
inline constexpr unsigned char TEMPERATURE_ADC_CHANNEL = 1;
