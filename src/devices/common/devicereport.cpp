// How a device tells what happens to it: log, last error, the host's log callback.
#include "devices/common/devicereport.h"

#include "devices/common/linkturn.h"
#include "devices/common/serieslife.h"
#include "shared/contained.h"
#include "shared/str.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace HwLatixel {

namespace {

/// Level of the host's log callback for a code; 0 for codes that do not reach the host.
unsigned hostLevel(int code)
{
    if (code == 1 || code < 0)
        return 1;
    return code == 2 || code == 3 ? static_cast<unsigned>(code) : 0;
}

constexpr const char* RULE = "-----------------------------------------------------------------------------------------"
                             "----------------------------\n";
static_assert(std::char_traits<char>::length(RULE) == 118, "117 dashes and a line end");

} // namespace

void DeviceReport::attachLog(FileLog* log)
{
    ThreadLock lock(&sync);
    log_ = log;
}

void DeviceReport::setLogMsgFunc(dv::LogMsgFunc func, void* user)
{
    ThreadLock lock(&sync);
    logMsgFunc = func;
    logMsgUser = user;
}

/// Lies on the stack of a call of the host; calls within it form a chain.
struct DeviceReport::Telling {
    Telling(const DeviceReport& deviceReport, const Line& told) : report(&deviceReport), line(&told), outer(innermost)
    {
        innermost = this;
    }
    ~Telling() { innermost = outer; }
    Telling(const Telling&) = delete;
    Telling& operator=(const Telling&) = delete;

    /// Whether the calling thread is in a call for that report.
    static bool runsFor(const DeviceReport& deviceReport)
    {
        for (const Telling* telling = innermost; telling != nullptr; telling = telling->outer)
            if (telling->report == &deviceReport)
                return true;
        return false;
    }

    const DeviceReport* report;
    const Line* line;
    const Telling* outer;
    static thread_local const Telling* innermost;
};

thread_local const DeviceReport::Telling* DeviceReport::Telling::innermost = nullptr;

int DeviceReport::errorV(int code, const char* format, va_list args)
{
    {
        ThreadLock lock(&sync);
        // The text without the NUL bytes behind it. NOLINTNEXTLINE(readability-redundant-string-cstr)
        std::string text = str::formatv(format, args).c_str();
        if (log_ != nullptr)
            log_->log(code, ERR, text);
        if (logMsgFunc != nullptr && hostLevel(code) != 0 && !Telling::runsFor(*this))
            kept.push_back({getCurThreadId(), hostLevel(code), text, lastError_.get()});
        lastError_.set(std::move(text));
    }
    tellUnlessTurn();
    return code;
}

void DeviceReport::pass(unsigned level, const char* text)
{
    {
        ThreadLock lock(&sync);
        if (logMsgFunc != nullptr)
            kept.push_back({getCurThreadId(), level, text, lastError_.get()});
    }
    tellUnlessTurn();
}

/// Tells the host at once where the calling thread has no turn in hand.
void DeviceReport::tellUnlessTurn()
{
    if (turn == nullptr || !turn->mine())
        tellHost();
}

void DeviceReport::tellHost()
{
    Line line{};
    while (nextLine(line)) {
        dv::LogMsgFunc func = nullptr;
        void* user = nullptr;
        {
            ThreadLock lock(&sync);
            func = logMsgFunc;
            user = logMsgUser;
        }
        const Telling telling(*this, line);
        std::optional<SeriesLife::Callback> handler;
        if (life != nullptr)
            handler.emplace(*life);
        if (func != nullptr)
            contained([&] { func(line.level, line.text.c_str(), user); });
    }
}

/// Takes the first line of the calling thread out. False where there is none.
bool DeviceReport::nextLine(Line& line)
{
    ThreadLock lock(&sync);
    const auto own = std::ranges::find(kept, getCurThreadId(), &Line::thread);
    if (own == kept.end())
        return false;
    line = std::move(*own);
    kept.erase(own);
    return true;
}

const char* DeviceReport::lastError() const
{
    const Telling* telling = Telling::innermost;
    if (order == Order::CallThenStore && telling != nullptr && telling->report == this)
        return telling->line->before.c_str();
    return lastError_.get();
}

int DeviceReport::error(int code, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    errorV(code, format, args);
    va_end(args);
    return code;
}

void DeviceReport::lineV(LogLevel level, const char* format, va_list args)
{
    ThreadLock lock(&sync);
    if (log_ != nullptr)
        // NOLINTNEXTLINE(readability-redundant-string-cstr): as above
        log_->log(0, level, std::string(str::formatv(format, args).c_str()));
}

void DeviceReport::line(LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    lineV(level, format, args);
    va_end(args);
}

void DeviceReport::plain(LogLevel level, const char* text)
{
    ThreadLock lock(&sync);
    if (log_ != nullptr)
        log_->logNoTime(level, text);
}

void DeviceReport::section(const char* title, bool ruled)
{
    plain(DBG, str::format("\n%s\n%s", title, ruled ? RULE : "").c_str());
}

void DeviceReport::setLevel(LogLevel level)
{
    ThreadLock lock(&sync);
    if (log_ != nullptr)
        log_->setLogLevel(level);
}

} // namespace HwLatixel
