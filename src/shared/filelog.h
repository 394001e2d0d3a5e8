// The plug-in's log: levels, time stamps, hex dumps. It prefers crash safety to speed: the file is closed after every
// record, so that it holds everything up to the last line, however the process ends.
#pragma once

#include "shared/osdepend.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <type_traits>

/// A record passes when its level is not above the log's.
enum LogLevel : int { FATAL = 0, ERR = 1, MSG = 2, DBG = 3 };

/// What a record shows for its level.
inline constexpr const char* LOGPREFIX[] = {"FATAL", "ERR", "MSG", "DBG"};

/// What `va_list` is once it is passed to a function.
template <typename T>
concept ArgumentList = !std::is_null_pointer_v<T> && requires(T args)
{
    std::vsnprintf(nullptr, 0, "", args);
};

/// A log file, its console copy, or both. Any thread may log; a record or a dump stays in one piece.
/// No operation reports a failure: a file that can't be opened costs that record's copy in the file, and the next
/// record tries again.
class FileLog {
public:
    /// Opens the file, writes a banner and closes it again. With `truncate` the file starts empty, else it grows;
    /// `rotate` keeps the former file under "<path>_<file time>.log", and does nothing without `truncate`.
    FileLog(std::string logPath, bool toFile, bool toConsole, bool rotate, bool truncate);
    virtual ~FileLog();
    FileLog(const FileLog&) = delete;
    FileLog& operator=(const FileLog&) = delete;

    /// Records above this level are dropped from now on; `ERR` at construction. Any number is taken.
    void setLogLevel(int level);
    /// False reduces every dump to its number of bytes.
    void setLogBufferContent(bool content);

    /// Logs a formatted record. Returns 0.
    int log(LogLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Logs a formatted record and returns `ret` in any case: the one statement of a failure path.
    int log(int ret, LogLevel level, const char* format, ...) __attribute__((format(printf, 4, 5)));
    /// Logs a formatted record with the arguments of a `va_list`. Returns 0. (A literal 0 as the only argument of a
    /// format would pass for a `va_list` too; the constraint sends it to the form with "...".)
    template <ArgumentList Args>
    int log(LogLevel level, const char* format, Args args)
    {
        return logList(level, format, args);
    }
    /// Logs a text as it is. Returns `ret` when the record passes the level, else 0.
    int log(int ret, LogLevel level, std::string text);

    /// Writes a text without time, level and line end, to go on with a line.
    void logNoTime(LogLevel level, const char* text);

    /// Hex dump under a title line ("Buffer:" if `title` is null), with the characters beside it if `ascii`. Of more
    /// than 250 bytes only the head and the tail are shown. Returns 0.
    int logBuffer(LogLevel level, const void* data, unsigned long size, const char* title, bool ascii);
    /// The same with a limit of `maxBytes` (0: 250), and with no line end behind the title if `noNewline`.
    /// Returns `ret` when the record passes the level, else 0.
    int logBuffer(int ret, LogLevel level, const void* data, unsigned long size, const char* title, bool ascii,
                  unsigned long maxBytes, bool noNewline);

    /// Local time of now, to the millisecond: "24_18:05:09.042" with the day of the month, or in the long form
    /// "24/12/2026 18:05:09.042".
    std::string getLastTime(bool longForm) const;
    /// Local time of now for a file name: "24122026_180509".
    std::string getFileTime() const;
    /// Seconds since the epoch.
    double getPrecTimeLog() const;

    /// Opens the stream of the file side until `closeFile`; the records do so for themselves. Returns true on failure.
    bool openFile(bool truncate, bool rotate);
    void closeFile();
    /// Renames a file; a failure is ignored.
    void renameFile(const char* from, const char* to);

private:
    bool passes(LogLevel level) const;
    int logList(LogLevel level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));
    void logBuffer(FILE* out, const unsigned char* data, unsigned long size, unsigned long maxBytes, bool ascii);
    template <typename Write>
    void writeToSinks(Write write);

    FILE* file = nullptr; ///< open only while something is written; under `sync`
    const std::string path;
    std::string lastMessage; ///< last record that passed, for a debugger to find; under `sync`
    const bool logToFile;
    const bool logToConsole;
    bool logBufferContent = true; ///< through `loadFlag` and `storeFlag`
    std::atomic<int> logLevel = ERR;
    const unsigned long maxBufferBytes = 250;
    ThreadSyncObject sync;
};
