// What the hostile host has told its device and when, and which frames may come of it.
#include "hostile/world.h"

#include <algorithm>
#include <sstream>

namespace hostile {

namespace {

/// FNV over the pixels as words.
template <typename Pixels>
std::uint64_t digestOf(const Pixels& pixels)
{
    std::uint64_t sum = 14695981039346656037ULL;
    for (const auto pixel : pixels)
        sum = (sum ^ pixel) * 1099511628211ULL;
    return sum;
}

/// Calls `use` with each state of a kind.
template <typename Use>
void forEachState(const Kind& kind, Use use)
{
    State state{};
    for (std::size_t dim = 0; dim < DIMS;) {
        use(state);
        for (dim = 0; dim < DIMS && ++state[dim] == kind.states[dim]; ++dim)
            state[dim] = 0;
    }
}

bool isOfRows(const refhost::Frame& frame)
{
    return frame.findMetaData("RowAcqTimes") != nullptr;
}

} // namespace

KnownFrames::KnownFrames(const Kind& kind)
{
    forEachState(kind, [&](const State& state) { frames.emplace(digestOf(expectedFrame(kind, state)), state); });
}

std::uint64_t KnownFrames::digest(const refhost::Frame& frame)
{
    const unsigned char* bytes = frame.bytes().data();
    if (frame.bytes().size() == std::size_t{frame.width()} * frame.height() * sizeof(std::uint16_t))
        return digestOf(std::span(reinterpret_cast<const std::uint16_t*>(bytes), frame.bytes().size() / 2));
    return digestOf(std::span(reinterpret_cast<const std::uint32_t*>(bytes), frame.bytes().size() / 4));
}

bool KnownFrames::ignores(const refhost::Frame& frame) const
{
    return isOfRows(frame) && rows.empty();
}

std::vector<State> KnownFrames::statesOf(const refhost::Frame& frame) const
{
    std::vector<State> states;
    const auto [first, last] = (isOfRows(frame) ? rows : frames).equal_range(digest(frame));
    std::transform(first, last, std::back_inserter(states), [](const auto& known) { return known.second; });
    return states;
}

std::size_t World::begin(Dim dim, int state)
{
    const std::scoped_lock lock(mutex);
    entries[dim].push_back({.state = state, .begun = Clock::now()});
    return entries[dim].size() - 1;
}

void World::end(Dim dim, std::size_t id, bool done)
{
    const std::scoped_lock lock(mutex);
    const Moment now = Clock::now();
    // A bring-up has come in between.
    if (id >= entries[dim].size())
        return;
    Entry& own = entries[dim][id];
    own.returned = now;
    if (!done)
        own.until = now;
    for (Entry& other : entries[dim])
        if (done && other.returned <= own.begun)
            other.until = std::min(other.until, now);
}

Moment World::beginStart()
{
    const std::scoped_lock lock(mutex);
    starting.push_back(Clock::now());
    return starting.back();
}

void World::endStart(Moment asked, bool done)
{
    const std::scoped_lock lock(mutex);
    std::erase(starting, asked);
    if (!done)
        return;
    started = asked;
    ++series;
}

void World::reset()
{
    const std::scoped_lock lock(mutex);
    const Moment now = Clock::now();
    for (auto& list : entries)
        list.assign(1, {.state = 0, .begun = now, .returned = now});
    commands.clear();
    told.reset();
    doubts.clear();
}

void World::doubt(const std::string& why)
{
    const std::scoped_lock lock(mutex);
    doubts += " " + why;
}

void World::exposes()
{
    const std::scoped_lock lock(mutex);
    commands.push_back(Clock::now());
}

void World::announced(std::optional<long> index)
{
    const std::scoped_lock lock(mutex);
    told = index;
}

std::optional<std::pair<std::size_t, long>> World::progress()
{
    const std::scoped_lock lock(mutex);
    return told ? std::optional(std::pair(series, *told)) : std::nullopt;
}

World::Window World::windowOf(long index)
{
    const std::scoped_lock lock(mutex);
    Moment begun = started;
    for (const Moment asked : starting)
        begun = std::min(begun, asked);
    Window window{.before = begun, .from = begun, .to = Clock::now()};
    // Each frame has a start command of its own, or all have one.
    auto own = std::ranges::lower_bound(commands, begun);
    for (long i = 0; i <= index && own != commands.end(); ++i, ++own) {
        window.before = window.from;
        window.from = *own;
    }
    return window;
}

bool World::mayHold(const State& state, const Window& window) const
{
    if (!doubts.empty())
        return true;
    for (std::size_t dim = 0; dim < DIMS; ++dim) {
        const auto inForce = [&](const Entry& entry) {
            if (entry.state != state[dim] || entry.begun > window.to)
                return false;
            // What was written into the counters is gone with the frame behind it.
            return dim == Counters ? entry.returned >= window.before : entry.until >= window.from;
        };
        if (!(dim == Counters && state[dim] == 0) && std::ranges::none_of(entries[dim], inForce))
            return false;
    }
    return true;
}

std::string World::complaint(const refhost::Frame& frame, const Window& window)
{
    const std::vector<State> states = known.statesOf(frame);
    const std::scoped_lock lock(mutex);
    if (frame.findMetaData("MissingBytes") != nullptr)
        return !doubts.empty() || isOfRows(frame) ? "" : "a frame is incomplete though no board has failed";
    // An overheated board has switched its chips off, until somebody polls it.
    const bool off = doubts.find("overheated") != std::string::npos &&
                     std::ranges::all_of(frame.bytes(), [&](unsigned char byte) { return byte == 0; });
    if (off || known.ignores(frame) ||
        std::ranges::any_of(states, [&](const State& state) { return mayHold(state, window); }))
        return "";
    std::ostringstream text;
    text << (states.empty() ? "a frame of no known state" : "a frame of a state that was not in force");
    for (const State& state : states) {
        text << " [";
        for (const int value : state)
            text << value;
        text << "]";
    }
    text << (isOfRows(frame) ? ", of rows" : "") << ", first pixels " << frame.pixel(0) << " " << frame.pixel(1)
         << ", last " << frame.pixel(std::size_t{frame.width()} * frame.height() - 1) << describe(window);
    return text.str();
}

std::string World::describe(const Window& window) const
{
    const auto ms = [&](Moment moment) {
        return moment == Moment::max()
                   ? std::string("-")
                   : std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(moment - window.to).count());
    };
    std::ostringstream text;
    text << "; taken from " << ms(window.from) << " ms on;" << doubts;
    for (std::size_t dim = 0; dim < DIMS; ++dim) {
        text << "\n  dimension " << dim << ":";
        for (const Entry& entry : entries[dim])
            if (entry.until >= window.from && entry.begun <= window.to)
                text << " " << entry.state << " (" << ms(entry.begun) << ".." << ms(entry.until) << ")";
    }
    return text.str();
}

} // namespace hostile
