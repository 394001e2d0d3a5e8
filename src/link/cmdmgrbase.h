// What the command managers of all board generations share: link and log, the report of a failure, the loop of a wait.
#pragma once

#include "shared/filelog.h"
#include "shared/lasterror.h"
#include "shared/osdepend.h"

#include <atomic>
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

    /// Keeps the frames of all other threads out while it lives: for what belongs together on the wire, a frame with
    /// its payload or its answer, or several of them. Threads may nest them. Waiting for a packet needs none, so that
    /// a frame without an answer can go out meanwhile.
    ///
    /// The outermost one first brings a link back in step (see `FtdiDev`). Once a send in it has failed, all later ones
    /// fail at once like it, and its receives bring nothing: the board would take them for the rest of what is missing.
    class Exchange {
    public:
        explicit Exchange(CmdMgrBase& manager);
        ~Exchange();
        Exchange(const Exchange&) = delete;
        Exchange& operator=(const Exchange&) = delete;

    private:
        CmdMgrBase& mgr;
    };

    /// Exchanges in a row that the interface board itself had to answer, and did so without a byte, or that it did not
    /// take. Any thread.
    unsigned unansweredExchanges() const { return unanswered; }
    /// Whether there were so many of them that the board counts as mute.
    bool isBoardMute() const { return unanswered >= MUTE_BOARD_EXCHANGES; }
    /// From now on the link is given up as soon as the board counts as mute, so that all further calls fail at once;
    /// with false no more, and it is tried again.
    void giveUpMuteBoard(bool on);
    /// How often a board was reset because a send had failed: what it was told before may be forgotten. Any thread.
    unsigned boardResets() const { return resets; }

protected:
    static constexpr unsigned MUTE_BOARD_EXCHANGES = 3;
    /// Longest silence of the link while something goes out.
    static constexpr double SEND_TIMEOUT = 2.0;
    /// A link's mark for no time limit.
    static constexpr double NO_TIMEOUT = -1.0;
    /// Seconds that one attempt of a wait asks the board at most: an abort is noticed about as often.
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
    /// Attempts until one is done, at least once; each is told how many seconds it may take. Behind an attempt that
    /// brought nothing it pauses 2 ms if `sleepBetween` or if another thread wants an exchange, behind a failed link
    /// longer, but not beyond the deadline, and then looks at `abort`, which may be null.
    /// @return 0 when done, -1 at the deadline or when the link is closing, -2 when aborted
    int keepTrying(double timeout, const bool* abort, bool sleepBetween,
                   const std::function<Attempt(double seconds)>& attempt) const;

    /// From now on the board owes an answer in this exchange. The caller is in one.
    void expectAnswer() { owed = Answer::Missing; }
    /// The board has answered, if not in this exchange, then to one before. The caller is in one.
    void noteAnswer() { owed = Answer::Came; }
    /// The number of threads that wait for the caller's exchange to end, or null where it is part of another.
    const std::atomic<int>* othersWaiting() const { return depth == 1 ? &exchangeWanted : nullptr; }
    /// As the link's `receive`, but as in an `Exchange` that is broken, or with its answer counted.
    int receiveInto(char* buffer, unsigned long size, double timeout, const std::atomic<int>* wanted = nullptr);

    /// Receives until the data end with `pattern`, at most `timeout` seconds. Returns the bytes received, also without
    /// the pattern, or -1 where the link fails.
    int receiveUntil(char* buffer, unsigned long size, const char* pattern, unsigned long patternSize, double timeout);
    /// Dumps received bytes if the log wants them.
    void dumpReceived(const void* data, unsigned long size, const char* title, bool ascii);
    /// Reports a failure to the log and as last error. Returns `code`.
    int logError(int code, LogLevel level, const char* format, ...) __attribute__((format(printf, 4, 5)));

    FtdiDev* ftdi;
    FileLog* log;
    LastError lastError;
    LogSwitches logSwitches;

private:
    /// What became of the answer that the interface board owes in an exchange.
    enum class Answer { NotDue, Missing, Came };

    void beginExchange();
    void endExchange();

    ThreadSyncObject sync;                ///< held by the thread that is in an exchange
    int depth = 0;                        ///< exchanges within each other; guarded by sync
    Answer owed = Answer::NotDue;         ///< guarded by sync
    std::atomic<pthread_t> exchanger = 0; ///< the thread that is in an exchange
    std::atomic<int> exchangeWanted = 0;  ///< threads that wait for one
    std::atomic<unsigned> unanswered = 0;
    std::atomic<bool> givesUp = false; ///< a mute board
    std::atomic<unsigned> resets = 0;
};

} // namespace HwLatixel
