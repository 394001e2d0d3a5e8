// A device on virtual boards, with the host around it, for tests of any device class, and what tests of series share.
#pragma once

#include "host/ihwdev.h"
#include "refhost/host.h"
#include "sim/usb/latixelsim.h"
#include "support/tempfolder.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
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

/// Events of a series of so many frames.
inline std::vector<Seen> readyEvents(long frames, unsigned end)
{
    std::vector<Seen> events;
    for (long i = 0; i < frames; ++i)
        events.push_back({HWEVENT_FRAME_READY, i});
    events.push_back({end, 0});
    return events;
}

/// Keeps a device's events; runs a hook inside each frame event, as a host would take its frame there.
class EventLog {
public:
    explicit EventLog(dv::IHwDev& device) { device.setEventFunc(&EventLog::take, this); }

    /// Runs inside HWEVENT_FRAME_READY. Set it before a series.
    std::function<void(long)> onFrame;
    /// Runs inside HWEVENT_WAIT_TRIGGER.
    std::function<void()> onWaitTrigger;

    /// Waits until an event of one of the kinds has come; false after 100 s.
    bool waitFor(std::initializer_list<unsigned> kinds)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(100), [&] {
            return std::ranges::any_of(events,
                                       [&](const Seen& seen) { return std::ranges::count(kinds, seen.event) > 0; });
        });
    }
    bool waitForEnd() { return waitFor({HWEVENT_ACQ_FINISHED, HWEVENT_ACQ_ABORTED}); }

    std::vector<Seen> all()
    {
        const std::lock_guard lock(mutex);
        return events;
    }
    /// All events so far but the changes of `busy`.
    std::vector<Seen> seen()
    {
        std::vector<Seen> list = all();
        std::erase_if(list, [](const Seen& s) { return s.event == HWEVENT_BUSY_CHANGED; });
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

/// Waits until something has come about; false after twenty seconds.
inline bool soon(const std::function<bool()>& reached)
{
    for (int i = 0; i < 20000; ++i) {
        if (reached())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

inline void sleepMs(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

/// A device with the host's side of it: folder, log of events, frames. `Pixel` is what the device's frames consist of.
template <typename DeviceClass, typename BoardClass, typename PixelType>
class BenchBase {
public:
    using Pixel = PixelType;
    using Pixels = std::vector<Pixel>;

    BenchBase(const BenchBase&) = delete;
    BenchBase& operator=(const BenchBase&) = delete;

    DeviceClass* operator->() const { return device; }
    DeviceClass& dev() const { return *device; }

    template <typename Look>
    static void board(std::size_t index, Look look)
    {
        sim::inspect<BoardClass>(index, look);
    }
    /// How often a command went to a board since the last `sim::clearTraffic`.
    static long sent(std::size_t index, const std::string& frameBeginning)
    {
        return std::ranges::count_if(wireLines(sim::written(index)),
                                     [&](const std::string& line) { return line.starts_with(frameBeginning); });
    }
    static void expectNoViolations()
    {
        for (const auto& violation : sim::violations())
            ADD_FAILURE() << violation.what << ": " << hex(violation.bytes, 32);
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
    /// Lets a series run to its end, and gives its frames.
    std::vector<Pixels> series(unsigned count, double time)
    {
        std::vector<Pixels> frames;
        events->onFrame = [&](long) { frames.push_back(frame()); };
        events->clear();
        EXPECT_EQ(device->startAcquisition(count, time), 0) << device->lastError();
        EXPECT_TRUE(events->waitForEnd());
        events->onFrame = nullptr;
        return frames;
    }

    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::unique_ptr<EventLog> events;

protected:
    BenchBase() = default;
    ~BenchBase() = default;

    void take(DeviceClass* made)
    {
        device = made;
        events = std::make_unique<EventLog>(*device);
    }
    /// Ends the device, which may call its callbacks to the last.
    void end()
    {
        device->closeDevice();
        device->destroy();
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), std::vector<std::string>{});
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
        sim::clearBus();
    }

private:
    DeviceClass* device = nullptr;
};

/// A device of a class that is made from name, host, folders, bias type and perhaps more, on its board. The serial in
/// the board's description is 7.
template <typename DeviceClass, typename BoardClass, typename Pixel>
class DeviceBench : public BenchBase<DeviceClass, BoardClass, Pixel> {
    using Base = BenchBase<DeviceClass, BoardClass, Pixel>;

public:
    using Base::folder;

    /// Puts the board on the bus and makes the device, which is not brought up yet. Without `settings` there is no
    /// settings file. `more` are the last arguments of the device's constructor.
    template <typename... More>
    DeviceBench(const nlohmann::json& board, const std::string& settings, const nlohmann::json& scene, More... more)
    {
        sim::loadBench({{"boards", {board}}, {"scene", scene}});
        if (!settings.empty())
            folder.write("latixel.ini", settings);
        const std::string name = board.at("description");
        Base::take(new DeviceClass(name, &this->host, folder.path(), folder / "latixel.ini", "A", more...));
        (*this)->setLogMsgFunc(&DeviceBench::keepLine, this);
    }
    ~DeviceBench() { Base::end(); }

    /// What went over the wire since the last call.
    WireLines wire() const
    {
        WireLines lines = wireLines(sim::written(0));
        sim::clearTraffic();
        return lines;
    }
    using Base::sent;
    /// How often a command went over the wire since the last call of `wire`.
    long sent(const std::string& frameBeginning) const { return sent(0, frameBeginning); }
    std::string log() const { return folder.read("latixel_7.log"); }
    using Base::board;
    template <typename Look>
    void board(Look look) const
    {
        board(0, look);
    }

    std::vector<std::string> errors; ///< lines of level 1; of interest while no series runs

private:
    static void keepLine(unsigned level, const char* text, void* user)
    {
        if (level == 1)
            static_cast<DeviceBench*>(user)->errors.push_back(text);
    }
};

/// A bench whose device is up, without the traffic of that. Its boards have seen nothing wrong when it ends.
template <typename BenchClass>
class BroughtUp : public BenchClass {
public:
    template <typename... Args>
    explicit BroughtUp(Args&&... args) : BenchClass(std::forward<Args>(args)...)
    {
        EXPECT_EQ(this->dev().initDevice(), 0);
        sim::clearTraffic();
    }
    ~BroughtUp() { BenchClass::expectNoViolations(); }
};

/// Checks that each member's block of a frame holds one value, which is a multiple of the member's flux.
template <typename Pixel>
void expectBlocks(const std::vector<Pixel>& frame, std::size_t members, std::size_t chipsOfMember, unsigned ofFirst)
{
    const std::size_t block = chipsOfMember * 65536;
    ASSERT_EQ(frame.size(), members * block);
    for (std::size_t m = 0; m < members; ++m) {
        const auto begin = frame.begin() + static_cast<std::ptrdiff_t>(m * block);
        const auto level = static_cast<Pixel>(ofFirst * (m + 1));
        EXPECT_EQ(std::count(begin, begin + static_cast<std::ptrdiff_t>(block), level), static_cast<long>(block))
            << "member " << m << " begins with " << *begin;
    }
}

/// A host that lets a device or a composite take series: `MEMBERS` boards of two chips each under flat light, of 1000
/// counts per second on the first board and as much more on each further one.
template <typename BenchClass, std::size_t MEMBERS>
class SeriesTest : public testing::Test {
protected:
    using Events = std::vector<Seen>;
    using Clock = std::chrono::steady_clock;
    static constexpr unsigned READY = HWEVENT_FRAME_READY;
    static constexpr unsigned FINISHED = HWEVENT_ACQ_FINISHED;
    static constexpr unsigned FAILED = HWEVENT_ACQ_FAILED;
    static constexpr unsigned ABORTED = HWEVENT_ACQ_ABORTED;
    static constexpr const char* START = "55 02 05 01";
    /// Also on a machine that has much else to do.
    static constexpr std::chrono::seconds STOP_LIMIT{20};

    template <typename... Args>
    explicit SeriesTest(Args&&... args) : bench(std::forward<Args>(args)...)
    {
    }
    void SetUp() override { bringUp(); }
    void TearDown() override { bench.expectNoViolations(); }

    /// Brings the device up, sets it as the tests need it, and calls `takeFrames`.
    virtual void bringUp() = 0;

    /// Takes each frame when it is announced, as a host does, or so long behind that.
    void takeFrames(int delayMs = 0)
    {
        bench.events->onFrame = [this, delayMs](long) {
            sleepMs(delayMs);
            frames.push_back(bench.frame());
        };
    }
    void start(unsigned count, double time)
    {
        frames.clear();
        bench.events->clear();
        sim::clearTraffic();
        ASSERT_EQ(bench->startAcquisition(count, time), 0) << bench->lastError();
    }
    /// Waits until the last board has been told to expose so often since `start`.
    bool soonStarted(long times = 1) const
    {
        return soon([&] { return bench.sent(MEMBERS - 1, START) >= times; });
    }
    /// Lets a series run to its end.
    void run(unsigned count, double time)
    {
        start(count, time);
        ASSERT_TRUE(bench.events->waitForEnd());
    }
    /// Lets a series run whose frames all come, each once and whole.
    void expectSeries(unsigned count, double time)
    {
        run(count, time);
        EXPECT_EQ(bench.events->seen(), readyEvents(count, FINISHED));
        ASSERT_EQ(frames.size(), count);
        for (const auto& frame : frames)
            expectBlocks(frame, MEMBERS, 2, static_cast<unsigned>(std::lround(1000 * time)));
    }
    /// Checks that a series of the plain kind works after whatever was done before.
    void expectNextSeriesWorks()
    {
        bench->setAcqMode(0);
        takeFrames();
        expectSeries(3, 0.02);
        EXPECT_FALSE(bench->isBusy());
    }
    /// Stops the series that runs, which ends long before its time.
    void expectStop()
    {
        const auto begin = Clock::now();
        EXPECT_EQ(bench->stopAcquisition(), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_LT(Clock::now() - begin, STOP_LIMIT);
        EXPECT_EQ(bench.events->seen().back(), (Seen{ABORTED, 0}));
        EXPECT_FALSE(bench->isBusy());
    }
    /// Closes the device so long behind the start of a series whose frames nobody takes, and brings it up again.
    void expectCloseInSeries(double time, int delayMs)
    {
        bench.events->onFrame = nullptr;
        start(100, time);
        sleepMs(delayMs);
        const auto begin = Clock::now();
        EXPECT_EQ(bench->closeDevice(), 0);
        EXPECT_LT(Clock::now() - begin, STOP_LIMIT);
        EXPECT_FALSE(bench->isConnected());
        bringUp();
    }

    std::vector<typename BenchClass::Pixels> frames; ///< outlive the device, which may still deliver at its end
    BenchClass bench;
};

} // namespace support
