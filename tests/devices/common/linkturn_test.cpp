// The link's turn: who gets it next.
#include "devices/common/linkturn.h"

#include "devices/common/devicebench.h"

using namespace support;
using HwLatixel::LinkTurn;
using Answer = HwLatixel::LinkTurn::Answer;

TEST(LinkTurnTest, WhoWaitsLongestIsNext)
{
    LinkTurn turn;
    std::vector<int> order; ///< belongs to who has the turn
    ASSERT_EQ(turn.take(0), Answer::Taken);
    std::vector<std::jthread> waiting;
    for (int i = 0; i < 5; ++i) {
        waiting.emplace_back([&, i] {
            ASSERT_EQ(turn.take(100), Answer::Taken);
            order.push_back(i);
            turn.give();
        });
        ASSERT_TRUE(soon([&] { return turn.wanted(); }));
        sleepMs(20);
    }
    turn.give();
    // Who gives it back and asks at once comes behind all of them, a series between two frames as well.
    ASSERT_TRUE(turn.takeForSeries());
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    turn.give();
}
