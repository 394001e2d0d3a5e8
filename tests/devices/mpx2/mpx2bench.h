// A Medipix2 or Timepix device on a virtual board, with modules or with rows, and with the host around it, for tests.
#pragma once

#include "devices/common/boardwire.h"
#include "devices/common/devicebench.h"

#include "chipdata/mpx2dacs.h"
#include "devices/mpx2/mpx2dev.h"
#include "devices/row/mpx2devrow.h"
#include "sim/boards/mpx2board.h"
#include "sim/boards/rowboard.h"

#include <cmath>

namespace support {

/// The board that most tests use, with so many chips in each module.
inline nlohmann::json mpx2Board(const std::vector<int>& chipsOfModules, const nlohmann::json& more = {})
{
    nlohmann::json board = boardOf("mpx2", "TLWA");
    board["modules"] = chipNames(chipsOfModules);
    if (!more.is_null())
        board.update(more);
    return board;
}

/// A row board with these chips, "" for a channel without one.
inline nlohmann::json rowBoard(const Strings& channels, const nlohmann::json& more = {})
{
    nlohmann::json board = boardOf("mpxrow", "TRWA");
    board["channels"] = channels;
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

/// What makes a board's chips Timepix or Medipix2 ones.
inline nlohmann::json chipKind(bool timepix)
{
    return timepix ? nlohmann::json() : nlohmann::json{{"chip", "medipix2"}};
}

/// Sets all DACs of Timepix chips so that each photon counts.
template <typename Bench>
void countAll(const Bench& bench)
{
    EXPECT_EQ(bench.setDacs(std::vector<unsigned short>(bench.chipIds().size() * 14, 9)), 0);
}

/// Checks that arguments that no device takes are refused.
template <typename Bench>
void expectArgumentsRefused(const Bench& bench)
{
    for (const int result :
         {bench->setMpx2Dacs(nullptr, 28, -1, 0, 0, 0, 0) != 0 ? 1 : 0, bench->setPixelCfg(nullptr, 65536),
          bench->writeMatrix(nullptr, 65536, false), bench->readMatrix(nullptr, 65536, true),
          bench->setTimepixClock(nullptr), bench->startAcquisition(1, std::nan("")), bench->startAcquisition(1, -1)})
        EXPECT_EQ(result, 1);
}

class Mpx2Bench : public DeviceBench<HwLatixel::Mpx2Dev, sim::Mpx2Board, unsigned short> {
public:
    explicit Mpx2Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n",
                       bool serialSection = false)
        : DeviceBench(board, settings, serialSection)
    {
    }
};

class RowBench : public DeviceBench<HwLatixel::Mpx2DevRow, sim::RowBoard, unsigned short> {
public:
    explicit RowBench(const nlohmann::json& board) : DeviceBench(board, "") {}
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
        countAll(bench);
        this->takeFrames();
        bench.wire();
    }
    /// Loses the board in the first frame of a series, for good.
    void loseBoard()
    {
        sim::addFault(0, behind(Base::START, {{"kind", "unplug"}}));
        this->expectGivenUp(3, 0.02);
        bench.expectError("Could not recover device");
    }
};

// The chips' pins as this device uses them; the others rest.
enum Pin : unsigned { PWR = 1, RST = 2, ENIN = 4, M0 = 8, M1 = 16, OUTEN = 256, ACQOVER = 1024 };

/// Frames of this board beside those of every board.
class Mpx2Wire : public BoardWire {
public:
    Mpx2Wire& pins(unsigned levels)
    {
        constexpr unsigned RESTING = 0x08A0;
        const int word = static_cast<int>(RESTING | levels);
        cmd(0, MPX, 1, 0, 0, word >> 8, word);
        return *this;
    }
    /// With power on and the chips out of reset.
    Mpx2Wire& alive(unsigned levels) { return pins(PWR | RST | levels); }
    Mpx2Wire& mux(int mask)
    {
        cmd(0, MPX, 2, 0, 0, 0, mask);
        return *this;
    }
    Mpx2Wire& reset(unsigned levels) { return pins(PWR | levels).alive(levels); }
    Mpx2Wire& powerCycle(unsigned levels)
    {
        pins(levels).cpu({0x80, 4}, 6);
        pins(PWR | levels).cpu({0x80, 3}, 6);
        return *this;
    }
    /// Firmware, head of the flash, version, names and values of the CPU.
    Mpx2Wire& identify()
    {
        cmd(2, INF, 1);
        spiExchange(2, 3, padded({0x03}, 1024));
        cpu({5}, 100).cpu({5}, 100).cpu({3}, 4096).cpu({4}, 4096).cpu({4}, 4096);
        return *this;
    }
    Mpx2Wire& timer(std::uint32_t ticks)
    {
        number(0, ACQ, 3, ticks).number(0, ACQ, 4, 0);
        return *this;
    }
    /// The clocks around a shutter.
    Mpx2Wire& clocks(std::uint32_t count, std::uint32_t divider, std::uint32_t delay)
    {
        number(0, ACQ, 0x10, count).number(0, ACQ, 0x11, divider).number(0, ACQ, 7, delay);
        number(0, ACQ, 0x14, 10).number(0, ACQ, 0x15, 100);
        return *this;
    }
    /// One opening of the shutter, until the chips rest again and the output is handed back.
    Mpx2Wire& exposure(std::uint32_t command)
    {
        alive(ENIN | ACQOVER).number(2, ACQ, 1, command);
        alive(ENIN).cmd(2, MPX, 0);
        return *this;
    }
    /// A stream through the DAC chain or past it.
    Mpx2Wire& stream(const Bytes& bytes)
    {
        data(7, MPX, 0, bytes);
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
        number(2, MPX, 5, announced).number(2, MPX, 4, bits);
        return alive(ENIN);
    }
};

} // namespace support
