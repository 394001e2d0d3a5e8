// A host that calls everything at random, from three threads and from its callbacks.
#pragma once

#include "hostile/world.h"
#include "refhost/host.h"

#include <atomic>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <random>
#include <thread>

namespace hostile {

/// What a call may meet.
enum Stage : unsigned { Idle, Preparing, Running, Stopping, Ending, InFrame, InLast, Closed, STAGES };
inline constexpr std::array<const char*, STAGES> STAGE_NAMES = {"idle",   "preparing", "running", "stopping",
                                                                "ending", "in frame",  "in last", "closed"};

/// Random numbers of one seed. Their sequence depends on nothing else.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : random(seed) {}
    unsigned operator()(unsigned limit) { return static_cast<unsigned>(random() % limit); }
    template <typename List>
    void shuffle(List& list)
    {
        std::shuffle(list.begin(), list.end(), random);
    }

private:
    std::mt19937_64 random;
};

class HostileHost;

/// A call of the host.
struct Call {
    const char* name;
    double limit; ///< seconds within which it returns, on a machine that has nothing else to do
    void (*make)(HostileHost& host, Dice& dice);
};
std::span<const Call> calls();

/// How often each call met each stage.
using Hits = std::map<std::string, std::array<unsigned long, STAGES>>;

/// One device with such a host around it, from its bring-up to the end of its life.
class HostileHost {
public:
    struct Report {
        Hits hits;
        std::vector<std::string> complaints;
        std::array<std::vector<const char*>, 3> made; ///< the calls of each thread, in order
        unsigned long framesChecked = 0;
    };

    /// With `faults` boards fail, overheat, leave and come back. Where there are hits already, what was not met yet is
    /// called more than all else.
    HostileHost(const Kind& kind, const KnownFrames& known, std::uint64_t seed, bool faults, const Hits& met);
    ~HostileHost();
    HostileHost(const HostileHost&) = delete;
    HostileHost& operator=(const HostileHost&) = delete;

    /// Lets the host rage until two of its threads have made so many calls each, and destroys the device.
    Report run(std::size_t calls);

    // For the calls
    Subject& subject() { return *device; }
    dv::IHwDevMpx& dev() { return device->device(); }
    World& world() { return history; }
    const Kind& kind() const { return kindOfDevice; }
    void complain(const std::string& what);
    /// Takes the last frame, and checks it where it is one that was announced.
    void takeFrame();
    void close();
    void listen();
    void listenToLog();
    /// Runs what uses the device's parameters, which are gone once it is closed.
    template <typename Use>
    void withParameters(Use use);

private:
    /// A call, and the stage that it waits for.
    struct Card {
        const Call* call;
        Stage stage;
    };
    /// Who makes calls: draws them from decks of all calls and stages, so that each comes.
    struct Caller {
        Caller(std::uint64_t seed, std::initializer_list<Stage> stages, const Hits& met);
        Card draw();

        Dice dice;
        std::mutex mutex; ///< for callbacks, which several threads may run
        std::vector<Card> cards;
        std::size_t next = 0;
    };
    struct Active {
        const Call* call;
        Stage stage;
        Moment begun;
    };

    static constexpr int CLOSES = -1;

    bool beginParameters();
    void openDevice();
    void drive(std::size_t thread);
    void haunt(std::size_t thread, std::size_t count);
    void awaitStage(Stage wanted);
    Stage stage();
    Stage stageOfSeries();
    void linger();
    void perform(const Call& call, Dice& dice);
    void performFrom(Caller& caller);
    void breakSomething(Dice& dice);
    void watch();
    void endLife();
    void takeEvent(unsigned event);
    void takeFrameEvent(long index);
    static void event(unsigned event, long data, void* user);
    static void logLine(unsigned level, const char* text, void* user);
    static void usbCall(std::span<const std::uint8_t> bytes);

    const Kind& kindOfDevice;
    const std::uint64_t seed;
    const bool faults;
    support::TempFolder folder;
    refhost::Host host;
    World history;
    std::unique_ptr<Subject> device;
    std::array<Caller, 3> threads;
    Caller frameCalls;
    Caller lastCalls;
    Caller logCalls;
    double patience;                            ///< seconds that a thread waits for the stage that it wants
    Stage lastStage = static_cast<Stage>(Idle); ///< in which the device is destroyed

    std::atomic<bool> over{false};
    std::atomic<bool> opening{false};   ///< a bring-up wants the device for itself
    std::atomic<int> users{0};          ///< calls under way, but for those within others
    std::atomic<int> parameterUsers{0}; ///< those of them that use the device's parameters, or CLOSES
    std::atomic<bool> destroysInLast{false};
    std::atomic<bool> destroyed{false};
    std::atomic<std::uint64_t> usbCalls{0};
    std::array<std::atomic<int>, STAGES> awaited{}; ///< threads that wait for a stage

    std::mutex mutex; ///< guards the two below
    Report report;
    std::list<Active> active;
};

template <typename Use>
void HostileHost::withParameters(Use use)
{
    if (!beginParameters())
        return;
    use();
    --parameterUsers;
}

} // namespace hostile
