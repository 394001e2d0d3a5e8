// Bring-up of a Medipix2 or Timepix board: the bytes on the wire, the modules and chips found, and what is left when
// something fails.
#include "devices/mpx2/mpx2bench.h"

using namespace support;

namespace {

using Up = BroughtUp<Mpx2Bench>;

constexpr const char* CPU_EXCHANGE = "55 02 04 02 00 00 00 07";

/// What a device with one chip in module 0 and two in module 2 sends.
Mpx2Wire bringUpWire()
{
    constexpr unsigned AWAKE = ENIN | M0;
    Mpx2Wire wire;
    wire.identify().cpu({5}, 100);
    wire.powerCycle(AWAKE | OUTEN).reset(AWAKE).cmd(2, MPX, 3);
    wire.reset(AWAKE).cmd(2, MPX, 3);
    wire.reset(AWAKE).powerCycle(AWAKE).reset(AWAKE).reset(AWAKE);
    for (const int mask : {1, 4}) {
        wire.mux(mask).stream(Bytes(14, 0xFF)).alive(AWAKE | OUTEN).stream(Bytes(14));
        wire.pins(PWR | AWAKE | OUTEN).alive(AWAKE);
    }
    wire.reset(AWAKE).mux(1).readIds(1).mux(4).readIds(2);
    wire.cmd(0, ACQ, 0x13, 0, 0, 0, 5);
    return wire;
}

} // namespace

TEST(Mpx2BringUp, SendsItsStepsInOrder)
{
    Mpx2Bench bench(mpx2Board({1, 0, 2}));
    ASSERT_EQ(bench->initDevice(), 0);
    const long exchanges = bench.sent(CPU_EXCHANGE);
    EXPECT_EQ(bench.wire(), bringUpWire().lines());
    bench.board([](sim::Mpx2Board& board) {
        EXPECT_EQ(board.chip(2, 1).dac(0), 20U);
        EXPECT_EQ(board.chip(2, 1).dac(6), 300U);
    });
    bench->closeDevice();
    EXPECT_EQ(bench.wire(), Mpx2Wire().pins(ENIN | M0).cpu({0x80, 4}, 6).lines());
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.sent(CPU_EXCHANGE), exchanges) << "no value that the CPU has told goes back to it";
}

TEST(Mpx2BringUp, FindsChipsAndTellsTheHost)
{
    for (const bool timepix : {true, false}) {
        SCOPED_TRACE(timepix);
        Up bench(mpx2Board({2, 0, 1}, chipKind(timepix)));
        // Another bring-up of the same object finds the same, also where the chips are no Timepix.
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(bench->initDevice(), 0);
            EXPECT_EQ(bench->isTimepix(), timepix);
            EXPECT_EQ(bench->dacCount(), timepix ? 14 : 15);
            EXPECT_EQ(bench.chipIds(), (Strings{"C00-W0100", "C00-W0101", "C02-W0100"}));
        }
        EXPECT_EQ(bench.errors->take(), Strings{});
        EXPECT_EQ(bench.info().chipTotal, 3U);
        EXPECT_EQ(bench.info().acqModeMask, 7U);
        EXPECT_TRUE(bench.logged("Module 2, ChipID 0 is: C02-W0100\n"));
        EXPECT_TRUE(bench.logged("Param[Table] = <BIGDATA>"));
        EXPECT_EQ(bench.paramNames(),
                  " HwLibVer Firmware DebugLog PreShutterClockCount PreShutterClockDivider PreShutterDelayClockCount "
                  "TriggerStg TriggerWaitForReady TriggerMaster TriggerOutLevel TempCpu *Fan");
        // The big table comes with its first read, and not through a closed link.
        bench->closeDevice();
        EXPECT_EQ(bench->inDeviceConfigParameters()->get("Table")->getInt32(), 0);
        ASSERT_EQ(bench->initDevice(), 0);
        EXPECT_EQ(bench->inDeviceConfigParameters()->get("Table")->getInt32(), 1);
    }
}

TEST(Mpx2BringUp, SettingsChooseTheModules)
{
    struct Case {
        const char* settings;
        bool ownSection;
        Strings ids;
    };
    const Case cases[] = {
        {"", false, {"C00-W0100", "C01-W0100"}},
        {"[Settings]\nModule0=1\nModule1=0\n", false, {"C00-W0100"}},
        {"[Settings]\nModule0=0\n[7]\nModule1=0\n", true, {"C00-W0100"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings);
        Up bench(mpx2Board({1, 1}), c.settings, c.ownSection);
        EXPECT_EQ(bench.chipIds(), c.ids);
        EXPECT_EQ(bench.logged("The settings file "), std::string(c.settings).empty());
    }
    // A module that is silent and forced has no chip, and still counts in the sizes of a parallel readout.
    for (const auto& [way, result] : {std::pair{"0", 0}, {"1", -1}}) {
        Mpx2Bench bench(mpx2Board({2}), std::string("[Settings]\nModule3=1\nReadParallel=") + way + "\n");
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench->chipCount(), 2);
        Mpx2Bench::Pixels matrix(bench.pixels());
        EXPECT_EQ(bench.read(matrix), result) << bench->lastError();
    }
}

TEST(Mpx2BringUp, BoardsWithoutAWorkingChipRefuseWithWords)
{
    struct Case {
        std::vector<int> modules;
        const char* settings;
        nlohmann::json fault;
        const char* words;
        unsigned chipTotal;
    };
    const nlohmann::json idsLost = behind("55 07 01 00 00 00 00 42", linkError("read"));
    const Case cases[] = {
        {{}, "", nullptr, "No modules detected.", 1},
        {{1}, "Module0=0\n", nullptr, "No modules detected.", 1},
        {{}, "Module2=1\n", nullptr, "No chip connected", 1},
        {{3}, "Module0=1\n", {{"kind", "stuck_line"}, {"module", 0}, {"level", 1}}, "No chip connected", 1},
        {{2}, "", idsLost, "Invalid Chip IDs count (0 = 2)", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.words) + c.settings);
        Mpx2Bench bench(mpx2Board(c.modules), std::string("[Settings]\nDebugLog=1\n") + c.settings);
        if (!c.fault.is_null())
            sim::addFault(0, c.fault);
        ASSERT_EQ(bench->initDevice(), 0);
        EXPECT_EQ(bench->chipCount(), 0);
        EXPECT_STREQ(bench->lastError(), c.words);
        EXPECT_EQ(bench.info().chipTotal, c.chipTotal);

        bench.wire();
        for (const int result : {bench.setDacs(Mpx2Bench::Pixels(14)), bench.write(Mpx2Bench::Pixels(65536)),
                                 bench.setPixelCfg({0}), bench->eraseMatrix(), bench->setTimer(1.0)})
            EXPECT_EQ(result, 1);
        EXPECT_STREQ(bench->lastError(), "Device not connected or no chip");
        EXPECT_TRUE(bench.frame().empty());
        EXPECT_TRUE(bench.wire().empty());
        EXPECT_EQ(bench->setBias(20), 0) << "bias needs no chip";
    }
    // One chip of three that is missing shortens its module.
    Mpx2Bench bench(mpx2Board({3, 1}));
    sim::addFault(0, {{"kind", "chip_missing"}, {"module", 0}, {"position", 1}});
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench.chipIds(), (Strings{"C00-W0100", "C00-W0102", "C01-W0100"}));
}

TEST(Mpx2BringUp, FirmwareThatIsUnknownIsToldAndTakenAllTheSame)
{
    for (const auto& [text, tries, told] :
         {std::tuple{"Firmware 1.5 TLA (2014)", 1, 0U}, {"Firmware 2.0 TLA", 1, 1U}, {"", 3, 1U}}) {
        SCOPED_TRACE(text);
        Mpx2Bench bench(mpx2Board({1}, {{"firmware", text}}));
        ASSERT_EQ(bench->initDevice(), 0);
        EXPECT_EQ(bench.sent("55 02 02 01"), tries);
        EXPECT_EQ(bench->firmware(), text);
        EXPECT_EQ(bench->chipCount(), 1);
        ASSERT_EQ(bench.host.messages().size(), told);
        for (const auto& message : bench.host.messages())
            EXPECT_EQ(message.title + message.text,
                      std::string("Latixel FirmwareThe Latixel device has incompatible firmware: ") + text +
                          ".\nPlease use Firmware 1.7 TLA (18.10.2016).");
        EXPECT_EQ(bench.logged(std::string("[ERR]: Incompatible firmware (") + text + ")."), told == 1);
    }
}

TEST(Mpx2BringUp, LinkThatDoesNotOpenOrDiesOnTheWay)
{
    Mpx2Bench bench(mpx2Board({1}));
    // Behind the firmware text; in the count of chips; a board that sends noise, or stops sending.
    bench.expectBringUpOnBadLinks({{{"kind", "unplug"}, {"when", {{"after_reads", 1}}}},
                                   behind("55 07 01 00 00 00 00 0E", linkError("transfers", 1000)),
                                   {{"kind", "garbage"}, {"times", 1000}, {"seed", 4}},
                                   behind("55 02 01 03", {{"kind", "silence"}})});
}

TEST(Mpx2BringUp, ClosedDeviceAnswersWithoutALink)
{
    Up bench(mpx2Board({2}));
    bench->closeDevice();
    bench.expectClosedAnswers();
    unsigned char raw[6] = {2, 1};
    for (const int result : {bench->sendRawData(raw, 6, 0, 2, 0), -bench->recoverDevice(),
                             bench->startSingleAcquisition(), bench->waitForAcqFinish(true)})
        EXPECT_EQ(result, 1);
    bench->parameters()->get("*Fan")->setString("0");
}

TEST(Mpx2BringUp, OverheatedBoardIsToldOnceAndRefusesBias)
{
    Up bench(mpx2Board({1}));
    // Another error is the log's affair alone.
    sim::addFault(0, {{"kind", "cpu_status"}, {"text", "5 V missing"}});
    EXPECT_EQ(bench->deviceStatus(), 2);
    bench.expectError("Device error: 5 V missing\n");
    EXPECT_EQ(bench.errors->take(), Strings{});
    sim::clearFaults(0);
    bench.overheat();
    EXPECT_EQ(bench->setBias(20), 1);
    EXPECT_STREQ(bench->lastError(), TOO_HOT);
    EXPECT_EQ(bench.series(1, 0.01).size(), 0U) << "the chips are off";
    sim::clearFaults(0);
    EXPECT_EQ(bench->deviceStatus(), 0);
    EXPECT_EQ(bench->setBias(20), 1) << "until the device is connected anew";
    ASSERT_EQ(bench->initDevice(), 0);
    EXPECT_EQ(bench->setBias(20), 0);
}
