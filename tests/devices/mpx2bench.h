// A Medipix2 or Timepix device on a virtual board, with modules or with rows, and with the host around it, for tests.
#pragma once

#include "devices/devicebench.h"

#include "devices/mpx2dev.h"
#include "devices/mpx2devrow.h"
#include "sim/mpx2board.h"
#include "sim/rowboard.h"

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

class Mpx2Bench : public DeviceBench<HwLatixel::Mpx2Dev, sim::Mpx2Board, unsigned short> {
public:
    explicit Mpx2Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n",
                       bool serialSection = false)
        : DeviceBench(board, settings, flatScene(1000), serialSection)
    {
    }

    /// Sets all DACs so that each photon counts.
    void countAll() const
    {
        const std::vector<unsigned short> dacs(chips() * static_cast<std::size_t>(dev().dacCount()), 9);
        EXPECT_EQ(dev().setDacs(dacs.data(), dacs.size(), -1), 0);
    }
    std::size_t chips() const { return static_cast<std::size_t>(dev().chipCount()); }
    std::size_t pixels() const { return chips() * 65536; }
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

class RowBench : public DeviceBench<HwLatixel::Mpx2DevRow, sim::RowBoard, unsigned short> {
public:
    explicit RowBench(const nlohmann::json& board) : DeviceBench(board, "", flatScene(1000)) {}

    /// Number of chips that the host is told.
    std::size_t chips() const
    {
        dv::StrList ids;
        dev().chipIDList(&ids);
        return ids.vect().size();
    }
    void countAll() const
    {
        const std::vector<unsigned short> dacs(chips() * 14, 9);
        EXPECT_EQ(dev().setDacs(dacs.data(), dacs.size(), -1), 0);
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
    /// A stream through the DAC chain or past it.
    Mpx2Wire& stream(const Bytes& bytes)
    {
        data(7, 1, 0, bytes);
        return *this;
    }
    Mpx2Wire& dacs(const Bytes& bytes) { return alive(M0 | OUTEN).stream(bytes).alive(M0 | ENIN); }
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
