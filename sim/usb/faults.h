// Faults that lie on top of any board: they sit between the bus and the board, and spoil or stop what passes.
// Everything here is called with the mutex of the bridge held that owns the layer.
//
// In a bench a fault is {"kind": ..., "when": ..., "times": ..., "seconds": ..., ... keys of the kind}. "when" says
// when it begins, at once if missing: {"after_reads": n}, {"after_writes": n}, {"after_bytes": n} (read),
// {"after_s": seconds} or {"after_written": "55 02 05", "occurrence": n}. It ends after "seconds", or when it has hit
// "times" reads or writes. A read counts if it brought bytes, or would have but for the fault.
//   error          transfers fail with "result" (-1) and "text"; "on": "transfers", or "read" or "write" alone, or
//                  "open" or "strings" (the chip cannot be opened, or does not tell its texts); for good
//   silence        the board's output vanishes; for good
//   late           the board's output stays away for "seconds"
//   short_read     the output is cut to "bytes"; once
//   garbage        "bytes" (all) of the output from "offset" (0) on are random from "seed" (1); once
//   stalled_write  writes move only "bytes" (0), wait for the rest, and fail when the host's time limit is over; for
//   good mute           the chip answers nothing until the host's time limit is over; "on": "all", or "read" or
//   "control"
//                  alone; for good
//   unplug         the chip leaves the bus, and is back after "replug_after_s", or not at all
// Every other kind is one of the board's own.
#pragma once

#include "sim/boards/board.h"

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sim {

/// How a step on the bus ended: a count or 0, or the negative result of libftdi. `text` is set where a fault brings
/// an error text of its own; it stays valid for good.
struct UsbResult {
    int value = 0;
    const char* text = nullptr;
};

/// What the host does that a fault can refuse.
enum class UsbStep { Open, Strings, Read, Write, Control };

/// What faults act on: the bridge that the layer belongs to.
class FaultTarget {
public:
    virtual ~FaultTarget() = default;
    virtual Board& faultyBoard() = 0;
    /// Pulls the plug at `now`, to be put back `replugAfter` later, or not at all.
    virtual void pullPlug(std::optional<Clock::duration> replugAfter, Time now) = 0;
    /// Records what went wrong with a fault as a violation.
    virtual void report(std::string what) = 0;
};

/// What one kind of fault does while it acts. A fault overrides only the points at which it steps in.
class Fault {
public:
    virtual ~Fault() = default;
    /// The moment of the plan has come.
    virtual void begin(FaultTarget& /*target*/, Time /*now*/) {}
    /// The result that the step ends with instead of being done.
    virtual std::optional<UsbResult> refuse(UsbStep /*step*/) { return std::nullopt; }
    /// Spoils the output, which is not empty. `again`: it did so before during this read. Returns true if it did.
    virtual bool spoil(Board& /*board*/, bool /*again*/) { return false; }
    /// True if the output is to stay where it is for now.
    virtual bool withholds() const { return false; }
    /// True if the chip leaves the step without an answer for now.
    virtual bool isMute(UsbStep /*step*/) { return false; }
    /// How many of `size` bytes a write moves.
    virtual std::size_t writable(std::size_t size) { return size; }
};

/// When a fault begins. Counts from the moment at which it is made.
class Trigger {
public:
    /// `when` as in a bench; empty for at once. Throws std::runtime_error for a bad one.
    Trigger(const nlohmann::json& when, Time now);

    bool due(Time now) const;
    /// The moment at which it fell due, which may lie before `now`.
    Time moment(Time now) const;
    /// Bytes that may still be read before it falls due.
    std::size_t bytesLeft() const;

    void countRead();
    void countReadBytes(std::size_t count);
    void countWrite();
    void countWritten(std::span<const std::uint8_t> bytes);

private:
    enum class On { Start, AfterReads, AfterWrites, AfterBytes, AfterWritten, AfterTime };

    void readCondition(const nlohmann::json& when, Time now);

    On on = On::Start;
    std::uint64_t left = 0; ///< events to come before it falls due
    Time at{};
    Bytes sequence; ///< what the host has to write
    Bytes tail;     ///< end of what it wrote, shorter than the sequence
};

/// The faults of one board: those that wait for their moment and those that act.
class FaultLayer {
public:
    explicit FaultLayer(FaultTarget& faultTarget) : target(faultTarget) {}

    /// Adds a fault as it stands in a bench. A kind that the layer doesn't know goes to the board.
    /// Throws std::runtime_error for an unknown kind or a bad value.
    void add(const nlohmann::json& fault, Time now);
    /// Ends and forgets all faults, also those of the board.
    void clear();
    bool empty() const { return plans.empty(); }

    /// Begins what has fallen due and ends what is over.
    void settle(Time now);
    /// The result of a fault that refuses this step.
    std::optional<UsbResult> refuse(UsbStep step, Time now);

    /// Lets faults spoil the board's output; returns how many bytes of it the host may take now.
    std::size_t readable(Time now);
    /// The host took bytes off the output.
    void tookBytes(std::size_t count, Time now);
    /// A read of the host ended that brought it `count` bytes.
    void endRead(std::size_t count, Time now);

    /// True if a fault leaves the step without an answer for now.
    bool isMute(UsbStep step, Time now);
    /// The host has waited for that answer until its time was over.
    void gaveUp() { countHits(); }

    /// How many of `size` bytes a write moves for now.
    std::size_t writable(std::size_t size, Time now);
    /// A write of the host ended that moved `bytes`.
    void endWrite(std::span<const std::uint8_t> bytes, Time now);

private:
    struct Plan {
        Trigger trigger;
        std::unique_ptr<Fault> fault;
        std::optional<std::uint64_t> times;     ///< reads or writes that it still hits; for good if not set
        std::optional<Clock::duration> lasting; ///< how long it acts; for good if not set
        bool acting = false;
        bool hit = false; ///< it stepped in during the present read or write
        Time until = Time::max();
    };

    void begin(Plan& plan, Time now);
    void countHits();

    FaultTarget& target;
    std::vector<Plan> plans;
};

} // namespace sim
