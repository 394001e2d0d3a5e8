// Records, dumps and the file of the log.
#include "shared/filelog.h"

#include "shared/fileops.h"
#include "shared/str.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <string_view>
#include <utility>

namespace {

constexpr unsigned long ROW_BYTES = 16;
constexpr unsigned long ROW_CHARS = 70;
constexpr unsigned long HEX_WIDTH = 3;   // of one byte, with its blank
constexpr unsigned long ASCII_BAR = 51;  // where the hexadecimal side ends
constexpr unsigned long SHORT_DUMP = 32; // bytes that a reader counts by himself
constexpr const char* SKIPPED_MARK = "          ----- SKIPPED DATA -----\n";
constexpr const char* TRIMMED_MARK = "              ------ TRIMMED ----\n";

struct LocalTime {
    tm fields;
    int milliseconds;
};

LocalTime localTime(double time)
{
    const double wholeSeconds = std::floor(time);
    const time_t seconds = static_cast<time_t>(wholeSeconds);
    LocalTime result{};
    localtime_r(&seconds, &result.fields);
    result.fields.tm_sec %= 60; // a leap second prints as 00
    result.milliseconds = static_cast<int>((time - wholeSeconds) * 1000);
    return result;
}

const char* prefixOf(LogLevel level)
{
    return level >= FATAL && level <= DBG ? LOGPREFIX[level] : "";
}

// One row of a dump: the bytes in hexadecimal, then, if asked, a bar and the bytes as characters.
std::string dumpRow(const unsigned char* data, unsigned long size, bool ascii)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string row(ROW_CHARS, ' ');
    for (unsigned long i = 0; i < size; ++i) {
        row[i * HEX_WIDTH] = DIGITS[data[i] >> 4];
        row[i * HEX_WIDTH + 1] = DIGITS[data[i] & 0x0F];
    }
    if (!ascii)
        return row.substr(0, ASCII_BAR);
    row[ASCII_BAR] = '|';
    for (unsigned long i = 0; i < size; ++i)
        row[ASCII_BAR + 1 + i] = data[i] < 0x21 || data[i] >= 0x80 ? '.' : static_cast<char>(data[i]);
    return row;
}

} // namespace

FileLog::FileLog(std::string logPath, bool toFile, bool toConsole, bool rotate, bool truncate)
    : path(std::move(logPath)),
      logToFile(toFile),
      logToConsole(toConsole)
{
    openFile(truncate, rotate);
    if (file != nullptr)
        fprintf(file, "################# LOG OPENED (%s) ###################### \n", getLastTime(true).c_str());
    closeFile();
}

FileLog::~FileLog()
{
    closeFile();
}

void FileLog::setLogLevel(int level)
{
    logLevel.store(level, std::memory_order_relaxed);
}

void FileLog::setLogBufferContent(bool content)
{
    storeFlag(logBufferContent, content);
}

int FileLog::log(LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = logList(level, format, args);
    va_end(args);
    return result;
}

int FileLog::log(int ret, LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    logList(level, format, args);
    va_end(args);
    return ret;
}

int FileLog::log(int ret, LogLevel level, std::string text)
{
    ThreadLock lock(&sync);
    if (!passes(level))
        return 0;
    writeToSinks(
        [&](FILE* out) { fprintf(out, "(%s) [%s]: %s\n", getLastTime(false).c_str(), prefixOf(level), text.c_str()); });
    lastMessage = std::move(text);
    return ret;
}

void FileLog::logNoTime(LogLevel level, const char* text)
{
    ThreadLock lock(&sync);
    if (!passes(level))
        return;
    writeToSinks([&](FILE* out) { fputs(text, out); });
}

int FileLog::logBuffer(LogLevel level, const void* data, unsigned long size, const char* title, bool ascii)
{
    return logBuffer(0, level, data, size, title, ascii, 0, false);
}

int FileLog::logBuffer(int ret, LogLevel level, const void* data, unsigned long size, const char* title, bool ascii,
                       unsigned long maxBytes, bool noNewline)
{
    ThreadLock lock(&sync);
    if (!passes(level))
        return 0;
    writeToSinks([&](FILE* out) {
        fprintf(out, "(%s) [%s]: %s%s", getLastTime(false).c_str(), prefixOf(level),
                title != nullptr ? title : "Buffer:", noNewline ? "" : "\n");
    });
    writeToSinks([&](FILE* out) {
        logBuffer(out, static_cast<const unsigned char*>(data), size, maxBytes != 0 ? maxBytes : maxBufferBytes, ascii);
    });
    return ret;
}

std::string FileLog::getLastTime(bool longForm) const
{
    const LocalTime now = localTime(getPrecTimeLog());
    const tm& t = now.fields;
    if (longForm)
        return str::format("%02d/%02d/%04d %02d:%02d:%02d.%03d", t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, t.tm_hour,
                           t.tm_min, t.tm_sec, now.milliseconds);
    return str::format("%02d_%02d:%02d:%02d.%03d", t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, now.milliseconds);
}

std::string FileLog::getFileTime() const
{
    const tm t = localTime(getPrecTimeLog()).fields;
    return str::format("%02d%02d%04d_%02d%02d%02d", t.tm_mday, t.tm_mon + 1, t.tm_year + 1900, t.tm_hour, t.tm_min,
                       t.tm_sec);
}

double FileLog::getPrecTimeLog() const
{
    return getPreciseTime();
}

bool FileLog::openFile(bool truncate, bool rotate)
{
    ThreadLock lock(&sync);
    closeFile();
    if (truncate && rotate && fileExists(path))
        renameFile(path.c_str(), (path + "_" + getFileTime() + ".log").c_str());
    file = fopen(path.c_str(), truncate ? "we" : "ae");
    return file == nullptr;
}

void FileLog::closeFile()
{
    ThreadLock lock(&sync);
    if (file != nullptr)
        fclose(file);
    file = nullptr;
}

void FileLog::renameFile(const char* from, const char* to)
{
    static_cast<void>(rename(from, to));
}

bool FileLog::passes(LogLevel level) const
{
    return level <= logLevel.load(std::memory_order_relaxed);
}

int FileLog::logList(LogLevel level, const char* format, va_list args)
{
    if (!passes(level))
        return 0;
    ThreadLock lock(&sync);
    return log(0, level, str::formatv(format, args));
}

// The rows of one dump. Of data above the limit the head and the tail are written, each half a limit long.
void FileLog::logBuffer(FILE* out, const unsigned char* data, unsigned long size, unsigned long maxBytes, bool ascii)
{
    if (!loadFlag(logBufferContent)) {
        fprintf(out, "   Bytes: %u\n", static_cast<unsigned>(size));
        return;
    }
    const unsigned long keep = maxBytes < size ? maxBytes / 2 : maxBytes;
    const unsigned long end = size;
    bool skipped = false;
    for (unsigned long pos = 0; pos < end; pos += ROW_BYTES) {
        if (!skipped && pos > keep) {
            fputs(SKIPPED_MARK, out);
            pos = std::max(pos, size - keep);
            skipped = true;
        }
        fprintf(out, "   %s \n", dumpRow(data + pos, std::min(ROW_BYTES, end - pos), ascii).c_str());
    }
    if (end != size) // reserved mark: the walk always ends at the size
        fputs(TRIMMED_MARK, out);
    if (size > SHORT_DUMP)
        fprintf(out, "   Bytes: %u\n", static_cast<unsigned>(size));
}

// Calls `write` for the console and for the file, which is open for this one call. Needs `sync`.
template <typename Write>
void FileLog::writeToSinks(Write write)
{
    if (logToConsole) {
        write(stdout);
        fflush(stdout);
    }
    if (logToFile && !openFile(false, false)) {
        write(file);
        fflush(file);
        closeFile();
    }
}
