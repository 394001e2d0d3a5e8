// What boards of several kinds do alike: they obey triggers and stops, come with benches, and refuse bad entries.
#include "sim/boards/mpx2wire.h"
#include "sim/boards/mpx3wire.h"

#include "sim/usb/latixelsim.h"

namespace sim {
namespace {

/// Expects that a board obeys, which takes frames of 10 ms.
template <typename Wire>
void expectObedience(Wire& wire, std::uint64_t ticksPerMs)
{
    constexpr std::uint32_t ON_TRIGGER = 2, UNTIL_TRIGGER = 4;
    const auto lengthOf = [&](const Bytes& stream) { return packetNumber(stream) / ticksPerMs; };
    wire.start(ON_TRIGGER);
    EXPECT_EQ(wire.readAfter(1h), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(lengthOf(wire.readAfter(10ms)), 10U);

    wire.start(UNTIL_TRIGGER);
    EXPECT_EQ(wire.readAfter(1s), Bytes());
    wire.pulseTrigger();
    EXPECT_EQ(lengthOf(wire.read()), 1000U);

    wire.start();
    wire.wait(3ms);
    wire.stop();
    EXPECT_EQ(lengthOf(wire.read()), 3U) << "cut by a stop";
    wire.stop();
    wire.start(ON_TRIGGER);
    wire.stop();
    wire.pulseTrigger();
    EXPECT_EQ(wire.readAfter(1s), Bytes()) << "a stop while it waits leaves no frame";

    wire.setTrigger(1);
    wire.start(ON_TRIGGER);
    EXPECT_EQ(lengthOf(wire.readAfter(10ms)), 10U) << "the input rests at the level that starts";
    wire.start();
    wire.select(1, 2);
    EXPECT_EQ(wire.readAfter(1s), Bytes()) << "SPI holds the output";
    wire.outputToChips();
    EXPECT_EQ(lengthOf(wire.read()), 10U);

    wire.start();
    wire.start();
    EXPECT_EQ(wire.complaints(), 1U) << "start of a board that exposes";
}

TEST(ShutterTest, TimepixBoardObeysTimerTriggersAndStop)
{
    Mpx2Wire wire;
    wire.timer(500000);
    expectObedience(wire, 50000);
}

TEST(ShutterTest, Medipix3BoardObeysTimerTriggersAndStop)
{
    ReadyWire wire;
    expectObedience(wire, TEN_MS / 10);
}

TEST(TriggerLineTest, MasterWaitsForFollowersOnItsLine)
{
    const json entry = mpx3Entry({{""}}, {{"trigger_line", "test"}});
    ReadyWire master(entry);
    ReadyWire follower(entry);
    master.setTrigger(4 | 8);
    follower.setTrigger(4);
    master.start(2);
    EXPECT_EQ(master.readAfter(100ms), Bytes()) << "the follower is not ready";
    follower.now = master.now;
    follower.start(2);
    EXPECT_EQ(follower.read(), Bytes());
    EXPECT_EQ(packetNumber(master.readAfter(10ms)), TEN_MS);
    EXPECT_EQ(packetNumber(follower.readAfter(10ms)), TEN_MS);
}

TEST(BenchesTest, ShippedBenchesLoadAndBadEntriesAreRefused)
{
    for (const char* name :
         {"mpx2-quad", "mpx3-bench", "mpx3-five", "mpx3-lad", "mpx3-no-chip", "mpx3-quad", "mpx3-single",
          "mpx3-two-per-channel", "old-single", "old-two", "row-seven", "row-three", "timepix-bench", "timepix-cpu",
          "timepix-five", "timepix-lad", "timepix-modules", "timepix-single"})
        EXPECT_EQ(latixelsimLoadBench(name), 0) << name << ": " << latixelsimError();

    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {R"({"kind": "mpx2", "description": "sn: 7 A", "modules": [[""]]})",
         {R"({"modules": [["X99"]]})", R"({"modules": [[], [], [], [], [], []]})", R"({"chip": "medipix9"})"}},
        {R"({"kind": "mpx3", "description": "sn: 7 A", "channels": [[""]]})",
         {R"({"channels": [["", "", ""]]})", R"({"scene": {"fluxx": 1}})", R"({"adc": {"16": 1}})",
          R"({"flash": {"parameters": [{"name": "A", "type": "int", "value": 1}]}})"}},
        {R"({"kind": "mpxrow", "description": "sn: 7 A", "channels": [""]})",
         {R"({"channels": [1]})", R"({"channels": ["", "", "", "", "", "", "", ""]})"}},
        {R"({"kind": "fenxel", "description": "sn: 7 A", "modules": [[""]]})",
         {R"({"modules": []})", R"({"addresses": [256]})", R"({"timer_mhz": 0})",
          R"({"firmware_date": "2009-01-01"})"}},
    };
    const auto load = [](json entry, const char* patch) {
        entry.merge_patch(json::parse(patch));
        loadBench({{"boards", {entry}}});
    };
    for (const auto& [good, bad] : cases) {
        EXPECT_NO_THROW(load(json::parse(good), "{}")) << good;
        for (const char* patch : bad)
            EXPECT_THROW(load(json::parse(good), patch), std::runtime_error) << patch;
    }
    clearBus();
}

} // namespace
} // namespace sim
