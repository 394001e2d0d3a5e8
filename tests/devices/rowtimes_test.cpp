#include "devices/common/rowtimes.h"

#include <gtest/gtest.h>

TEST(RowTimes, ExposureRisesOverTheFirstFrameAndThenStaysLevel)
{
    HwLatixel::RowTimes times;
    const double frameTime = 0.512;
    const double rowTime = frameTime / 256;
    const auto first = times.nextFrame(rowTime);
    EXPECT_DOUBLE_EQ(first.acqTimes[0], rowTime);
    EXPECT_NEAR(first.acqTimes[255], frameTime, 1e-12);
    EXPECT_EQ(first.startTimes[0], 0.0);
    const auto second = times.nextFrame(rowTime);
    EXPECT_NEAR(second.acqTimes[0], frameTime, 1e-12);
    EXPECT_NEAR(second.acqTimes[255], frameTime, 1e-12);
    EXPECT_NEAR(second.startTimes[0], frameTime, 1e-12);
    times.clear();
    EXPECT_DOUBLE_EQ(times.nextFrame(rowTime).acqTimes[0], rowTime);
}
