// The command manager of the old boards: 6-byte frames with a check byte, and an answer to every command.
#pragma once

#include "link/cmdmgrbase.h"

#include <array>
#include <cstddef>
#include <span>

namespace HwLatixel {

/// Commands that the plug-in sends, with their parameters p0 to p2; no word of one means that it is 0.
namespace oldcmd {
inline constexpr unsigned char TEST = 0x00;          ///< Answers firmware date (p0, p1) and number (p2).
inline constexpr unsigned char TIMER_HIGH = 0x03;    ///< Acquisition time in ticks, bytes 5, 4, 3.
inline constexpr unsigned char TIMER_LOW = 0x04;     ///< Bytes 2, 1, 0.
inline constexpr unsigned char EXT_DAC = 0x05;       ///< p0: mask of the interface DAC; p1, p2: its value.
inline constexpr unsigned char MEAS_STATUS = 0x06;   ///< Comes from the firmware on its own, see `measstatus`.
inline constexpr unsigned char BIAS = 0x07;          ///< 0x18, code, code.
inline constexpr unsigned char TPX_CLOCK = 0x08;     ///< p0, p1: divider; p2: 1 for the undivided clock.
inline constexpr unsigned char CHIP_COUNT = 0x13;    ///< p2: count to set, or 0. Answers the count in p2.
inline constexpr unsigned char MEAS_SETTINGS = 0x14; ///< p1: trigger mode; p2: 0x80 or 0.
inline constexpr unsigned char READ_MATRIX = 0x20;   ///< Sends the matrix stream.
inline constexpr unsigned char WRITE_MATRIX = 0x21;  ///< Takes a matrix stream.
inline constexpr unsigned char MEAS_START = 0x22;    ///< 0x40, 0, 0.
inline constexpr unsigned char MEAS_BREAK = 0x23;    ///< Ends the running frame.
inline constexpr unsigned char WRITE_FSR = 0x24;     ///< Takes a DAC stream and sends the chips' answer to it.
inline constexpr unsigned char RESET_MEDIPIX = 0x26; ///< Resets the chips.
inline constexpr unsigned char ERASE_MATRIX = 0x27;  ///< Clears the counters of the active module.
inline constexpr unsigned char SYS_FREQ = 0x35;      ///< Answers the timer's clock in MHz in p0.
inline constexpr unsigned char MEAS_FREQ = 0x36;     ///< Answers the clock in MHz that the Timepix clock comes from.
inline constexpr unsigned char READ_AD = 0x40;       ///< p2: channel. Answers a 12-bit value in p0 and p1.
inline constexpr unsigned char MPX_POWER = 0x41;     ///< p2: 1 or 0.
inline constexpr unsigned char SWITCH_MODULE = 0x43; ///< p2: module. New boards.
inline constexpr unsigned char SWITCH_MODULE_OLD = 0x68; ///< p0 to p2: module. Old boards.

/// The firmware knows numbers below this one.
inline constexpr std::size_t COUNT = 105;
} // namespace oldcmd

/// All three parameters of a `oldcmd::MEAS_STATUS` frame.
namespace measstatus {
inline constexpr unsigned char STARTED = 0x22;
inline constexpr unsigned char FINISHED = 0x44;
} // namespace measstatus

/// Names of the commands by number, for the log.
extern const std::array<const char*, oldcmd::COUNT> MPX2CMDTABLE;

/// Speaks the protocol of the old boards over one link. The firmware answers every command with a frame of the same
/// number; data go between two such answers. Nothing here sends a second time.
///
/// Results are 0 on success unless told otherwise; after a failure `getLastError` has the words and the log a line.
/// Times are in seconds.
///
/// Locks: `sendFrame`, `receiveFrame` and `sendCmd` are an `Exchange` of their own. The transfers of data are none:
/// outside `sendCmd` they stand in one of the caller's. `waitForFrame` makes one for each read alone, and gives way at
/// once to another thread that wants to send.
class CmdMgrOld : public CmdMgrBase {
public:
    /// Bytes of a frame: 0x55, command, p0, p1, p2, and the xor of the four before.
    static constexpr unsigned long FRAME_SIZE = 6;
    /// Parameters of a command that has none.
    static constexpr char ZEROPARS[3] = {};

    /// Nothing is owned; `log` may be null, which switches all logging off. The names outlive the manager; commands
    /// beyond them log as "Unknown".
    CmdMgrOld(FtdiDev* ftdi, FileLog* log, std::span<const char* const> commandTable);

    // ---- Frames ----

    /// Sends one frame. Returns 0 or the link's result.
    int sendFrame(unsigned char command, char p0, char p1, char p2);
    /// Receives one frame into the `FRAME_SIZE` bytes of `frame`.
    /// @return 0; -1 when nothing came; the count of a short frame, 1 to 5; the link's negative result; for a bad frame
    ///         6 where the number of bad ones in a row is a power of two (then the log has a summary), otherwise -1
    int receiveFrame(char* frame, double timeout);
    /// Waits for a frame of this command, at least one attempt of a second long, and drops the frames of others.
    /// @param params         takes the frame's three parameters, or null; left alone unless such a frame comes
    /// @param abort          polled flag that ends the wait after the next read without a good frame, or null
    /// @param reportTimeout  whether reaching the deadline is an error to report
    /// @param sleepBetween   sleep 2 ms after a read without a good frame
    /// @return 0, also when aborted; -1 at the deadline or when the link is closing
    int waitForFrame(unsigned char command, char* params, double timeout, const bool* abort, bool reportTimeout,
                     bool sleepBetween);
    /// Drops all that comes up to and with the frame of this command and these three parameters; bytes behind it that
    /// came in the same read are lost too. Returns 0, or -1 when it did not come.
    int skipAllDataUntilFrame(unsigned char command, const char* params, double timeout);

    // ---- Data ----

    /// Receives until the data end with the `FRAME_SIZE` bytes of `frame`, at most `timeout` seconds. Returns the bytes
    /// received, also without the frame, or -1 where the link fails.
    int receiveAllDataUntil(char* buffer, unsigned long size, const char* frame, double timeout);
    /// Takes what has arrived, in at most 100 reads. Returns the bytes received, or the link's negative result, which
    /// goes unreported.
    int receiveAll(char* buffer, unsigned long size);
    /// Sends bytes without a frame. Returns 0 or the link's negative result.
    int sendData(const char* data, unsigned long size);
    /// Receives `size` bytes. `received`, if given, takes the count, or the link's negative result.
    /// @return 0; -1 where the link fails; -2 when fewer bytes came
    int receiveData(char* buffer, unsigned long size, int* received, double timeout);

    // ---- The exchange ----

    /// Sends a command and waits for its answer; then sends `dataOut`, receives `dataIn` (2 s of silence at most), and
    /// if there were any such data waits for a second answer of the same number.
    /// @param params            the command's three parameters
    /// @param dataOut, dataIn   not touched where their size is 0
    /// @param ack, dataAck      take the three parameters of the two answers, or null
    /// @param timeout           of each answer
    /// @return 0; the link's result where the command could not be sent; -1 without an answer or where receiving data
    ///         failed; -2 for a refused command or short data; -3 for a failed send of data; -4 for refused data
    int sendCmd(unsigned char command, const char* params, const char* dataOut, unsigned long dataOutSize, char* ack,
                char* dataIn, unsigned long dataInSize, char* dataAck, double timeout);
    /// The same without data.
    int sendCmd(unsigned char command, const char* params, char* ack, double timeout);
    /// The same without data, for a command whose answer says nothing.
    int sendCmd(unsigned char command, unsigned char p0, unsigned char p1, unsigned char p2, double timeout);

    // ---- Looking at frames ----

    /// Whether the `FRAME_SIZE` bytes have the right first byte and check byte.
    static bool isFrameOK(const char* frame);
    /// Whether the three parameters of an answer are anything but 0xFF, 0xFF, 0xFF, which is the firmware's refusal.
    static bool isAckOK(const unsigned char* params);
    /// Whether the three parameters are these.
    static bool frameEquals(const char* params, unsigned char p0, unsigned char p1, unsigned char p2);

    // ---- Reports ----

    /// Reports a failure to the log and as last error. Returns its first argument.
    using CmdMgrBase::logError;
    /// Switches the dumps of data in the debug log; on at first.
    void setLogBuffers(bool on);

private:
    const char* nameOf(unsigned char command) const;
    void logFrame(const char* direction, const char* frame);
    int takeFrame(char* frame, double timeout, bool givesWay, bool& linkFailed);
    int reportBadFrame(const char* frame);
    int waitForAnswer(unsigned char command, unsigned char* params, char* copy, double timeout);
    int moveData(const char* dataOut, unsigned long dataOutSize, char* dataIn, unsigned long dataInSize);

    std::span<const char* const> commandTable;
    unsigned invalidFrames = 0; ///< bad frames in a row; guarded by an `Exchange`
};

} // namespace HwLatixel
