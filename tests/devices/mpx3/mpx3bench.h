// A Medipix3 device on a virtual board, with the host around it, for tests.
#pragma once

#include "devices/common/boardwire.h"
#include "devices/common/devicebench.h"

#include "devices/mpx3/mpx3dev.h"
#include "sim/boards/mpx3board.h"

namespace support {

inline const std::string ONE_CHANNEL = "[Settings]\nDebugLog=1\nModule1=0\nModule2=0\nModule3=0\nModule4=0\n";
inline const std::string TWO_CHANNELS = "[Settings]\nDebugLog=1\nModule2=0\nModule3=0\nModule4=0\n";

inline nlohmann::json mpx3Board(const std::vector<int>& chipsOfChannels)
{
    nlohmann::json board = boardOf("mpx3", "M3WA");
    board["channels"] = chipNames(chipsOfChannels);
    board["firmware"] = "Firmware 3.1 M3";
    return board;
}

/// Whole frames of 12 bits, or of another depth, from one counter or from both.
inline dv::_Mpx3Config plainConfig(int counter = 0, int depth = 2)
{
    return {static_cast<unsigned char>(depth), 0, 0, static_cast<unsigned char>(counter), 1, 0, 0, 0, 1, 0, 0};
}

class Mpx3Bench : public DeviceBench<HwLatixel::Mpx3Dev, sim::Mpx3Board, unsigned> {
public:
    explicit Mpx3Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n")
        : DeviceBench(board, settings, false)
    {
    }
};

} // namespace support
