// See cmdframe.h.
#include "link/cmdframe.h"

#include "link/ftdidev.h"
#include "shared/str.h"

namespace HwLatixel {

namespace {

/// Reads of `receiveArrived`.
constexpr unsigned ARRIVED_READS = 10;

const char* const UNKNOWN = "???";

const char* asChars(const unsigned char* bytes)
{
    return reinterpret_cast<const char*>(bytes);
}

/// Whether the interface board itself answers a frame, with chips or without: the firmware's text, and what an SPI
/// slave shifts out.
bool isAnsweredByBoard(const CmdFrame& frame)
{
    const bool ofBoard =
        frame.perif == static_cast<unsigned char>(Perif::Info) || frame.perif == static_cast<unsigned char>(Perif::Spi);
    return ofBoard && (frame.flags & cmdflag::OUTPUT) != 0;
}

std::string flagLetters(unsigned char flags)
{
    return {(flags & cmdflag::PAYLOAD) != 0 ? 'D' : '_', (flags & cmdflag::OUTPUT) != 0 ? 'O' : '_',
            (flags & cmdflag::ACT) != 0 ? 'A' : '_'};
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
    constexpr CmdId PINS_COMMAND = ChipCmd::Pins;
    if (frame.perif != PINS_COMMAND.perif || frame.command != PINS_COMMAND.command)
        return "";
    std::string text;
    for (std::size_t bit = 0; bit < pins.size(); ++bit) {
        if ((frame.args.asWord() >> bit & 1) != 0)
            text += std::string(pins[bit]) + " ";
    }
    return text;
}

ACmdMgr::ACmdMgr(FtdiDev* link, FileLog* fileLog, const ProtocolNames& protocolNames)
    : CmdMgrBase(link, fileLog),
      names(protocolNames)
{
}

/// The caller is in an exchange.
int ACmdMgr::sendFrame(const CmdFrame& frame)
{
    if (isAnsweredByBoard(frame))
        expectAnswer();
    const auto bytes = frame.encode();
    const int sent = ftdi->send(asChars(bytes.data()), bytes.size(), SEND_TIMEOUT);
    if (!movedAll(sent, bytes.size()))
        return logError(sent, ERR, "Sending of command failed. Error: %d (%s).", sent, ftdi->getLastError());
    return 0;
}

int ACmdMgr::send(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
                  unsigned char d3, unsigned char flags)
{
    const Exchange whole(*this);
    const CmdFrame frame{flags, peripheral, command, {d0, d1, d2, d3}};
    if (const int result = sendFrame(frame); result != 0)
        return result;
    logFrame(frame, names.argsText(frame));
    return 0;
}

int ACmdMgr::send(unsigned char peripheral, unsigned char command, const unsigned char* data, unsigned long size,
                  unsigned char flags)
{
    const Exchange whole(*this);
    const auto length = static_cast<std::uint32_t>(size);
    const auto allFlags = static_cast<unsigned char>(flags | cmdflag::PAYLOAD);
    const CmdFrame frame{allFlags, peripheral, command, CmdArgs::word(length)};
    if (const int result = sendFrame(frame); result != 0)
        return result;
    const int sent = ftdi->send(asChars(data), size, SEND_TIMEOUT);
    if (!movedAll(sent, size))
        return logError(sent, ERR, "Sending of command data failed. Error: %d (%s).", sent, ftdi->getLastError());
    logFrame(frame, str::format("%u", length));
    if (log != nullptr && size != 0 && loadFlag(logSwitches.sentData))
        log->logBuffer(DBG, data, size, "Sent data:", false);
    return 0;
}

int ACmdMgr::sendRawBytes(const unsigned char* data, unsigned long size)
{
    if (size == 0)
        return 0;
    const Exchange whole(*this);
    const int sent = ftdi->send(asChars(data), size, SEND_TIMEOUT);
    if (!movedAll(sent, size))
        return logError(sent, ERR, "Sending data failed. Error: %d (%s).", sent, ftdi->getLastError());
    if (log != nullptr)
        log->logBuffer(DBG, data, size, "Sent data:", false);
    return 0;
}

int ACmdMgr::receiveBytes(unsigned char* buffer, unsigned long* size, double timeout, const char* what, bool ascii)
{
    const int received = receiveInto(reinterpret_cast<char*>(buffer), *size, timeout);
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
    const int result = keepTrying(timeout, abort, sleepBetween, [&](double seconds) {
        const int received = ftdi->receive(buffer, size, size, seconds, false);
        if (received < 0) {
            logError(-1, ERR, "Error receiving packet: %d (%s)", received, ftdi->getLastError());
            return Attempt::LinkFailed;
        }
        return movedAll(received, size) ? Attempt::Done : Attempt::Nothing;
    });
    if (result == 0)
        dumpReceived(buffer, size, "Received data:", true);
    return result == -1 && reportTimeout ? logError(-1, ERR, "Timeout. Not received packet") : result;
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

} // namespace HwLatixel
