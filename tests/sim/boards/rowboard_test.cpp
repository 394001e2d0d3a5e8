// The row board from the wire: readouts, series of rows, and what it has against bad frames.
#include "sim/boards/mpx2wire.h"

#include "sim/boards/rowboard.h"

namespace sim {
namespace {

const json THREE_CHIPS = {"", "D08-W0231", "O12-W0000", "", "", "A00-W2047"};
constexpr unsigned THREE = 0b100110; ///< mask of their channels
constexpr unsigned WHOLE_CHIP = 917767;

class RowWire : public PinWire<RowBoard> {
public:
    explicit RowWire(const json& more = json::object())
        : PinWire(boardEntry("Latixel Latixel TRWA sn: 7 A", "channels", THREE_CHIPS, 10000, more))
    {
    }

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

TEST(RowBoardTest, SeriesObeysTriggersStopAndPause)
{
    RowWire wire(json{{"fifo_bytes", 20 * 1365}});
    wire.series(THREE, 1, 100, 2);
    EXPECT_EQ(wire.readAfter(1s), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(wire.readAfter(2500us).size(), 2 * 1365U) << "one trigger for the whole series";
    wire.stop();
    EXPECT_EQ(packetOf(5, wire.read()), 50000U) << "the stop reads the block that it cuts";
    EXPECT_EQ(wire.readAfter(1s), Bytes());

    wire.series(THREE, 1, 100);
    std::size_t got = wire.readAfter(1s).size();
    EXPECT_EQ(got, 21 * 1365U) << "what is not fetched holds the series up";
    for (int i = 0; i < 10; ++i)
        got += wire.readAfter(10ms).size();
    EXPECT_EQ(got, 100 * 1365U);
}

TEST(RowBoardTest, RecordsWhatNoFirmwareUnderstands)
{
    expectRecorded<RowWire>({
        {"pattern of a board with modules", ON | M0 | ENIN, {0x55, 2, 1, 3, 0, 0, 0, 0, 0xAA}},
        {"bits of another board's readout", ON | OUTEN, {0x55, 2, 1, 4, 0, 0x0E, 0x01, 0x06, 0xAA}},
        {"series without row bits", ON | ENIN | ACQOVER, {0x55, 2, 5, 1, 1, 0, 1, 0, 0xAA}},
    });
    RowWire wire;
    EXPECT_THROW(wire.board.applyFault({{"kind", "chip_missing"}, {"channel", 7}}), std::runtime_error);
}

} // namespace
} // namespace sim
