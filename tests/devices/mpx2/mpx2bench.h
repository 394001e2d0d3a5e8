// A Medipix2 or Timepix device on a virtual board, with modules or with rows, and with the host around it, for tests.
#pragma once

#include "devices/common/devicebench.h"

#include "chipdata/mpx2dacs.h"
#include "devices/mpx2/mpx2dev.h"
#include "devices/row/mpx2devrow.h"
#include "sim/boards/mpx2board.h"
#include "sim/boards/rowboard.h"

#include <random>

namespace support {

/// The board that most tests use, with so many chips in each module: flash with a bias calibration and a value that is
/// read late, CPU without bias.
inline nlohmann::json mpx2Board(const std::vector<int>& chipsOfModules, const nlohmann::json& more = {})
{
    nlohmann::json board = nlohmann::json::parse(R"({
        "kind": "mpx2",
        "description": "Latixel Latixel TLWA sn: 7 A",
        "modules": [],
        "flash": {"parameters": [
            {"name": "BiasMax", "type": "double", "value": 90.0},
            {"name": "Table", "type": "i32", "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12]}]},
        "cpu": {"version": "CPU 1.2", "values": [["TempCpu", "35.5"], ["*Fan", "1"]]}
    })");
    for (std::size_t m = 0; m < chipsOfModules.size(); ++m) {
        nlohmann::json chips = nlohmann::json::array();
        for (int k = 0; k < chipsOfModules[m]; ++k)
            chips.push_back("C0" + std::to_string(m) + "-W010" + std::to_string(k));
        board["modules"].push_back(chips);
    }
    if (!more.is_null())
        board.update(more);
    return board;
}

/// A CPU that makes the bias.
inline nlohmann::json biasCpu()
{
    return nlohmann::json::parse(R"({"cpu": {"version": "LTX5x5 2.0", "values": [
        ["TempCpu", "35.5"], ["*BiasSet", "0"], ["BiasVolt", "0"], ["BiasCurr", "0"], ["TempDet", "24"]]}})");
}

/// Random words below `limit`, always the same ones.
inline std::vector<unsigned short> randomWords(std::size_t size, int limit)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> word(0, limit - 1);
    std::vector<unsigned short> words(size);
    std::ranges::generate(words, [&] { return static_cast<unsigned short>(word(random)); });
    return words;
}

/// What makes a board's chips Timepix or Medipix2 ones.
inline nlohmann::json chipKind(bool timepix)
{
    return timepix ? nlohmann::json() : nlohmann::json{{"chip", "medipix2"}};
}

/// A device on a board of either kind.
template <typename DeviceClass, typename BoardClass>
class TpxBench : public DeviceBench<DeviceClass, BoardClass, unsigned short> {
public:
    using DeviceBench<DeviceClass, BoardClass, unsigned short>::DeviceBench;

    dv::_DevMpxInfo info() const
    {
        dv::_DevMpxInfo info;
        this->dev().devMpxInfo(&info);
        return info;
    }
    /// The chips that the host is told.
    std::vector<std::string> chipIds() const
    {
        dv::StrList ids;
        EXPECT_EQ(this->dev().chipIDList(&ids), 0);
        return ids.vect();
    }
    std::size_t pixels() const { return chipIds().size() * 65536; }
    bool logged(const std::string& text) const { return this->log().find(text) != std::string::npos; }
    /// Sets all DACs of Timepix chips so that each photon counts.
    void countAll() const
    {
        const std::vector<unsigned short> dacs(chipIds().size() * 14, 9);
        EXPECT_EQ(this->dev().setDacs(dacs.data(), dacs.size(), -1), 0);
    }
};

class Mpx2Bench : public TpxBench<HwLatixel::Mpx2Dev, sim::Mpx2Board> {
public:
    explicit Mpx2Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n",
                       bool serialSection = false)
        : TpxBench(board, settings, flatScene(1000), serialSection)
    {
    }
};

/// A row board with these chips, "" for a channel without one; flash and CPU as above.
inline nlohmann::json rowBoard(const std::vector<std::string>& channels, const nlohmann::json& more = {})
{
    nlohmann::json board = mpx2Board({});
    board.erase("modules");
    board.update({{"kind", "mpxrow"}, {"description", "Latixel Latixel TRWA sn: 7 A"}, {"channels", channels}});
    if (!more.is_null())
        board.update(more);
    return board;
}

class RowBench : public TpxBench<HwLatixel::Mpx2DevRow, sim::RowBoard> {
public:
    explicit RowBench(const nlohmann::json& board) : TpxBench(board, "", flatScene(1000)) {}
};

/// Series on a board of either kind with two chips.
template <typename Bench>
class TpxSeries : public SeriesTest<Bench, 1> {
protected:
    using Base = SeriesTest<Bench, 1>;
    using Base::Base;
    using Base::bench;

    void bringUp() override
    {
        ASSERT_EQ(bench->initDevice(), 0);
        ASSERT_EQ(bench.chipIds().size(), 2U);
        bench.countAll();
        this->takeFrames();
        bench.wire();
    }
    /// Starts a series and waits until it exposes.
    void startAndExpose(unsigned count, double time)
    {
        this->start(count, time);
        ASSERT_TRUE(this->soonStarted());
    }
    /// Loses the board in the first frame of a series, for good.
    void loseBoard()
    {
        sim::addFault(0, {{"kind", "unplug"}, {"when", {{"after_written", Base::START}}}});
        this->start(3, 0.02);
        ASSERT_TRUE(bench.events->waitFor({Base::FAILED}));
        sleepMs(100);
        EXPECT_EQ(bench.events->seen(), (std::vector<Seen>{{Base::FAILED, -1}}));
        EXPECT_STREQ(bench->lastError(), "Could not recover device");
    }
};

// The chips' pins as this device uses them; the others rest.
enum Pin : unsigned { PWR = 1, RST = 2, ENIN = 4, M0 = 8, M1 = 16, OUTEN = 256, ACQOVER = 1024 };

/// Frames of this board beside those of every board.
class Mpx2Wire : public Wire {
public:
    Mpx2Wire& pins(unsigned levels)
    {
        constexpr unsigned RESTING = 0x08A0;
        const int word = static_cast<int>(RESTING | levels);
        cmd(0, 1, 1, 0, 0, word >> 8, word);
        return *this;
    }
    /// With power on and the chips out of reset.
    Mpx2Wire& alive(unsigned levels) { return pins(PWR | RST | levels); }
    Mpx2Wire& mux(int mask)
    {
        cmd(0, 1, 2, 0, 0, 0, mask);
        return *this;
    }
    Mpx2Wire& number(int flags, int perif, int command, std::uint32_t value)
    {
        const int v = static_cast<int>(value);
        cmd(flags, perif, command, v >> 24, v >> 16, v >> 8, v);
        return *this;
    }
    Mpx2Wire& reset(unsigned levels) { return pins(PWR | levels).alive(levels); }
    Mpx2Wire& powerCycle(unsigned levels)
    {
        return pins(levels).cpu({0x80, 4}, 6).pins(PWR | levels).cpu({0x80, 3}, 6);
    }
    /// Firmware, head of the flash, version, names and values of the CPU.
    Mpx2Wire& identify()
    {
        cmd(2, 2, 1);
        spiExchange(2, 3, padded({0x03}, 1024));
        return cpu({5}, 100).cpu({5}, 100).cpu({3}, 4096).cpu({4}, 4096).cpu({4}, 4096);
    }
    Mpx2Wire& timer(std::uint32_t ticks) { return number(0, 5, 3, ticks).number(0, 5, 4, 0); }
    /// The clocks around a shutter.
    Mpx2Wire& clocks(std::uint32_t count, std::uint32_t divider, std::uint32_t delay)
    {
        number(0, 5, 0x10, count).number(0, 5, 0x11, divider).number(0, 5, 7, delay);
        return number(0, 5, 0x14, 10).number(0, 5, 0x15, 100);
    }
    /// One opening of the shutter, until the chips rest again and the output is handed back.
    Mpx2Wire& exposure(std::uint32_t command)
    {
        return alive(ENIN | ACQOVER).number(2, 5, 1, command).alive(ENIN).number(2, 1, 0, 0);
    }
    /// A stream through the DAC chain or past it.
    Mpx2Wire& stream(const Bytes& bytes)
    {
        data(7, 1, 0, bytes);
        return *this;
    }
    Mpx2Wire& dacs(const Bytes& bytes) { return alive(M0 | OUTEN).stream(bytes).alive(M0 | ENIN); }
    /// The DACs with which the identifiers of a chain of Timepix chips are read.
    Mpx2Wire& readIds(int chips)
    {
        std::vector<unsigned short> values;
        for (int chip = 0; chip < chips; ++chip)
            values.insert(values.end(), {20, 255, 255, 255, 255, 255, 300, 255, 255, 255, 255, 255, 255, 255});
        Bytes bytes(static_cast<std::size_t>(chips) * 33);
        dacsToStreamTPX(values.data(), bytes.data(), chips, 0, 0, 0, 0);
        return dacs(bytes);
    }
    /// The commands of a readout, behind which the chips rest.
    Mpx2Wire& readout(std::uint32_t announced, std::uint32_t bits)
    {
        return number(2, 1, 5, announced).number(2, 1, 4, bits).alive(ENIN);
    }
    Mpx2Wire& spiExchange(int divider, int select, const Bytes& payload)
    {
        cmd(0, 4, 1, 4, 0, 0, divider).cmd(2, 4, 2, 0, 0, 0, select).data(7, 4, 0, payload).cmd(0, 4, 2).cmd(2, 1, 0);
        return *this;
    }
    Mpx2Wire& cpu(const Bytes& beginning, std::size_t size) { return spiExchange(50, 7, padded(beginning, size)); }
};

} // namespace support
