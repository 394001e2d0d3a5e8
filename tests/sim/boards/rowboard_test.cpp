// The row board from the wire: readouts, series of rows, and what it has against bad frames.
#include "sim/boards/mpx2wire.h"

#include "sim/boards/rowboard.h"

#include <random>

namespace sim {
namespace {

const json SEVEN_CHIPS = json(7, "A01-W0001");
const json THREE_CHIPS = {"", "D08-W0231", "O12-W0000", "", "", "A00-W2047"};
constexpr unsigned THREE = 0b100110; ///< mask of their channels
constexpr unsigned WHOLE_CHIP = 917767;
const StreamPlace ONLY_ROW_CHIP = chipIn(1, 0, 0, 0);

json rowEntry(json channels, const json& more = json::object())
{
    return boardEntry("Latixel Latixel TRWA sn: 7 A", "channels", std::move(channels), 10000, more);
}

class RowWire : public PinWire<RowBoard> {
public:
    using PinWire::PinWire;

    Bytes readout(unsigned mask, std::uint32_t clocks)
    {
        mux(mask);
        alive(OUTEN);
        number(1, 4, clocks, 2);
        alive(ENIN);
        return read();
    }
    /// Starts a series of blocks of rows, 1 ms each, on chips whose counters are clear.
    void series(unsigned mask, std::uint32_t rows, std::uint32_t blocks, std::uint32_t triggers = 0)
    {
        timer(100000);
        readout(mask, WHOLE_CHIP);
        number(1, 5, rows * 3592 - 1, 2);
        start(1 | triggers, blocks);
    }
};

TEST(RowBoardTest, ReadsMatricesWholeOrRowByRow)
{
    RowWire wire(rowEntry(THREE_CHIPS));
    std::minstd_rand random(7);
    Bytes image(114721, 0xFF);
    std::generate_n(image.begin() + 1, 114688, [&] { return static_cast<std::uint8_t>(random() >> 8U); });
    wire.writeMatrix(2, image);
    EXPECT_EQ(wire.read(), Bytes());

    // A row of one channel, and then what is left of all.
    const Bytes row = wire.readout(2, 3591);
    ASSERT_EQ(row.size(), 458U);
    EXPECT_EQ(slice(row, 0, 449), slice(image, 0, 449));
    const Bytes stream = wire.readout(THREE, WHOLE_CHIP);
    EXPECT_EQ(packetOf(1, stream, stream.size() - 9), 3 * 114721U);
    const Bytes channel = slice(stream, 0, 114721, 3);
    EXPECT_EQ(channel[0], 0xFF);
    EXPECT_EQ(slice(channel, 1, 255 * 448), slice(image, 449, 255 * 448));
    EXPECT_EQ(countIn(channel, ONLY_ROW_CHIP, 255, 9), 0U) << "a clear row came in behind";
}

TEST(RowBoardTest, SeriesOfRowsIsSharpWhereThePictureMovesWithThem)
{
    for (const unsigned rows : {1U, 4U}) {
        RowWire wire(rowEntry(THREE_CHIPS));
        const unsigned blocks = 2 * 256 / rows;
        const std::size_t blockBytes = std::size_t{3} * 449 * rows + 18;
        wire.series(THREE, rows, blocks);
        EXPECT_EQ(wire.readAfter(1ms).size(), blockBytes) << "the first block";
        const Bytes series = wire.readAfter(1s);
        ASSERT_EQ(series.size(), (blocks - 1) * blockBytes) << "and no more than were asked for";
        for (unsigned block = 1; block < blocks; ++block) {
            const std::size_t start = (block - 1) * blockBytes;
            ASSERT_EQ(packetOf(5, series, start), 100000U);
            ASSERT_EQ(packetOf(1, series, start + blockBytes - 9), blockBytes - 18);
            for (std::size_t n = 0; n < 3; ++n) {
                const Bytes channel = slice(series, start + 9 + n, std::size_t{449} * rows, 3);
                ASSERT_EQ(channel[0], 0xFF);
                for (unsigned k = 0; k < rows; ++k) {
                    const unsigned steps = std::min(block, (255 - k) / rows) + 1; // on the way over the chip
                    const unsigned row = (block * rows + k) % 256;
                    for (const unsigned column : {0U, 77U, 255U})
                        ASSERT_NEAR(countIn(channel, ONLY_ROW_CHIP, k, column), gradient(row, column) * 10 * steps,
                                    0.51)
                            << block;
                }
                ASSERT_EQ(slice(channel, 1 + 448 * rows, rows - 1), slice({0xE0, 0xE1, 0xE2}, 0, rows - 1));
            }
        }
    }

    const json still = {{"scene", {{"kind", "gradient"}, {"flux", 10000}, {"noise", false}, {"speed", 0}}}};
    RowWire wire(rowEntry(THREE_CHIPS, still));
    wire.series(THREE, 1, 300);
    const Bytes series = wire.readAfter(1s);
    for (const std::size_t block : {260U, 290U})
        EXPECT_NEAR(countIn(slice(series, block * 1365 + 9, 449, 3), ONLY_ROW_CHIP, 0, 77),
                    (gradient(0, 77) + gradient(255, 77)) / 2 * 2560, 0.51)
            << "a picture at rest is smeared";
}

TEST(RowBoardTest, SeriesObeysTriggersStopAndPause)
{
    RowWire wire(rowEntry(THREE_CHIPS, {{"fifo_bytes", 20 * 1365}}));
    wire.series(THREE, 1, 100, 2);
    EXPECT_EQ(wire.readAfter(1s), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(wire.readAfter(2500us).size(), 2 * 1365U) << "one trigger for the whole series";
    wire.stop();
    EXPECT_EQ(packetOf(5, wire.read()), 50000U) << "the stop reads the block that it cuts";
    EXPECT_EQ(wire.readAfter(1s), Bytes());

    wire.series(THREE, 1, 100, 4);
    EXPECT_EQ(wire.readAfter(30ms), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(packetOf(5, wire.read()), 3000000U) << "pulses in place of the timer";
    wire.stop();
    wire.read();

    wire.series(THREE, 1, 100);
    std::size_t got = wire.readAfter(1s).size();
    EXPECT_EQ(got, 21 * 1365U) << "what is not fetched holds the series up";
    for (int i = 0; i < 10; ++i)
        got += wire.readAfter(10ms).size();
    EXPECT_EQ(got, 100 * 1365U);
}

TEST(RowBoardTest, FaultsShowOnTheWire)
{
    RowWire wire(rowEntry(SEVEN_CHIPS));
    wire.fault({{"kind", "chip_missing"}, {"channel", 1}});
    wire.fault({{"kind", "stuck_line"}, {"channel", 6}, {"level", 1}});
    // What comes back on all channels for bytes that pass the chips: a chip holds each byte back for one.
    wire.alive(OUTEN | ENIN);
    wire.mux(0xFF, 2);
    wire.payload(1, 0, {0xAA, 0xBB, 0xCC}, 7);
    const Bytes reply = wire.read();
    ASSERT_EQ(reply.size(), 21U);
    EXPECT_EQ(slice(reply, 0, 3, 7), (Bytes{0, 0xAA, 0xBB}));
    EXPECT_EQ(slice(reply, 1, 3, 7), Bytes(3));
    EXPECT_EQ(slice(reply, 6, 3, 7), Bytes(3, 0xFF));
    wire.board.clearFaults();
    wire.payload(1, 0, {0xDD}, 7);
    EXPECT_EQ(wire.read(), (Bytes{0xCC, 0, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_FALSE(wire.board.applyFault({{"kind", "module_silent"}, {"channel", 0}}));
    EXPECT_THROW(wire.board.applyFault({{"kind", "chip_missing"}, {"channel", 7}}), std::runtime_error);
}

TEST(RowBoardTest, RecordsWhatNoFirmwareUnderstands)
{
    expectRecorded<RowWire>(
        rowEntry(SEVEN_CHIPS),
        {
            {"pattern of a board with modules", ON | M0 | ENIN, {0x55, 2, 1, 3, 0, 0, 0, 0, 0xAA}},
            {"bytes past chips in reset", PWR | ENIN | OUTEN, {0x55, 7, 1, 0, 0, 0, 0, 5, 0xAA}, 5},
            {"bits of another board's readout", ON | OUTEN, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
            {"row bits of 32 bits", ON | OUTEN, {0x55, 2, 1, 5, 1, 0, 0, 0, 0xAA}},
            {"series without row bits", ON | ENIN | ACQOVER, {0x55, 2, 5, 1, 1, 0, 1, 0, 0xAA}},
            {"series with the pins of DACs", ON | ENIN | ACQOVER | M0, {0x55, 2, 5, 1, 1, 0, 1, 0, 0xAA}},
        });
    RowWire wire(rowEntry(SEVEN_CHIPS));
    EXPECT_EQ(wire.dacs(0, Bytes(33, 0x12)), Bytes(33, 0xFF)) << "the host has no way to the last channels alone";
    wire.readout(0, WHOLE_CHIP);
    wire.series(1, 1, 10);
    wire.number(1, 4, 3591, 2); // while the series runs
    EXPECT_EQ(wire.complaints(), 2U);
}

} // namespace
} // namespace sim
