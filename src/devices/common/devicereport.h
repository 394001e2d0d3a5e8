// How a device tells what happens to it: its log, its last error, and the host's log callback.
#pragma once

#include "host/ihwdev.h"
#include "shared/filelog.h"
#include "shared/lasterror.h"
#include "shared/osdepend.h"

#include <cstdarg>
#include <deque>
#include <string>

namespace HwLatixel {

class LinkTurn;
class SeriesLife;

/// Reports of one device or composite. Safe from any thread: every operation takes the report's own lock, the last
/// lock in the order but for the log's. The host's callback runs with no lock in hand: a line goes to the log at once,
/// and to the host as soon as the thread that reports it has given the link's turn back, in the order of its lines.
/// What the host causes within its callback goes to the log and to `lastError` alone: a host that is refused there
/// would be called for ever.
class DeviceReport {
public:
    /// When `lastError` takes a text over, as the host's callback sees it.
    enum class Order {
        StoreThenCall,
        CallThenStore, ///< during the callback `lastError` still tells the text before, on the thread that runs it
    };

    explicit DeviceReport(Order reportOrder = Order::StoreThenCall) : order(reportOrder) {}
    DeviceReport(const DeviceReport&) = delete;
    DeviceReport& operator=(const DeviceReport&) = delete;

    /// The turn whose holder's lines wait, and the life for which the host's callback is one of the device's handlers;
    /// null for none. Set before the first report.
    void setTurn(const LinkTurn* linkTurn, SeriesLife* seriesLife = nullptr)
    {
        turn = linkTurn;
        life = seriesLife;
    }
    /// Tells the host what the calling thread has kept back.
    void tellHost();

    /// Sends what follows to `log`, which is not owned; null switches the log off.
    void attachLog(FileLog* log);
    /// The log, or null.
    FileLog* log() const { return log_; }
    /// The host's callback for error, message and information lines; null for none.
    void setLogMsgFunc(dv::LogMsgFunc func, void* user);

    /// Reports one line and returns `code`, so that a failure path is one statement. The code is the severity as well:
    /// 1 and below 0 are errors for the host, 2 and 3 levels of their own, and 0 reaches the log and `lastError` but
    /// not the host. In the log every such line carries ERR, an information line too.
    int errorV(int code, const char* format, va_list args);
    int error(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));

    /// Tells the host a line of another device at the callback's `level`; log and `lastError` don't get it.
    void pass(unsigned level, const char* text);

    /// Writes one line at `level` to the log alone.
    void lineV(LogLevel level, const char* format, va_list args);
    void line(LogLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Writes `text` as it stands at `level`, without time and prefix.
    void plain(LogLevel level, const char* text);
    /// Writes a section title at DBG, with a rule of dashes below it if `ruled`.
    void section(const char* title, bool ruled);
    /// Sets the log's level.
    void setLevel(LogLevel level);

    /// Text of the last error; empty at first. Valid for a while, see LastError.
    const char* lastError() const;

private:
    /// A line for the host.
    struct Line {
        pthread_t thread;
        unsigned level;
        std::string text;
        std::string before; ///< what `lastError` told when it was reported
    };
    /// The line that the calling thread tells the host right now.
    struct Telling;

    bool nextLine(Line& line);
    void tellUnlessTurn();

    const Order order;
    const LinkTurn* turn = nullptr;
    SeriesLife* life = nullptr;
    mutable ThreadSyncObject sync;
    std::deque<Line> kept;   ///< not told yet; guarded by sync
    FileLog* log_ = nullptr; ///< guarded by sync
    LastError lastError_;
    dv::LogMsgFunc logMsgFunc = nullptr; ///< guarded by sync
    void* logMsgUser = nullptr;          ///< guarded by sync
};

} // namespace HwLatixel
