// A host that calls everything at random, from three threads and from its callbacks.
#include "hostile/host.h"

#include "sim/usb/latixelsim.h"
#include "support/wire.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

namespace hostile {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double SLOWNESS = 8;
#else
constexpr double SLOWNESS = 2;
#endif
constexpr double SCHEDULING = 1.0; ///< seconds that a loaded machine may keep a thread waiting
constexpr double HANG = 60.0;      ///< seconds after which a call counts as never returning

const Call OPEN = {"initDevice", 30, nullptr};
const Call DESTROY = {"destroy", 3, nullptr};

constexpr std::initializer_list<Stage> HOST_STAGES = {Idle, Preparing, Running, Stopping, Ending, Closed};

std::atomic<HostileHost*> current{nullptr};
thread_local int depth = 0;          ///< calls of the host that this thread is in
thread_local double inCallbacks = 0; ///< seconds that callbacks have taken of the call

double secondsSince(Moment begun)
{
    return std::chrono::duration<double>(Clock::now() - begun).count();
}

void pause(unsigned microseconds)
{
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

std::uint64_t mixed(std::uint64_t number)
{
    number += 0x9E3779B97F4A7C15ULL;
    number = (number ^ number >> 30U) * 0xBF58476D1CE4E5B9ULL;
    number = (number ^ number >> 27U) * 0x94D049BB133111EBULL;
    return number ^ number >> 31U;
}

/// Counts what callbacks take of the call that they come from.
class InCallback {
public:
    InCallback() = default;
    ~InCallback() { inCallbacks += secondsSince(begun); }
    InCallback(const InCallback&) = delete;
    InCallback& operator=(const InCallback&) = delete;

private:
    Moment begun = Clock::now();
};

} // namespace

HostileHost::Caller::Caller(std::uint64_t callerSeed, std::initializer_list<Stage> stages, const Hits& met)
    : dice(callerSeed)
{
    const auto collect = [&](bool all) {
        for (const Call& call : calls())
            for (const Stage stage : stages)
                if (all || met.at(call.name).at(stage) == 0)
                    cards.push_back({&call, stage});
    };
    collect(met.empty());
    if (cards.empty())
        collect(true);
    next = cards.size();
}

HostileHost::Card HostileHost::Caller::draw()
{
    if (next == cards.size()) {
        dice.shuffle(cards);
        next = 0;
    }
    return cards[next++];
}

HostileHost::HostileHost(const Kind& kind, const KnownFrames& known, std::uint64_t hostSeed, bool withFaults,
                         const Hits& met)
    : kindOfDevice(kind),
      seed(hostSeed),
      faults(withFaults),
      host(folder.path(), folder.path()),
      history(known),
      device(kind.make(kind, host, folder)),
      threads{{{mixed(hostSeed), HOST_STAGES, met},
               {mixed(hostSeed + 1), HOST_STAGES, met},
               {mixed(hostSeed + 2), HOST_STAGES, met}}},
      frameCalls(mixed(hostSeed + 3), {InFrame}, met),
      lastCalls(mixed(hostSeed + 4), {InLast}, met),
      logCalls(mixed(hostSeed + 5), {Idle}, met),
      patience(met.empty() ? 0.02 : 0.1)
{
    if (!met.empty())
        for (const Stage stage : {Running, InLast, Ending, Closed, Stopping, Idle})
            if (met.at(DESTROY.name).at(stage) == 0)
                lastStage = stage;
    current = this;
    sim::setUsbHook(&HostileHost::usbCall);
    listen();
    listenToLog();
}

HostileHost::~HostileHost()
{
    sim::setUsbHook(nullptr);
    current = nullptr;
    sim::clearBus();
}

HostileHost::Report HostileHost::run(std::size_t calls)
{
    openDevice();
    std::jthread watcher([this] { watch(); });
    {
        const std::jthread driver([this] { drive(0); });
        {
            const std::jthread second([&] { haunt(1, calls); });
            const std::jthread third([&] { haunt(2, calls); });
        }
        over = true;
    }
    endLife();
    destroyed = true;
    watcher.join();
    // The last handler's thread may be about to free it.
    const auto gone = [&] { return host.liveManagers() == 0 && sim::openSessions() == 0 && sim::liveContexts() == 0; };
    for (const Moment begun = Clock::now(); !gone() && secondsSince(begun) < HANG;)
        pause(1000);
    if (!faults)
        for (const auto& violation : sim::violations())
            complain("protocol violation: " + violation.what + ": " + support::hex(violation.bytes, 16));
    if (sim::openSessions() != 0 || sim::liveContexts() != 0)
        complain("the link is still open");
    host.complainOfLeftovers();
    for (const auto& complaint : host.complaints())
        complain("reference host: " + complaint);
    return report;
}

void HostileHost::complain(const std::string& what)
{
    const std::scoped_lock lock(mutex);
    report.complaints.push_back(what);
}

void HostileHost::listen()
{
    dev().setEventFunc(&HostileHost::event, this);
}

void HostileHost::listenToLog()
{
    dev().setLogMsgFunc(&HostileHost::logLine, this);
}

// ---- The host's threads ----

/// Begins and ends series, opens the device again and again, and lets boards fail.
void HostileHost::drive(std::size_t thread)
{
    Caller& caller = threads.at(thread);
    const auto named = [](const std::string& name) { return std::ranges::find(calls(), name, &Call::name); };
    const Call& start = *named("startAcquisition");
    const Call& stop = *named("stopAcquisition");
    while (!over) {
        const unsigned drawn = caller.dice(100);
        report.made[thread].push_back(drawn < 35 ? start.name : drawn < 55 ? stop.name : OPEN.name);
        if (drawn < 35)
            perform(start, caller.dice);
        else if (drawn < 55)
            perform(stop, caller.dice);
        else if (drawn < 60)
            breakSomething(caller.dice);
        else if (drawn < 63 || !dev().isConnected()) {
            linger();
            openDevice();
        }
        linger();
        pause(caller.dice(15000));
    }
}

/// Makes each call in each stage, if that comes soon enough; else in any.
void HostileHost::haunt(std::size_t thread, std::size_t count)
{
    Caller& caller = threads.at(thread);
    for (std::size_t i = 0; i < count; ++i) {
        const auto [call, wanted] = caller.draw();
        report.made[thread].push_back(call->name);
        awaitStage(wanted);
        perform(*call, caller.dice);
        pause(caller.dice(1000));
    }
}

void HostileHost::awaitStage(Stage wanted)
{
    ++awaited.at(wanted);
    const Moment begun = Clock::now();
    while (stageOfSeries() != wanted && secondsSince(begun) < patience && !over)
        pause(100);
    --awaited.at(wanted);
}

/// Stretches the stage that the series is in, while somebody waits for it.
void HostileHost::linger()
{
    constexpr int LOOKS = 50;
    const Stage lasting = stageOfSeries();
    for (int i = 0; i < LOOKS && awaited.at(lasting) > 0 && stageOfSeries() == lasting; ++i)
        pause(200);
}

Stage HostileHost::stage()
{
    switch (device->caller()) {
    case Series::Caller::LastEvent:
        return InLast;
    case Series::Caller::Handler:
        return InFrame;
    case Series::Caller::Host:
        break;
    }
    return stageOfSeries();
}

Stage HostileHost::stageOfSeries()
{
    switch (device->series()) {
    case Series::State::Preparing:
        return Preparing;
    case Series::State::Running:
        return Running;
    case Series::State::Stopping:
        return Stopping;
    case Series::State::Ending:
        return Ending;
    case Series::State::Idle:
        break;
    }
    return dev().isConnected() ? Idle : Closed;
}

void HostileHost::perform(const Call& call, Dice& dice)
{
    // While the device is brought up nobody else calls it. A handler, which the bring-up may wait for, goes on.
    const bool outermost = depth == 0;
    while (outermost) {
        ++users;
        if (!opening)
            break;
        --users;
        if (device->caller() != Series::Caller::Host)
            return;
        pause(1000);
    }
    ++depth;
    const double before = inCallbacks;
    const Stage met = stage();
    const Moment begun = Clock::now();
    std::list<Active>::iterator entry;
    {
        const std::scoped_lock lock(mutex);
        ++report.hits[call.name][met];
        entry = active.insert(active.end(), {&call, met, begun});
    }
    call.make(*this, dice);
    const double taken = secondsSince(begun) - (inCallbacks - before);
    if (taken > call.limit * SLOWNESS + SCHEDULING)
        complain(std::string(call.name) + " took " + std::to_string(taken) + " s, met " + STAGE_NAMES.at(met));
    {
        const std::scoped_lock lock(mutex);
        active.erase(entry);
    }
    --depth;
    if (outermost)
        --users;
}

/// Brings the device up, alone with it, in whatever state its series is.
void HostileHost::openDevice()
{
    static const Call INIT = {OPEN.name, OPEN.limit, [](HostileHost& h, Dice&) {
                                  sim::clearFaults(0);
                                  sim::plug(0);
                                  if (h.dev().initDevice() != 0)
                                      h.complain(std::string("bring-up: ") + h.dev().lastError());
                                  h.listenToLog();
                                  h.world().reset();
                                  if (h.subject().setDacs(0) != 0 || h.subject().setConfig(0) != 0)
                                      h.complain(std::string("behind a bring-up: ") + h.dev().lastError());
                                  h.world().reset();
                              }};
    opening = true;
    while (users > 0)
        pause(200);
    Dice none(0);
    depth = 1; // past the gate
    perform(INIT, none);
    depth = 0;
    opening = false;
}

/// The parameters of a device are gone once it is closed: nobody uses them meanwhile.
void HostileHost::close()
{
    int none = 0;
    if (!parameterUsers.compare_exchange_strong(none, CLOSES))
        return;
    dev().closeDevice();
    parameterUsers = 0;
}

bool HostileHost::beginParameters()
{
    int before = parameterUsers;
    while (before != CLOSES)
        if (parameterUsers.compare_exchange_weak(before, before + 1))
            return true;
    return false;
}

void HostileHost::takeFrame()
{
    const auto before = history.progress();
    const refhost::FramePtr frame = refhost::adopt(dev().lastData());
    const auto state = device->series();
    const bool running = state == Series::State::Running || state == Series::State::Stopping;
    // Outside of a series it is what the chips hold, which a stop may have cut.
    if (frame == nullptr || !before || !running || history.progress().value_or(*before).first != before->first)
        return;
    const std::string complaint = history.complaint(*frame, history.windowOf(before->second));
    if (!complaint.empty())
        complain("lastData: " + complaint);
    const std::scoped_lock lock(mutex);
    ++report.framesChecked;
}

// ---- The host's callbacks ----

void HostileHost::performFrom(Caller& caller)
{
    const Call* call = nullptr;
    std::uint64_t own = 0;
    {
        const std::scoped_lock lock(caller.mutex);
        call = caller.draw().call;
        own = caller.dice(1U << 31U);
    }
    Dice dice(own);
    perform(*call, dice);
}

void HostileHost::event(unsigned event, long data, void* user)
{
    const InCallback callback;
    auto& self = *static_cast<HostileHost*>(user);
    if (event == HWEVENT_FRAME_READY)
        self.takeFrameEvent(data);
    else
        self.takeEvent(event);
}

void HostileHost::takeFrameEvent(long index)
{
    history.announced(index);
    unsigned drawn = 0;
    {
        const std::scoped_lock lock(frameCalls.mutex);
        drawn = frameCalls.dice(100);
    }
    if (!over && drawn % 2 == 0)
        performFrom(frameCalls);
    if (drawn < 90)
        takeFrame();
    if (!over && drawn % 4 == 0)
        performFrom(frameCalls);
    if (drawn < 20)
        pause(drawn * 500);
    linger();
}

void HostileHost::takeEvent(unsigned event)
{
    if (event == HWEVENT_WAIT_TRIGGER) {
        const std::scoped_lock lock(frameCalls.mutex);
        if (frameCalls.dice(4) > 0)
            dev().doSoftwareTrigger(0);
    }
    if (event == HWEVENT_WAIT_TRIGGER || event == HWEVENT_BUSY_CHANGED)
        return linger();
    history.announced(std::nullopt);
    if (device->caller() != Series::Caller::LastEvent)
        return;
    if (destroysInLast.exchange(false)) {
        {
            const std::scoped_lock lock(mutex);
            ++report.hits[DESTROY.name][InLast];
        }
        dev().destroy();
        destroyed = true;
        return;
    }
    for (int i = 0; i < 4 && !over; ++i)
        performFrom(lastCalls);
}

void HostileHost::logLine(unsigned, const char*, void* user)
{
    const InCallback callback;
    auto& self = *static_cast<HostileHost*>(user);
    static thread_local bool inside = false;
    if (inside || self.over || self.opening)
        return;
    inside = true;
    self.performFrom(self.logCalls);
    inside = false;
}

/// Gives way at each call of libftdi, or not, and more where a series is in a state that is soon over.
void HostileHost::usbCall(std::span<const std::uint8_t> bytes)
{
    constexpr std::array<std::uint8_t, 4> START = {0x55, 0x02, 0x05, 0x01};
    HostileHost* self = current;
    if (self == nullptr)
        return;
    if (std::ranges::equal(bytes.first(std::min(bytes.size(), START.size())), START))
        self->history.exposes();
    const std::uint64_t drawn = mixed(self->seed + ++self->usbCalls);
    if (self->stageOfSeries() != Running)
        self->linger();
    if (drawn % 16 == 0)
        pause(static_cast<unsigned>(drawn >> 8U) % 500);
    else if (drawn % 4 == 0)
        std::this_thread::yield();
}

// ---- Trouble ----

void HostileHost::breakSomething(Dice& dice)
{
    static const std::vector<nlohmann::json> FAULTS = {
        {{"kind", "unplug"}, {"replug_after_s", 0.05}},
        {{"kind", "unplug"}},
        {{"kind", "silence"}, {"seconds", 0.3}},
        {{"kind", "short_read"}, {"bytes", 5000}},
        {{"kind", "error"}, {"on", "read"}, {"result", -9}, {"text", "overflow"}, {"times", 2}},
        {{"kind", "cpu_overheated"}, {"text", "81 degrees"}},
        {{"kind", "hang"}},
    };
    const nlohmann::json& fault = FAULTS.at(dice(static_cast<unsigned>(FAULTS.size())));
    // Behind an operation's failed read a Medipix3 board's next frame is out of step.
    if (!faults || (kindOfDevice.matrix3 && fault["kind"] == "error"))
        return;
    history.doubt(fault.dump());
    sim::addFault(0, fault);
}

/// Tells what hangs, and ends the program: a thread that hangs cannot be joined.
void HostileHost::watch()
{
    while (!destroyed) {
        pause(100000);
        const std::scoped_lock lock(mutex);
        if (std::ranges::none_of(active, [](const Active& a) { return secondsSince(a.begun) > HANG; }))
            continue;
        std::cerr << "hanging, seed " << seed << ", kind " << kindOfDevice.name << ":\n";
        for (const Active& a : active)
            std::cerr << "  " << a.call->name << " for " << secondsSince(a.begun) << " s, met "
                      << STAGE_NAMES.at(a.stage) << "\n";
        std::abort();
    }
}

/// Brings the device up once more and destroys it, in a stage of its series.
void HostileHost::endLife()
{
    sim::setUsbHook(nullptr);
    openDevice();
    dev().setAcqMode(0);
    if (lastStage == Closed)
        dev().closeDevice();
    destroysInLast = lastStage == InLast;
    if (lastStage != Closed && lastStage != Idle)
        history.start(TIMES.size() - 1,
                      [&] { return dev().startAcquisition(lastStage == InLast ? 1 : 1000, TIMES.back()); });
    for (int i = 0; i < 10000 && lastStage == InLast && !destroyed; ++i)
        pause(1000);
    if (destroyed)
        return;
    over = false; // the last frames are slow ones
    std::jthread stop([this] {
        pause(50000);
        if (lastStage == Stopping || lastStage == Ending)
            dev().stopAcquisition();
    });
    patience = 5;
    awaitStage(lastStage);
    {
        const std::scoped_lock lock(mutex);
        ++report.hits[DESTROY.name][stage()];
    }
    over = true;
    const Moment begun = Clock::now();
    if (lastStage == Stopping || lastStage == Ending)
        stop.join();
    dev().destroy();
    if (secondsSince(begun) > DESTROY.limit * SLOWNESS + SCHEDULING)
        complain("destroy took " + std::to_string(secondsSince(begun)) + " s");
}

} // namespace hostile
