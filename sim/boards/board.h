// What hangs behind one virtual FTDI chip. The bus (the libftdi side) carries bytes and bit modes to a board and
// fetches what the board has put on its output; it knows nothing of frames. A board knows nothing of USB.
#pragma once

#include "sim/api.h"
#include "sim/types.h"
#include "sim/wire/bytequeue.h"

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace sim {

/// Something that no firmware would understand, with the bytes that it came in.
struct Violation {
    std::string board; ///< USB description of the board
    std::string what;
    Bytes bytes;
};

/// One virtual board. The bus calls every operation with the board's mutex held, so that a board needs no lock of
/// its own; what several boards share (a trigger line) protects itself.
/// A board has no thread: it computes what it would have sent by the time at which it is asked.
/// A class derived from it that tests look into (see sim::inspect) is declared LATIXELSIM_API, as this one is.
class LATIXELSIM_API Board {
public:
    explicit Board(std::string description) : usbDescription(std::move(description)) {}
    virtual ~Board() = default;
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    /// USB product description, which is the device's name for the host.
    const std::string& description() const { return usbDescription; }

    /// The host wrote `bytes`, in pieces of any size.
    virtual void receive(std::span<const std::uint8_t> bytes, Time now) = 0;
    /// Lets timers run up to `now`: what falls due is put on the output.
    virtual void advance(Time now) = 0;
    /// The FTDI chip changed its bit mode. Synchronous FIFO is 0x40, bit bang 0x01, reset 0x00.
    virtual void setBitMode(std::uint8_t mask, std::uint8_t mode, Time now) = 0;
    /// The board loses its power and gets it back: everything is as after switching on.
    virtual void powerCycle(Time now) = 0;
    /// A pulse arrives on the external trigger input. A board without that input ignores it.
    virtual void externalTrigger(Time now);

    /// Begins a fault of the board itself, as it stands in the "faults" list of a bench: {"kind": ..., ...}.
    /// Returns false for a kind that this board does not know; throws std::runtime_error for a bad value.
    virtual bool applyFault(const nlohmann::json& fault);
    /// Ends all faults that `applyFault` began.
    virtual void clearFaults();

    /// Number of bytes on the output.
    std::size_t pending() const { return output.size(); }
    /// Moves up to `room.size()` bytes from the output into `room`; returns their number.
    std::size_t take(std::span<std::uint8_t> room);
    /// Throws the output away, as a purge of the receive buffer does.
    void dropOutput() { output.clear(); }
    /// The bytes on the output, for faults that spoil them. Valid until the output changes.
    std::span<std::uint8_t> outputBytes() { return output.view(); }
    /// Keeps the first `count` bytes on the output and throws the rest away.
    void cutOutput(std::size_t count) { output.truncate(count); }

    const std::vector<Violation>& violations() const { return recorded; }
    void clearViolations() { recorded.clear(); }

protected:
    /// Puts bytes on the output.
    void emit(std::span<const std::uint8_t> bytes);
    /// Records a violation.
    void violate(std::string what, std::span<const std::uint8_t> bytes);

private:
    std::string usbDescription;
    ByteQueue output;
    std::vector<Violation> recorded;
};

} // namespace sim
