// See cmdframe.h.
#include "link/cmdframe.h"

#include "link/ftdidev.h"
#include "shared/str.h"

#include <cstdarg>

namespace HwLatixel {

namespace {

/// Longest silence of the link in seconds while a command goes out.
constexpr double SEND_TIMEOUT = 2.0;
/// Reads of `receiveArrived`, and the link's mark for no time limit.
constexpr unsigned ARRIVED_READS = 10;
constexpr double NO_TIMEOUT = -1.0;
/// Seconds of one attempt of `waitForPacket`, and of the pause between two.
constexpr double PACKET_ATTEMPT = 1.0;
constexpr double PACKET_PAUSE = 0.002;
/// Seconds between two attempts on a link that fails: it does so at once, and each failure is a line in the log.
constexpr double FAILURE_PAUSE = 0.1;

const char* const UNKNOWN = "???";

const char* asChars(const unsigned char* bytes)
{
    return reinterpret_cast<const char*>(bytes);
}

std::string flagLetters(unsigned char flags)
{
    return {(flags & cmdflag::PAYLOAD) != 0 ? 'D' : '_', (flags & cmdflag::OUTPUT) != 0 ? 'O' : '_',
            (flags & cmdflag::ACT) != 0 ? 'A' : '_'};
}

bool tookAll(int sent, unsigned long size)
{
    return sent >= 0 && static_cast<unsigned long>(sent) == size;
}

} // namespace

const char* ProtocolNames::perifName(unsigned char perif) const
{
    return perif < perifs.size() ? perifs[perif] : UNKNOWN;
}

const char* ProtocolNames::commandName(unsigned char perif, unsigned char command) const
{
    return perif < commands.size() && command < commands[perif].size() ? commands[perif][command] : UNKNOWN;
}

std::string ProtocolNames::argsText(const CmdFrame& frame) const
{
    constexpr CmdId pinsCommand = ChipCmd::Pins;
    if (frame.perif != pinsCommand.perif || frame.command != pinsCommand.command)
        return "";
    std::string text;
    for (std::size_t bit = 0; bit < pins.size(); ++bit) {
        if ((frame.args.asWord() >> bit & 1) != 0)
            text += std::string(pins[bit]) + " ";
    }
    return text;
}

ACmdMgr::ACmdMgr(FtdiDev* link, FileLog* fileLog, const ProtocolNames& protocolNames)
    : ftdi(link),
      log(fileLog),
      names(protocolNames)
{
}

int ACmdMgr::sendFrame(const CmdFrame& frame)
{
    const auto bytes = frame.encode();
    const int sent = ftdi->send(asChars(bytes.data()), bytes.size(), SEND_TIMEOUT);
    if (!tookAll(sent, bytes.size()))
        return logError(sent, ERR, "Sending of command failed. Error: %d (%s).", sent, ftdi->getLastError());
    return 0;
}

int ACmdMgr::send(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
                  unsigned char d3, unsigned char flags)
{
    ThreadLock lock(&sync);
    const CmdFrame frame{flags, peripheral, command, {d0, d1, d2, d3}};
    if (const int result = sendFrame(frame); result != 0)
        return result;
    logFrame(frame, names.argsText(frame));
    return 0;
}

int ACmdMgr::send(unsigned char peripheral, unsigned char command, const unsigned char* data, unsigned long size,
                  unsigned char flags)
{
    const auto length = static_cast<std::uint32_t>(size);
    const auto allFlags = static_cast<unsigned char>(flags | cmdflag::PAYLOAD);
    const CmdFrame frame{allFlags, peripheral, command, CmdArgs::word(length)};
    if (const int result = sendFrame(frame); result != 0)
        return result;
    const int sent = ftdi->send(asChars(data), size, SEND_TIMEOUT);
    if (!tookAll(sent, size))
        return logError(sent, ERR, "Sending of command data failed. Error: %d (%s).", sent, ftdi->getLastError());
    logFrame(frame, str::format("%u", length));
    if (log != nullptr && size != 0 && loadFlag(logSwitches.sentData))
        log->logBuffer(DBG, data, size, "Sent data:", false);
    return 0;
}

int ACmdMgr::sendRawBytes(const unsigned char* data, unsigned long size)
{
    ThreadLock lock(&sync);
    if (size == 0)
        return 0;
    const int sent = ftdi->send(asChars(data), size, SEND_TIMEOUT);
    if (!tookAll(sent, size))
        return logError(sent, ERR, "Sending data failed. Error: %d (%s).", sent, ftdi->getLastError());
    if (log != nullptr)
        log->logBuffer(DBG, data, size, "Sent data:", false);
    return 0;
}

int ACmdMgr::receiveBytes(unsigned char* buffer, unsigned long* size, double timeout, const char* what, bool ascii)
{
    const int received = ftdi->receive(reinterpret_cast<char*>(buffer), *size, *size, timeout, false);
    if (received < 0)
        return logError(received, ERR, "Could not receive %s, error: %d (%s)", what, received, ftdi->getLastError());
    if (*size != 0)
        dumpReceived(buffer, static_cast<unsigned long>(received), "Received data:", ascii);
    *size = static_cast<unsigned long>(received);
    return 0;
}

int ACmdMgr::receiveArrived(unsigned char* buffer, unsigned long* size)
{
    const int received = ftdi->receiveAll(reinterpret_cast<char*>(buffer), *size, ARRIVED_READS, NO_TIMEOUT);
    *size = received < 0 ? 0 : static_cast<unsigned long>(received);
    if (received < 0)
        return logError(received, ERR, "Could not receive data, error: %d (%s)", received, ftdi->getLastError());
    return 0;
}

int ACmdMgr::waitForPacket(double timeout, bool* abort, char* buffer, unsigned long size, bool reportTimeout,
                           bool sleepBetween)
{
    const double start = getPreciseTime();
    do {
        const int received = ftdi->receive(buffer, size, size, PACKET_ATTEMPT, false);
        if (received < 0)
            logError(-1, ERR, "Error receiving packet: %d (%s)", received, ftdi->getLastError());
        if (tookAll(received, size)) {
            dumpReceived(buffer, size, "Received data:", true);
            return 0;
        }
        if (received < 0)
            sleepThread(FAILURE_PAUSE);
        else if (sleepBetween)
            sleepThread(PACKET_PAUSE);
        if (abort != nullptr && loadFlag(*abort))
            return -2;
    } while (getPreciseTime() < start + timeout);
    return reportTimeout ? logError(-1, ERR, "Timeout. Not received packet") : -1;
}

void ACmdMgr::logCommand(const std::string& text)
{
    if (log != nullptr)
        log->logNoTime(DBG, ("\n" + text + "\n").c_str());
}

void ACmdMgr::logFrame(const CmdFrame& frame, const std::string& lastField)
{
    if (log == nullptr || !loadFlag(logSwitches.commands))
        return;
    const CmdArgs& args = frame.args;
    log->log(0, DBG, "CMD [%02X|%02X|%02X|%02X_%02X_%02x_%02X]    (%s|%s|%s|%s)", frame.flags, frame.perif,
             frame.command, args.d0, args.d1, args.d2, args.d3, flagLetters(frame.flags).c_str(),
             names.perifName(frame.perif), names.commandName(frame.perif, frame.command), lastField.c_str());
}

void ACmdMgr::dumpReceived(const void* data, unsigned long size, const char* title, bool ascii)
{
    if (log != nullptr && loadFlag(logSwitches.receivedData))
        log->logBuffer(DBG, data, size, title, ascii);
}

int ACmdMgr::logError(int code, LogLevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = str::formatv(format, args).c_str(); // without the buffer's rest behind the characters
    va_end(args);
    lastError.set(text);
    if (log != nullptr)
        log->log(code, level, text);
    return code;
}

} // namespace HwLatixel
