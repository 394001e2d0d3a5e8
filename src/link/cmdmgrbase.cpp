// See cmdmgrbase.h.
#include "link/cmdmgrbase.h"

#include "link/ftdidev.h"
#include "shared/str.h"

#include <algorithm>
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

// ---- Exchanges ----

CmdMgrBase::Exchange::Exchange(CmdMgrBase& manager) : mgr(manager)
{
    ++mgr.exchangeWanted;
    mgr.sync.lock();
    --mgr.exchangeWanted;
    if (mgr.depth++ == 0)
        mgr.beginExchange();
}

CmdMgrBase::Exchange::~Exchange()
{
    if (--mgr.depth == 0)
        mgr.endExchange();
    mgr.sync.unlock();
}

void CmdMgrBase::beginExchange()
{
    exchanger = getCurThreadId();
    owed = Answer::NotDue;
    // Where that does not work, the send that follows tells why.
    if (!ftdi->outOfStep() || !ftdi->resynchronise())
        return;
    ++resets;
    if (log != nullptr)
        log->log(ERR, "Link out of step, board reset");
}

void CmdMgrBase::endExchange()
{
    exchanger = 0;
    if (owed == Answer::Missing || ftdi->outOfStep())
        ++unanswered;
    else if (owed == Answer::Came)
        unanswered = 0;
    if (givesUp && isBoardMute())
        ftdi->giveUp();
}

void CmdMgrBase::giveUpMuteBoard(bool on)
{
    givesUp = on;
    if (!on)
        ftdi->resume();
}

int CmdMgrBase::receiveInto(char* buffer, unsigned long size, double timeout, const std::atomic<int>* wanted)
{
    const bool exchanging = exchanger == getCurThreadId();
    if (exchanging && size != 0 && ftdi->outOfStep()) {
        *buffer = '\0';
        return 0;
    }
    const int received = ftdi->receive(buffer, size, size, timeout, false, wanted);
    if (exchanging && received > 0 && owed == Answer::Missing)
        noteAnswer();
    return received;
}

// ---- Waits ----

int CmdMgrBase::keepTrying(double timeout, const bool* abort, bool sleepBetween,
                           const std::function<Attempt(double seconds)>& attempt) const
{
    const double end = getPreciseTime() + timeout;
    do {
        const Attempt result = attempt(std::clamp(end - getPreciseTime(), ATTEMPT_PAUSE, WAIT_ATTEMPT));
        if (result == Attempt::Done)
            return 0;
        if (result == Attempt::Again)
            continue;
        if (result == Attempt::LinkFailed)
            sleepThread(std::min(FAILURE_PAUSE, end - getPreciseTime()));
        else if (sleepBetween || exchangeWanted != 0)
            sleepThread(ATTEMPT_PAUSE);
        if (abort != nullptr && loadFlag(*abort))
            return -2;
    } while (getPreciseTime() < end && !ftdi->refusesCalls());
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
