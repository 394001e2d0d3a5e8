// A composite on virtual boards, with the host around it, for tests of either chip family.
#pragma once

#include "devices/devicebench.h"

#include "shared/filelog.h"

#include <atomic>
#include <cstdlib>
#include <random>

namespace support {

/// Keeps what a device tells its host as an error, from any thread.
class ErrorLines {
public:
    static void keep(unsigned level, const char* text, void* user)
    {
        auto& lines = *static_cast<ErrorLines*>(user);
        const std::lock_guard lock(lines.mutex);
        if (level == 1)
            lines.texts.push_back(text);
    }
    /// The lines since the last call.
    std::vector<std::string> take()
    {
        const std::lock_guard lock(mutex);
        return std::exchange(texts, {});
    }

private:
    std::mutex mutex;
    std::vector<std::string> texts; ///< under `mutex`
};

/// A composite with its members' boards on the bus in the order in which they stand in it. Each has a flux of its own:
/// 1000 times its position, from 1 on, in counts per second.
template <typename LadClass, typename BoardClass, typename Pixel>
class LadBench {
public:
    using Pixels = std::vector<Pixel>;
    static constexpr std::size_t CHIP = 65536;

    /// Makes the composite, which is not brought up yet, with the boards' descriptions as its names, behind those of
    /// `missing` boards.
    explicit LadBench(nlohmann::json boards, const std::string& settings = "", std::vector<std::string> missing = {})
        : names(std::move(missing))
    {
        double flux = 0;
        for (auto& board : boards) {
            board["scene"] = flatScene(flux += 1000);
            names.push_back(board.at("description"));
        }
        sim::loadBench({{"boards", boards}});
        folder.write("latixel.ini", "[Settings]\n" + settings);
        log = std::make_unique<FileLog>((folder / "lad.log").string(), true, false, false, true);
        log->setLogLevel(MSG);
        lad = new LadClass(&host, folder.path(), log.get(), folder / "latixel.ini", names);
        events = std::make_unique<EventLog>(*lad);
        lad->setLogMsgFunc(&ErrorLines::keep, &errors);
    }
    ~LadBench()
    {
        lad->closeDevice();
        lad->destroy();
        host.complainOfLeftovers();
        EXPECT_EQ(host.complaints(), std::vector<std::string>{});
        EXPECT_EQ(sim::openSessions(), 0);
        EXPECT_EQ(sim::liveContexts(), 0);
        sim::clearBus();
    }
    LadBench(const LadBench&) = delete;
    LadBench& operator=(const LadBench&) = delete;

    LadClass* operator->() const { return lad; }
    template <typename Look>
    void board(std::size_t index, Look look) const
    {
        sim::inspect<BoardClass>(index, look);
    }
    /// How often a command went to a board since the last `sim::clearTraffic`.
    static long sent(std::size_t index, const std::string& frameBeginning)
    {
        return std::ranges::count_if(wireLines(sim::written(index)),
                                     [&](const std::string& line) { return line.starts_with(frameBeginning); });
    }
    static bool soonSent(std::size_t index, const std::string& frameBeginning)
    {
        return soon([&] { return sent(index, frameBeginning) > 0; });
    }
    static void expectNoViolations()
    {
        for (const auto& violation : sim::violations())
            ADD_FAILURE() << violation.what << ": " << hex(violation.bytes, 32);
    }
    bool logged(const std::string& line) const
    {
        return folder.read("lad.log").find("[MSG]: " + line + "\n") != std::string::npos;
    }
    std::string param(const char* name) const { return lad->parameters()->get(name)->getString(); }
    /// The frame of `lastData`; empty where there is none.
    Pixels frame() const
    {
        dv::IMpxFrame* made = lad->lastData();
        if (made == nullptr)
            return {};
        const auto* pixels = static_cast<const Pixel*>(made->dataPointer(0.0));
        Pixels copy(pixels, pixels + made->pixelCount());
        made->destroy();
        return copy;
    }
    /// The text of a failure of a member, with the name that goes with it.
    static std::string failure(const std::string& name, const std::string& error)
    {
        return "Device " + name + " reported error: " + error;
    }

    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    std::vector<std::string> names;
    ErrorLines errors;
    std::unique_ptr<FileLog> log;
    std::unique_ptr<EventLog> events;

private:
    LadClass* lad;
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

/// Events of a series of so many frames.
inline std::vector<Seen> readyEvents(long frames, unsigned end)
{
    std::vector<Seen> events;
    for (long i = 0; i < frames; ++i)
        events.push_back({HWEVENT_FRAME_READY, i});
    events.push_back({end, 0});
    return events;
}

/// A number below `limit`, at random.
class Dice {
public:
    explicit Dice(unsigned seed) : random(seed) {}
    unsigned operator()(unsigned limit) { return static_cast<unsigned>(random() % limit); }

private:
    std::mt19937 random;
};

/// Runs `steps` from threads of their own at random, each again and again, for as long as a stress test takes: a few
/// seconds, or what LATIXEL_STRESS_SECONDS says. `control` runs on this thread in the same way.
inline void stress(const std::function<void(Dice&)>& control, const std::vector<std::function<void(Dice&)>>& steps)
{
    const char* wanted = std::getenv("LATIXEL_STRESS_SECONDS");
    const auto length = std::chrono::duration<double>(wanted != nullptr ? std::atof(wanted) : 3.0);
    const auto end = std::chrono::steady_clock::now() + length;
    const auto loop = [end](const auto& step, unsigned seed) {
        Dice dice(seed);
        while (std::chrono::steady_clock::now() < end && !testing::Test::HasFatalFailure()) {
            step(dice);
            std::this_thread::sleep_for(std::chrono::microseconds(dice(20000)));
        }
    };
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < steps.size(); ++i)
        threads.emplace_back(loop, steps[i], i + 1);
    loop(control, 1000);
}

} // namespace support
