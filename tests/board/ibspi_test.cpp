// The SPI exchanges with bias DAC and ADC: which of their commands' results count, and what is made of an answer. The
// tests of the devices compare the commands themselves.
#include "board/ibspi.h"

#include "board/boarddoubles.h"

#include <gmock/gmock.h>

using namespace HwLatixel;
using testing::ElementsAre;

namespace {

const char* const BIAS_SET = "04 01 10 00 00 05 00";
const char* const BIAS_DATA = "04 00 [1B] 00";
const char* const DESELECT = "04 02 00 00 00 00 00";
const char* const HAND_BACK = "01 00 00 00 00 00 02";

TEST(IbSpiTest, BiasTellsTheFailureOfTheFirstOrLastCommand)
{
    RecordingManager mgr;
    mgr.results = {{BIAS_DATA, -7}, {DESELECT, -8}};
    EXPECT_EQ(0, ibspi::writeBiasDac(mgr, 0x1B, ibspi::BiasHandBack::Last));
    EXPECT_EQ(-8, ibspi::writeBiasDac(mgr, 0x1B, ibspi::BiasHandBack::AfterSet));
    mgr.results = {{HAND_BACK, -9}};
    EXPECT_EQ(-9, ibspi::writeBiasDac(mgr, 0x1B, ibspi::BiasHandBack::Last));
    EXPECT_EQ(0, ibspi::writeBiasDac(mgr, 0x1B, ibspi::BiasHandBack::AfterSet));
    mgr.lines.clear();
    mgr.results = {{BIAS_SET, 4}};
    EXPECT_EQ(4, ibspi::writeBiasDac(mgr, 0x1B, ibspi::BiasHandBack::AfterSet));
    EXPECT_THAT(mgr.lines, ElementsAre(BIAS_SET));
}

TEST(IbSpiTest, AdcTakesTheThirdConversion)
{
    RecordingManager mgr;
    mgr.answer = {0x11, 0x22, 0x33, 0x44, 0xFA, 0xBC};
    unsigned short value = 0;
    EXPECT_EQ(0, ibspi::readAdc(mgr, 15, true, ibspi::AdcClose::HandBackBeforeRead, &value));
    EXPECT_EQ(0xABC, value);
    EXPECT_DOUBLE_EQ(0xABC * 5.0 / 4096, adcVolts(value));

    mgr.answer.resize(5);
    mgr.results = {{"receive 5", -3}};
    EXPECT_EQ(-3, ibspi::readAdc(mgr, 6, false, ibspi::AdcClose::DeselectAfterRead, &value));
    EXPECT_EQ(0xA00, value) << "what did not come is 0";
    EXPECT_EQ(DESELECT, mgr.lines.back());
}

} // namespace
