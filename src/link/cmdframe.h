// The 9-byte command frame of the readout boards, the commands that all boards know, and the core of a command
// manager: what the protocols of the chip generations have in common stands here once.
#pragma once

#include "link/cmdmgrbase.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace HwLatixel {

/// Bits of a frame's flags byte.
namespace cmdflag {
inline constexpr unsigned char NONE = 0;
inline constexpr unsigned char PAYLOAD = 1; ///< "D": a payload follows; the arguments hold its length.
inline constexpr unsigned char OUTPUT = 2;  ///< "O": the addressed peripheral takes the output to the host.
inline constexpr unsigned char ACT = 4;     ///< "A": the payload is acted on at once.
/// A payload that is shifted through at once while the answer comes back.
inline constexpr unsigned char EXCHANGE = PAYLOAD | OUTPUT | ACT;
} // namespace cmdflag

/// The firmware's units. Number 1 is the path to the chips, under another name in each generation.
enum class Perif : std::uint8_t { Chip = 1, Info = 2, Clock = 3, Spi = 4, Acq = 5, Reset = 6 };

/// Commands of the path to the chips that all generations share.
enum class ChipCmd : std::uint8_t {
    Data = 0, ///< Without payload and with `cmdflag::OUTPUT`: hands the output back to the chips.
    Pins = 1, ///< The chips' control pins.
};

enum class InfoCmd : std::uint8_t {
    Info = 1, ///< Answers `FIRMWARE_TEXT_SIZE` bytes of firmware text.
};

enum class SpiCmd : std::uint8_t {
    Data = 0,          ///< Payload for the slave.
    Set = 1,           ///< d0: mode; d1 to d3: clock divider.
    ChipSelect = 2,    ///< d3: chip select, 0 for none.
    Send = 3,          ///< Shifts out a payload that was sent without `cmdflag::ACT`.
    BiasDischarge = 4, ///< d3: 4 closes the bias discharge switch, 0 opens it.
};

enum class AcqCmd : std::uint8_t {
    Start = 1,           ///< d0: start flags; d1 to d3: frame word.
    Stop = 2,            ///< Ends the running frame.
    CountLow = 3,        ///< d0 to d3: bytes 3, 2, 1, 0 of the shutter count.
    CountHigh = 4,       ///< d2, d3: bytes 5, 4 of the shutter count.
    TriggerSettings = 5, ///< d3: trigger word.
};

/// Bytes of the text that the firmware answers to `InfoCmd::Info`.
inline constexpr unsigned long FIRMWARE_TEXT_SIZE = 29;
/// Bytes of the packet that the firmware sends at the end of each frame.
inline constexpr unsigned long END_OF_FRAME_SIZE = 9;

/// The peripheral that a command belongs to. A protocol with commands of its own adds a function for its enumeration.
constexpr Perif perifOf(ChipCmd)
{
    return Perif::Chip;
}
constexpr Perif perifOf(InfoCmd)
{
    return Perif::Info;
}
constexpr Perif perifOf(SpiCmd)
{
    return Perif::Spi;
}
constexpr Perif perifOf(AcqCmd)
{
    return Perif::Acq;
}

template <typename E>
concept CommandEnum = requires(E command)
{
    {
        perifOf(command)
        } -> std::same_as<Perif>;
};

/// A command with its peripheral. Each command enumeration converts to it by itself, so that a call can't send a
/// command to the wrong peripheral.
struct CmdId {
    template <CommandEnum E>
    constexpr CmdId(E c) : perif(static_cast<std::uint8_t>(perifOf(c))),
                           command(static_cast<std::uint8_t>(c))
    {
    }

    std::uint8_t perif;
    std::uint8_t command;
};

/// The four argument bytes of a frame; `d0` is the most significant byte of a word.
struct CmdArgs {
    unsigned char d0 = 0;
    unsigned char d1 = 0;
    unsigned char d2 = 0;
    unsigned char d3 = 0;

    /// A 32-bit word over all four bytes.
    static constexpr CmdArgs word(std::uint32_t value)
    {
        return {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    }
    /// A byte in d0 and the low 24 bits of `value` in d1 to d3.
    static constexpr CmdArgs byteAnd24(unsigned char first, std::uint32_t value)
    {
        CmdArgs args = word(value);
        args.d0 = first;
        return args;
    }
    /// A byte in d3.
    static constexpr CmdArgs low(unsigned char value) { return {0, 0, 0, value}; }

    constexpr std::uint32_t asWord() const
    {
        return std::uint32_t{d0} << 24 | std::uint32_t{d1} << 16 | std::uint32_t{d2} << 8 | d3;
    }
};

/// One command frame.
struct CmdFrame {
    static constexpr std::size_t SIZE = 9;
    static constexpr unsigned char SYNC = 0x55;
    static constexpr unsigned char END = 0xAA;

    unsigned char flags = 0;
    unsigned char perif = 0;
    unsigned char command = 0;
    CmdArgs args;

    /// The bytes on the wire.
    constexpr std::array<unsigned char, SIZE> encode() const
    {
        return {SYNC, flags, perif, command, args.d0, args.d1, args.d2, args.d3, END};
    }
};

/// The names of one protocol's peripherals, commands and pins, for the log.
struct ProtocolNames {
    std::span<const char* const> perifs;
    /// Command names for each peripheral; an empty list where it has no commands.
    std::span<const std::span<const char* const>> commands;
    /// Names of the pins, from bit 0 on; empty where a bit has none.
    std::span<const char* const> pins;

    /// Name of a peripheral, "???" beyond the table.
    const char* perifName(unsigned char perif) const;
    /// Name of a command, "???" beyond the tables.
    const char* commandName(unsigned char perif, unsigned char command) const;
    /// For the pins command the names of the set pins, each followed by a blank; otherwise empty.
    std::string argsText(const CmdFrame& frame) const;
};

/// A table of `Count` command names from number 0 on, filled up with empty ones, which the log prints as nothing.
template <std::size_t Count, typename... Name>
constexpr std::array<const char*, Count> commandNames(Name... name)
{
    std::array<const char*, Count> table{name...};
    for (std::size_t i = sizeof...(name); i < Count; ++i)
        table[i] = "";
    return table;
}

/// Core of a command manager: frames commands, writes them to the link and keeps the last failure. It holds no
/// protocol state: whoever takes the firmware's output for a peripheral hands it back to the chips.
///
/// Results are 0, or the failed transfer's result or count; then `getLastError` has the words and the log has a
/// line. Times are in seconds. Nothing here retries.
///
/// Locks: all that sends is an `Exchange` of its own, a payload with its frame, an answer with its question. Bare
/// receives take no lock. What spans several of these is one `Exchange` of the caller's.
class ACmdMgr : public CmdMgrBase {
public:
    /// Sends one bare frame.
    int send(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
             unsigned char d3, unsigned char flags);
    /// Sends a frame with `size` bytes of payload behind it; `cmdflag::PAYLOAD` is set in any case.
    int send(unsigned char peripheral, unsigned char command, const unsigned char* data, unsigned long size,
             unsigned char flags);
    /// The same two, with command and peripheral as one.
    int send(CmdId id, CmdArgs args = {}, unsigned char flags = cmdflag::NONE)
    {
        return send(id.perif, id.command, args.d0, args.d1, args.d2, args.d3, flags);
    }
    int send(CmdId id, const unsigned char* data, unsigned long size, unsigned char flags)
    {
        return send(id.perif, id.command, data, size, flags);
    }

    /// Waits for one packet of `size` bytes, at most `timeout` seconds. The board is asked for a second at a time,
    /// or for what is left of them, so an abort is noticed about once a second, and bytes of an incomplete packet are
    /// dropped. A failing link is reported and waited for: only the deadline and a closing link end the wait. It is no
    /// `Exchange`.
    /// @param abort          polled flag that ends the wait, or null
    /// @param reportTimeout  whether reaching the deadline is an error to report
    /// @param sleepBetween   sleep 2 ms between two attempts
    /// @return 0, -1 at the deadline or when the link is closing, -2 when aborted
    int waitForPacket(double timeout, bool* abort, char* buffer, unsigned long size, bool reportTimeout,
                      bool sleepBetween);

    /// Writes a line of its own into the debug log, with an empty line before it and no time stamp.
    void logCommand(const std::string& text);

protected:
    /// Link and log are not owned; `log` may be null, which switches all logging off. `names` outlives the manager.
    ACmdMgr(FtdiDev* ftdi, FileLog* log, const ProtocolNames& names);

    /// Sends bytes without a frame; none for a `size` of 0.
    int sendRawBytes(const unsigned char* data, unsigned long size);
    /// Receives `*size` bytes, dumps what came and stores its count in `*size`. A negative result leaves `*size` alone
    /// and is reported as "Could not receive" with the name `what`.
    int receiveBytes(unsigned char* buffer, unsigned long* size, double timeout, const char* what, bool ascii);
    /// Takes what has arrived, up to `*size` bytes in ten reads with no time limit; the count goes to `*size`, 0 on
    /// failure.
    int receiveArrived(unsigned char* buffer, unsigned long* size);

private:
    int sendFrame(const CmdFrame& frame);
    void logFrame(const CmdFrame& frame, const std::string& lastField);

    const ProtocolNames& names;
};

} // namespace HwLatixel
