// The virtual USB bus: the bridges in bench order, and what the host holds open on it.
#pragma once

#include "sim/usb/bridge.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace sim {

/// A chip as the host saw it in one listing of the bus.
struct Sighting {
    std::shared_ptr<Bridge> bridge;
    Plugging plugging = 0;
};

/// A device that the host opened.
struct Session {
    Sighting chip;
    bool claimed = false;
};

using UsbHook = void (*)(std::span<const std::uint8_t> bytes);

/// What an initialised context of libftdi owns.
struct Context {
    Bytes readBuffer;
};

/// Objects that are handed out to the host as plain pointers. The pool keeps hold of them, so that it can count those
/// that the host forgets. Safe from any thread.
template <typename T>
class Pool {
public:
    T* add(T object)
    {
        const std::scoped_lock lock(mutex);
        return objects.emplace_back(std::make_unique<T>(std::move(object))).get();
    }

    void remove(const T* object)
    {
        const std::scoped_lock lock(mutex);
        std::erase_if(objects, [&](const auto& held) { return held.get() == object; });
    }

    std::size_t size() const
    {
        const std::scoped_lock lock(mutex);
        return objects.size();
    }

private:
    mutable std::mutex mutex;
    std::vector<std::unique_ptr<T>> objects;
};

/// Safe from any thread. The mutex of the bus is never held while a bridge is at work.
class Bus {
public:
    /// The one bus of the process. It is never destroyed: the host may release its contexts at exit.
    static Bus& instance();

    /// Takes all chips off the bus and puts these in their place, the first as the newest.
    void replace(std::vector<std::shared_ptr<Bridge>> chips);
    /// True once `replace` was called.
    bool hasBench() const;

    /// Chip at a position of the bench. Throws std::out_of_range with a text for people.
    std::shared_ptr<Bridge> bridge(std::size_t position) const;
    /// All chips in bench order, plugged in or not.
    std::vector<std::shared_ptr<Bridge>> bridges() const;
    /// The chips that are plugged in, the newest first.
    std::vector<Sighting> sightings() const;

    Pool<Session> sessions;
    Pool<Context> contexts;
    std::atomic<UsbHook> hook{nullptr}; ///< of tests, see setUsbHook

private:
    Bus() = default;

    mutable std::mutex mutex; ///< guards everything below
    std::vector<std::shared_ptr<Bridge>> chips;
    bool chosen = false;
};

} // namespace sim
