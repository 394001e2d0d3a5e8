// Bring-up of a Medipix3 board: the bytes on the wire, the chips found, and what is left when something fails.
#include "devices/mpx3/mpx3bench.h"

#include <numeric>

using namespace support;

namespace {

using Up = BroughtUp<Mpx3Bench>;

/// Reads them twice.
BoardWire fusesOfFirstChannel()
{
    BoardWire wire;
    for (int pass = 0; pass < 2; ++pass)
        wire.cmd(0, MPX, 3, 0, 0, 0, 1)
            .data(5, MPX, 255, padded({0x30, 0x00, 0xE8, 0x20, 0x00, 0x00, 0x10}, 12))
            .cmd(0, MPX, 3, 0, 0, 1, 1)
            .data(7, MPX, 255, padded({0xA0}, 38));
    return wire;
}

BoardWire bringUpOfOneChannel()
{
    BoardWire wire;
    wire.cmd(2, INF, 1);
    wire.spiExchange(2, 3, padded({0x03, 0, 0, 0}, 1024)); // head of the flash
    wire.cpu({5}, 100).cpu({5}, 100);                      // version, asked for and logged
    wire.cpu({0x80}, 6);                                   // temperature reset
    wire.cpu({3}, 4096).cpu({4}, 4096).cpu({4}, 4096);     // names, values, values for the log
    wire.number(0, MPX, 3, 0x1F);
    wire.number(0, MPX, 1, 6).cpu({0x80, 4}, 6);
    wire.number(0, MPX, 1, 7).cpu({0x80, 3}, 6);
    wire.number(0, MPX, 1, 0x0D).number(0, MPX, 1, 0x0F);
    for (int pass = 0; pass < 2; ++pass) {
        wire.cmd(2, MPX, 0);
        wire += fusesOfFirstChannel();
        wire.number(0, MPX, 3, 0x1F);
    }
    return wire;
}

} // namespace

TEST(Mpx3BringUp, SendsItsStepsInOrder)
{
    Mpx3Bench bench(mpx3Board({1}), ONE_CHANNEL);
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.wire(), bringUpOfOneChannel().lines());
    bench->closeDevice();
    EXPECT_EQ(bench.wire(), BoardWire().number(0, MPX, 1, 6).cpu({0x80, 4}, 6).lines());
    bench.expectNoViolations();
}

TEST(Mpx3BringUp, FindsChipsAndTellsTheHost)
{
    Up bench(mpx3Board({1, 1, 0, 1}));
    EXPECT_EQ(bench.chipIds(), (Strings{"C00-W0100", "C01-W0100", "C03-W0100"}));
    EXPECT_EQ(bench.info().chipTotal, 3U);
    EXPECT_EQ(bench.info().pixelTotal, 3U * 65536);
    EXPECT_EQ(bench.info().acqModeMask, 0x27U);
    EXPECT_EQ(bench.info().biasMax, 90.0);
    dv::_DevInfo device;
    bench->devInfo(&device);
    EXPECT_EQ(device.serialNumber, 7);
    EXPECT_EQ(bench->firmware(), "Firmware 3.1 M3");
    EXPECT_TRUE(bench->isConnected());
    EXPECT_EQ(bench.paramNames(),
              " HwLibVer Firmware Temperature DebugLog TriggerStg TriggerWaitForReady TriggerMaster "
              "TriggerTdiSeries TriggerOutLevel TdiRowCount BiasDischarge TempCpu *Fan");
    EXPECT_EQ(bench.param("TempCpu"), "35.5");
    // The big table was not read for the log, and is read whole when the host asks for it.
    EXPECT_TRUE(bench.logged("Param[Table] = <BIGDATA>"));
    EXPECT_TRUE(bench.logged("Detected channels: 1 2 8 "));
    EXPECT_EQ(bench->inDeviceConfigParameters()->get("Table")->getInt32(), 1);
    EXPECT_NEAR(bench->parameters()->get("Temperature")->getFloat(), 31.5, 0.2);
}

TEST(Mpx3BringUp, TwoChipsOnEachChannel)
{
    // Channels without chips count as channels of one chip in the average that decides, so they are switched off.
    Up bench(mpx3Board({2, 2}), TWO_CHANNELS);
    EXPECT_EQ(bench.chipIds(), (Strings{"C00-W0100", "C00-W0101", "C01-W0100", "C01-W0101"}));
    EXPECT_EQ(bench.info().acqModeMask, 7U) << "no TDI with two chips on a channel";
    bench.board([](auto& board) { EXPECT_TRUE(board.twoChipsPerChannel()); });
}

TEST(Mpx3BringUp, SettingsChooseTheChannels)
{
    {
        // Channel 1 has no chip but is forced, channel 2 is off, channel 3 is missing in the file, channel 4 is
        // dropped.
        Up bench(mpx3Board({1, 0, 1, 1}), "[Settings]\nModule0=1\nModule1=1\nModule2=0\n");
        EXPECT_EQ(bench->chipCount(), 3);
        EXPECT_EQ(bench.chipIds()[2], "C03-W0100");
        EXPECT_EQ(bench.errors->take(), Strings(2, "Channel not working properly ! \n"));
    }
    Up bench(mpx3Board({1}), "");
    EXPECT_EQ(bench->chipCount(), 5) << "without a file bad channels stay";
    EXPECT_EQ(bench.errors->take().size(), 4U);
}

TEST(Mpx3BringUp, BoardWithoutChipsRefusesWithWords)
{
    nlohmann::json board = mpx3Board({});
    board.erase("cpu");
    board.erase("flash");
    Up bench(board);
    EXPECT_EQ(bench->chipCount(), 0);
    EXPECT_TRUE(bench.logged("No parameters in IB Flash."));
    EXPECT_TRUE(bench.logged("CPU is not present on IB"));
    Mpx3Bench::Pixels matrix(65536);
    for (const int result :
         {bench->startAcquisition(1, 0.1), bench->stopAcquisition(), bench.read(matrix), bench.write(matrix),
          bench.setDacs(std::vector<unsigned short>(27)), -bench.setPixelCfg(std::vector<unsigned char>(131072))})
        EXPECT_EQ(result, 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
    EXPECT_TRUE(bench.wire().empty());
    // What has no guard stays inside its buffers on a board of zero channels.
    EXPECT_EQ(bench->senseDac(0, 3), 0);
    EXPECT_EQ(bench->setConfig({}), 0);
    bench.frame();
    bench->deviceStatus();
    EXPECT_STREQ(bench->deviceStatusText(), "");
}

TEST(Mpx3BringUp, LinkThatDoesNotOpenOrDiesOnTheWay)
{
    Mpx3Bench bench(mpx3Board({1}));
    // Behind the firmware text; in the chip search; a board that sends noise.
    bench.expectBringUpOnBadLinks({{{"kind", "unplug"}, {"when", {{"after_reads", 1}}}},
                                   behind("55 07 01 FF", linkError("transfers", 1000), 5),
                                   {{"kind", "garbage"}, {"times", 1000}, {"seed", 4}}});
}

TEST(Mpx3BringUp, OverheatedBoardIsToldOnceAndRefuses)
{
    Up bench(mpx3Board({1}), ONE_CHANNEL + "DebugLogSkipPeriodic=1\n");
    bench.overheat();
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 1);
    EXPECT_EQ(bench->stopAcquisition(), 1);
    EXPECT_STREQ(bench->lastError(), TOO_HOT);
    EXPECT_EQ(bench->setBias(20), 0) << "bias stays in the host's hands";
    // Reconnecting clears it: bring-up resets the CPU's memory.
    bench->closeDevice();
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->deviceStatus(), 0);
    EXPECT_EQ(bench.series(1, 0.01).size(), 1U);
}

TEST(Mpx3BringUp, DebugLogParameterSwitchesOnButNotOff)
{
    Up bench(mpx3Board({1}), "[Settings]\n");
    bench->deviceStatus(); // from here on the log is at MSG
    bench->setTimer(1);
    EXPECT_FALSE(bench.logged("\nSet Timer\n"));
    for (const int on : {1, 0})
        bench.set("DebugLog", on);
    EXPECT_TRUE(bench.logged("Debug log enabled: 1\n"));
    EXPECT_FALSE(bench.logged("Debug log enabled: 0\n"));
    bench->setTimer(1);
    EXPECT_TRUE(bench.logged("\nSet Timer\n"));
}

TEST(Mpx3BringUp, AgainKeepsConfigurationAndCallback)
{
    Up bench(mpx3Board({1, 1, 1}));
    ASSERT_EQ(bench->setConfig({1, 9, 4, 2, 2, 1, 1, 1, 0, 1, 1}), 0);
    const OMR before = bench->omr();
    // A partial one, and a whole one again: DACs go to their chips.
    sim::addFault(0, behind("55 07 01 FF", linkError("transfers"), 13));
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->chipCount(), 1);
    sim::clearFaults(0);
    ASSERT_EQ(bench->initDevice(), 0);
    for (const auto field : {&OMR::CountL, &OMR::PS, &OMR::Gain, &OMR::Polarity})
        EXPECT_EQ(bench->omr().*field, before.*field);
    std::vector<unsigned short> dacs(3 * 27);
    std::iota(dacs.begin(), dacs.end(), std::uint16_t{0});
    ASSERT_EQ(bench->setDacs(dacs.data(), 0, -1), 0) << bench->lastError();
    bench.board([](sim::Mpx3Board& b) {
        for (std::size_t chip = 0; chip < 3; ++chip)
            EXPECT_EQ(b.chip(chip).dacs()[0], 27 * chip);
    });
    bench.errors->take();
    bench->startAcquisition(1, -1);
    EXPECT_EQ(bench.errors->take().size(), 1U) << "the host still hears";
}
