// See cmdmgrbase.h.
#include "link/cmdmgrbase.h"

#include "link/ftdidev.h"
#include "shared/str.h"

#include <cstdarg>
#include <string>

namespace HwLatixel {

namespace {

/// Seconds between two attempts of a wait.
constexpr double ATTEMPT_PAUSE = 0.002;
/// Seconds between two attempts on a link that fails: it does so at once, and each failure is a line in the log.
constexpr double FAILURE_PAUSE = 0.1;

} // namespace

CmdMgrBase::CmdMgrBase(FtdiDev* link, FileLog* fileLog) : ftdi(link), log(fileLog) {}

int CmdMgrBase::keepTrying(double timeout, const bool* abort, bool sleepBetween,
                           const std::function<Attempt()>& attempt)
{
    const double start = getPreciseTime();
    do {
        const Attempt result = attempt();
        if (result == Attempt::Done)
            return 0;
        if (result == Attempt::Again)
            continue;
        if (result == Attempt::LinkFailed)
            sleepThread(FAILURE_PAUSE);
        else if (sleepBetween)
            sleepThread(ATTEMPT_PAUSE);
        if (abort != nullptr && loadFlag(*abort))
            return -2;
    } while (getPreciseTime() < start + timeout);
    return -1;
}

int CmdMgrBase::receiveUntil(char* buffer, unsigned long size, const char* pattern, unsigned long patternSize,
                             double timeout)
{
    const int received = ftdi->receiveAllUntilPattern(buffer, size, pattern, patternSize, timeout);
    if (received < 0)
        return logError(-1, ERR, "Timeout. Not received data & frame");
    if (received > 0)
        dumpReceived(buffer, static_cast<unsigned long>(received), "Received data:", true);
    return received;
}

void CmdMgrBase::dumpReceived(const void* data, unsigned long size, const char* title, bool ascii)
{
    if (log != nullptr && loadFlag(logSwitches.receivedData))
        log->logBuffer(DBG, data, size, title, ascii);
}

int CmdMgrBase::logError(int code, LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    // Without the buffer's rest behind the characters. NOLINTNEXTLINE(readability-redundant-string-cstr)
    const std::string text = str::formatv(format, args).c_str();
    va_end(args);
    lastError.set(text);
    if (log != nullptr)
        log->log(code, level, text);
    return code;
}

} // namespace HwLatixel
