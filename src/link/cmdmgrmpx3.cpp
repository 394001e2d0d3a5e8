// See cmdmgrmpx3.h.
#include "link/cmdmgrmpx3.h"

#include "link/ftdidev.h"
#include "link/spiexchange.h"

#include <algorithm>
#include <array>

namespace HwLatixel {

namespace {

/// Longest silence in seconds before the CPU's answer counts as ended.
constexpr double SPI_CPU_TIMEOUT = 2.0;
/// How `getAllRemainingData` empties the link: bytes and reads of one round, and the seconds after which a board that
/// never stops sending is given up.
constexpr std::size_t REST_SIZE = 10000;
constexpr unsigned REST_READS = 5;
constexpr double REST_LIMIT = 10.0;

/// The words are those of another chip generation, here too: log readers know them.
const char* const PACKETS_TITLE = "Received Tpx3 packets:";

constexpr std::size_t COMMAND_COUNT = 12;

constexpr std::array<const char*, 8> PERIF_NAMES = {"???", "MPX", "INF", "", "SPI", "ACQ", "", "???"};
constexpr auto MPX_NAMES = commandNames<COMMAND_COUNT>("DATA", "PINS", "START", "CHAN");
constexpr auto INF_NAMES = commandNames<COMMAND_COUNT>("???", "INFO");
constexpr auto UNUSED_NAMES = commandNames<COMMAND_COUNT>("???");
constexpr auto SPI_NAMES = commandNames<COMMAND_COUNT>("DATA", "SET", "CS", "SEND");
constexpr auto ACQ_NAMES = commandNames<COMMAND_COUNT>("???", "START", "STOP", "CNTLOW", "CNTHIGH", "TRGSTG");
constexpr std::array<std::span<const char* const>, PERIF_NAMES.size()> COMMAND_NAMES = {
    {{}, MPX_NAMES, INF_NAMES, UNUSED_NAMES, SPI_NAMES, ACQ_NAMES, {}, {}}};
constexpr std::array<const char*, 13> PIN_NAMES = {"PWR", "RST", "FCLR", "", "", "", "", "", "OUTEN", "", "", "", ""};

constexpr ProtocolNames NAMES{PERIF_NAMES, COMMAND_NAMES, PIN_NAMES};

} // namespace

CmdMgrMpx3::CmdMgrMpx3(FtdiDev* link, FileLog* fileLog) : ACmdMgr(link, fileLog, NAMES) {}

int CmdMgrMpx3::sendRaw(const unsigned char* data, unsigned int size)
{
    return sendRawBytes(data, size);
}

int CmdMgrMpx3::receiveRaw(unsigned char* buffer, unsigned long* size, double timeout)
{
    const int result = receiveBytes(buffer, size, timeout, "command", false);
    if (result < 0)
        getAllRemainingData(true);
    return result;
}

int CmdMgrMpx3::receiveRawAll(unsigned char* buffer, unsigned long* size)
{
    return receiveArrived(buffer, size);
}

int CmdMgrMpx3::receivePackets(unsigned char* buffer, unsigned long size, double timeout)
{
    const int received = receiveInto(reinterpret_cast<char*>(buffer), size, timeout);
    if (received < 0)
        return logError(received, ERR, "Could not receive data, error: %d (%s)", received, ftdi->getLastError());
    // The dump shows the size asked for, so what did not come has to be something.
    std::fill(buffer + received, buffer + size, static_cast<unsigned char>(0));
    if (size != 0)
        dumpReceived(buffer, size, PACKETS_TITLE, true);
    return 0;
}

int CmdMgrMpx3::receiveAllPackets(unsigned char* buffer, unsigned long* size)
{
    const int result = receiveArrived(buffer, size);
    if (result == 0)
        dumpReceived(buffer, *size, PACKETS_TITLE, true);
    return result;
}

int CmdMgrMpx3::getAllRemainingData(bool logData)
{
    std::array<char, REST_SIZE> rest;
    const double end = getPreciseTime() + REST_LIMIT;
    int received = 0;
    do {
        received = ftdi->receiveAll(rest.data(), rest.size(), REST_READS, NO_TIMEOUT);
        if (logData && received > 0)
            dumpReceived(rest.data(), static_cast<unsigned long>(received), nullptr, true);
    } while (received > 0 && getPreciseTime() < end);
    return 0;
}

int CmdMgrMpx3::sendRecv(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1,
                         unsigned char d2, unsigned char d3, unsigned char* buffer, unsigned long size,
                         unsigned char flags, double timeout)
{
    const Exchange whole(*this);
    if (const int result = send(peripheral, command, d0, d1, d2, d3, flags); result != 0)
        return result;
    return receivePackets(buffer, size, timeout);
}

int CmdMgrMpx3::sendReceiveSpiCpu(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received)
{
    return spiExchange(*this, spislave::CPU, tx, rx, size, received, SPI_CPU_TIMEOUT);
}

} // namespace HwLatixel
