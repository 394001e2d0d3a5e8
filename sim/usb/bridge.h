// One virtual FTDI chip with its board: plugging, bit mode, latency, pace, and the transfers of one session.
#pragma once

#include "sim/usb/faults.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sim {

/// What the chip tells about itself on USB. Its product description is the board's.
struct UsbIdentity {
    std::string manufacturer = "FTDI";
    std::string serial;
    std::uint16_t vendor = 0x0403;
    std::uint16_t product = 0x6010;
};

/// How fast the link is.
struct LinkSpeed {
    double bytesPerSecond = 0;              ///< 0: as fast as memory
    std::optional<Clock::duration> latency; ///< what an idle read waits, in place of the chip's latency timer
};

/// Number of one plugging in: every time a chip is put on the bus it gets a new one, greater than all before.
/// Whoever saw the chip under an old number finds no device there.
using Plugging = std::uint64_t;

/// Every operation may be called from any thread. None but `read` and `write` waits, and these let go of the mutex
/// meanwhile.
class Bridge final : private FaultTarget {
public:
    Bridge(std::unique_ptr<Board> board, UsbIdentity identity, LinkSpeed speed);

    const UsbIdentity& identity() const { return usbIdentity; }
    const std::string& description() const { return board->description(); }

    /// Puts the chip on the bus, powered anew, unless it is there.
    void plug();
    void unplug();
    /// The present plugging, or nothing while it is off the bus.
    std::optional<Plugging> plugging();

    /// Opens the chip to look at it: 0, or negative for want of the device or of permission.
    UsbResult open(Plugging session);
    /// Asks for the text descriptors: 0, or negative.
    UsbResult fetchStrings(Plugging session);
    /// Takes the chip for one session. Returns false if another has it, or it is gone.
    bool claim(Plugging session);
    /// Gives it back. Returns false if the chip is gone.
    bool release(Plugging session);

    /// Waits until the chip answers control requests. Returns false if it does not within `limit`.
    bool awaitAnswer(Plugging session, Clock::duration limit);

    // Control requests; false or nothing if the chip is gone.
    /// Any request without an effect on the bytes.
    bool answers(Plugging session);
    /// Throws away what the board has sent and the host did not fetch.
    bool purge(Plugging session);
    bool setBitMode(Plugging session, std::uint8_t mask, std::uint8_t mode);
    bool setLatency(Plugging session, std::uint8_t milliseconds);
    std::optional<std::uint8_t> latency(Plugging session);

    /// A read of the host begins: 0, or negative if a fault refuses it.
    UsbResult beginRead();
    /// One transfer to the host. It ends with what has arrived, of which up to `room.size()` bytes are moved, or with
    /// 0 after a latency period without any. `wanted` is what the host asked for, which may be less than there is
    /// room for. Negative if the device is gone, or does not answer within `limit`.
    UsbResult transferIn(Plugging session, std::span<std::uint8_t> room, std::size_t wanted, Clock::duration limit);
    /// The read ends, having brought `count` bytes.
    void endRead(std::size_t count);
    /// Moves all bytes to the board and tells their number, or is negative: also when the board has not taken all
    /// within `limit`.
    UsbResult write(Plugging session, std::span<const std::uint8_t> bytes, Clock::duration limit);

    /// Everything that the host wrote to the board since `clearTraffic`.
    Bytes traffic();
    void clearTraffic();
    /// Violations of the board and those of the link.
    std::vector<Violation> violations();
    /// Adds a fault as it stands in a bench. Throws std::runtime_error for a bad one.
    void addFault(const nlohmann::json& fault);
    void clearFaults();
    void pulseTrigger();
    /// Runs `look` on the board with the mutex held.
    void withBoard(void (*look)(Board&, void*), void* user);

private:
    Board& faultyBoard() override { return *board; }
    void pullPlug(std::optional<Clock::duration> replugAfter, Time now) override;
    void report(std::string what) override;

    // The mutex is held for all of these.
    bool alive(Plugging session);
    void settle(Time now);
    void putOn(Time now);
    Clock::duration idlePeriod() const;
    std::size_t takeArrived(std::span<std::uint8_t> room, std::size_t wanted);
    bool outlasts(std::unique_lock<std::mutex>& lock, UsbStep step, Plugging session, Time deadline);
    void deliver(std::span<const std::uint8_t> bytes);
    void occupyWire(std::unique_lock<std::mutex>& lock, std::size_t count);

    const UsbIdentity usbIdentity;
    const LinkSpeed speed;

    std::mutex mutex; ///< guards everything below, and the board
    std::unique_ptr<Board> board;
    FaultLayer faults;
    std::optional<Plugging> present;
    std::optional<Plugging> claimed;
    std::optional<Time> replugAt;
    std::uint8_t bitMode;
    std::uint8_t latencyMs;
    Time wireFree{}; ///< end of what the wire carries at the pace of the link
    Bytes recorded;
    std::vector<Violation> strayed;
};

} // namespace sim
