// The SPI exchanges with bias DAC and ADC: the commands, one by one, for each kind of board.
#include "board/ibspi.h"

#include "board/boarddoubles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace HwLatixel;
using testing::ElementsAre;

namespace {

const char* const BIAS_SET = "04 01 10 00 00 05 00";
const char* const BIAS_DATA = "04 00 [1B] 00";
const char* const BIAS_SELECT = "04 02 00 00 00 04 00";
const char* const SHIFT = "04 03 00 00 00 00 00";
const char* const DESELECT = "04 02 00 00 00 00 00";
const char* const HAND_BACK = "01 00 00 00 00 00 02";

TEST(IbSpiTest, BiasCodeGoesOutInTheOrderOfTheBoard)
{
    RecordingManager last;
    EXPECT_EQ(0, ibspi::writeBiasDac(last, 0x1B, ibspi::BiasHandBack::Last));
    EXPECT_THAT(last.lines, ElementsAre(BIAS_SET, BIAS_DATA, BIAS_SELECT, SHIFT, DESELECT, HAND_BACK));
    last.results = {{BIAS_DATA, -7}, {DESELECT, -8}};
    EXPECT_EQ(0, ibspi::writeBiasDac(last, 0x1B, ibspi::BiasHandBack::Last));
    last.results = {{HAND_BACK, -9}};
    EXPECT_EQ(-9, ibspi::writeBiasDac(last, 0x1B, ibspi::BiasHandBack::Last));

    RecordingManager afterSet;
    afterSet.results = {{DESELECT, -8}, {HAND_BACK, -9}};
    EXPECT_EQ(-8, ibspi::writeBiasDac(afterSet, 0x1B, ibspi::BiasHandBack::AfterSet));
    EXPECT_THAT(afterSet.lines, ElementsAre(BIAS_SET, HAND_BACK, BIAS_DATA, BIAS_SELECT, SHIFT, DESELECT));
    afterSet.lines.clear();
    afterSet.results = {{BIAS_SET, 4}};
    EXPECT_EQ(4, ibspi::writeBiasDac(afterSet, 0x1B, ibspi::BiasHandBack::AfterSet));
    EXPECT_THAT(afterSet.lines, ElementsAre(BIAS_SET));
}

TEST(IbSpiTest, AdcTakesTheThirdConversion)
{
    RecordingManager mgr;
    mgr.answer = {0x11, 0x22, 0x33, 0x44, 0xFA, 0xBC};
    unsigned short value = 0;
    const char* const select = "04 02 00 00 00 01 02";
    EXPECT_EQ(0, spiSet(mgr, spislave::ADC));
    EXPECT_EQ(0, ibspi::readAdc(mgr, 15, true, ibspi::AdcClose::HandBackBeforeRead, &value));
    EXPECT_THAT(mgr.lines, ElementsAre("04 01 20 00 00 05 00", select, "04 00 [1F C0] 00", SHIFT, DESELECT, select,
                                       "04 00 [17 C0] 00", SHIFT, DESELECT, select, "04 00 [17 C0] 00", SHIFT, DESELECT,
                                       HAND_BACK, "receive 6"));
    EXPECT_EQ(0xABC, value);
    EXPECT_EQ(1.0, mgr.lastTimeout);
    EXPECT_DOUBLE_EQ(0xABC * 5.0 / 4096, adcVolts(value));

    mgr.answer.resize(5);
    mgr.lines.clear();
    mgr.results = {{"receive 5", -3}};
    EXPECT_EQ(-3, ibspi::readAdc(mgr, 6, false, ibspi::AdcClose::DeselectAfterRead, &value));
    EXPECT_EQ(0xA00, value);
    EXPECT_EQ("04 00 [1B 00] 00", mgr.lines.at(1));
    EXPECT_EQ("receive 5", mgr.lines.at(12));
    EXPECT_EQ(DESELECT, mgr.lines.at(13));
}

} // namespace
