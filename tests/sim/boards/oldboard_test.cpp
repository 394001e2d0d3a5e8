// The old boards from the wire: frames and answers, modules and chips, measurements, and what goes wrong.
#include "sim/boards/mpx2wire.h"

#include "sim/boards/oldboard.h"

namespace sim {
namespace {

const Bytes REFUSAL = {0xFF, 0xFF, 0xFF};

json oldEntry(json modules, const json& more = json::object())
{
    return boardEntry("Latixel Fenxel sn: 7 A", "modules", std::move(modules), 10000, more);
}

Bytes operator+(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class OldWire : public BoardWire<OldBoard> {
public:
    explicit OldWire(const json& entry, OldBoard::Kind kind = OldBoard::Kind::Fenxel) : BoardWire(kind, entry) {}

    static Bytes frame(int command, int p0 = 0, int p1 = 0, int p2 = 0)
    {
        return bytesOf({0x55, command, p0, p1, p2, command ^ p0 ^ p1 ^ p2});
    }
    Bytes raw(int command, int p0 = 0, int p1 = 0, int p2 = 0)
    {
        write(frame(command, p0, p1, p2));
        return read();
    }
    /// Parameters of the answer, which must be a frame of the command and nothing else.
    Bytes ask(int command, int p0 = 0, int p1 = 0, int p2 = 0)
    {
        const Bytes answer = raw(command, p0, p1, p2);
        EXPECT_EQ(answer, frame(command, answer.at(2), answer.at(3), answer.at(4)));
        return slice(answer, 2, 3);
    }
    /// What the board sends of the active module's matrix, between the two frames of its answer.
    Bytes readOut()
    {
        const Bytes answer = raw(0x20);
        EXPECT_EQ(slice(answer, 0, 6), frame(0x20));
        EXPECT_EQ(slice(answer, answer.size() - 6, 6), frame(0x20));
        return slice(answer, 6, answer.size() - 12);
    }
    /// The frames that hold a number of ticks, as they go to the timer and end a readout.
    static Bytes ticks(std::uint64_t number)
    {
        const auto byte = [&](unsigned place) { return static_cast<int>(number >> 8 * place & 0xFF); };
        return frame(3, byte(5), byte(4), byte(3)) + frame(4, byte(2), byte(1), byte(0));
    }
    /// Chips that the active module counts.
    int chips() { return ask(0x13).at(2) & 0x1F; }
    void selectModule(int address) { EXPECT_EQ(ask(0x43, 0, 0, address), Bytes(3)); }
};

const Bytes OPENED = OldWire::frame(6, 0x22, 0x22, 0x22);
const Bytes CLOSED = OldWire::frame(6, 0x44, 0x44, 0x44);
const Bytes STARTED = OldWire::frame(0x22);

/// What stands behind the matrix of a readout.
Bytes endOf(const Bytes& data)
{
    return slice(data, data.size() - 12, 12);
}

TEST(OldBoardTest, BringUpSwitchesModulesAndFindsChips)
{
    const json modules = R"([["D08-W0231", "A00-W2047"], ["", ""]])"_json;
    OldWire wire(oldEntry(modules, {{"addresses", {3, 9}}}));
    EXPECT_EQ(wire.chips(), 0) << "no module at address 0";
    EXPECT_EQ(wire.ask(0x20), REFUSAL);
    wire.selectModule(3);
    EXPECT_EQ(wire.chips(), 2);
    wire.raw(0x24);
    wire.write(padded({0xFF}, 30)); // the data come in two pieces
    wire.write(Bytes(36));
    const Bytes dacs = wire.read();
    EXPECT_EQ(slice(dacs, 7, 3), (Bytes{0x22, 0xE7, 0x1A})) << "the fuses, lowest bits first";
    EXPECT_EQ(slice(dacs, 39, 3), (Bytes{0x83, 0xFF, 0xFA}));

    OldWire usb2(oldEntry(modules), OldBoard::Kind::Usb2);
    EXPECT_EQ(usb2.ask(0x68, 1, 1, 1), Bytes(3));
    EXPECT_EQ(usb2.board.activeAddress(), 1);
    EXPECT_EQ(usb2.ask(0x43, 0, 0, 0), REFUSAL) << "the other kind's command";
    EXPECT_EQ(usb2.complaints(), 1U);
}

TEST(OldBoardTest, MeasurementsAreToldTimedAndCounted)
{
    OldWire wire(oldEntry(R"([[""], [""]])"_json, {{"timer_mhz", 48}}));
    wire.ask(0x13);
    for (const int address : {1, 0}) {
        wire.selectModule(address);
        EXPECT_EQ(wire.ask(0x27), Bytes(3));
    }
    wire.write(OldWire::ticks(4'800'000)); // 100 ms
    wire.read();
    wire.ask(0x14, 0, 0, 0x80);
    EXPECT_EQ(wire.raw(0x22, 0x40), STARTED + OPENED);
    EXPECT_EQ(wire.ask(0x20), REFUSAL) << "while the shutter is open";
    EXPECT_EQ(wire.ask(0x22, 0x40), REFUSAL);
    EXPECT_EQ(wire.readAfter(99ms), Bytes());
    EXPECT_EQ(wire.readAfter(1ms), CLOSED);
    for (const int address : {0, 1}) {
        wire.selectModule(address);
        for (const double seconds : {0.1, 0.0}) { // reading clears
            const Bytes data = wire.readOut();
            EXPECT_EQ(endOf(data), OldWire::ticks(4'800'000));
            expectGradient(data, {.start = 1, .depth = 14}, 10000 * seconds);
        }
    }

    wire.ask(0x14, 0, 3, 0);
    EXPECT_EQ(wire.raw(0x22, 0x40), STARTED);
    EXPECT_EQ(wire.readAfter(10s), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(wire.read(), OPENED);
    wire.wait(50ms);
    EXPECT_EQ(wire.raw(0x23), CLOSED + OldWire::frame(0x23));
    EXPECT_EQ(endOf(wire.readOut()), OldWire::ticks(2'400'000));
}

TEST(OldBoardTest, FaultsShowOnTheWire)
{
    OldWire wire(oldEntry(R"([["", ""]])"_json));
    wire.fault(R"({"kind": "late_frame", "command": "Chip Count", "delay_s": 1.5, "frames": 1})"_json);
    EXPECT_EQ(wire.raw(0x13), Bytes());
    wire.wait(1499ms);
    EXPECT_EQ(wire.raw(0x41, 0, 0, 1), Bytes()) << "waits its turn";
    EXPECT_EQ(wire.readAfter(1ms).size(), 12U);
    EXPECT_THROW(wire.board.applyFault({{"kind", "module_silent"}, {"module", 1}}), std::runtime_error);
}

TEST(OldBoardTest, RecordsWhatNoFirmwareUnderstands)
{
    OldWire wire(oldEntry(R"([[""]])"_json));
    wire.write({0x55, 0x35, 0, 0, 0, 0x36}); // wrong check
    EXPECT_EQ(wire.read(), Bytes());
    EXPECT_EQ(wire.ask(0x35).size(), 3U) << "and goes on";
    for (const auto& [command, p0, p1, p2] : {std::array{2, 0, 0, 0}, {7, 0x18, 5, 6}, {0x14, 0, 4, 0}})
        EXPECT_EQ(wire.ask(command, p0, p1, p2), REFUSAL) << command;
    EXPECT_EQ(wire.complaints(), 4U);

    wire.ask(0x13);
    wire.raw(0x24);
    wire.write(Bytes(33, 0x12)); // begins with another byte
    EXPECT_EQ(wire.read(), Bytes(33) + OldWire::frame(0x24, 0xFF, 0xFF, 0xFF));
    EXPECT_EQ(wire.complaints(), 1U);
}

} // namespace
} // namespace sim
