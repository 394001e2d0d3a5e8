// The virtual FTDI chip. Results are those that libusb and libftdi give for the same trouble on a real one.
#include "sim/usb/bridge.h"

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>
#include <thread>

namespace sim {

namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t SYNCHRONOUS_FIFO = 0x40;
constexpr std::uint8_t LATENCY_AT_POWER_ON_MS = 16;

constexpr UsbResult NO_DEVICE{-4};
constexpr UsbResult CABLE_PULLED{-1};
constexpr UsbResult WRITE_FAILED{-1};
constexpr UsbResult TIMED_OUT{-7};

constexpr auto POLL_PERIOD = 100us;  ///< how often a waiting read looks at the board
constexpr auto STALLED_PERIOD = 1ms; ///< how often a wait for a chip that stalls looks at it
constexpr auto OVERSLEEPING = 500us; ///< what a sleep may take too long without the wire losing its pace

Plugging nextPlugging()
{
    static std::atomic<Plugging> last{0};
    return ++last;
}

} // namespace

Bridge::Bridge(std::unique_ptr<Board> newBoard, UsbIdentity identity, LinkSpeed linkSpeed)
    : usbIdentity(std::move(identity)),
      speed(linkSpeed),
      board(std::move(newBoard)),
      faults(*this),
      bitMode(0),
      latencyMs(LATENCY_AT_POWER_ON_MS)
{
}

void Bridge::plug()
{
    const std::scoped_lock lock(mutex);
    if (!present)
        putOn(Clock::now());
}

void Bridge::unplug()
{
    const std::scoped_lock lock(mutex);
    pullPlug(std::nullopt, Clock::now());
}

std::optional<Plugging> Bridge::plugging()
{
    const std::scoped_lock lock(mutex);
    settle(Clock::now());
    return present;
}

UsbResult Bridge::open(Plugging session)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session))
        return NO_DEVICE;
    return faults.refuse(UsbStep::Open, Clock::now()).value_or(UsbResult{});
}

UsbResult Bridge::fetchStrings(Plugging session)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session))
        return NO_DEVICE;
    return faults.refuse(UsbStep::Strings, Clock::now()).value_or(UsbResult{});
}

bool Bridge::claim(Plugging session)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session) || claimed == session)
        return false;
    claimed = session;
    return true;
}

bool Bridge::release(Plugging session)
{
    const std::scoped_lock lock(mutex);
    if (claimed == session)
        claimed.reset();
    return alive(session);
}

bool Bridge::awaitAnswer(Plugging session, Clock::duration limit)
{
    std::unique_lock lock(mutex);
    return outlasts(lock, UsbStep::Control, session, Clock::now() + limit);
}

bool Bridge::answers(Plugging session)
{
    const std::scoped_lock lock(mutex);
    return alive(session);
}

bool Bridge::purge(Plugging session)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session))
        return false;
    board->advance(Clock::now());
    board->dropOutput();
    return true;
}

bool Bridge::setBitMode(Plugging session, std::uint8_t mask, std::uint8_t mode)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session))
        return false;
    const Time now = Clock::now();
    board->advance(now);
    bitMode = mode;
    board->setBitMode(mask, mode, now);
    return true;
}

bool Bridge::setLatency(Plugging session, std::uint8_t milliseconds)
{
    const std::scoped_lock lock(mutex);
    if (!alive(session))
        return false;
    latencyMs = milliseconds;
    return true;
}

std::optional<std::uint8_t> Bridge::latency(Plugging session)
{
    const std::scoped_lock lock(mutex);
    return alive(session) ? std::optional(latencyMs) : std::nullopt;
}

UsbResult Bridge::beginRead()
{
    const std::scoped_lock lock(mutex);
    return faults.refuse(UsbStep::Read, Clock::now()).value_or(UsbResult{});
}

UsbResult Bridge::transferIn(Plugging session, std::span<std::uint8_t> room, std::size_t wanted, Clock::duration limit)
{
    std::unique_lock lock(mutex);
    if (!alive(session))
        return NO_DEVICE;
    if (!outlasts(lock, UsbStep::Read, session, Clock::now() + limit))
        return TIMED_OUT;
    if (!alive(session))
        return CABLE_PULLED;
    const Time deadline = Clock::now() + idlePeriod();
    std::size_t count = takeArrived(room, wanted);
    while (count == 0 && Clock::now() < deadline) {
        lock.unlock();
        std::this_thread::sleep_until(std::min(deadline, Clock::now() + POLL_PERIOD));
        lock.lock();
        if (!alive(session))
            return CABLE_PULLED;
        count = takeArrived(room, wanted);
    }
    occupyWire(lock, count);
    if (!alive(session))
        return CABLE_PULLED;
    return {static_cast<int>(count)};
}

void Bridge::endRead(std::size_t count)
{
    const std::scoped_lock lock(mutex);
    faults.endRead(count, Clock::now());
}

UsbResult Bridge::write(Plugging session, std::span<const std::uint8_t> bytes, Clock::duration limit)
{
    std::unique_lock lock(mutex);
    if (!alive(session))
        return WRITE_FAILED;
    if (const auto refusal = faults.refuse(UsbStep::Write, Clock::now()))
        return *refusal;
    const Time deadline = Clock::now() + limit;
    std::size_t moved = 0;
    for (;;) {
        const std::size_t movable = std::max(moved, faults.writable(bytes.size(), Clock::now()));
        const auto part = bytes.subspan(moved, movable - moved);
        occupyWire(lock, part.size());
        if (!alive(session))
            return WRITE_FAILED;
        if (!part.empty())
            deliver(part);
        moved = movable;
        if (moved == bytes.size() || Clock::now() >= deadline)
            break;
        lock.unlock();
        std::this_thread::sleep_for(STALLED_PERIOD);
        lock.lock();
        if (!alive(session))
            return WRITE_FAILED;
    }
    faults.endWrite(bytes.first(moved), Clock::now());
    return moved == bytes.size() ? UsbResult{static_cast<int>(moved)} : WRITE_FAILED;
}

Bytes Bridge::traffic()
{
    const std::scoped_lock lock(mutex);
    return recorded;
}

void Bridge::clearTraffic()
{
    const std::scoped_lock lock(mutex);
    recorded.clear();
}

std::vector<Violation> Bridge::violations()
{
    const std::scoped_lock lock(mutex);
    std::vector<Violation> all = board->violations();
    all.insert(all.end(), strayed.begin(), strayed.end());
    return all;
}

void Bridge::addFault(const nlohmann::json& fault)
{
    const std::scoped_lock lock(mutex);
    faults.add(fault, Clock::now());
}

void Bridge::clearFaults()
{
    const std::scoped_lock lock(mutex);
    faults.clear();
}

void Bridge::pulseTrigger()
{
    const std::scoped_lock lock(mutex);
    const Time now = Clock::now();
    board->advance(now);
    board->externalTrigger(now);
}

void Bridge::withBoard(void (*look)(Board&, void*), void* user)
{
    const std::scoped_lock lock(mutex);
    look(*board, user);
}

void Bridge::pullPlug(std::optional<Clock::duration> replugAfter, Time now)
{
    present.reset();
    claimed.reset();
    replugAt.reset();
    if (replugAfter)
        replugAt = now + *replugAfter;
}

void Bridge::report(std::string what)
{
    strayed.push_back({description(), std::move(what), {}});
}

bool Bridge::alive(Plugging session)
{
    settle(Clock::now());
    return present == session;
}

void Bridge::settle(Time now)
{
    faults.settle(now);
    if (!present && replugAt && now >= *replugAt)
        putOn(now);
}

void Bridge::putOn(Time now)
{
    replugAt.reset();
    present = nextPlugging();
    bitMode = 0;
    latencyMs = LATENCY_AT_POWER_ON_MS;
    board->dropOutput();
    board->powerCycle(now);
}

Clock::duration Bridge::idlePeriod() const
{
    return speed.latency.value_or(std::chrono::milliseconds(latencyMs));
}

std::size_t Bridge::takeArrived(std::span<std::uint8_t> room, std::size_t wanted)
{
    const Time now = Clock::now();
    board->advance(now);
    if (bitMode != SYNCHRONOUS_FIFO)
        return 0;
    if (faults.empty())
        return board->take(room);
    // A plan counts what the host reads, so that nothing is handed over ahead.
    const std::size_t limit = std::min({room.size(), wanted, faults.readable(now)});
    const std::size_t count = board->take(room.first(limit));
    faults.tookBytes(count, now);
    return count;
}

void Bridge::deliver(std::span<const std::uint8_t> bytes)
{
    const Time now = Clock::now();
    board->advance(now);
    if (bitMode != SYNCHRONOUS_FIFO) {
        strayed.push_back({description(), "written outside synchronous FIFO mode", Bytes(bytes.begin(), bytes.end())});
        return;
    }
    recorded.insert(recorded.end(), bytes.begin(), bytes.end());
    board->receive(bytes, now);
}

/// Whether the chip answers such a step before the deadline, or goes meanwhile.
bool Bridge::outlasts(std::unique_lock<std::mutex>& lock, UsbStep step, Plugging session, Time deadline)
{
    while (alive(session) && faults.isMute(step, Clock::now())) {
        if (Clock::now() >= deadline) {
            faults.gaveUp();
            return false;
        }
        lock.unlock();
        std::this_thread::sleep_for(STALLED_PERIOD);
        lock.lock();
    }
    return true;
}

void Bridge::occupyWire(std::unique_lock<std::mutex>& lock, std::size_t count)
{
    if (speed.bytesPerSecond <= 0 || count == 0)
        return;
    const Time now = Clock::now();
    if (now - wireFree > OVERSLEEPING)
        wireFree = now;
    wireFree += std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(static_cast<double>(count) / speed.bytesPerSecond));
    const Time end = wireFree;
    lock.unlock();
    std::this_thread::sleep_until(end);
    lock.lock();
}

} // namespace sim
