// See cmdmgrold.h.
#include "link/cmdmgrold.h"

#include "link/ftdidev.h"

#include <algorithm>
#include <bit>

namespace HwLatixel {

namespace {

constexpr unsigned char SYNC = 0x55;
/// Where a frame has what.
constexpr std::size_t COMMAND = 1;
constexpr std::size_t PARAMS = 2;
constexpr std::size_t PARAM_COUNT = 3;
constexpr std::size_t CHECK = PARAMS + PARAM_COUNT;

/// Reads of `receiveAll`.
constexpr unsigned ALL_READS = 100;
/// Longest silence of the board in seconds while it sends data.
constexpr double DATA_TIMEOUT = 2.0;

constexpr const char* UNKNOWN = "Unknown";

using Frame = std::array<char, CmdMgrOld::FRAME_SIZE>;

struct CommandName {
    unsigned char command;
    const char* name;
};

constexpr CommandName COMMAND_NAMES[] = {
    {0x00, "Test"},         {0x01, "Init"},          {0x02, "Mpx Status"},    {0x03, "TimerH"},
    {0x04, "TimerL"},       {0x05, "ExtDac"},        {0x06, "Meas Status"},   {0x07, "Bias"},
    {0x08, "TpxClock "},    {0x09, "Signal Delay"},  {0x10, "BSP Threshold"}, {0x11, "BSP Period"},
    {0x12, "BSP Read"},     {0x13, "Chip Count"},    {0x14, "Meas Stg"},      {0x16, "CounterH"},
    {0x17, "CounterL"},     {0x1A, "Trigger Delay"}, {0x20, "Read Matrix"},   {0x21, "Write Matrix"},
    {0x22, "MEAS START"},   {0x23, "MEAS BREAK"},    {0x24, "Write FSR"},     {0x26, "Reset Medipix"},
    {0x27, "Erase Matrix"}, {0x28, "TP Start"},      {0x29, "TP Break"},      {0x30, "Dummy Mode"},
    {0x31, "TP Period"},    {0x32, "TP Status"},     {0x35, "Sys Freq"},      {0x36, "Meas Freq"},
    {0x40, "Read AD"},      {0x41, "Mpx Power"},     {0x43, "SwitchModule"},  {0x44, "GetSwitchModule"},
    {0x51, "TP Count"},     {0x68, "SwitchModule"},
};

constexpr auto nameTable()
{
    std::array<const char*, oldcmd::COUNT> table{};
    table.fill(UNKNOWN);
    for (const auto& [command, name] : COMMAND_NAMES)
        table[command] = name;
    return table;
}

constexpr unsigned char byteOf(char c)
{
    return static_cast<unsigned char>(c);
}

char checkOf(const char* frame)
{
    return static_cast<char>(frame[COMMAND] ^ frame[PARAMS] ^ frame[PARAMS + 1] ^ frame[PARAMS + 2]);
}

Frame frameOf(unsigned char command, char p0, char p1, char p2)
{
    Frame frame = {static_cast<char>(SYNC), static_cast<char>(command), p0, p1, p2};
    frame[CHECK] = checkOf(frame.data());
    return frame;
}

} // namespace

constexpr std::array<const char*, oldcmd::COUNT> MPX2CMDTABLE = nameTable();

CmdMgrOld::CmdMgrOld(FtdiDev* link, FileLog* fileLog, std::span<const char* const> names)
    : CmdMgrBase(link, fileLog),
      commandTable(names)
{
}

// ---- Frames ----

int CmdMgrOld::sendFrame(unsigned char command, char p0, char p1, char p2)
{
    const Exchange whole(*this);
    expectAnswer();
    const Frame frame = frameOf(command, p0, p1, p2);
    const int sent = ftdi->send(frame.data(), frame.size(), SEND_TIMEOUT);
    if (!movedAll(sent, frame.size()))
        return logError(sent, ERR, "Sending command \"%s\" failed. Error: %d (%s).", nameOf(command), sent,
                        ftdi->getLastError());
    logFrame(">>>", frame.data());
    return 0;
}

int CmdMgrOld::receiveFrame(char* frame, double timeout)
{
    bool linkFailed = false;
    return takeFrame(frame, timeout, false, linkFailed);
}

/// With `givesWay` it ends like a silent board, but without a word, when another thread wants an exchange.
int CmdMgrOld::takeFrame(char* frame, double timeout, bool givesWay, bool& linkFailed)
{
    const Exchange whole(*this);
    // A link that can count tells at once that nothing waits. libftdi can't: it always answers -1.
    if (ftdi->inQueue() == 0)
        return 1;
    const std::atomic<int>* const others = givesWay ? othersWaiting() : nullptr;
    const int received = receiveInto(frame, FRAME_SIZE, timeout, others);
    linkFailed = received < 0;
    if (received > 0)
        noteAnswer();
    else if (received == 0 && others != nullptr && *others != 0)
        return -1;
    if (!movedAll(received, FRAME_SIZE)) {
        // 0 would pass for a frame: a silent board fails like a link that times out.
        const int code = received == 0 ? -1 : received;
        return logError(code, ERR, "Could not receive frame, error: %d (%s)", code, ftdi->getLastError());
    }
    if (!isFrameOK(frame))
        return reportBadFrame(frame);
    logFrame("<<<", frame);
    invalidFrames = 0;
    return 0;
}

// A board out of step gives bad frames without end, so the summary thins out as their number grows.
int CmdMgrOld::reportBadFrame(const char* frame)
{
    const auto at = [frame](std::size_t i) { return static_cast<unsigned>(byteOf(frame[i])); };
    constexpr int CODE = 6;
    logError(CODE, ERR, "Invalid frame (%02X | %02X |%02X %02X %02X |%02X)", at(0), at(1), at(2), at(3), at(4), at(5));
    ++invalidFrames;
    return std::has_single_bit(invalidFrames) ? logError(CODE, ERR, "Invalid frame received (%ux)", invalidFrames) : -1;
}

int CmdMgrOld::waitForFrame(unsigned char command, char* params, double timeout, const bool* abort, bool reportTimeout,
                            bool sleepBetween)
{
    Frame frame{};
    const int result = keepTrying(timeout, abort, sleepBetween, [&](double seconds) {
        bool linkFailed = false;
        if (takeFrame(frame.data(), seconds, true, linkFailed) != 0)
            return linkFailed ? Attempt::LinkFailed : Attempt::Nothing;
        return byteOf(frame[COMMAND]) == command ? Attempt::Done : Attempt::Again;
    });
    if (result == 0 && params != nullptr)
        std::copy_n(&frame[PARAMS], PARAM_COUNT, params);
    if (result == -1 && reportTimeout)
        return logError(-1, ERR, "Timeout. Not received frame for command [%02X]", static_cast<unsigned>(command));
    return result == -1 ? -1 : 0; // an abort is a success: whoever set the flag knows of it
}

int CmdMgrOld::skipAllDataUntilFrame(unsigned char command, const char* params, double timeout)
{
    const Frame frame = frameOf(command, params[0], params[1], params[2]);
    if (ftdi->skipAllUntilPattern(frame.data(), frame.size(), timeout) < 0)
        return logError(-1, ERR, "Timeout. Not received frame for command [%02X] ", static_cast<unsigned>(command));
    const Exchange whole(*this);
    noteAnswer();
    return 0;
}

// ---- Data ----

int CmdMgrOld::receiveAllDataUntil(char* buffer, unsigned long size, const char* frame, double timeout)
{
    return receiveUntil(buffer, size, frame, FRAME_SIZE, timeout);
}

int CmdMgrOld::receiveAll(char* buffer, unsigned long size)
{
    const int received = ftdi->receiveAll(buffer, size, ALL_READS, NO_TIMEOUT);
    if (received > 0)
        dumpReceived(buffer, static_cast<unsigned long>(received), "Received data:", true);
    return received;
}

int CmdMgrOld::sendData(const char* data, unsigned long size)
{
    const int sent = ftdi->send(data, size, SEND_TIMEOUT);
    if (sent < 0)
        return logError(sent, ERR, "Sending data failed, error=%d (%s)", sent, ftdi->getLastError());
    if (log != nullptr && size != 0 && loadFlag(logSwitches.sentData))
        log->logBuffer(DBG, data, size, "Sent data:", true);
    return 0;
}

int CmdMgrOld::receiveData(char* buffer, unsigned long size, int* received, double timeout)
{
    const int count = ftdi->receive(buffer, size, size, timeout, false);
    if (received != nullptr)
        *received = count;
    if (count < 0)
        return logError(-1, ERR, "Command data not received, error=%d (%s)", count, ftdi->getLastError());
    if (count > 0)
        dumpReceived(buffer, static_cast<unsigned long>(count), "Received data:", true);
    if (!movedAll(count, size))
        return logError(-2, ERR, "Received data too short (%d < %u) (%s).", count, static_cast<unsigned>(size),
                        ftdi->getLastError());
    return 0;
}

// ---- The exchange ----

int CmdMgrOld::sendCmd(unsigned char command, const char* params, const char* dataOut, unsigned long dataOutSize,
                       char* ack, char* dataIn, unsigned long dataInSize, char* dataAck, double timeout)
{
    const Exchange whole(*this);
    if (log != nullptr)
        log->logNoTime(DBG, "------------------------------------------------------------\n");
    if (const int result = sendFrame(command, params[0], params[1], params[2]); result != 0)
        return result;
    unsigned char answer[PARAM_COUNT] = {};
    if (const int result = waitForAnswer(command, answer, ack, timeout); result != 0)
        return result;
    if (!isAckOK(answer))
        return logError(-2, ERR, "Command \"%s\" failed (%02X %02X %02X).", nameOf(command), unsigned{answer[0]},
                        unsigned{answer[1]}, unsigned{answer[2]});
    if (dataOutSize == 0 && dataInSize == 0)
        return 0;
    if (const int result = moveData(dataOut, dataOutSize, dataIn, dataInSize); result != 0)
        return result;
    if (const int result = waitForAnswer(command, answer, dataAck, timeout); result != 0)
        return result;
    if (!isAckOK(answer))
        return logError(-4, ERR, "Command (%s) data not OK  (%02X %02X %02X).", nameOf(command), unsigned{answer[0]},
                        unsigned{answer[1]}, unsigned{answer[2]});
    return 0;
}

int CmdMgrOld::sendCmd(unsigned char command, const char* params, char* ack, double timeout)
{
    return sendCmd(command, params, nullptr, 0, ack, nullptr, 0, nullptr, timeout);
}

int CmdMgrOld::sendCmd(unsigned char command, unsigned char p0, unsigned char p1, unsigned char p2, double timeout)
{
    const char params[PARAM_COUNT] = {static_cast<char>(p0), static_cast<char>(p1), static_cast<char>(p2)};
    return sendCmd(command, params, nullptr, timeout);
}

/// Waits for the answer's parameters, with a copy for the caller if it wants one.
int CmdMgrOld::waitForAnswer(unsigned char command, unsigned char* params, char* copy, double timeout)
{
    const int result = waitForFrame(command, reinterpret_cast<char*>(params), timeout, nullptr, true, false);
    if (result == 0 && copy != nullptr)
        std::copy_n(params, PARAM_COUNT, copy);
    return result;
}

int CmdMgrOld::moveData(const char* dataOut, unsigned long dataOutSize, char* dataIn, unsigned long dataInSize)
{
    if (dataOutSize != 0 && sendData(dataOut, dataOutSize) != 0)
        return -3;
    return dataInSize != 0 ? receiveData(dataIn, dataInSize, nullptr, DATA_TIMEOUT) : 0;
}

// ---- Looking at frames ----

bool CmdMgrOld::isFrameOK(const char* frame)
{
    return byteOf(frame[0]) == SYNC && frame[CHECK] == checkOf(frame);
}

bool CmdMgrOld::isAckOK(const unsigned char* params)
{
    return params[0] != 0xFF || params[1] != 0xFF || params[2] != 0xFF;
}

bool CmdMgrOld::frameEquals(const char* params, unsigned char p0, unsigned char p1, unsigned char p2)
{
    return byteOf(params[0]) == p0 && byteOf(params[1]) == p1 && byteOf(params[2]) == p2;
}

// ---- Reports ----

void CmdMgrOld::setLogBuffers(bool on)
{
    storeFlag(logSwitches.sentData, on);
    storeFlag(logSwitches.receivedData, on);
}

const char* CmdMgrOld::nameOf(unsigned char command) const
{
    return command < commandTable.size() ? commandTable[command] : UNKNOWN;
}

void CmdMgrOld::logFrame(const char* direction, const char* frame)
{
    if (log == nullptr)
        return;
    const auto at = [frame](std::size_t i) { return static_cast<unsigned>(byteOf(frame[i])); };
    log->log(0, DBG, "CMD %s [%02X| %02X %02X %02X] %s", direction, at(COMMAND), at(PARAMS), at(PARAMS + 1),
             at(PARAMS + 2), nameOf(byteOf(frame[COMMAND])));
}

} // namespace HwLatixel
