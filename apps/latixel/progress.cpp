// How far a series is.
#include "apps/latixel/progress.h"

#include "apps/latixel/text.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {
namespace {

constexpr auto DRAW_INTERVAL = std::chrono::milliseconds(100);
constexpr auto LINE_INTERVAL = std::chrono::seconds(5);
constexpr double QUIET_START = 0.5; // seconds; a series that is over by then needs no plain lines
constexpr unsigned WIDEST_BAR = 30;
constexpr unsigned NARROWEST_BAR = 8;

unsigned columnsOf(std::FILE* stream)
{
    winsize size{};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

double share(const ProgressState& state)
{
    return state.total > 0 ? std::min(1.0, static_cast<double>(state.frames) / state.total) : 0;
}

std::string rest(const ProgressState& state)
{
    if (!state.note.empty())
        return state.note;
    const double perFrame = state.frames > 0 ? state.elapsed / state.frames : state.exposure;
    const double left = perFrame * state.total - state.elapsed;
    return left >= 0 ? duration(left) + " left" : "waiting for the first frame";
}

std::string numbers(const ProgressState& state)
{
    std::string text = std::to_string(state.frames) + "/" + std::to_string(state.total) + " frames";
    if (state.frames > 0 && state.elapsed > 0) {
        const double rate = state.frames / state.elapsed;
        text += ", " + fixed(rate, rate < 10 ? 2 : 1) + " frames/s";
    }
    return text + ", " + rest(state);
}

} // namespace

std::string progressBar(const ProgressState& state, unsigned columns)
{
    const std::string text = numbers(state);
    const std::size_t taken = text.size() + 3;              // the brackets and a blank
    const std::size_t room = columns > 0 ? columns - 1 : 0; // the last column would wrap the line
    if (taken + NARROWEST_BAR > room)
        return text.substr(0, room);
    const auto bar = std::min<std::size_t>(WIDEST_BAR, room - taken);
    const auto filled = static_cast<std::size_t>(share(state) * static_cast<double>(bar));
    return "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "] " + text;
}

std::string progressSentence(const ProgressState& state)
{
    return numbers(state);
}

Progress::Progress(std::FILE* out) : stream(out), terminal(isatty(fileno(out)) != 0) {}

Progress::~Progress()
{
    clear();
}

void Progress::show(const ProgressState& state)
{
    const auto now = Clock::now();
    const bool news = state.note != lastNote && !state.note.empty();
    lastNote = state.note;
    const bool tooEarly = !terminal && state.elapsed < QUIET_START;
    if ((now < next || tooEarly) && !news)
        return;
    next = now + (terminal ? Clock::duration(DRAW_INTERVAL) : Clock::duration(LINE_INTERVAL));
    if (terminal) {
        std::fprintf(stream, "\r%s\x1b[K", progressBar(state, columnsOf(stream)).c_str());
        drawn = true;
    } else {
        std::fprintf(stream, "%s\n", progressSentence(state).c_str());
    }
    std::fflush(stream);
}

void Progress::clear()
{
    if (!drawn)
        return;
    std::fputs("\r\x1b[K", stream);
    std::fflush(stream);
    drawn = false;
}

} // namespace tool
