// Frames of the Medipix3 board: layout and size of every readout, series, triggers, and what the pixels have counted.
#include "mpx3wire.h"

#include <cmath>

namespace sim {
namespace {

using namespace std::chrono_literals;

/// Expected count of the gradient scene of `mpx3Entry`.
double gradientCount(unsigned row, unsigned column, double seconds)
{
    return 100000 * seconds * (0.1 + 0.6 * (column + 0.5) / 256 + 0.3 * (row + 0.5) / 256);
}

TEST(Mpx3FramesTest, NormalFrameOfFourChannels)
{
    ReadyWire wire(mpx3Entry({{""}, {""}, json::array(), {""}, {""}}), 0x1B);
    wire.bits(5, 1, 1, 0, 2);
    wire.wait(9999999ns);
    EXPECT_EQ(wire.read(), Bytes()) << "still exposing";
    wire.wait(1ns);
    const Bytes frame = wire.read();
    ASSERT_EQ(frame.size(), 9U + 4 * 98308 + 9);
    EXPECT_EQ(packetTime(frame, 0), tenMs);
    EXPECT_EQ(Bytes(frame.end() - 9, frame.end()), Bytes(frame.begin(), frame.begin() + 9));
    for (unsigned i = 0; i < 12; ++i)
        EXPECT_NE(frame[9 + i], 0) << "header";
    for (unsigned chip = 0; chip < 4; ++chip)
        for (const auto& [row, column] : {std::pair{0U, 0U}, {0U, 255U}, {255U, 0U}, {77U, 131U}, {255U, 255U}})
            EXPECT_NEAR(countIn(frame, {.start = 9 + 12 + chip, .stride = 4}, row, column),
                        gradientCount(row, column, 0.01), 0.51);
    EXPECT_EQ(wire.board.framesTaken(), 1U);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3FramesTest, DepthsBlocksAndCounters)
{
    struct Case {
        unsigned countL, columnCount, block;
        bool blockSel;
        int rowBlock, selection;
        StreamPlace place;
    };
    const std::vector<Case> cases = {
        {0, 0, 0, false, -1, 0, {.depth = 1}},
        {1, 0, 0, false, -1, 1, {.depth = 6}},
        {2, 3, 5, true, -1, 0, {.columns = 32, .firstColumn = 160}},
        {2, 2, 2, true, 3, 0, {.columns = 64, .firstColumn = 64, .rows = 8}},
        {2, 1, 4, true, 0, 3, {.columns = 128, .firstColumn = 128, .rows = 1}},
        {1, 1, 0, true, 7, 3, {.depth = 6, .columns = 128, .rows = 128}},
        {2, 2, 0, false, -1, 0, {.columns = 64, .firstColumn = 192}},
    };
    for (const Case& one : cases) {
        ReadyWire wire(mpx3Entry({{""}}), 1);
        StreamPlace place = one.place;
        const unsigned bits = bitsOf(place.rows, place.columns, place.depth, false);
        wire.images(one.countL, one.columnCount, one.block, one.blockSel, one.rowBlock);
        wire.bits(1, 4, one.selection, bits, 0);
        wire.bits(5, 1, 1, 0, 2);
        wire.wait(10ms);
        const Bytes frame = wire.read();
        const std::size_t half = bits / 8 + 9;
        ASSERT_EQ(frame.size(), 9 + half * (one.selection == 3 ? 2 : 1)) << bits;
        const unsigned last = place.firstColumn + place.columns - 1;
        for (place.start = 12; place.start < frame.size(); place.start += half)
            for (const auto& [row, column] : {std::pair{0U, place.firstColumn}, {place.rows - 1, last}})
                EXPECT_NEAR(countIn(frame, place, row, column),
                            std::min(gradientCount(row, column, 0.01), (1 << place.depth) - 1.0), 0.51);
    }
}

TEST(Mpx3FramesTest, CountsOf24BitsStandInBothCounters)
{
    ReadyWire wire(mpx3Entry({{""}}), 1, 3);
    wire.images(3);
    wire.timer(100 * tenMs);
    for (int frameNumber = 0; frameNumber < 2; ++frameNumber) {
        wire.bits(5, 1, 1, 0, 2);
        wire.wait(1s);
        const Bytes frame = wire.read();
        ASSERT_EQ(frame.size(), 9 + 2 * (98308 + 9U));
        for (const auto& [row, column] : {std::pair{0U, 0U}, {200U, 50U}}) {
            const unsigned upper = countIn(frame, {.start = 12}, row, column);
            const unsigned lower = countIn(frame, {.start = 12 + 98317}, row, column);
            EXPECT_NEAR(upper * 4096 + lower, gradientCount(row, column, 1), 0.51);
        }
    }
}

TEST(Mpx3FramesTest, ChannelsOfTwoChips)
{
    const json scene = {{"kind", "gradient"}, {"flux", 100000}, {"layout", "span"}, {"noise", false}};
    ReadyWire wire(mpx3Entry(R"([["", ""], ["", ""]])"_json, {{"scene", scene}}), 3, 3, true);
    wire.bits(5, 1, 1, 0, 2);
    wire.wait(10ms);
    const Bytes frame = wire.read();
    const std::size_t perChip = std::size_t{98309} * 2;
    const std::size_t half = 2 * perChip + 18;
    ASSERT_EQ(frame.size(), 9 + 2 * half);
    for (unsigned chip = 0; chip < 4; ++chip)
        for (const std::size_t counter : {std::size_t{0}, half}) {
            const std::size_t start = 9 + counter + (chip % 2 == 0 ? 4 * 2 : perChip + 5 * 2) + chip / 2;
            const double expected = 1000 * (0.1 + 0.6 * (chip * 256 + 10.5) / 1024 + 0.3 * 3.5 / 256);
            EXPECT_NEAR(countIn(frame, {.start = start, .stride = 2}, 3, 10), expected, 0.51) << chip;
        }
    wire.images(2);
    wire.channels(0, 3);
    wire.bits(1, 2, 3, 786474, 2);
    EXPECT_EQ(wire.read().size(), 18U) << "erase";
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3FramesTest, EraseClearsAndSendsPacketsAlone)
{
    ReadyWire wire(mpx3Entry({{""}}), 1);
    wire.bits(5, 1, 1, 0, 2);
    wire.channels(0, 1); // the frame's data stay on the board
    wire.wait(10ms);
    EXPECT_EQ(wire.read().size(), 18U);
    wire.bits(5, 1, 1, 0, 2);
    wire.wait(10ms);
    wire.read();
    wire.bits(1, 2, 3, 786466, 2);
    EXPECT_EQ(wire.read().size(), 18U);
    wire.channels(1, 1);
    wire.bits(1, 2, 3, 786466, 2);
    const Bytes cleared = wire.read();
    ASSERT_EQ(cleared.size(), 2 * 98317U);
    EXPECT_EQ(countIn(cleared, {}, 200, 200) + countIn(cleared, {.start = 98320}, 200, 200), 0U);

    wire.bits(1, 4, 0, 786466, 0);
    wire.bits(5, 1, 1, 0, 2);
    wire.wait(10ms);
    wire.read();
    wire.bits(1, 2, 1, 786466, 2);
    EXPECT_NEAR(countIn(wire.read(), {}, 9, 9), gradientCount(9, 9, 0.01), 0.51) << "the other counter still holds it";

    wire.bits(5, 1, 1, 0, 2);
    wire.wait(10ms);
    wire.read();
    wire.bare(1, 1, 0, 0, 0, 3);
    wire.payload(1, 0, Bytes(80), 5);
    wire.bare(1, 1, 0, 0, 0, 7);
    wire.bits(1, 2, 1, 786466, 2);
    EXPECT_EQ(countIn(wire.read(), {}, 9, 9), 0U) << "fast clear";
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3FramesTest, SameFrameAgainIsTheSameAndMaskedPixelsAreDark)
{
    ReadyWire wire(mpx3Entry({{""}, {""}}), 3);
    const auto frame = [&wire] {
        wire.bits(5, 1, 1, 0, 2);
        wire.wait(10ms);
        Bytes bytes = wire.read();
        EXPECT_EQ(bytes.size(), 9 + 2 * 98308 + 9U);
        return Bytes(bytes.begin() + 9, bytes.end() - 9);
    };
    const Bytes first = frame();
    EXPECT_EQ(frame(), first);
    wire.channels(1, 2 | 1); // one channel alone is another stream
    wire.bits(5, 1, 1, 0, 2);
    wire.wait(10ms);
    EXPECT_EQ(wire.read().size(), 9 + 98308 + 9U);

    wire.channels(0, 2);
    wire.omr(6);
    for (int half = 0; half < 2; ++half) {
        Bytes stream(49207);
        stream[1] = 0xA0;
        stream[3 + 11 * 32] = 0x01; // plane 0 of the half's first row: pixel 248
        wire.payload(1, 255, stream, 5);
    }
    wire.bare(1, 1, 0, 0, 0, 0x0F);
    wire.bare(1, 1, 0, 0, 0, 7);
    wire.channels(0, 3);
    wire.bits(1, 2, 3, 786466, 2);
    wire.channels(3, 3);
    wire.read();
    const Bytes masked = frame();
    EXPECT_EQ(countIn(masked, {.start = 6 + 1, .stride = 2}, 128, 248), 0U);
    EXPECT_NE(countIn(masked, {.start = 6 + 1, .stride = 2}, 128, 247), 0U);
    EXPECT_NE(countIn(masked, {.start = 6, .stride = 2}, 128, 248), 0U) << "the other chip has no mask";
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3FramesTest, ContinuousSeriesRunsAheadAndStops)
{
    ReadyWire wire(mpx3Entry({{""}}, {{"fifo_bytes", 1000000}}), 1);
    constexpr std::size_t perFrame = 9 + 98308 + 9;
    wire.bare(1, 9, 0, 0, 0, 1);
    wire.bits(5, 1, 9, 4, 2);
    wire.wait(35ms);
    EXPECT_EQ(wire.read().size(), 3 * perFrame);
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    const Bytes cut = wire.read();
    ASSERT_EQ(cut.size(), perFrame);
    EXPECT_EQ(packetTime(cut, 0), tenMs / 2);
    EXPECT_NEAR(countIn(cut, {.start = 12}, 255, 255), gradientCount(255, 255, 0.005), 0.51);
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes());

    // A host that reads nothing holds the series up, and nothing is lost.
    wire.bits(5, 1, 9, 99, 2);
    std::size_t bytes = 0;
    for (int second = 0; second < 20; ++second) {
        wire.wait(1s);
        wire.board.advance(wire.now);
        EXPECT_LE(wire.board.pending(), 1000000 + perFrame);
        bytes += wire.read().size();
    }
    EXPECT_EQ(bytes, 100 * perFrame);
    wire.bare(1, 9, 0, 0, 0, 0);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(Mpx3FramesTest, RowSeriesShowsThePictureRowByRow)
{
    json channels = json::array();
    for (int i = 0; i < 5; ++i)
        channels.push_back({""});
    for (const int selection : {0, 3}) {
        ReadyWire wire(mpx3Entry(channels), 0x1F);
        wire.images(2, 0, 0, false, 0);
        wire.bits(1, 4, selection, bitsOf(1, 256, 12, false), 0);
        wire.timer(tenMs / 256);
        wire.bits(5, 1, 1, 2 * 256 - 1, 2);
        wire.wait(30ms);
        const Bytes rows = wire.read();
        const std::size_t record = selection == 3 ? (388 * 5 + 18) * 2 - 9 : 388 * 5 + 18;
        ASSERT_EQ(rows.size(), 512 * record);
        const double step = (tenMs / 256) * 1e-8;
        for (const unsigned index : {0U, 100U, 255U, 300U, 511U}) {
            EXPECT_EQ(packetTime(rows, index * record), tenMs / 256);
            for (std::size_t at = 9 + 15; at < record; at += 388 * 5 + 9)
                EXPECT_NEAR(countIn(rows, {.start = index * record + at + 2, .stride = 5}, 0, 40),
                            gradientCount(index % 256, 40, std::min(index + 1, 256U) * step), 0.51);
        }
        wire.bits(5, 1, 1, 2 * 256 - 1, 2);
        wire.wait(1ms);
        wire.read();
        wire.bare(5, 2, 0, 0, 0, 0, 2);
        EXPECT_EQ(wire.read().size(), record) << "the row that the stop cuts";
        wire.wait(1s);
        EXPECT_EQ(wire.read(), Bytes());
        EXPECT_TRUE(wire.board.violations().empty());
    }
}

TEST(Mpx3FramesTest, TriggersOpenAndCloseTheShutter)
{
    ReadyWire wire(mpx3Entry({{""}}), 1);
    wire.bits(5, 1, 3, 0, 2); // starts on the trigger
    wire.wait(1h);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.externalTrigger(wire.now);
    wire.wait(10ms);
    EXPECT_EQ(packetTime(wire.read(), 0), tenMs);

    wire.bits(5, 1, 5, 0, 2); // stops on the trigger
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.externalTrigger(wire.now);
    EXPECT_EQ(packetTime(wire.read(), 0), 100 * tenMs);

    wire.bits(5, 1, 3, 0, 2);
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    wire.board.externalTrigger(wire.now);
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes()) << "a stop while it waits leaves no frame";
    wire.bare(5, 2, 0, 0, 0, 0, 2);

    wire.bare(5, 5, 0, 0, 0, 1);
    wire.bits(5, 1, 3, 0, 2);
    wire.wait(10ms);
    EXPECT_FALSE(wire.read().empty()) << "the input rests at the level that starts";
    EXPECT_TRUE(wire.board.violations().empty());
    wire.bits(5, 1, 1, 0, 2);
    wire.bits(5, 1, 1, 0, 2);
    EXPECT_EQ(wire.board.violations().size(), 1U) << "start of a board that exposes";
}

TEST(Mpx3FramesTest, MasterWaitsForFollowersOnItsLine)
{
    const json entry = mpx3Entry({{""}}, {{"trigger_line", "test"}});
    ReadyWire master(entry, 1);
    ReadyWire follower(entry, 1);
    master.bare(5, 5, 0, 0, 0, 4 | 8);
    follower.bare(5, 5, 0, 0, 0, 4);
    for (int frame = 0; frame < 2; ++frame) {
        master.bits(5, 1, 3, 0, 2);
        master.wait(100ms);
        EXPECT_EQ(master.read(), Bytes()) << "the follower is not ready";
        follower.now = master.now;
        follower.bits(5, 1, 3, 0, 2);
        EXPECT_EQ(follower.read(), Bytes());
        master.wait(10ms);
        follower.wait(10ms);
        EXPECT_EQ(packetTime(master.read(), 0), tenMs);
        EXPECT_EQ(packetTime(follower.read(), 0), tenMs);
    }
}

TEST(Mpx3FramesTest, DataWaitWhileSpiHoldsTheOutput)
{
    ReadyWire wire(mpx3Entry({{""}}), 1);
    wire.bits(5, 1, 1, 0, 2);
    wire.bare(4, 2, 0, 0, 0, 1, 2);
    wire.wait(10ms);
    EXPECT_EQ(wire.read(), Bytes());
    wire.bare(1, 0, 0, 0, 0, 0, 2);
    EXPECT_EQ(wire.read().size(), 9 + 98308 + 9U);
    EXPECT_TRUE(wire.board.violations().empty());
}

} // namespace
} // namespace sim
