// What the hostile host has told its device and when, and which frames may come of it.
#pragma once

#include "hostile/subject.h"
#include "refhost/frame.h"

#include <chrono>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace hostile {

using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;

/// The frames that a kind can deliver, by their pixels.
class KnownFrames {
public:
    explicit KnownFrames(const Kind& kind);
    /// A frame of a series of rows that was taken undisturbed in a state.
    void addRows(const refhost::Frame& frame, const State& state) { rows.emplace(digest(frame), state); }
    /// All states in which a frame looks like this.
    std::vector<State> statesOf(const refhost::Frame& frame) const;
    /// Whether there is nothing to compare the frame with.
    bool ignores(const refhost::Frame& frame) const;

private:
    using Table = std::unordered_multimap<std::uint64_t, State>;
    static std::uint64_t digest(const refhost::Frame& frame);
    Table frames;
    Table rows;
};

/// Keeps, for each dimension, the states that may be in force at any time: a setter's from its call on, the one before
/// until a later call has returned. Safe from any thread.
class World {
public:
    /// When a frame was taken: between these moments, and behind a frame that began at `before`.
    struct Window {
        Moment before;
        Moment from;
        Moment to;
    };

    explicit World(const KnownFrames& knownFrames) : known(knownFrames) {}

    /// Runs `call`, which sets a dimension and gives 0 where it did.
    template <typename Call>
    int change(Dim dim, int state, Call call)
    {
        const std::size_t id = begin(dim, state);
        const int result = call();
        end(dim, id, result == 0);
        return result;
    }
    /// Runs `call`, which starts a series.
    template <typename Call>
    int start(int time, Call call)
    {
        const Moment asked = beginStart();
        const int result = change(Time, time, call);
        endStart(asked, result == 0);
        return result;
    }
    /// The device has been brought up anew: everything is in its first state.
    void reset();
    /// From now on anything known may be in force: a board has failed, and what was set last may have got lost.
    void doubt(const std::string& why);
    /// A start command is about to go to the board.
    void exposes();

    /// The frame event of an index is told; nullopt behind the last one of a series.
    void announced(std::optional<long> index);
    /// The series whose frames are told, and how far it is; nullopt where no frame was told.
    std::optional<std::pair<std::size_t, long>> progress();
    /// When the frame of an index, or a later one, was taken.
    Window windowOf(long index);
    /// What is wrong with a frame; empty for nothing.
    std::string complaint(const refhost::Frame& frame, const Window& window);

private:
    struct Entry {
        int state;
        Moment begun;
        Moment returned = Moment::max();
        Moment until = Moment::max();
    };

    std::size_t begin(Dim dim, int state);
    void end(Dim dim, std::size_t id, bool done);
    Moment beginStart();
    void endStart(Moment asked, bool done);
    bool mayHold(const State& state, const Window& window) const;
    std::string describe(const Window& window) const;

    const KnownFrames& known;
    std::mutex mutex; ///< guards everything below
    std::array<std::vector<Entry>, DIMS> entries;
    std::vector<Moment> starting; ///< calls of a start that have not returned
    Moment started{};             ///< the call of the last one that did
    std::size_t series = 0;
    std::vector<Moment> commands; ///< start commands
    std::optional<long> told;     ///< index of the frame that was told last
    std::string doubts;           ///< the boards' failures
};

} // namespace hostile
