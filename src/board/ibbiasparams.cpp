// See ibbiasparams.h.
#include "board/ibbiasparams.h"

#include "board/adcscale.h"

#include <algorithm>
#include <cmath>

namespace {

/// Fixed rule of one type letter: limits in volts, and volts for one volt of the DAC.
struct TypeRule {
    char letter;
    double minBias;
    double maxBias;
    double biasCoeff;
};

constexpr TypeRule TYPE_RULES[] = {
    {'A', 0, 100.0, 1.0}, {'B', 0, 200.0, 2.0}, {'C', 0, 0, 0}, {'D', 0, 0, 0}, {'E', 0, 0, 1.0},
};

/// What in a device's name tells the type.
struct TypeMark {
    const char* mark;
    const char* letter;
};

constexpr TypeMark TYPE_MARKS[] = {
    {"WA sn:", "A"}, {"XA sn:", "A"}, {"WB sn:", "B"}, {"WC sn:", "C"}, {"WD sn:", "D"}, {"WE sn:", "E"},
};
const char* const DEFAULT_TYPE = "D";
/// A name with this in it is of the default type, whatever else it says.
const char* const DEFAULT_TYPE_NAME = "Ardixel";

/// DAC code at 0 V, and codes for one volt, of the two fixed rules.
struct CodeRule {
    double atZero;
    double perVolt;
};

constexpr CodeRule CODE_RULE{255.0, 2.276785714285714}; // 255 codes over 112 V
constexpr CodeRule ALT_CODE_RULE{258.0, 2.244};

constexpr double MIN_CODE = 1;
constexpr double MAX_CODE = 255;

/// Boards without a calibration sense around this voltage of the ADC.
constexpr double ADC_MIDDLE = 2.5;

/// Null if there is none of that name.
dv::IParam* find(dv::IParamMgr* manager, const char* name)
{
    return manager != nullptr && manager->exists(name) ? manager->get(name) : nullptr;
}

} // namespace

const IBBiasParams::DoubleParam IBBiasParams::DOUBLE_PARAMS[] = {
    {"BiasMin", &IBBiasParams::minBias_},
    {"BiasMax", &IBBiasParams::maxBias_},
    {"BiasCoeff", &IBBiasParams::biasCoeff},
    {"BiasSetA", &IBBiasParams::biasSetA},
    {"BiasSetB", &IBBiasParams::biasSetB},
    {"BiasVoltA", &IBBiasParams::biasVoltA},
    {"BiasVoltB", &IBBiasParams::biasVoltB},
    {"BiasCurrA", &IBBiasParams::biasCurrA},
    {"BiasCurrB", &IBBiasParams::biasCurrB},
    {"BiasCurrC", &IBBiasParams::biasCurrC},
    {"BiasCurrD", &IBBiasParams::biasCurrD},
    {"BiasCurrCoeff1", &IBBiasParams::biasCurrCoeff1},
    {"BiasCurrCoeff2", &IBBiasParams::biasCurrCoeff2},
    {"BiasCurrCoeff3", &IBBiasParams::biasCurrCoeff3},
};

const IBBiasParams::ByteParam IBBiasParams::BYTE_PARAMS[] = {
    {"BiasVoltChannel", &IBBiasParams::voltSenseChannel_},
    {"BiasCurChannel", &IBBiasParams::currentSenseChannel_},
};

IBBiasParams::IBBiasParams(const std::string& type, bool fromName)
{
    const bool defaultType = fromName && type.find(DEFAULT_TYPE_NAME) != std::string::npos;
    applyType(defaultType ? DEFAULT_TYPE : fromName ? getBiasType(type) : type);
}

void IBBiasParams::applyType(const std::string& letter)
{
    for (const TypeRule& rule : TYPE_RULES) {
        if (letter == std::string(1, rule.letter)) {
            minBias_ = rule.minBias;
            maxBias_ = rule.maxBias;
            biasCoeff = rule.biasCoeff;
        }
    }
}

std::string IBBiasParams::getBiasType(const std::string& name)
{
    for (const TypeMark& type : TYPE_MARKS) {
        if (name.find(type.mark) != std::string::npos)
            return type.letter;
    }
    return DEFAULT_TYPE;
}

void IBBiasParams::setVoltCurrentSenseChannels(unsigned char volt, unsigned char current)
{
    voltSenseChannel_ = volt;
    currentSenseChannel_ = current;
}

void IBBiasParams::readFlashParameters(dv::IParamMgr* manager)
{
    for (const DoubleParam& param : DOUBLE_PARAMS)
        getPar(manager, param.name, this->*param.field);
    for (const ByteParam& param : BYTE_PARAMS)
        getBytePar(manager, param.name, this->*param.field);
}

void IBBiasParams::getPar(dv::IParamMgr* manager, const char* name, double& value)
{
    dv::IParam* param = find(manager, name);
    if (param == nullptr)
        return;
    // A limit that is no number would limit nothing.
    if (const double found = param->getFloat(); std::isfinite(found))
        value = found;
}

void IBBiasParams::getBytePar(dv::IParamMgr* manager, const char* name, unsigned char& value)
{
    if (dv::IParam* param = find(manager, name))
        value = param->getByte();
}

unsigned char IBBiasParams::getBiasCode(double voltage, bool altFormula) const
{
    // Not `std::clamp`: limits from the flash may lie the wrong way round, and then the lower one wins.
    const double volts = std::max(std::min(voltage, maxBias_), minBias_);
    const CodeRule& rule = altFormula ? ALT_CODE_RULE : CODE_RULE;
    const bool calibrated = biasSetA != 0 || biasSetB != 0;
    const double code = calibrated ? biasSetA * volts + biasSetB + 0.5 : rule.atZero - volts * rule.perVolt / biasCoeff;
    // A board without limits and coefficient makes 0 over 0 of this, which no integer can hold.
    if (std::isnan(code))
        return static_cast<unsigned char>(MIN_CODE);
    return static_cast<unsigned char>(std::clamp(code, MIN_CODE, MAX_CODE));
}

double IBBiasParams::adcToSenseVoltage(unsigned short code) const
{
    const double volts = adcVolts(code);
    if (biasVoltA == 0 && biasVoltB == 0 && biasCoeff != 0) {
        const bool directDivider = deviceType >= 1 && deviceType <= 3;
        return directDivider ? volts * 34.0 : (volts - ADC_MIDDLE) * 100.0 * std::fabs(biasCoeff) / 1.3;
    }
    if (biasSetA == 0 && biasSetB == 0)
        return 0.0;
    return volts * biasVoltA + biasVoltB;
}

double IBBiasParams::adcToSenseCurrent(unsigned short code) const
{
    const double volts = adcVolts(code);
    const bool calibrated = biasCurrA != 0 || biasCurrB != 0 || biasCurrC != 0 || biasCurrD != 0;
    if (calibrated) {
        const double current = volts * biasCurrA + biasCurrB;
        return biasCurrC * current * std::exp(biasCurrD * std::fabs(current));
    }
    if (biasCurrCoeff1 == 0)
        return 0.0;
    const double current = (volts - ADC_MIDDLE) * 1000.0 / biasCurrCoeff1;
    return current * biasCurrCoeff2 * std::exp(biasCurrCoeff3 * std::fabs(current));
}
