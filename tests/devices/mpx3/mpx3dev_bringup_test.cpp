// Bring-up of a Medipix3 board: the bytes on the wire, the chips found, and what is left when something fails.
#include "devices/mpx3/mpx3bench.h"

using namespace support;

namespace {

using Up = BroughtUp<Mpx3Bench>;

constexpr int MPX = 1;
constexpr int INF = 2;
constexpr int SPI = 4;

Wire spiExchange(int divider, int select, const Bytes& payload)
{
    return Wire()
        .cmd(0, SPI, 1, 4, 0, 0, divider)
        .cmd(2, SPI, 2, 0, 0, 0, select)
        .data(7, SPI, 0, payload)
        .cmd(0, SPI, 2)
        .cmd(2, MPX, 0);
}

Wire cpu(const Bytes& beginning, std::size_t size)
{
    return spiExchange(50, 7, padded(beginning, size));
}

/// Reads them twice.
Wire fusesOfFirstChannel()
{
    Wire wire;
    for (int pass = 0; pass < 2; ++pass)
        wire.cmd(0, MPX, 3, 0, 0, 0, 1)
            .data(5, MPX, 255, padded({0x30, 0x00, 0xE8, 0x20, 0x00, 0x00, 0x10}, 12))
            .cmd(0, MPX, 3, 0, 0, 1, 1)
            .data(7, MPX, 255, padded({0xA0}, 38));
    return wire;
}

Wire bringUpOfOneChannel()
{
    Wire wire;
    wire.cmd(2, INF, 1);
    wire += spiExchange(2, 3, padded({0x03, 0, 0, 0}, 1024)); // head of the flash
    wire += cpu({5}, 100);                                    // version, asked for and logged
    wire += cpu({5}, 100);
    wire += cpu({0x80}, 6); // temperature reset
    wire += cpu({3}, 4096); // names and values
    wire += cpu({4}, 4096);
    wire += cpu({4}, 4096); // values for the log
    wire.cmd(0, MPX, 3, 0, 0, 0, 0x1F).cmd(0, MPX, 1, 0, 0, 0, 6);
    wire += cpu({0x80, 4}, 6);
    wire.cmd(0, MPX, 1, 0, 0, 0, 7);
    wire += cpu({0x80, 3}, 6);
    wire.cmd(0, MPX, 1, 0, 0, 0, 0x0D).cmd(0, MPX, 1, 0, 0, 0, 0x0F);
    for (int pass = 0; pass < 2; ++pass) {
        wire.cmd(2, MPX, 0);
        wire += fusesOfFirstChannel();
        wire.cmd(0, MPX, 3, 0, 0, 0, 0x1F);
    }
    return wire;
}

const std::string ONE_CHANNEL = "[Settings]\nDebugLog=1\nModule1=0\nModule2=0\nModule3=0\nModule4=0\n";

} // namespace

TEST(Mpx3BringUp, SendsItsStepsInOrder)
{
    Mpx3Bench bench(mpx3Board(1), ONE_CHANNEL);
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.wire(), bringUpOfOneChannel().lines());
    bench->closeDevice();
    Wire close;
    close.cmd(0, MPX, 1, 0, 0, 0, 6);
    close += cpu({0x80, 4}, 6);
    EXPECT_EQ(bench.wire(), close.lines());
    bench.expectNoViolations();
}

TEST(Mpx3BringUp, FindsChipsAndTellsTheHost)
{
    nlohmann::json board = mpx3Board(4);
    board["channels"][2] = nlohmann::json::array(); // no chip there
    Up bench(board);
    EXPECT_EQ(bench->chipIDs(), (std::vector<std::string>{"C00-W0100", "C01-W0100", "C03-W0100"}));
    dv::_DevMpxInfo info;
    bench->devMpxInfo(&info);
    EXPECT_EQ(info.chipTotal, 3U);
    EXPECT_EQ(info.pixelTotal, 3U * 65536);
    EXPECT_EQ(info.acqModeMask, 0x27U);
    EXPECT_EQ(info.biasMax, 150.0);
    dv::_DevInfo device;
    bench->devInfo(&device);
    EXPECT_EQ(device.serialNumber, 7);
    EXPECT_EQ(bench->firmware(), "Firmware 3.1 M3");
    EXPECT_TRUE(bench->isConnected());

    std::vector<std::string> names;
    for (auto* param : bench->parameters()->params())
        names.emplace_back(param->name());
    EXPECT_EQ(names, (std::vector<std::string>{"HwLibVer", "Firmware", "Temperature", "DebugLog", "TriggerStg",
                                               "TriggerWaitForReady", "TriggerMaster", "TriggerTdiSeries",
                                               "TriggerOutLevel", "TdiRowCount", "BiasDischarge", "TempCpu", "*Fan"}));
    EXPECT_EQ(bench->parameters()->get("TempCpu")->getString(), "35.5");
    // The big table was not read for the log, and is read whole when the host asks for it.
    EXPECT_NE(bench.log().find("Param[Table] = <BIGDATA>"), std::string::npos);
    EXPECT_NE(bench.log().find("Detected channels: 1 2 8 "), std::string::npos);
    EXPECT_EQ(bench->inDeviceConfigParameters()->get("Table")->getInt32(), 1);
    EXPECT_NEAR(bench->parameters()->get("Temperature")->getFloat(), 31.5, 0.2);
}

TEST(Mpx3BringUp, TwoChipsOnEachChannel)
{
    // Channels without chips count as channels of one chip in the average that decides, so they are switched off.
    Up bench(mpx3Board(2, 2), "[Settings]\nModule2=0\nModule3=0\nModule4=0\n");
    EXPECT_EQ(bench->chipIDs(), (std::vector<std::string>{"C00-W0100", "C00-W0101", "C01-W0100", "C01-W0101"}));
    dv::_DevMpxInfo info;
    bench->devMpxInfo(&info);
    EXPECT_EQ(info.acqModeMask, 7U) << "no TDI with two chips on a channel";
    bench.board([](auto& board) { EXPECT_TRUE(board.twoChipsPerChannel()); });
}

TEST(Mpx3BringUp, SettingsChooseTheChannels)
{
    // Channel 1 has no chip but is forced, channel 2 is off, channel 3 is missing in the file, channel 4 is dropped.
    nlohmann::json board = mpx3Board(4);
    board["channels"][1] = nlohmann::json::array();
    {
        Up bench(board, "[Settings]\nModule0=1\nModule1=1\nModule2=0\n");
        EXPECT_EQ(bench->chipCount(), 3);
        EXPECT_EQ(bench->chipIDs()[2], "C03-W0100");
        EXPECT_EQ(std::ranges::count(bench.errors, "Channel not working properly ! \n"), 2);
    }
    Up bench(mpx3Board(1), "");
    EXPECT_EQ(bench->chipCount(), 5) << "without a file bad channels stay";
    EXPECT_EQ(bench.errors.size(), 4U);
}

TEST(Mpx3BringUp, BoardWithoutChipsRefusesWithWords)
{
    nlohmann::json board = mpx3Board(0);
    board.erase("cpu");
    board.erase("flash");
    Up bench(board);
    EXPECT_EQ(bench->chipCount(), 0);
    EXPECT_NE(bench.log().find("No parameters in IB Flash."), std::string::npos);
    EXPECT_NE(bench.log().find("CPU is not present on IB"), std::string::npos);
    std::vector<unsigned short> dacs(27);
    std::vector<unsigned> matrix(65536);
    const std::vector<unsigned char> cfg(131072);
    EXPECT_EQ(bench->startAcquisition(1, 0.1), 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
    EXPECT_EQ(bench->stopAcquisition(), 1);
    EXPECT_EQ(bench->setDacs(dacs.data(), dacs.size(), -1), 1);
    EXPECT_EQ(bench->readMatrix(matrix.data(), matrix.size(), true), 1);
    EXPECT_EQ(bench->writeMatrix(matrix.data(), matrix.size(), true), 1);
    EXPECT_EQ(bench->setPixelCfg(cfg.data(), cfg.size()), -1);
    EXPECT_TRUE(bench.wire().empty());
    // What has no guard stays inside its buffers on a board of zero channels.
    EXPECT_EQ(bench->senseDac(0, 3), 0);
    EXPECT_EQ(bench->setConfig({}), 0);
    bench.frame();
    bench->deviceStatus();
    EXPECT_STREQ(bench->deviceStatusText(), "");
}

TEST(Mpx3BringUp, ClosedDeviceAnswersWithoutALink)
{
    Up bench(mpx3Board(1), ONE_CHANNEL);
    bench->closeDevice();
    double volts = 1;
    EXPECT_EQ(bench->setBias(50), 1);
    EXPECT_STREQ(bench->lastError(), "Device not connected");
    EXPECT_NE(bench->setConfig({}), 0);
    EXPECT_NE(bench->eraseMatrix(), 0);
    EXPECT_NE(bench->resetMedipix(), 0);
    EXPECT_EQ(bench->analogValue(0, &volts), 0);
    EXPECT_EQ(bench->lastData(), nullptr);
    EXPECT_EQ(bench->deviceStatus(), 0);
    // And it comes up again.
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->chipCount(), 1);
    EXPECT_TRUE(bench->isConnected());
}

TEST(Mpx3BringUp, LinkThatDoesNotOpenFailsWithALogLine)
{
    Mpx3Bench bench(mpx3Board(1));
    sim::unplug(0);
    EXPECT_EQ(bench->initDevice(), -1);
    EXPECT_FALSE(bench->isConnected());
    EXPECT_NE(bench.log().find("[ERR]: Cannot open device Latixel Latixel M3WA sn: 7 A, error=-1 ("),
              std::string::npos);
    sim::plug(0);
    sim::addFault(0, {{"kind", "error"}, {"on", "open"}, {"result", -4}, {"text", "unable to open device"}});
    EXPECT_EQ(bench->initDevice(), -1);
    EXPECT_NE(bench.log().find("(unable to open device)"), std::string::npos);
}

TEST(Mpx3BringUp, LinkThatDiesOnTheWayLeavesADeviceWithoutChips)
{
    // Behind the firmware text; in the chip search; a board that falls silent; one that sends noise.
    const std::vector<nlohmann::json> faults = {
        {{"kind", "unplug"}, {"when", {{"after_reads", 1}}}},
        {{"kind", "error"}, {"result", -4}, {"when", {{"after_written", "55 07 01 FF"}, {"occurrence", 5}}}},
        {{"kind", "garbage"}, {"times", 1000}, {"seed", 4}},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.dump());
        Mpx3Bench bench(mpx3Board(2));
        sim::addFault(0, fault);
        EXPECT_EQ(bench->initDevice(), 0);
        EXPECT_LE(bench->chipCount(), 10);
    }
}

TEST(Mpx3BringUp, OverheatedBoardIsToldOnceAndRefuses)
{
    Up bench(mpx3Board(1), ONE_CHANNEL + "DebugLogSkipPeriodic=1\n");
    EXPECT_EQ(bench->deviceStatus(), 0);
    sim::addFault(0, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
    EXPECT_EQ(bench->deviceStatus(), 2);
    EXPECT_EQ(bench->deviceStatus(), 2);
    EXPECT_STREQ(bench->deviceStatusText(), "81 degrees");
    ASSERT_EQ(bench.errors.size(), 1U);
    EXPECT_EQ(bench.errors[0],
              "Maximal allowed temperature exceeded ! Let the device cool down and then reconnect it in "
              "SW or restart SW.\nDevice error: 81 degrees\n");
    const std::string log = bench.log();
    const std::string dump = "Device error. Dumping values:\nTempCpu = ";
    EXPECT_NE(log.find(dump, log.find(dump) + 1), std::string::npos) << "the values are logged at every poll";
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 1);
    EXPECT_EQ(bench->stopAcquisition(), 1);
    EXPECT_STREQ(bench->lastError(), "Device allowed temperature exceeded, chips turned off.");
    EXPECT_EQ(bench->setBias(20), 0) << "bias stays in the host's hands";
    // Reconnecting clears it: bring-up resets the CPU's memory.
    bench->closeDevice();
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->deviceStatus(), 0);
    EXPECT_EQ(bench->startAcquisition(1, 0.01), 0);
    EXPECT_TRUE(bench.events->waitForEnd());
}

TEST(Mpx3BringUp, DebugLogParameterSwitchesOnButNotOff)
{
    Up bench(mpx3Board(1), "[Settings]\n");
    bench->deviceStatus(); // from here on the log is at MSG
    const auto resetIsLogged = [&] {
        const std::size_t end = bench.log().size();
        bench->resetDevice();
        return bench.log().find("\nReset Device\n", end) != std::string::npos;
    };
    EXPECT_FALSE(resetIsLogged());
    dv::IParam* param = bench->parameters()->get("DebugLog");
    param->setBool(true);
    param->setBool(false);
    EXPECT_NE(bench.log().find("Debug log enabled: 1\n"), std::string::npos);
    EXPECT_EQ(bench.log().find("Debug log enabled: 0\n"), std::string::npos);
    EXPECT_TRUE(resetIsLogged());
}
