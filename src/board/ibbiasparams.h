// Bias calibration of a readout board: volts to DAC code, ADC codes to volts and microamperes. Pure arithmetic, no I/O.
#pragma once

#include "host/iparam.h"

#include <string>

/// Bias rules of one board: from its own flash calibration, or the fixed rule of its type letter.
/// No lock; the owning device's locks serialise changes.
class IBBiasParams {
public:
    /// With `fromName` false, `type` is the type letter "A" to "E"; with `fromName` true it is the device's name,
    /// from which the letter is taken. A name with "Ardixel" in it is of type "D".
    IBBiasParams(const std::string& type, bool fromName);
    virtual ~IBBiasParams() = default;

    /// The type letter in a device's name, by the letter before " sn:"; "D" if there is none.
    static std::string getBiasType(const std::string& name);

    /// Sets the kind of board for `adcToSenseVoltage`; -1 at first.
    void setDeviceType(int type) { deviceType = type; }
    /// Sets the ADC channels that carry bias voltage and current; 14 and 15 at first.
    void setVoltCurrentSenseChannels(unsigned char volt, unsigned char current);
    /// Takes the calibration from the parameters that the board's flash has filled. What is missing there keeps its
    /// value, so a board with no flash record keeps its type's rule.
    void readFlashParameters(dv::IParamMgr* manager);

    /// Reads one parameter; leaves `value` alone if there is no manager, none of that name, or no finite number in it.
    static void getPar(dv::IParamMgr* manager, const char* name, double& value);
    static void getBytePar(dv::IParamMgr* manager, const char* name, unsigned char& value);

    /// The DAC code for `voltage` volts, 1 to 255. A voltage beyond the limits is limited without a word. Without a
    /// calibration a higher code is a lower voltage; `altFormula` takes the rule of boards with another DAC range.
    /// What is not a number gives 1.
    unsigned char getBiasCode(double voltage, bool altFormula) const;
    /// Volts for a 12-bit ADC code; 0.0 for a board that has only half of a calibration.
    double adcToSenseVoltage(unsigned short code) const;
    /// Current for a 12-bit ADC code, in the calibration's unit (microamperes); 0.0 without a calibration.
    double adcToSenseCurrent(unsigned short code) const;

    /// Limits in volts. Both 0: the board has no bias calibration.
    double minBias() const { return minBias_; }
    double maxBias() const { return maxBias_; }
    /// ADC channels of the sense inputs.
    unsigned char voltSenseChannel() const { return voltSenseChannel_; }
    unsigned char currentSenseChannel() const { return currentSenseChannel_; }

private:
    struct DoubleParam {
        const char* name;
        double IBBiasParams::*field;
    };
    struct ByteParam {
        const char* name;
        unsigned char IBBiasParams::*field;
    };
    static const DoubleParam DOUBLE_PARAMS[];
    static const ByteParam BYTE_PARAMS[];

    void applyType(const std::string& letter);

    double minBias_ = 0;
    double maxBias_ = 0;
    double biasCoeff = 1.0;
    double biasSetA = 0;
    double biasSetB = 0;
    double biasVoltA = 0;
    double biasVoltB = 0;
    double biasCurrA = 0;
    double biasCurrB = 0;
    double biasCurrC = 0;
    double biasCurrD = 0;
    double biasCurrCoeff1 = 0;
    double biasCurrCoeff2 = 0;
    double biasCurrCoeff3 = 0;
    int deviceType = -1;
    unsigned char voltSenseChannel_ = 14;
    unsigned char currentSenseChannel_ = 15;
};
