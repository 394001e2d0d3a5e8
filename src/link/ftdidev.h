// The USB session of one FTDI bridge chip: opening by description, bit modes, and bytes with deadlines.
// This unit is the only one that calls libftdi; it knows nothing of frames or commands.
#pragma once

#include "shared/lasterror.h"
#include "shared/osdepend.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct ftdi_context;

/// One chip on the bus, as a listing finds it.
struct FtdiDevInfo {
    std::string name;         ///< USB product description.
    std::string serial;       ///< USB serial; empty where the listing was not asked for it.
    std::uint32_t vidPid = 0; ///< Vendor in the high 16 bits, product in the low 16 bits.
};

/// What the chip's data pins do.
enum FtdiBitMode {
    FtdiBitModeBitBang = 0, ///< Asynchronous bit-bang; a step through it resets the board's link.
    FtdiBitModeFifo = 1,    ///< Synchronous FIFO, the data path of all boards.
};

/// Owns the libftdi session of one chip.
///
/// Times are in seconds on the clock of `getPreciseTime`. Results are 0 or a byte count, negative on failure, and
/// then `getLastError` has the words. A timeout while receiving is no failure: the count is short. Nothing here
/// retries. A single call of libftdi is safe against other threads, a transfer of several is not: the device and its
/// command manager serialise those. The static tables are not guarded: list from one thread at a time, and not during
/// an open.
///
/// No call of libftdi blocks longer than its caller's limit has left, nor longer than `LONGEST_CALL`; a read at least
/// as long as a chip that is alive may take for one transfer. A read that ran into its limit brought nothing. A chip
/// that has left a request unanswered gets less time for the next ones.
class FtdiDev {
public:
    /// Seconds that one call of libftdi may block at most, and all requests together that set up or reset the link.
    static constexpr double LONGEST_CALL = 2.0;

    /// Tells of a finished transfer: the bytes, their count, direction 1 for a send and 0 for a receive.
    using DataCallback = void (*)(const char* data, unsigned long count, int direction, long user);

    /// `name` is the USB product description by which `openDevice` finds the chip. The second argument has no
    /// effect; all callers pass false.
    FtdiDev(std::string name, bool unused);
    /// Releases memory but does not close the device: owners call `closeDevice` first.
    virtual ~FtdiDev();
    FtdiDev(const FtdiDev&) = delete;
    FtdiDev& operator=(const FtdiDev&) = delete;

    // ---- The bus ----

    /// Registers a vendor and product for `listDevicesByName`. A pair that is known already is not doubled. Returns 0.
    static int addVidPid(unsigned int vid, unsigned int pid);
    /// The same for a pair in one word, vendor high. Returns 0.
    static int addVidPid(unsigned int vidPid);

    /// Appends to `out` all chips of the registered pairs, and of the four standard ones, whose description begins
    /// with one of the `count` texts in `names`; with `count` 0 all of them. Chips that can't be read are left out.
    /// `readSerial` fills in the serials.
    ///
    /// With `skipChannelB`, a chip whose description ends in "B" is read again and again while it stays readable:
    /// the call does not return before it is unplugged. That is the listing's settled behaviour, and it is discovery
    /// that passes true.
    ///
    /// Returns 0, -1 when libftdi can't be initialised, -2 when a bus scan fails.
    static int listDevicesByName(const char** names, unsigned long count, std::vector<FtdiDevInfo>& out,
                                 bool skipChannelB, bool readSerial);
    /// The entry that discovery calls; the same as `listDevicesByName`.
    static int listDevicesByNameFast(const char** names, unsigned long count, std::vector<FtdiDevInfo>& out,
                                     bool skipChannelB, bool readSerial);
    /// Appends to `out` all chips of the `count` pairs in `vidPids` (vendor in bits 16 to 31, product in bits 0 to
    /// 15), with their serials. `skipChannelB` as in `listDevicesByName`.
    ///
    /// Returns 0, -1, -2 as `listDevicesByName`, and -3 when a chip's texts can't be read.
    static int listDevicesByVidpid(const unsigned long* vidPids, unsigned long count, std::vector<FtdiDevInfo>& out,
                                   bool skipChannelB);

    // ---- Life of the session ----

    /// Opens the chip and brings it to serial mode with empty buffers, chunks of 65536 bytes and a latency of 2 ms.
    /// Vendor and product come from the last listing that saw this name, else from `vidPid`, else 0x0403:0x6010.
    /// `flowControl` switches RTS/CTS on, here and in each later `setBitMode(FtdiBitMode)`. Returns 0 or -1.
    int openDevice(bool flowControl, unsigned int vidPid);
    /// Closes the device. Returns libftdi's result, or 0 when it was not open.
    int closeDevice();
    /// Asks the chip for its latency timer: false when closed or when it does not answer.
    bool isConnected();

    /// Resets the chip, empties the buffers and enters `mode` through serial mode. Returns 0 always.
    int setBitMode(FtdiBitMode mode);
    /// Sets libftdi's bit mode as given. Returns 0 always.
    int setBitMode(unsigned char bitmask, unsigned char mode);
    /// Sets the speed in baud, with 8 data bits, 1 stop bit and no parity. Returns 0 always.
    int setBaudRate(int baud);
    /// Sets how many milliseconds (low 8 bits) the chip waits before it sends an incomplete packet. Returns 0 always.
    int setLatencyTimer(unsigned int milliseconds);
    /// Throws away what waits in the chip's buffers. Returns libftdi's result.
    int clearBuffers();

    // ---- Transfers ----

    /// Sends `size` bytes. `timeout` limits silence, not the whole transfer. Returns the bytes sent; libftdi's
    /// negative result; or -1 on "Timeout" or "Device disconnected", where the bytes already gone are not told. A
    /// failure leaves the link out of step.
    int send(const char* data, unsigned long size, double timeout);
    /// Receives the smaller of `bufferSize` and `count` bytes; `timeout` limits silence. Unless `binary` is set, a
    /// zero byte follows the data where the buffer has room. Returns the bytes received, short (and "Timeout" as
    /// last error) when the board fell silent; negative on failure. A `count` of 0 fails with -1. With `wanted` it ends
    /// before the first byte, as if timed out, once that is not 0.
    int receive(char* buffer, unsigned long bufferSize, unsigned long count, double timeout, bool binary,
                const std::atomic<int>* wanted = nullptr);
    /// Drains what has arrived, in at most `maxReads` reads, until the buffer is full or the stream pauses.
    /// A `timeout` of 0 or less sets no limit. Returns the bytes received, or libftdi's negative result.
    int receiveAll(char* buffer, unsigned long size, unsigned int maxReads, double timeout);
    /// Receives until the data end with `pattern`, at most `timeout` seconds in all. Returns the bytes received,
    /// also without the pattern (test with `findPattern`), or libftdi's negative result. A pattern with more bytes
    /// behind it in the same read is not seen.
    int receiveAllUntilPattern(char* buffer, unsigned long size, const char* pattern, unsigned long patternSize,
                               double timeout);
    /// Throws bytes away until `pattern` has gone by, at most `timeout` seconds in all. Returns the bytes read, with
    /// what came behind the pattern in the last read; libftdi's negative result; on "Timeout" minus the number of
    /// bytes thrown away, or -1 when none came.
    int skipAllUntilPattern(const char* pattern, unsigned long patternSize, double timeout);
    /// Receives text up to `delimiter`, at most `timeout` seconds in all, and keeps what follows for the next call.
    /// Returns 0; libftdi's negative result; -1 at the deadline, with the text so far in `line`.
    int getLine(std::string& line, char delimiter, double timeout);
    /// True when the last `patternSize` bytes of `data` are `pattern`.
    static bool findPattern(const char* data, unsigned long size, const char* pattern, unsigned long patternSize);

    // ---- A link out of step ----

    /// Whether a send has failed since the board was reset: nobody knows how many of its bytes the board has, so that
    /// it would take the next ones for the rest. Every send fails until then, at once, as the one before did.
    bool outOfStep() const { return failedSend != 0; }
    /// Resets the board by a step through bit-bang into FIFO mode, and reads what it still sends until it is silent,
    /// within about `LONGEST_CALL`. Returns whether the link is in step again: not where the chip does not answer.
    bool resynchronise();

    // ---- A link that is given up ----

    /// Marks the link as closing: every call fails at once, in all threads but one that has a `ClosingCalls`, and a
    /// transfer ends at its next step; a call of libftdi that is under way has up to `LONGEST_CALL` for that. Any
    /// thread.
    void startClosing();
    /// Takes that back: the link is not closed after all.
    void cancelClosing();
    /// The same for a board that does not answer, until `resume` or `startClosing`.
    void giveUp();
    void resume();
    /// Whether the calling thread's calls fail because the link is closing or given up.
    bool refusesCalls() const;
    /// While it lives, the thread that made it may use a link that is closing, for as many seconds. One thread at a
    /// time.
    class ClosingCalls {
    public:
        ClosingCalls(FtdiDev& link, double seconds);
        ~ClosingCalls() { dev.closer = 0; }
        ClosingCalls(const ClosingCalls&) = delete;
        ClosingCalls& operator=(const ClosingCalls&) = delete;

    private:
        FtdiDev& dev;
    };

    // ---- What libftdi can't do ----

    /// Does nothing. Returns 0, with a text in the last error.
    int cyclePort();
    /// Returns -1, with a text in the last error.
    int inQueue();
    /// Returns -1, with a text in the last error.
    int rename(const char* newName);
    /// Returns an empty text, with a text in the last error.
    std::string readName();

    // ---- Reports ----

    /// Words of the last failure; no success clears them. Valid for a while, see LastError.
    const char* getLastError() const { return lastError.get(); }
    /// Appends every later transfer to the file `path`; an empty path switches that off. Nothing in the plug-in
    /// does so: it is there for the laboratory.
    void setTrafficLog(std::string path) { logFile = std::move(path); }
    /// Sets the listener for transfers, or null. Nothing in the plug-in does so.
    void setDataCallback(DataCallback callback, long user);
    /// Appends one line to the traffic log: "<" for received or ">" for sent data, then the bytes in hexadecimal.
    void logBuff(const char* data, unsigned long size, bool received) const;

private:
    bool isOpen() const;
    void releaseContext();
    int fail(int result, const char* text);
    int failOfRefusal();
    int failOfLibrary(int result);
    int failOfSend(int result, const char* text);
    int limitOf(double seconds) const;
    double requestTime() const;
    bool mayCall(double end);
    bool noteRequest(bool answered);
    bool setUpLink(unsigned char mode, double end);
    int writeChunk(const char* data, int size, double seconds);
    int readChunk(char* buffer, unsigned long size, double seconds);
    void reportTransfer(const char* data, unsigned long size, bool received) const;
    void trace(const char* data, unsigned long size, bool received) const;

    /// Holds both locks, for what concerns the whole context.
    class WholeContext {
    public:
        explicit WholeContext(FtdiDev& link);
        ~WholeContext();
        WholeContext(const WholeContext&) = delete;
        WholeContext& operator=(const WholeContext&) = delete;

    private:
        FtdiDev& dev;
    };

    std::unique_ptr<ftdi_context> context;
    /// Held for one call of libftdi each, never for a transfer: a context keeps what it has read ahead, and two threads
    /// that take from it at once would leave its buffer. A write and a read do not meet.
    ThreadSyncObject readSync;
    ThreadSyncObject writeSync;
    std::atomic<int> wholeWanted = 0; ///< Threads that wait for a `WholeContext`: reads follow each other closely.
    std::string name;
    bool unused_;
    bool flowControl = false;
    LastError lastError;
    std::string lineBuffer; ///< What `getLine` has read past its last delimiter.
    std::string logFile;
    DataCallback dataCallback = nullptr;
    long dataCallbackUser = 0;
    std::atomic<int> failedSend = 0; ///< Result of the send that left the link out of step, or 0.
    LastError failedSendText;
    std::atomic<const char*> refusal = nullptr; ///< Why calls fail, while they do.
    std::atomic<double> closingEnd = 0;         ///< When closing's own calls end.
    std::atomic<pthread_t> closer = 0;          ///< The thread that closes.
    bool requestFailed = false;                 ///< The last request of the chip did; with both locks held.
    bool contextInUse = false; ///< libftdi may hold resources in the context that `ftdi_deinit` releases.

    static std::vector<std::uint32_t> mVidPids;
    static std::map<std::string, std::uint32_t> mNameToVidPid;
};
