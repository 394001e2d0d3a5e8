// A Medipix3 device on a virtual board, with the host around it, for tests.
#pragma once

#include "devices/mpx3dev.h"
#include "refhost/host.h"
#include "sim/latixelsim.h"
#include "sim/mpx3board.h"
#include "support/tempfolder.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
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

    /// Waits until an event of one of the kinds has come; false after ten seconds.
    bool waitFor(std::initializer_list<unsigned> kinds)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] {
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

/// The board that most tests use: flat light without noise, flash with a bias calibration, CPU.
inline nlohmann::json mpx3Board(int channels, int chipsPerChannel = 1)
{
    nlohmann::json board = nlohmann::json::parse(R"({
        "kind": "mpx3",
        "description": "Latixel Latixel M3WA sn: 7 A",
        "firmware": "Firmware 3.1 M3",
        "channels": [],
        "flash": {"parameters": [
            {"name": "BiasMin", "type": "double", "value": 0.0},
            {"name": "BiasMax", "type": "double", "value": 150.0},
            {"name": "Table", "type": "i32", "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12]}]},
        "cpu": {"version": "CPU 1.2", "values": [["TempCpu", "35.5"], ["*Fan", "1"]]}
    })");
    for (int c = 0; c < channels; ++c) {
        nlohmann::json chips = nlohmann::json::array();
        for (int k = 0; k < chipsPerChannel; ++k)
            chips.push_back("C0" + std::to_string(c) + "-W010" + std::to_string(k));
        board["channels"].push_back(chips);
    }
    return board;
}

inline nlohmann::json flatScene(double flux)
{
    return {{"kind", "flat"}, {"flux", flux}, {"noise", false}};
}

class Mpx3Bench {
public:
    /// Puts the board on the bus and makes the device, which is not brought up yet.
    explicit Mpx3Bench(const nlohmann::json& board, const std::string& settings = "[Settings]\nDebugLog=1\n",
                       const nlohmann::json& scene = flatScene(1000))
    {
        sim::loadBench({{"boards", {board}}, {"scene", scene}});
        if (!settings.empty())
            folder.write("latixel.ini", settings);
        const std::string name = board.at("description");
        device = new HwLatixel::Mpx3Dev(name, &host, folder.path(), folder / "latixel.ini", "A", false);
        events = std::make_unique<EventLog>(*device);
        device->setLogMsgFunc(&Mpx3Bench::keepLine, this);
    }
    ~Mpx3Bench()
    {
        device->closeDevice();
        device->destroy();
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), std::vector<std::string>{});
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
        sim::clearBus();
    }
    Mpx3Bench(const Mpx3Bench&) = delete;
    Mpx3Bench& operator=(const Mpx3Bench&) = delete;

    HwLatixel::Mpx3Dev* operator->() const { return device; }
    HwLatixel::Mpx3Dev& dev() const { return *device; }

    /// What went over the wire since the last call.
    WireLines wire() const
    {
        WireLines lines = wireLines(sim::written(0));
        sim::clearTraffic();
        return lines;
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
        sim::inspect<sim::Mpx3Board>(0, look);
    }
    /// The frame of `lastData` as pixels; empty where there is none.
    std::vector<unsigned> frame() const
    {
        dv::IMpxFrame* made = device->lastData();
        if (made == nullptr)
            return {};
        const auto* pixels = static_cast<const unsigned*>(made->dataPointer(0.0));
        std::vector<unsigned> copy(pixels, pixels + made->pixelCount());
        made->destroy();
        return copy;
    }

    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<EventLog> events;
    std::vector<std::string> errors; ///< lines of level 1

private:
    static void keepLine(unsigned level, const char* text, void* user)
    {
        if (level == 1)
            static_cast<Mpx3Bench*>(user)->errors.push_back(text);
    }

    HwLatixel::Mpx3Dev* device;
};

} // namespace support
