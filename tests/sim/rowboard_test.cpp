// The row board from the wire: detection, chips, readouts, frames, series of rows, and what it has against bad frames.
#include "mpx2wire.h"

#include "sim/latixelsim.h"
#include "sim/rowboard.h"

#include <random>

namespace sim {
namespace {

using namespace std::chrono_literals;

const json sevenChips = {"A01-W0001", "A02-W0001", "A03-W0001", "A04-W0001", "A05-W0001", "A06-W0001", "A07-W0001"};
const json threeChips = {"", "D08-W0231", "O12-W0000", "", "", "A00-W2047"};
constexpr int three = 0b100110; ///< mask of their channels

/// A row board out of reset, with the steps that a host makes.
class RowWire : public BoardWire<RowBoard> {
public:
    explicit RowWire(json channels, const json& more = json::object()) : BoardWire(entry(std::move(channels), more))
    {
        pins(PWR);
        alive(ENIN);
    }

    static json entry(json channels, const json& more)
    {
        json board = {{"kind", "mpxrow"},
                      {"description", "Latixel Latixel TRWA sn: 7 A"},
                      {"channels", std::move(channels)},
                      {"scene", {{"kind", "gradient"}, {"flux", 10000}, {"noise", false}}}};
        board.update(more);
        return board;
    }
    void pins(unsigned levels)
    {
        const unsigned word = resting | levels;
        bits(1, 1, 0, word, 0);
    }
    void alive(unsigned levels) { pins(PWR | RST | levels); }
    void mux(int mask, int flags = 0) { bare(1, 2, 0, 0, 0, mask, flags); }
    Bytes detect()
    {
        alive(OUTEN | ENIN);
        mux(0xFF, 2);
        payload(1, 0, {0xAA, 0xFF, 0x55, 0xAA, 0xFF}, 7);
        return read();
    }
    Bytes dacs(int mask, const Bytes& stream)
    {
        mux(mask);
        alive(M0 | OUTEN);
        payload(1, 0, stream, 7);
        alive(M0 | ENIN);
        return read();
    }
    void writeMatrix(int mask, const Bytes& stream)
    {
        mux(mask);
        alive(M1);
        payload(1, 0, stream, 7);
        alive(ENIN);
    }
    Bytes readout(int mask, unsigned clocks)
    {
        mux(mask);
        alive(OUTEN);
        bits(1, 4, 0, clocks, 2);
        alive(ENIN);
        return read();
    }
    void timer(unsigned ticks) { bits(5, 3, 0, ticks, 0); }
    /// Starts a series of blocks of rows on chips whose counters are clear.
    void series(int mask, unsigned rows, unsigned blocks, int flags = 1)
    {
        readout(mask, 917767);
        bits(1, 5, 0, rows * 3592 - 1, 2);
        alive(ENIN | ACQOVER);
        bits(5, 1, flags, blocks, 2);
    }
};

/// What channel number `number` of `count` delivers from a place of the stream on.
Bytes channelBytes(const Bytes& stream, std::size_t from, std::size_t count, std::size_t number, std::size_t size)
{
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(stream.at(from + i * count + number));
    return bytes;
}

/// Count of a pixel in the bytes of a channel, which one byte stands in front of.
unsigned rowCount(const Bytes& channel, unsigned row, unsigned column)
{
    return countIn(channel, 0, 0, row, column);
}

double gradient(unsigned row, unsigned column)
{
    return 10000 * (0.1 + 0.6 * (column + 0.5) / 256 + 0.3 * (row + 0.5) / 256);
}

TEST(RowBoardTest, BringUpFindsChannelsAndIdentifiers)
{
    RowWire wire(threeChips);
    wire.bare(2, 1, 0, 0, 0, 0, 2);
    EXPECT_EQ(textAt(wire.read(), 0), "Firmware 1.2 TRA (11.10.2016)");
    const Bytes sent = {0xAA, 0xFF, 0x55, 0xAA};
    for (int pass = 0; pass < 2; ++pass) {
        const Bytes reply = wire.detect();
        ASSERT_EQ(reply.size(), 35U);
        for (unsigned channel = 0; channel < 7; ++channel)
            EXPECT_EQ(channelBytes(reply, 7, 7, channel, 4), (three >> channel & 1) != 0 ? sent : Bytes(4)) << channel;
    }
    const Bytes id = wire.dacs(4, Bytes(33, 0xFF));
    ASSERT_EQ(id.size(), 33U);
    EXPECT_EQ(id[0], 0xFF);
    EXPECT_EQ(reversed(id[6]), 0x0F) << "position 12, letter O";
    EXPECT_EQ(reversed(id[7]), 0) << "wafer";
    EXPECT_EQ(reversed(id[8]) & 0xFU, 8U) << "Timepix";
    EXPECT_EQ(wire.dacs(0, Bytes(33, 0x12)), Bytes(33, 0xFF)) << "the host has no way to the last channels alone";
    EXPECT_EQ(adc(wire, 1), std::lround((31.5 + 50) / 500 * 4096));
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(RowBoardTest, MatrixGoesInAndComesOutWholeOrRowByRow)
{
    RowWire wire(threeChips);
    std::minstd_rand random(7);
    std::vector<Bytes> images(3, Bytes(114688));
    for (std::size_t n = 0; n < 3; ++n) {
        for (std::uint8_t& byte : images[n])
            byte = static_cast<std::uint8_t>(random() >> 8U);
        Bytes stream = images[n];
        stream.insert(stream.begin(), 0xFF);
        stream.resize(114721);
        wire.writeMatrix(n == 0 ? 2 : n == 1 ? 4 : 32, stream);
    }
    EXPECT_EQ(wire.read(), Bytes());

    // A row of one channel, and then what is left of all.
    const Bytes row = wire.readout(4, 3591);
    ASSERT_EQ(row.size(), 458U);
    EXPECT_TRUE(std::equal(row.begin() + 1, row.begin() + 449, images[1].begin()));
    const Bytes stream = wire.readout(three, 917767);
    ASSERT_EQ(stream.size(), 3 * 114721 + 9U);
    EXPECT_EQ(packetNumber(stream, 3 * 114721, 1), 3 * 114721U);
    for (std::size_t n = 0; n < 3; ++n) {
        const Bytes channel = channelBytes(stream, 0, 3, n, 114721);
        EXPECT_EQ(channel[0], 0xFF);
        const std::ptrdiff_t gone = n == 1 ? 448 : 0;
        EXPECT_TRUE(std::equal(images[n].begin() + gone, images[n].end(), channel.begin() + 1)) << n;
    }
    EXPECT_EQ(rowCount(channelBytes(stream, 0, 3, 1, 114721), 255, 9), 0U) << "a clear row came in behind";
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(RowBoardTest, FrameIsTimedWith100MHzAndShowsTheSceneUpright)
{
    RowWire wire(threeChips);
    wire.readout(three, 917767);
    wire.timer(10000000); // 100 ms
    wire.alive(ENIN | ACQOVER);
    wire.bare(5, 1, 0, 0, 0, 1, 2);
    wire.wait(100ms);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 10000000U);
    const Bytes stream = wire.readout(three, 917767);
    for (std::size_t n = 0; n < 3; ++n)
        for (const auto& [row, column] : {std::pair{0U, 0U}, {0U, 255U}, {255U, 0U}, {255U, 255U}})
            EXPECT_NEAR(rowCount(channelBytes(stream, 0, 3, n, 114721), row, column), gradient(row, column) / 10, 0.51);
}

TEST(RowBoardTest, SeriesOfRowsIsSharpWhereThePictureMovesWithThem)
{
    for (const unsigned rows : {1U, 4U}) {
        RowWire wire(threeChips);
        const unsigned blocks = 2 * 256 / rows;
        const std::size_t blockBytes = std::size_t{3} * 449 * rows + 18;
        wire.timer(100000); // 1 ms
        wire.series(three, rows, blocks);
        wire.wait(1ms);
        EXPECT_EQ(wire.read().size(), blockBytes) << "the first block";
        wire.wait(1s);
        const Bytes series = wire.read();
        ASSERT_EQ(series.size(), (blocks - 1) * blockBytes) << "and no more than were asked for";
        for (unsigned block = 1; block < blocks; ++block) {
            const std::size_t start = (block - 1) * blockBytes;
            ASSERT_EQ(packetNumber(series, start, 5), 100000U);
            ASSERT_EQ(packetNumber(series, start + blockBytes - 9, 1), blockBytes - 18);
            for (std::size_t n = 0; n < 3; ++n) {
                const Bytes channel = channelBytes(series, start + 9, 3, n, std::size_t{449} * rows);
                ASSERT_EQ(channel[0], 0xFF);
                for (unsigned k = 0; k < rows; ++k) {
                    const unsigned steps = std::min(block, (255 - k) / rows) + 1; // on the way over the chip
                    const unsigned row = (block * rows + k) % 256;
                    for (const unsigned column : {0U, 77U, 255U})
                        ASSERT_NEAR(rowCount(channel, k, column), gradient(row, column) * steps / 1000, 0.51) << block;
                }
                for (unsigned pad = 0; pad + 1 < rows; ++pad)
                    ASSERT_EQ(channel[1 + 448 * rows + pad], 0xE0 + pad);
            }
        }
        EXPECT_TRUE(wire.board.violations().empty());
    }

    const json resting = {{"scene", {{"kind", "gradient"}, {"flux", 10000}, {"noise", false}, {"speed", 0}}}};
    RowWire wire(threeChips, resting);
    wire.timer(100000);
    wire.series(three, 1, 300);
    wire.wait(1s);
    const Bytes series = wire.read();
    for (const std::size_t block : {260U, 290U})
        EXPECT_NEAR(rowCount(channelBytes(series, block * 1365 + 9, 3, 0, 449), 0, 77),
                    (gradient(0, 77) + gradient(255, 77)) / 2 * 0.256, 0.51)
            << "a picture at rest is smeared";
}

TEST(RowBoardTest, SeriesObeysTriggersStopAndPause)
{
    RowWire wire(threeChips, {{"fifo_bytes", 20 * 1365}});
    wire.timer(100000);
    wire.series(three, 1, 100, 1 | 2);
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.externalTrigger(wire.now);
    wire.wait(2500us);
    EXPECT_EQ(wire.read().size(), 2 * 1365U) << "one trigger for the whole series";
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 50000U) << "the stop reads the block that it cuts";
    wire.wait(1s);
    EXPECT_EQ(wire.read(), Bytes());

    wire.series(three, 1, 100, 1 | 4);
    wire.wait(30ms);
    EXPECT_EQ(wire.read(), Bytes());
    wire.board.externalTrigger(wire.now);
    EXPECT_EQ(packetNumber(wire.read(), 0, 5), 3000000U) << "pulses in place of the timer";
    wire.bare(5, 2, 0, 0, 0, 0, 2);
    wire.read();

    wire.series(three, 1, 100);
    wire.wait(1s);
    std::size_t got = wire.read().size();
    EXPECT_EQ(got, 21 * 1365U) << "what is not fetched holds the series up";
    for (int i = 0; i < 10; ++i) {
        wire.wait(10ms);
        got += wire.read().size();
    }
    EXPECT_EQ(got, 100 * 1365U);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(RowBoardTest, FaultsShowOnTheWire)
{
    RowWire wire(sevenChips);
    ASSERT_TRUE(wire.board.applyFault({{"kind", "chip_missing"}, {"channel", 1}}));
    ASSERT_TRUE(wire.board.applyFault({{"kind", "stuck_line"}, {"channel", 6}, {"level", 1}}));
    const Bytes reply = wire.detect();
    EXPECT_EQ(channelBytes(reply, 0, 7, 1, 5), Bytes(5));
    EXPECT_EQ(channelBytes(reply, 0, 7, 6, 5), Bytes(5, 0xFF));
    EXPECT_EQ(reply.at(7), 0xAA);
    wire.dacs(2, Bytes(33, 0xFF)); // from a host that has counted before
    ASSERT_TRUE(wire.board.applyFault({{"kind", "short_stream"}, {"bytes", 500}, {"readouts", 1}}));
    EXPECT_EQ(wire.readout(0x7F, 917767).size(), 7 * 114721U - 500);
    EXPECT_EQ(wire.readout(0x7F, 917767).size(), 7 * 114721U + 9);
    ASSERT_TRUE(wire.board.applyFault({{"kind", "cpu_overheated"}}));
    EXPECT_EQ(channelBytes(wire.detect(), 0, 7, 0, 5), Bytes(5)) << "chips without power";
    wire.board.clearFaults();
    EXPECT_EQ(channelBytes(wire.detect(), 7, 7, 6, 1), Bytes(1, 0xAA));
    EXPECT_FALSE(wire.board.applyFault({{"kind", "module_silent"}, {"channel", 0}}));
    EXPECT_THROW(wire.board.applyFault({{"kind", "chip_missing"}, {"channel", 7}}), std::runtime_error);
    EXPECT_TRUE(wire.board.violations().empty());
}

TEST(RowBoardTest, RecordsWhatNoFirmwareUnderstands)
{
    struct Case {
        const char* name;
        unsigned pins;
        Bytes frame;
        std::size_t payload = 0; ///< bytes FF behind the frame
    };
    constexpr unsigned on = PWR | RST;
    const std::vector<Case> cases = {
        {"pattern of a board with modules", on | M0 | ENIN, {0x55, 2, 1, 3, 0, 0, 0, 0, 0xAA}},
        {"bytes past chips in reset", PWR | ENIN | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 5, 0xAA}, 5},
        {"DACs of two chips", on | M0 | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 66, 0xAA}, 66},
        {"bits of another board's readout", on | OUTEN, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
        {"row bits of 32 bits", on | OUTEN, {0x55, 2, 1, 5, 1, 0, 0, 0, 0xAA}},
        {"start of two frames", on | ENIN | ACQOVER, {0x55, 2, 5, 1, 0, 0, 0, 2, 0xAA}},
        {"series without row bits", on | ENIN | ACQOVER, {0x55, 2, 5, 1, 1, 0, 1, 0, 0xAA}},
        {"series with the pins of DACs", on | ENIN | ACQOVER | M0, {0x55, 2, 5, 1, 1, 0, 1, 0, 0xAA}},
    };
    for (Case one : cases) {
        RowWire wire(sevenChips);
        wire.mux(1);
        wire.pins(one.pins);
        one.frame.resize(one.frame.size() + one.payload, 0xFF);
        wire.write(one.frame);
        EXPECT_EQ(wire.board.violations().size(), 1U) << one.name;
    }
    RowWire wire(sevenChips);
    wire.readout(0, 917767);
    wire.timer(100000);
    wire.series(1, 1, 10);
    wire.bits(1, 4, 0, 3591, 2); // while the series runs
    EXPECT_EQ(wire.board.violations().size(), 2U);
}

TEST(RowBoardTest, ShippedBenchesLoadAndBadEntriesAreRefused)
{
    for (const char* name : {"row-seven", "row-three"})
        EXPECT_EQ(latixelsimLoadBench(name), 0) << name << ": " << latixelsimError();
    clearBus();
    for (const char* channels : {R"(["X99"])", R"([["A01-W0001"]])", R"([1])", R"(["","","","","","","",""])"})
        EXPECT_THROW(RowWire{json::parse(channels)}, std::runtime_error) << channels;
}

} // namespace
} // namespace sim
