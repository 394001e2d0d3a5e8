// Commands and argument words that only the firmware of Medipix3 boards knows.
#pragma once

#include "link/cmdframe.h"

namespace HwLatixel::mpx3 {

/// Commands of the path to the chips ("MPX").
enum class MpxCmd : std::uint8_t {
    Data = 0,             ///< As `ChipCmd::Data`; with a payload and flags 5, clocked through during a fast clear.
    Pins = 1,             ///< d3: pin word, see `pinword`.
    Start = 2,            ///< d0: counter selection; d1 to d3: bits to read. Answers the matrix stream.
    Channels = 3,         ///< d2: mask of channels whose data are enabled; d3: mask of channels selected.
    StreamParams = 4,     ///< Arguments of `Start`, stored for the firmware's own readouts.
    Omr0High = 5,         ///< d0 to d3: bytes 4 to 7 of the register image with mode 0.
    Omr0Low = 6,          ///< d0 to d3: bytes 0 to 3 of that image.
    Omr4High = 7,         ///< d0 to d3: bytes 4 to 7 of the register image with mode 4.
    Omr4Low = 8,          ///< d0 to d3: bytes 0 to 3 of that image.
    ContinuousRw = 9,     ///< d3: 1 switches continuous read-write readout on, 0 off.
    TwoChipsChannel = 10, ///< d3: 1 selects two chips for each channel.
    Shift = 255,          ///< Payload is shifted into the chips; with flags 7 as many bytes come back.
};

constexpr Perif perifOf(MpxCmd)
{
    return Perif::Chip;
}

/// Pin words, in d3 of `MpxCmd::Pins`. Bit 0 is power, bit 1 the reset (active low), bit 2 the fast clear (active
/// low); bit 3 has no name and goes with the reset pulse.
namespace pinword {
inline constexpr unsigned char POWER_ON = 7;
inline constexpr unsigned char POWER_OFF = 6;
inline constexpr unsigned char RESET_LOW = 0x0D;
inline constexpr unsigned char RESET_HIGH = 0x0F; ///< Behind `RESET_LOW`; the chips need 1 s after it.
inline constexpr unsigned char FAST_CLEAR_LOW = 3;
inline constexpr unsigned char FAST_CLEAR_HIGH = 7;
inline constexpr unsigned char MATRIX_WRITTEN = 0x0F; ///< At the end of a matrix write.
} // namespace pinword

/// Zero bytes that are clocked through between the two pin words of a fast clear.
inline constexpr unsigned long FAST_CLEAR_SIZE = 80;

/// Start flags, in d0 of `AcqCmd::Start`.
namespace startflag {
inline constexpr unsigned char ALWAYS = 1;
inline constexpr unsigned char START_ON_TRIGGER = 2; ///< The frame's start waits for the external trigger.
inline constexpr unsigned char STOP_ON_TRIGGER = 4;  ///< The frame's stop waits for the external trigger.
inline constexpr unsigned char CONTINUOUS_RW = 8;    ///< Continuous read-write mode.
} // namespace startflag

/// Bits of the trigger word, in d3 of `AcqCmd::TriggerSettings`, that only these boards know.
namespace triggerword {
inline constexpr unsigned char TDI_SERIES = 0x20;
} // namespace triggerword

/// d3 of `SpiCmd::BiasDischarge`.
namespace biasdischarge {
inline constexpr unsigned char CLOSED = 4;
inline constexpr unsigned char OPEN = 0;
} // namespace biasdischarge

/// Counts of the shutter counter in one second: one count is 10 ns. The end-of-frame packet counts in the same unit.
inline constexpr double SHUTTER_COUNTS_PER_SECOND = 1e8;

/// Real shutter time in seconds, from bytes 3 to 7 (big-endian) of the `END_OF_FRAME_SIZE` bytes of an end-of-frame
/// packet.
constexpr double shutterTimeOf(const unsigned char* endOfFrame)
{
    std::uint64_t counts = 0;
    for (int i = 3; i <= 7; ++i)
        counts = counts << 8 | endOfFrame[i];
    return static_cast<double>(counts) / SHUTTER_COUNTS_PER_SECOND;
}

} // namespace HwLatixel::mpx3
