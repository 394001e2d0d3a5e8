// Commands and argument words that only the firmware of Medipix2 and Timepix boards knows.
#pragma once

#include "link/cmdframe.h"

namespace HwLatixel::tpx {

/// Commands of the path to the chips ("TPX").
enum class TpxCmd : std::uint8_t {
    Data = 0,           ///< As `ChipCmd::Data`; with a payload and flags 7, a chip stream: as many bytes come back.
    Pins = 1,           ///< d2: pins 8 to 12; d3: pins 0 to 7, see `TpxPins`.
    Mux = 2,            ///< d3: mask of modules or channels.
    ClockTest = 3,      ///< Answers a status byte and 14 bytes of test pattern.
    Readout = 4,        ///< Bits to clock, 32-bit. Answers the matrix stream.
    AnnounceLength = 5, ///< Bytes of the stream that follows minus 10, 32-bit; on row boards, the row bit count.
};
constexpr Perif perifOf(TpxCmd)
{
    return Perif::Chip;
}

/// Commands of the acquisition unit beyond those that all boards know.
enum class TpxAcqCmd : std::uint8_t {
    PreShutterWait = 7,       ///< d2, d3: delay in clocks.
    PreShutterClocks = 0x10,  ///< d1 to d3: clocks.
    PreShutterDivider = 0x11, ///< 32-bit.
    ClockDivider = 0x13,      ///< Divider of the Timepix clock, 32-bit.
    Count3 = 0x14,            ///< d3: 10.
    Divider3 = 0x15,          ///< d3: 100.
};
constexpr Perif perifOf(TpxAcqCmd)
{
    return Perif::Acq;
}

/// Start flags, in d0 of `AcqCmd::Start`. The frame word in d1 to d3 is 1 for a single frame.
namespace startflag {
inline constexpr unsigned char CONTINUOUS = 1;
inline constexpr unsigned char START_ON_TRIGGER = 2; ///< The frame's start waits for the external trigger.
inline constexpr unsigned char STOP_ON_TRIGGER = 4;  ///< The frame's stop waits for the external trigger.
} // namespace startflag
inline constexpr std::uint32_t SINGLE_FRAME = 1;

/// MHz of the clock that the Timepix clock is divided from.
inline constexpr double CLOCK_BASE_MHZ = 50.0;
/// Ticks of the shutter timer in one second, and of the time in the end-of-frame packet.
inline constexpr double SHUTTER_TICKS_PER_SECOND = 50e6;
inline constexpr double ROW_SHUTTER_TICKS_PER_SECOND = 100e6; ///< on row boards

inline constexpr unsigned long CLOCK_TEST_SIZE = 15; ///< bytes that `TpxCmd::ClockTest` answers

} // namespace HwLatixel::tpx
