// A Medipix3 device on a virtual board, with the host around it, for tests.
#pragma once

#include "devices/common/devicebench.h"

#include "devices/mpx3/mpx3dev.h"
#include "sim/boards/mpx3board.h"

namespace support {

/// The board that most tests use: flat light without noise, flash with a bias calibration, CPU.
inline nlohmann::json mpx3Board(int channels, int chipsPerChannel = 1)
{
    nlohmann::json board = nlohmann::json::parse(R"({
        "kind": "mpx3",
        "description": "Latixel Latixel M3WA sn: 7 A",
        "firmware": "Firmware 3.1 M3",
        "channels": [],
        "flash": {"parameters": [
            {"name": "BiasMin", "type": "double", "value": 0.0},
            {"name": "BiasMax", "type": "double", "value": 150.0},
            {"name": "Table", "type": "i32", "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12]}]},
        "cpu": {"version": "CPU 1.2", "values": [["TempCpu", "35.5"], ["*Fan", "1"]]}
    })");
    for (int c = 0; c < channels; ++c) {
        nlohmann::json chips = nlohmann::json::array();
        for (int k = 0; k < chipsPerChannel; ++k)
            chips.push_back("C0" + std::to_string(c) + "-W010" + std::to_string(k));
        board["channels"].push_back(chips);
    }
    return board;
}

class Mpx3Bench : public DeviceBench<HwLatixel::Mpx3Dev, sim::Mpx3Board, unsigned> {
public:
    explicit Mpx3Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n",
                       const nlohmann::json& scene = flatScene(1000))
        : DeviceBench(board, settings, scene, false)
    {
    }
};

} // namespace support
