// A device on a virtual board, with the host around it, for tests of any device class.
#pragma once

#include "host/ihwdev.h"
#include "refhost/host.h"
#include "sim/latixelsim.h"
#include "support/tempfolder.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

struct Seen {
    unsigned event;
    long data;
    bool operator==(const Seen&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Seen& seen)
{
    return out << seen.event << "(" << seen.data << ")";
}

/// Keeps a device's events; runs a hook inside each frame event, as a host would take its frame there.
class EventLog {
public:
    explicit EventLog(dv::IHwDev& device) { device.setEventFunc(&EventLog::take, this); }

    /// Runs inside HWEVENT_FRAME_READY. Set it before a series.
    std::function<void(long)> onFrame;
    /// Runs inside HWEVENT_WAIT_TRIGGER.
    std::function<void()> onWaitTrigger;

    /// Waits until an event of one of the kinds has come; false after a minute.
    bool waitFor(std::initializer_list<unsigned> kinds)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [&] {
            return std::ranges::any_of(events,
                                       [&](const Seen& seen) { return std::ranges::count(kinds, seen.event) > 0; });
        });
    }
    bool waitForEnd() { return waitFor({HWEVENT_ACQ_FINISHED, HWEVENT_ACQ_ABORTED}); }

    /// All events so far but the changes of `busy`.
    std::vector<Seen> seen()
    {
        const std::lock_guard lock(mutex);
        std::vector<Seen> list;
        std::ranges::copy_if(events, std::back_inserter(list),
                             [](const Seen& s) { return s.event != HWEVENT_BUSY_CHANGED; });
        return list;
    }
    void clear()
    {
        const std::lock_guard lock(mutex);
        events.clear();
    }

private:
    static void take(unsigned event, long data, void* user)
    {
        auto& log = *static_cast<EventLog*>(user);
        if (event == HWEVENT_FRAME_READY && log.onFrame)
            log.onFrame(data);
        if (event == HWEVENT_WAIT_TRIGGER && log.onWaitTrigger)
            log.onWaitTrigger();
        const std::lock_guard lock(log.mutex);
        log.events.push_back({event, data});
        log.changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Seen> events;
};

inline nlohmann::json flatScene(double flux)
{
    return {{"kind", "flat"}, {"flux", flux}, {"noise", false}};
}

/// Waits until something has come about; false after five seconds.
inline bool soon(const std::function<bool()>& reached)
{
    for (int i = 0; i < 5000 && !reached(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return reached();
}

/// A device of a class that is made from name, host, folders, bias type and perhaps more, on its board. The serial in
/// the board's description is 7. `Pixel` is what the device's frames consist of.
template <typename DeviceClass, typename BoardClass, typename Pixel>
class DeviceBench {
public:
    using Pixels = std::vector<Pixel>;

    /// Puts the board on the bus and makes the device, which is not brought up yet. Without `settings` there is no
    /// settings file. `more` are the last arguments of the device's constructor.
    template <typename... More>
    DeviceBench(const nlohmann::json& board, const std::string& settings, const nlohmann::json& scene, More... more)
    {
        sim::loadBench({{"boards", {board}}, {"scene", scene}});
        if (!settings.empty())
            folder.write("latixel.ini", settings);
        const std::string name = board.at("description");
        device = new DeviceClass(name, &host, folder.path(), folder / "latixel.ini", "A", more...);
        events = std::make_unique<EventLog>(*device);
        device->setLogMsgFunc(&DeviceBench::keepLine, this);
    }
    ~DeviceBench()
    {
        device->closeDevice();
        device->destroy();
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), std::vector<std::string>{});
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
        sim::clearBus();
    }
    DeviceBench(const DeviceBench&) = delete;
    DeviceBench& operator=(const DeviceBench&) = delete;

    DeviceClass* operator->() const { return device; }
    DeviceClass& dev() const { return *device; }

    /// What went over the wire since the last call.
    WireLines wire() const
    {
        WireLines lines = wireLines(sim::written(0));
        sim::clearTraffic();
        return lines;
    }
    /// How often a command went over the wire since the last call of `wire`.
    long sent(const std::string& frameBeginning) const
    {
        return std::ranges::count_if(wireLines(sim::written(0)),
                                     [&](const std::string& line) { return line.starts_with(frameBeginning); });
    }
    void expectNoViolations() const
    {
        for (const auto& violation : sim::violations())
            ADD_FAILURE() << violation.what << ": " << hex(violation.bytes, 32);
    }
    std::string log() const { return folder.read("latixel_7.log"); }
    template <typename Look>
    void board(Look look) const
    {
        sim::inspect<BoardClass>(0, look);
    }
    /// The frame of `lastData` as pixels; empty where there is none.
    Pixels frame() const
    {
        dv::IMpxFrame* made = device->lastData();
        if (made == nullptr)
            return {};
        const auto* pixels = static_cast<const Pixel*>(made->dataPointer(0.0));
        Pixels copy(pixels, pixels + made->pixelCount());
        made->destroy();
        return copy;
    }

    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<EventLog> events;
    std::vector<std::string> errors; ///< lines of level 1; of interest while no series runs

private:
    static void keepLine(unsigned level, const char* text, void* user)
    {
        if (level == 1)
            static_cast<DeviceBench*>(user)->errors.push_back(text);
    }

    DeviceClass* device;
};

} // namespace support
