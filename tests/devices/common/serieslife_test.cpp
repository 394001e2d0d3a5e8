// The states of a series: what leads from one to the next.
#include "devices/common/serieslife.h"

#include <gtest/gtest.h>

using HwLatixel::SeriesLife;
using State = SeriesLife::State;
using Start = SeriesLife::Start;

TEST(SeriesLifeTest, StatesFollowTheTable)
{
    SeriesLife life;
    using Step = bool (*)(SeriesLife&);
    constexpr Step BEGIN = [](SeriesLife& l) { return l.begin() == Start::Accepted; };
    constexpr Step STOP = [](SeriesLife& l) { return l.stop(); };
    constexpr Step GIVE_UP = [](SeriesLife& l) { return l.giveUp(), true; };
    constexpr Step FRAMES_OVER = [](SeriesLife& l) { return l.framesOver(), true; };
    constexpr Step FINISHED = [](SeriesLife& l) { return l.finished(), true; };
    const struct {
        Step step;
        bool answer;
        State state;
        bool stopped;
    } ROWS[] = {
        {STOP, false, State::Idle, true},         {BEGIN, true, State::Preparing, false},
        {BEGIN, false, State::Preparing, false},  {FRAMES_OVER, true, State::Preparing, false},
        {GIVE_UP, true, State::Idle, false},      {BEGIN, true, State::Preparing, false},
        {STOP, true, State::Stopping, true},      {STOP, true, State::Stopping, true},
        {FRAMES_OVER, true, State::Ending, true}, {STOP, true, State::Ending, true},
        {GIVE_UP, true, State::Ending, true},     {FINISHED, true, State::Idle, true},
        {BEGIN, true, State::Preparing, false},   {STOP, true, State::Stopping, true},
        {GIVE_UP, true, State::Idle, true},       {FINISHED, true, State::Idle, true},
    };
    for (std::size_t i = 0; i < std::size(ROWS); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(ROWS[i].step(life), ROWS[i].answer);
        EXPECT_EQ(life.state(), ROWS[i].state);
        EXPECT_EQ(life.stopped(), ROWS[i].stopped);
    }
}
