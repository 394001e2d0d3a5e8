// Bias rules and calibrations, on the corner values of the conversions.
#include "board/ibbiasparams.h"

#include "board/boarddoubles.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(IbBiasParamsTest, TypeComesFromTheName)
{
    EXPECT_EQ("A", IBBiasParams::getBiasType("Latixel XA sn:12"));
    EXPECT_EQ("A", IBBiasParams::getBiasType("WB sn: WA sn:"));
    EXPECT_EQ("E", IBBiasParams::getBiasType("WE sn:"));
    EXPECT_EQ("D", IBBiasParams::getBiasType("WA"));
    EXPECT_EQ(200.0, IBBiasParams("Latixel WB sn:12", true).maxBias());
}

TEST(IbBiasParamsTest, WithoutACalibrationTheTypeRules)
{
    const IBBiasParams a("A", false);
    const std::vector<std::pair<double, int>> codes = {{0, 255}, {100, 27}, {1e300, 27}, {-5, 255}, {NAN, 1}};
    for (const auto& [volts, code] : codes)
        EXPECT_EQ(code, a.getBiasCode(volts, false)) << volts;
    EXPECT_EQ(145, a.getBiasCode(50.0, true)); // 258 - 112.2
    EXPECT_EQ(1, IBBiasParams("C", false).getBiasCode(50.0, false)) << "0 over 0";

    IBBiasParams b("B", false);
    EXPECT_EQ(141, b.getBiasCode(100.0, false)); // 255 - 113.8
    EXPECT_DOUBLE_EQ(2.5 * 100 * 2 / 1.3, b.adcToSenseVoltage(4096));
    b.setDeviceType(3);
    EXPECT_DOUBLE_EQ(85.0, b.adcToSenseVoltage(2048));
}

TEST(IbBiasParamsTest, FlashCalibrationReplacesTheRule)
{
    refhost::ParamMgr flash = hostParams();
    const auto read = [&flash](IBBiasParams& params, const std::map<const char*, double>& values) {
        for (const auto& [name, value] : values) {
            flash.addDouble(name, "", value, nullptr, 0, 0); // if it is new
            flash.find(name)->setDouble(value);
        }
        params.readFlashParameters(&flash);
    };
    IBBiasParams params("A", false);
    params.setVoltCurrentSenseChannels(15, 14);
    flash.addByte("BiasCurChannel", "", 9, nullptr, 0, 0);
    read(params, {{"BiasMin", -10}, {"BiasMax", 300}, {"BiasSetA", 2}, {"BiasSetB", -4}, {"BiasVoltA", 3}});
    read(params, {{"BiasVoltB", 1}, {"BiasCurrCoeff1", 500}, {"BiasCurrCoeff2", 10}, {"BiasCurrCoeff3", 0.5}});
    EXPECT_EQ(-10.0, params.minBias());
    EXPECT_EQ(15, params.voltSenseChannel());
    EXPECT_EQ(9, params.currentSenseChannel());
    EXPECT_EQ(96, params.getBiasCode(50, false)); // 100 - 4 + 0.5, cut
    EXPECT_EQ(255, params.getBiasCode(250, false));
    EXPECT_DOUBLE_EQ(8.5, params.adcToSenseVoltage(2048));
    EXPECT_DOUBLE_EQ(-50 * std::exp(2.5), params.adcToSenseCurrent(0));

    read(params, {{"BiasCurrA", 2}, {"BiasCurrB", -8}, {"BiasCurrC", 3}, {"BiasCurrD", 0.25}});
    EXPECT_DOUBLE_EQ(3 * -3 * std::exp(0.75), params.adcToSenseCurrent(2048));
    read(params, {{"BiasCoeff", 0}, {"BiasSetA", 0}, {"BiasSetB", 0}});
    EXPECT_EQ(0.0, params.adcToSenseVoltage(2048)) << "half a calibration";
    EXPECT_EQ(1, params.getBiasCode(50, false)) << "a coefficient of 0";
    read(params, {{"BiasMin", -INFINITY}, {"BiasMax", NAN}});
    EXPECT_EQ(-10.0, params.minBias());
    EXPECT_EQ(300.0, params.maxBias()) << "what is no number limits nothing";
    EmptyHandedMgr emptyHanded;
    params.readFlashParameters(&emptyHanded);
    params.readFlashParameters(nullptr);
    EXPECT_EQ(300.0, params.maxBias());
}

} // namespace
