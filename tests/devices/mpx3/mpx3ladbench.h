// A composite of Medipix3 boards on the virtual bus, for tests.
#pragma once

#include "devices/common/ladbench.h"
#include "devices/mpx3/mpx3bench.h"

#include "devices/mpx3/mpx3laddev.h"

namespace support {

using Mpx3LadBench = LadBench<HwLatixel::Mpx3LadDev, sim::Mpx3Board, unsigned>;

inline const std::string TWO_CHANNELS_EACH = "Module2=0\nModule3=0\nModule4=0\n";

/// Two boards with these channels; the first one's trigger output is wired to the other.
inline nlohmann::json mpx3LadBoards(const std::vector<int>& channels = {1, 1})
{
    nlohmann::json board = mpx3Board(channels);
    board["trigger_line"] = "lad";
    return ladBoards(2, board);
}

} // namespace support
