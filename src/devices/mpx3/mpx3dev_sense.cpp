// What a Medipix3 board measures, and its bias: ADC, sense outputs, bias DAC.
#include "devices/mpx3/mpx3dev.h"

#include "board/adcscale.h"
#include "board/ibspi.h"
#include "chipdata/mpx3dacs.h"

#include <algorithm>
#include <cmath>

namespace HwLatixel {

namespace {

constexpr unsigned char SENSE_ADC_CHANNEL = 0; ///< carries the sense output that senseDac selects

// Sense outputs and calibration of the chip's own temperature sensor, in degrees Celsius.
constexpr unsigned TEMPERATURE_OUTPUT = 28;
constexpr unsigned BANDGAP_OUTPUT = 27;
constexpr double TEMPERATURE_ZERO = 88.75;
constexpr double TEMPERATURE_PER_VOLT = 607.3;
constexpr double TEMPERATURE_CORRECTION = 6.0;
constexpr double TEMPERATURE_SCALE = 0.77;

} // namespace

int Mpx3Dev::senseDac(unsigned chip, unsigned dac)
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    readoutDisturbed = true;
    logFunction("Sense DAC");
    if (dac >= MPX3RX_DACS_SENSE.size() - 1)
        return logError(1, "Invalid sense DAC index (%u).", dac);
    for (int channel = 0; channel < channelCount; ++channel) {
        switchChannel(channel, false, false, true);
        const unsigned char code = chip == static_cast<unsigned>(channel) ? MPX3RX_DACS_SENSE[dac + 1] : 0;
        omrValue.update([code](OMR& image) { image.SenseDAC = code; });
        if (const int result = sendOMRMode(MPX3_MODE_LOAD_DACS); result != 0)
            return result;
    }
    return 0;
}

int Mpx3Dev::getDacAnalogValue(unsigned chip, unsigned dac, double* value)
{
    // Nobody else selects another output between the two.
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    logFunction("Get DAC Analog Value");
    if (const int result = senseDac(chip, dac); result != 0)
        return result;
    return analogValue(chip, value);
}

double Mpx3Dev::readTemperature(int chip)
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 0.0;
    double sensor = 0.0;
    double bandgap = 0.0;
    getDacAnalogValue(static_cast<unsigned>(chip), TEMPERATURE_OUTPUT, &sensor);
    getDacAnalogValue(static_cast<unsigned>(chip), BANDGAP_OUTPUT, &bandgap);
    return ((TEMPERATURE_ZERO - (sensor - bandgap) * TEMPERATURE_PER_VOLT) - TEMPERATURE_CORRECTION) *
           TEMPERATURE_SCALE;
}

int Mpx3Dev::getADC(unsigned char channel, unsigned short* value, bool flag) const
{
    if (!skipPeriodicLog)
        logFunction("Read ADC");
    if (requireLink() != 0)
        return 1;
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    if (!link.exists())
        return logError(1, "%s", NOT_CONNECTED);
    const Link::Exchange whole(link);
    if (skipPeriodicLog)
        report.setLevel(MSG);
    int result = spiSet(*link, spislave::ADC);
    const bool selected = result == 0;
    if (selected)
        result = ibspi::readAdc(*link, channel, flag, ibspi::AdcClose::HandBackBeforeRead, value);
    if (result == 0)
        adcCodes[channel % ADC_CHANNELS] = *value;
    report.setLevel(usualLogLevel());
    if (!selected)
        return logError(result, "Failed sending command (%s)", link.lastError());
    return result;
}

unsigned short Mpx3Dev::readSenseCode(unsigned char channel) const
{
    unsigned short code = 0;
    getADC(channel, &code, true);
    return code;
}

double Mpx3Dev::adcValue(unsigned index) const
{
    const auto channel = static_cast<unsigned char>(index % ADC_CHANNELS);
    if (!inSeries())
        return adcVolts(readSenseCode(channel));
    leaveWish(1U << channel);
    return adcVolts(static_cast<unsigned short>(std::max(adcCodes[channel].load(), 0)));
}

int Mpx3Dev::analogValue(unsigned, double* value)
{
    if (value == nullptr)
        return refuseNull("the value");
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return 1;
    *value = adcVolts(readSenseCode(SENSE_ADC_CHANNEL));
    return 0;
}

int Mpx3Dev::setBias(double volts)
{
    if (requireLink() != 0)
        return 1;
    // What is not a number would become the lowest code, which is the highest voltage.
    if (std::isnan(volts))
        return logError(1, "Bias voltage is not a number.");
    logFunction("Set Bias");
    if (devMpxInfo_.biasMin == 0.0 && devMpxInfo_.biasMax == 0.0)
        return -1;
    return link.writeBias(biasParams.getBiasCode(volts, false), ibspi::BiasHandBack::Last);
}

int Mpx3Dev::biasVoltageCurrentSense(double* volts, double* amperes) const
{
    if (!skipPeriodicLog)
        logFunction("Bias voltage sense");
    if (volts == nullptr && amperes == nullptr)
        return 0;
    if (inSeries())
        leaveWish(WISH_BIAS);
    else
        measureBias(volts != nullptr, amperes != nullptr);
    if (volts != nullptr)
        *volts = biasSense;
    if (amperes != nullptr)
        *amperes = currentSense;
    return biasSense == 0.0 && currentSense == 0.0 ? -1 : 0;
}

void Mpx3Dev::measureBias(bool volts, bool current) const
{
    const DeviceTurn turn(linkTurn, report, patience());
    if (turn.require() != 0)
        return;
    if (volts)
        biasSense = biasParams.adcToSenseVoltage(readSenseCode(biasParams.voltSenseChannel()));
    if (current)
        currentSense = biasParams.adcToSenseCurrent(readSenseCode(biasParams.currentSenseChannel()));
}

} // namespace HwLatixel
