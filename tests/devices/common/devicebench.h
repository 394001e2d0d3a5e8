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
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace support {

using Strings = std::vector<std::string>;

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
    /// Runs inside each event, before the others.
    std::function<void(unsigned)> onEvent;

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
        if (log.onEvent)
            log.onEvent(event);
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

/// Keeps what a device tells its host as an error, from any thread.
class ErrorLines {
public:
    explicit ErrorLines(dv::IHwDev& device) { device.setLogMsgFunc(&ErrorLines::keep, this); }

    /// The lines since the last call.
    Strings take()
    {
        const std::lock_guard lock(mutex);
        return std::exchange(lines, {});
    }

private:
    static void keep(unsigned level, const char* text, void* user)
    {
        auto& errors = *static_cast<ErrorLines*>(user);
        const std::lock_guard lock(errors.mutex);
        if (level == 1)
            errors.lines.push_back(text);
    }

    std::mutex mutex;
    Strings lines; ///< under `mutex`
};

inline nlohmann::json flatScene(double flux)
{
    return {{"kind", "flat"}, {"flux", flux}, {"noise", false}};
}

/// So many chips on each module or channel.
inline nlohmann::json chipNames(const std::vector<int>& counts)
{
    nlohmann::json modules = nlohmann::json::array();
    for (std::size_t m = 0; m < counts.size(); ++m) {
        modules.push_back(nlohmann::json::array());
        for (int k = 0; k < counts[m]; ++k)
            modules[m].push_back("C0" + std::to_string(m) + "-W010" + std::to_string(k));
    }
    return modules;
}

/// A board without chips: flash with a highest bias and a value that is read late, CPU without bias. The serial in its
/// description is 7.
inline nlohmann::json boardOf(const std::string& kind, const std::string& type)
{
    nlohmann::json board = nlohmann::json::parse(R"({
        "flash": {"parameters": [
            {"name": "BiasMax", "type": "double", "value": 90.0},
            {"name": "Table", "type": "i32", "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12]}]},
        "cpu": {"version": "CPU 1.2", "values": [["TempCpu", "35.5"], ["*Fan", "1"]]}
    })");
    board.update({{"kind", kind}, {"description", "Latixel Latixel " + type + " sn: 7 A"}});
    return board;
}

/// Random numbers below `limit`, always the same ones.
template <typename Number>
std::vector<Number> randomNumbers(std::size_t size, unsigned limit)
{
    std::mt19937 random(7);
    std::vector<Number> numbers(size);
    std::ranges::generate(numbers, [&] { return static_cast<Number>(random() % limit); });
    return numbers;
}

/// A fault that begins once the host has written a command so often.
inline nlohmann::json behind(const std::string& command, nlohmann::json fault, int times = 1)
{
    fault["when"] = {{"after_written", command}, {"occurrence", times}};
    return fault;
}

/// So many reads or writes fail.
inline nlohmann::json linkError(const std::string& on, int times = 1)
{
    return {{"kind", "error"}, {"on", on}, {"result", -9}, {"text", "overflow"}, {"times", times}};
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
    template <typename Look>
    static void board(Look look)
    {
        board(0, look);
    }
    /// How often a command went to a board since the last `sim::clearTraffic`, or the last call of `wire`.
    static long sent(const std::string& frameBeginning, std::size_t index = 0)
    {
        return std::ranges::count_if(wireLines(sim::written(index)),
                                     [&](const std::string& line) { return line.starts_with(frameBeginning); });
    }
    static void expectNoViolations()
    {
        for (const auto& violation : sim::violations())
            ADD_FAILURE() << violation.what << ": " << hex(violation.bytes, 32);
    }
    dv::_DevMpxInfo info() const
    {
        dv::_DevMpxInfo info{};
        device->devMpxInfo(&info);
        return info;
    }
    /// The chips that the host is told.
    Strings chipIds() const
    {
        dv::StrList ids;
        EXPECT_EQ(device->chipIDList(&ids), 0);
        return ids.vect();
    }
    std::size_t pixels() const { return chipIds().size() * 65536; }
    /// The names of its parameters, each with a blank in front of it.
    std::string paramNames() const
    {
        std::string names;
        for (auto* param : device->parameters()->params())
            names += std::string(" ") + param->name();
        return names;
    }
    void set(const char* param, int value) const { device->parameters()->get(param)->setInt32(value); }
    std::string param(const char* name) const { return device->parameters()->get(name)->getString(); }
    bool logged(const std::string& text) const { return folder.read(logName).find(text) != std::string::npos; }
    void expectError(const std::string& beginning) const
    {
        EXPECT_TRUE(std::string(device->lastError()).starts_with(beginning)) << device->lastError();
    }

    // The device's operations on arrays.
    int setDacs(const std::vector<unsigned short>& dacs, int chip = -1) const
    {
        return device->setDacs(dacs.data(), dacs.size(), chip);
    }
    int setPixelCfg(const std::vector<unsigned char>& cfg) const { return device->setPixelCfg(cfg.data(), cfg.size()); }
    int write(const Pixels& matrix, bool convert = true) const
    {
        return device->writeMatrix(matrix.data(), matrix.size(), convert);
    }
    int read(Pixels& matrix, bool convert = true) const
    {
        return device->readMatrix(matrix.data(), matrix.size(), convert);
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
    std::unique_ptr<ErrorLines> errors;

protected:
    explicit BenchBase(std::string log) : logName(std::move(log)) {}
    ~BenchBase() = default;

    void take(DeviceClass* made)
    {
        device = made;
        events = std::make_unique<EventLog>(*device);
        errors = std::make_unique<ErrorLines>(*device);
    }
    /// Ends the device, which may call its callbacks to the last.
    void end()
    {
        device->closeDevice();
        device->destroy();
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), Strings{});
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
        sim::clearBus();
    }

private:
    const std::string logName;
    DeviceClass* device = nullptr;
};

constexpr const char* TOO_HOT = "Device allowed temperature exceeded, chips turned off.";

/// A device of a class that is made from name, host, folders, bias type and perhaps more, on its board.
template <typename DeviceClass, typename BoardClass, typename Pixel>
class DeviceBench : public BenchBase<DeviceClass, BoardClass, Pixel> {
    using Base = BenchBase<DeviceClass, BoardClass, Pixel>;

public:
    using Base::folder, Base::logged, Base::errors;

    /// Puts the board on the bus and makes the device, which is not brought up yet. Without `settings` there is no
    /// settings file. `more` are the last arguments of the device's constructor.
    template <typename... More>
    DeviceBench(const nlohmann::json& board, const std::string& settings, More... more) : Base("latixel_7.log")
    {
        sim::loadBench({{"boards", {board}}, {"scene", flatScene(1000)}});
        if (!settings.empty())
            folder.write("latixel.ini", settings);
        const std::string name = board.at("description");
        Base::take(new DeviceClass(name, &this->host, folder.path(), folder / "latixel.ini", "A", more...));
    }
    ~DeviceBench() { Base::end(); }

    /// What went over the wire since the last call.
    WireLines wire() const
    {
        WireLines lines = wireLines(sim::written(0));
        sim::clearTraffic();
        return lines;
    }

    /// Checks that the device fails without its board, and that it comes up on a link that fails on the way, though
    /// perhaps without chips. On a sound link it finds one.
    void expectBringUpOnBadLinks(const std::vector<nlohmann::json>& faults)
    {
        auto& bench = *this;
        sim::unplug(0);
        EXPECT_EQ(bench->initDevice(), -1);
        EXPECT_FALSE(bench->isConnected());
        EXPECT_TRUE(logged(std::string("[ERR]: Cannot open device ") + bench->deviceName() + ", error=-1 ("));
        sim::plug(0);
        for (const auto& fault : faults) {
            SCOPED_TRACE(fault.dump());
            sim::addFault(0, fault);
            EXPECT_EQ(bench->initDevice(), 0);
            EXPECT_LE(bench->chipCount(), 50);
            this->frame();
            sim::clearFaults(0);
            sim::plug(0);
        }
        ASSERT_EQ(bench->initDevice(), 0);
        EXPECT_EQ(bench->chipCount(), 1);
    }
    /// Checks what a device answers that was closed.
    void expectClosedAnswers()
    {
        auto& bench = *this;
        double volts = 10;
        EXPECT_EQ(bench->setBias(50), 1);
        EXPECT_STREQ(bench->lastError(), "Device not connected");
        EXPECT_EQ(bench->analogValue(0, &volts), 0);
        EXPECT_EQ(volts, 0.0);
        bench->biasVoltageCurrentSense(&volts, nullptr);
        EXPECT_NE(bench->eraseMatrix(), 0);
        EXPECT_EQ(bench->lastData(), nullptr);
        EXPECT_EQ(bench->deviceStatus(), 0);
        EXPECT_EQ(bench->closeDevice(), 0);
    }
    /// Overheats the board, which the host is told once, and the log at each poll with the CPU's values.
    void overheat()
    {
        auto& bench = *this;
        EXPECT_EQ(bench->deviceStatus(), 0);
        sim::addFault(0, {{"kind", "cpu_overheated"}, {"text", "81 degrees"}});
        for (int poll = 0; poll < 2; ++poll)
            EXPECT_EQ(bench->deviceStatus(), 2);
        EXPECT_STREQ(bench->deviceStatusText(), "81 degrees");
        EXPECT_EQ(errors->take(), Strings{"Maximal allowed temperature exceeded ! Let the device cool down and then "
                                          "reconnect it in SW or restart SW.\nDevice error: 81 degrees\n"});
        EXPECT_TRUE(logged("Device error. Dumping values:\nTempCpu = 35.5\n"));
    }
};

/// A bench whose device is up, without the traffic of that. Its boards have seen nothing wrong when it ends.
template <typename BenchClass>
class BroughtUp : public BenchClass {
public:
    template <typename... Args>
    explicit BroughtUp(Args&&... args) : BenchClass(std::forward<Args>(args)...)
    {
        EXPECT_EQ((*this)->initDevice(), 0);
        sim::clearTraffic();
    }
    ~BroughtUp() { BenchClass::expectNoViolations(); }
};

/// Checks that a device gives neither bias nor an error line where its board's flash tells no limits.
template <typename BenchClass>
void expectNoBiasWithoutLimits(nlohmann::json board)
{
    board["flash"]["parameters"][0]["value"] = 0.0;
    BroughtUp<BenchClass> bench(board);
    bench.errors->take();
    EXPECT_EQ(bench->setBias(20), -1);
    EXPECT_EQ(bench.errors->take(), Strings{});
    EXPECT_EQ(bench.wire(), WireLines{});
}

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
    /// Whatever a test has done, the next series works.
    void TearDown() override
    {
        if (worksAtTheEnd)
            expectNextSeriesWorks();
        bench.expectNoViolations();
    }

    /// Brings the device up, sets it as the tests need it, and calls `takeFrames`.
    virtual void bringUp() = 0;

    void reconnect()
    {
        bench->closeDevice();
        bringUp();
    }
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
        return soon([&] { return bench.sent(START, MEMBERS - 1) >= times; });
    }
    /// Starts a series, and waits until it exposes for the first time or for a later one.
    void startAndExpose(unsigned count, double time, long times = 1)
    {
        start(count, time);
        ASSERT_TRUE(soonStarted(times));
    }
    /// Starts a series, and waits until so many frames have been told.
    void startAndTake(unsigned count, double time, std::size_t told)
    {
        start(count, time);
        ASSERT_TRUE(soon([&] { return bench.events->seen().size() >= told; }));
    }
    /// Starts three frames for a host that takes none: the boards expose one ahead of it, and wait.
    void startWithoutReader()
    {
        bench.events->onFrame = nullptr;
        startAndExpose(3, 0.02, 2);
        sleepMs(400);
        EXPECT_EQ(bench.events->seen(), (Events{{READY, 0}}));
        for (std::size_t m = 0; m < MEMBERS; ++m)
            EXPECT_EQ(bench.sent(START, m), 2) << m;
    }
    /// A read into too small an array takes nothing, but lets the series go on.
    void readTooLittle()
    {
        typename BenchClass::Pixels pixel(1);
        EXPECT_EQ(bench.read(pixel), 1);
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
    virtual void expectNextSeriesWorks()
    {
        bench->setAcqMode(0);
        takeFrames();
        expectSeries(3, 0.02);
        EXPECT_FALSE(bench->isBusy());
    }
    /// Lets a series run that fails behind so many frames, of which the host is told no end.
    void expectGivenUp(unsigned count, double time, long taken = 0)
    {
        start(count, time);
        ASSERT_TRUE(bench.events->waitFor({FAILED}));
        sleepMs(100);
        Events events = readyEvents(taken, FAILED);
        events.back().data = -1;
        EXPECT_EQ(bench.events->seen(), events);
    }
    /// Stops the series that runs, which ends long before its time; behind so many frames, where that is certain.
    void expectStop(std::optional<long> taken = {})
    {
        const auto begin = Clock::now();
        EXPECT_EQ(bench->stopAcquisition(), 0);
        ASSERT_TRUE(bench.events->waitForEnd());
        EXPECT_LT(Clock::now() - begin, STOP_LIMIT);
        const Events events = bench.events->seen();
        EXPECT_EQ(events.back(), (Seen{ABORTED, 0}));
        EXPECT_EQ(events, taken ? readyEvents(*taken, ABORTED) : events);
        EXPECT_FALSE(bench->isBusy());
    }
    /// Takes frames by software triggers, and stops a series that waits for one: nothing is exposed then.
    void expectSoftwareTriggers()
    {
        constexpr Seen WAITS{HWEVENT_WAIT_TRIGGER, 0};
        bench->setAcqMode(dv::ACQMODE_SOFT_TRIGGER);
        bench.events->onWaitTrigger = [&] {
            for (int i = 0; i < 2; ++i) // before the wait, and counts once
                bench->doSoftwareTrigger(0);
        };
        run(3, 0.01);
        EXPECT_EQ(std::ranges::count(bench.events->seen(), WAITS), 3);
        EXPECT_EQ(frames.size(), 3U);
        bench.events->onWaitTrigger = nullptr;
        start(5, 30);
        ASSERT_TRUE(bench.events->waitFor({HWEVENT_WAIT_TRIGGER}));
        sleepMs(50);
        expectStop();
        EXPECT_EQ(bench.events->seen(), (Events{WAITS, {ABORTED, 0}}));
        EXPECT_EQ(bench.sent(START), 0);
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

    /// Unless a test leaves a device that is closed, in a series, or with other settings of its chips.
    bool worksAtTheEnd = true;
    std::vector<typename BenchClass::Pixels> frames; ///< outlive the device, which may still deliver at its end
    BenchClass bench;
};

} // namespace support
