// The link's turn: who gets it, in which order, and who is told that it is not to be had.
#include "devices/common/linkturn.h"

#include "devices/common/devicebench.h"

#include <atomic>
#include <future>

using namespace support;
using HwLatixel::LinkTurn;
using Answer = HwLatixel::LinkTurn::Answer;

namespace {

/// Asks for the turn on a thread of its own, and gives it back once it has it.
std::future<Answer> ask(LinkTurn& turn, double limit, const std::function<void()>& inside = {})
{
    return std::async(std::launch::async, [&turn, limit, inside] {
        const Answer answer = turn.take(limit);
        if (answer != Answer::Taken)
            return answer;
        if (inside)
            inside();
        turn.give();
        return answer;
    });
}

} // namespace

TEST(LinkTurnTest, BelongsToAThreadWhichMayTakeItAgain)
{
    LinkTurn turn;
    ASSERT_EQ(turn.take(0), Answer::Taken);
    ASSERT_EQ(turn.take(0), Answer::Taken);
    EXPECT_TRUE(turn.mine());
    EXPECT_EQ(ask(turn, 0).get(), Answer::Busy);
    turn.give();
    EXPECT_EQ(ask(turn, 0.02).get(), Answer::Busy) << "one of two was given back";
    turn.give();
    EXPECT_FALSE(turn.mine());
    EXPECT_EQ(ask(turn, 0).get(), Answer::Taken);
}

TEST(LinkTurnTest, WhoWaitsLongestIsNext)
{
    LinkTurn turn;
    std::mutex mutex;
    std::vector<int> order;
    ASSERT_EQ(turn.take(0), Answer::Taken);
    std::vector<std::future<Answer>> waiting;
    for (int i = 0; i < 5; ++i) {
        waiting.push_back(ask(turn, 100, [&, i] {
            const std::lock_guard lock(mutex);
            order.push_back(i);
        }));
        ASSERT_TRUE(soon([&] { return turn.wanted(); }));
        sleepMs(20);
    }
    turn.give();
    // Who gives it back and asks at once comes behind all of them, a series between two frames as well.
    ASSERT_TRUE(turn.takeForSeries());
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    turn.give();
    for (auto& answer : waiting)
        EXPECT_EQ(answer.get(), Answer::Taken);
}

TEST(LinkTurnTest, WholeSeriesRefusesAllButItself)
{
    LinkTurn turn;
    ASSERT_EQ(turn.take(0), Answer::Taken);
    auto waiting = ask(turn, 100);
    ASSERT_TRUE(soon([&] { return turn.wanted(); }));
    turn.beginWholeSeries();
    turn.reserve();
    EXPECT_EQ(waiting.get(), Answer::Running);
    turn.give();
    ASSERT_TRUE(turn.takeForSeries());
    EXPECT_EQ(turn.take(0), Answer::Running) << "a handler on the series' thread";
    turn.give();
    EXPECT_EQ(ask(turn, 100).get(), Answer::Running) << "while the host is called, too";
    // Behind a stop who asks waits, until the series has put the board in order.
    turn.endWholeSeries();
    EXPECT_EQ(turn.take(100), Answer::Running) << "a handler that would wait for itself";
    std::atomic<bool> inside = false;
    waiting = ask(turn, 100, [&] { inside = true; });
    ASSERT_TRUE(soon([&] { return turn.wanted(); }));
    ASSERT_TRUE(turn.takeForSeries());
    turn.give();
    sleepMs(20);
    EXPECT_FALSE(inside);
    turn.endReservation();
    EXPECT_EQ(waiting.get(), Answer::Taken);
    EXPECT_EQ(turn.take(0), Answer::Taken);
    turn.give();
}

TEST(LinkTurnTest, ClosingRefusesAllButWhoCloses)
{
    LinkTurn turn;
    ASSERT_EQ(turn.take(0), Answer::Taken);
    auto operation = ask(turn, 100);
    auto series = std::async(std::launch::async, [&] { return turn.takeForSeries(); });
    ASSERT_TRUE(soon([&] { return turn.wanted(); }));
    sleepMs(20);
    turn.give();
    EXPECT_EQ(operation.get(), Answer::Taken);
    EXPECT_TRUE(series.get());
    std::thread([&] { turn.give(); }).join(); // of the series' thread, which is gone
    turn.beginClosing();
    EXPECT_EQ(ask(turn, 100).get(), Answer::Closing);
    EXPECT_FALSE(std::async(std::launch::async, [&] { return turn.takeForSeries(); }).get());
    EXPECT_EQ(turn.take(0), Answer::Taken);
    turn.give();
    turn.endClosing();
    EXPECT_EQ(ask(turn, 0).get(), Answer::Taken);
}

TEST(LinkTurnTest, ManyThreadsNeverShareIt)
{
    LinkTurn turn;
    std::atomic<int> inside = 0;
    std::atomic<int> taken = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 6; ++i)
            threads.emplace_back([&, i] {
                for (int k = 0; k < 300; ++k) {
                    // Some give up before it is their turn.
                    if (turn.take(i % 2 == 0 ? 10 : 0.0005) != Answer::Taken)
                        continue;
                    EXPECT_EQ(++inside, 1);
                    ++taken;
                    if (k % 16 == 0)
                        sleepMs(1);
                    --inside;
                    turn.give();
                }
            });
    }
    EXPECT_GE(taken, 900);
    EXPECT_FALSE(turn.wanted());
}
