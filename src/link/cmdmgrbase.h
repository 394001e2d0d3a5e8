// What the command managers of all board generations share: link and log, the report of a failure, the loop of a wait.
#pragma once

#include "shared/filelog.h"
#include "shared/lasterror.h"
#include "shared/osdepend.h"

#include <functional>

class FtdiDev;

namespace HwLatixel {

/// Holds what a command manager talks and reports through; knows nothing of frames. Times are in seconds.
class CmdMgrBase {
public:
    virtual ~CmdMgrBase() = default;
    CmdMgrBase(const CmdMgrBase&) = delete;
    CmdMgrBase& operator=(const CmdMgrBase&) = delete;

    /// Words of the last failure; valid for a while, see LastError.
    const char* getLastError() const { return lastError.get(); }

protected:
    /// Longest silence of the link while something goes out.
    static constexpr double SEND_TIMEOUT = 2.0;
    /// A link's mark for no time limit.
    static constexpr double NO_TIMEOUT = -1.0;
    /// Seconds that one attempt of a wait asks the board: an abort is noticed about as often.
    static constexpr double WAIT_ATTEMPT = 1.0;

    /// What a manager writes to the debug log; polled by every thread that sends or receives.
    struct LogSwitches {
        bool commands = true;     ///< The "CMD" lines.
        bool sentData = true;     ///< Dumps of payloads.
        bool receivedData = true; ///< Dumps of received data.
    };

    /// How one attempt of a wait ended.
    enum class Attempt {
        Done,       ///< What was waited for has come.
        Again,      ///< Something else has come: more may follow at once.
        Nothing,    ///< Too little has come, or nothing of use.
        LinkFailed, ///< The link failed.
    };

    /// Link and log are not owned; `log` may be null, which switches all logging off.
    CmdMgrBase(FtdiDev* ftdi, FileLog* log);

    /// Whether a link's result is all of `size` bytes.
    static bool movedAll(int result, unsigned long size)
    {
        return result >= 0 && static_cast<unsigned long>(result) == size;
    }
    /// Attempts until one is done, at least once. Behind an attempt that brought nothing it pauses 2 ms if
    /// `sleepBetween`, behind a failed link longer, and then looks at `abort`, which may be null.
    /// @return 0 when done, -1 at the deadline, -2 when aborted
    static int keepTrying(double timeout, const bool* abort, bool sleepBetween,
                          const std::function<Attempt()>& attempt);

    /// Receives until the data end with `pattern`, at most `timeout` seconds. Returns the bytes received, also without
    /// the pattern, or -1 where the link fails.
    int receiveUntil(char* buffer, unsigned long size, const char* pattern, unsigned long patternSize, double timeout);
    /// Dumps received bytes if the log wants them.
    void dumpReceived(const void* data, unsigned long size, const char* title, bool ascii);
    /// Reports a failure to the log and as last error. Returns `code`.
    int logError(int code, LogLevel level, const char* format, ...) __attribute__((format(printf, 4, 5)));

    ThreadSyncObject sync;
    FtdiDev* ftdi;
    FileLog* log;
    LastError lastError;
    LogSwitches logSwitches;
};

} // namespace HwLatixel
