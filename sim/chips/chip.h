// What all readout chips have in common.
#pragma once

#include "sim/types.h"

#include <string>

namespace sim {

/// Where a chip looks at the scene.
struct ChipPlace {
    unsigned number = 0; ///< among all chips of the board, in the order of channels or modules
    unsigned total = 1;  ///< chips of the board
};

/// A chip's identifier: letter (1 for A), position on the wafer, wafer.
struct ChipId {
    unsigned letter = 0;
    unsigned position = 0;
    unsigned wafer = 0;
};

/// Reads an identifier as people write it, "C07-W0123". Throws std::runtime_error, with a text for people, for one of
/// another form or beyond these limits.
ChipId readChipId(const std::string& id, unsigned lastPosition, unsigned lastWafer);

/// A byte of fuses as it is shifted out.
std::uint8_t lowestBitFirst(unsigned byte);

/// What a chip shifts out, with a number that changes whenever the bytes may have changed.
struct ChipStream {
    Bytes bytes;
    std::uint64_t version = 0;
};

} // namespace sim
