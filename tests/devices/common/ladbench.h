// A composite on virtual boards, with the host around it, for tests of either chip family.
#pragma once

#include "devices/common/devicebench.h"

#include "shared/filelog.h"

namespace support {

/// A composite with its members' boards on the bus in the order in which they stand in it. Each has a flux of its own:
/// 1000 times its position, from 1 on, in counts per second, unless it brings its scene.
template <typename LadClass, typename BoardClass, typename Pixel>
class LadBench : public BenchBase<LadClass, BoardClass, Pixel> {
    using Base = BenchBase<LadClass, BoardClass, Pixel>;

public:
    static constexpr std::size_t CHIP = 65536;
    using Base::folder;

    /// Makes the composite, which is not brought up yet, with the boards' descriptions as its names, behind those of
    /// `missing` boards.
    explicit LadBench(nlohmann::json boards, const std::string& settings = "", Strings missing = {})
        : Base("lad.log"),
          names(std::move(missing))
    {
        double flux = 0;
        for (auto& board : boards) {
            flux += 1000;
            if (!board.contains("scene"))
                board["scene"] = flatScene(flux);
            names.push_back(board.at("description"));
        }
        sim::loadBench({{"boards", boards}});
        folder.write("latixel.ini", "[Settings]\n" + settings);
        log = std::make_unique<FileLog>((folder / "lad.log").string(), true, false, false, true);
        log->setLogLevel(MSG);
        Base::take(new LadClass(&this->host, folder.path(), log.get(), folder / "latixel.ini", names));
    }
    ~LadBench() { Base::end(); }

    /// The text of a failure of a member, with the name that goes with it.
    static std::string failure(const std::string& name, const std::string& error)
    {
        return "Device " + name + " reported error: " + error;
    }

    Strings names;
    std::unique_ptr<FileLog> log;
};

/// So many boards like one, each with its number, from 1 on, in its description. Their serials are 101, 102 and so on.
inline nlohmann::json ladBoards(std::size_t members, nlohmann::json board)
{
    const std::string description = board["description"];
    const std::string type = description.substr(0, description.find(" sn:"));
    nlohmann::json list = nlohmann::json::array();
    for (std::size_t m = 1; m <= members; ++m) {
        const std::string number = std::to_string(m);
        board["description"] = type + " " + number + " sn: 10" + number + " A";
        list.push_back(board);
    }
    return list;
}

/// Checks what composites tell of themselves whose boards come up in part or not at all. The boards are two of two
/// chips each; `modes` are those that the composite offers.
template <typename Lad>
void expectOneDetector(nlohmann::json boards, int chipKind, unsigned modes)
{
    const std::string gone = "Latixel Latixel M3WB 0 sn: 99 A";
    const auto serial = [](const Lad& lad) {
        dv::_DevInfo info{};
        lad->devInfo(&info);
        return info.serialNumber;
    };
    boards[1]["firmware"] = "Firmware of the last";
    {
        BroughtUp<Lad> lad(boards, "", Strings{gone});
        EXPECT_TRUE(lad->isConnected());
        EXPECT_EQ(lad.info().chipTotal, 4U);
        EXPECT_EQ(lad.info().pixelTotal, 4U * Lad::CHIP);
        EXPECT_EQ(lad.info().chipKind, chipKind);
        EXPECT_EQ(lad.info().acqModeMask, modes);
        EXPECT_EQ(serial(lad), 1);
        EXPECT_EQ(lad.param("DeviceSerials"), "101 102 ");
        EXPECT_EQ(lad.param("Firmware"), "Firmware of the last");
        EXPECT_EQ(lad->adcCount(), 32);
        EXPECT_TRUE(lad.logged("[MSG]: Initialization of Latixel device " + gone + " failed: "));
        EXPECT_TRUE(lad.logged("[MSG]: Initialized Latixel device " + lad.names[2] + "\n"));
        // Names go by position, and so a failure of the second member carries the first one's.
        EXPECT_EQ(lad.setDacs(std::vector<unsigned short>(54, 5)), 1);
        lad.expectError(Lad::failure(lad.names[1], ""));
        EXPECT_EQ(lad.series(1, 0.02).at(0).size(), 4 * Lad::CHIP);
        EXPECT_EQ(lad->closeDevice(), 0);
        EXPECT_FALSE(lad->isConnected());
        EXPECT_EQ(lad->adcCount(), 0);
    }
    {
        BroughtUp<Lad> lad(nlohmann::json::array({boards[0]}), "", Strings{gone});
        EXPECT_EQ(serial(lad), 101) << "of the only member";
    }
    Lad lad(nlohmann::json::array(), "", {gone, "no name of ours"});
    EXPECT_EQ(lad->initDevice(), -1);
    EXPECT_FALSE(lad->isConnected());
    EXPECT_EQ(lad->stopAcquisition(), 0);
}

/// A composite of two members of two chips each.
template <typename Lad>
class LadTest : public SeriesTest<Lad, 2> {
protected:
    using Base = SeriesTest<Lad, 2>;
    using Base::Base;
    using Base::bench;
    static constexpr std::size_t CHIP = Lad::CHIP;

    /// Checks the last error, which is a member's and carries its name.
    void expectFailure(int result, std::size_t member, const std::string& beginning = "") const
    {
        EXPECT_EQ(result, 1);
        bench.expectError(Lad::failure(bench.names[member], beginning));
    }
    /// Writes counts below a limit and reads them; arrays that are too short are refused.
    void expectMatricesComeBack(unsigned limit)
    {
        auto written = randomNumbers<typename Lad::Pixel>(4 * CHIP, limit);
        ASSERT_EQ(bench.write(written), 0);
        EXPECT_TRUE(bench.frame() == written);
        for (const int result : {bench->writeMatrix(written.data(), written.size() - 1, true),
                                 bench->readMatrix(written.data(), written.size() - 1, true)}) {
            EXPECT_EQ(result, 1);
            EXPECT_STREQ(bench->lastError(), "Invalid size for matrix (262143 < 262144)");
        }
    }
    /// ADC channels count through the members, whose first status that is not 0 counts.
    void expectAdcAndStatus()
    {
        sim::clearTraffic();
        EXPECT_GE(bench->adcValue(17), 0);
        EXPECT_TRUE(sim::written(0).empty());
        EXPECT_FALSE(sim::written(1).empty());
        EXPECT_EQ(bench->adcValue(32), -1005);
        EXPECT_STREQ(bench->lastError(), "Invalid ADC index.");
        double volts = 0;
        EXPECT_EQ(bench->analogValue(3, &volts), 0);
        EXPECT_EQ(bench->analogValue(4, &volts), 1);
        EXPECT_STREQ(bench->lastError(), "Invalid chip index: 4");
        EXPECT_EQ(bench->deviceStatus(), 0);
        sim::addFault(1, {{"kind", "cpu_status"}, {"status", 1}, {"text", "warm"}});
        EXPECT_TRUE(soon([&] { return bench->deviceStatus() == 1; }))
            << "at the latest once a series' threads are gone";
        EXPECT_EQ(bench->resetMedipix(), 0);
    }
    /// Stops a series right behind its start, in an exposure, while frames come in, and twice.
    void expectStops()
    {
        this->start(100, 60);
        this->expectStop();
        this->startAndExpose(100, 60);
        this->expectStop(1); // the frame in progress comes
        this->startAndTake(100000, 0.001, 6);
        this->expectStop();
        this->start(100, 0.02);
        bench->stopAcquisition();
        bench->stopAcquisition();
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_EQ(bench->stopAcquisition(), 0) << "and with no series at all";
    }
};

} // namespace support
