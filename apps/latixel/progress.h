// How far a series is, on a terminal or in a log.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace tool {

/// What a progress line tells.
struct ProgressState {
    unsigned frames = 0;
    unsigned total = 0;
    double elapsed = 0;  ///< seconds
    double exposure = 0; ///< seconds of one frame: the guess for what remains before the first one is there
    std::string note;    ///< stands in place of the remaining time, such as "waits for a trigger"
};

/// The line for a terminal of `columns` columns: a bar, frames, frame rate and remaining time. It is never longer
/// than the terminal is wide.
std::string progressBar(const ProgressState& state, unsigned columns);
/// The same as a plain sentence.
std::string progressSentence(const ProgressState& state);

/// Shows progress on a stream: one line that is drawn anew on a terminal, a plain line every few seconds elsewhere.
/// Used from one thread.
class Progress {
public:
    explicit Progress(std::FILE* stream);
    /// Clears the line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const ProgressState& state);
    /// Takes the line off the terminal.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::FILE* const stream;
    const bool terminal;
    bool drawn = false;
    Clock::time_point next = Clock::now();
    std::string lastNote;
};

} // namespace tool
