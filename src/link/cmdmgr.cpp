// See cmdmgr.h.
#include "link/cmdmgr.h"

#include "link/ftdidev.h"
#include "link/spiexchange.h"

#include <array>

namespace HwLatixel {

namespace {

/// Longest silence in seconds before the CPU's answer counts as ended.
constexpr double SPI_CPU_TIMEOUT = 1.0;

const char* const PACKETS_TITLE = "Received Tpx3 packets:";

constexpr std::size_t COMMAND_COUNT = 22;
constexpr std::array<const char*, 8> PERIF_NAMES = {"???", "TPX", "INF", "CLK", "SPI", "ACQ", "RST", "???"};
constexpr auto TPX_NAMES = commandNames<COMMAND_COUNT>("DATA", "PINS", "MUX", "CLKTEST", "READOUT");
constexpr auto INF_NAMES = commandNames<COMMAND_COUNT>("", "INFO");
constexpr auto CLK_NAMES = commandNames<COMMAND_COUNT>("???", "COUNT", "DIVIDER", "START", "STOP");
constexpr auto SPI_NAMES = commandNames<COMMAND_COUNT>("DATA", "SET", "CS", "SEND");
constexpr auto ACQ_NAMES =
    commandNames<COMMAND_COUNT>("???", "START", "STOP", "CNTLOW", "CNTHIGH", "TRGSTG", "CNT1", "PSWAIT", "", "", "", "",
                                "", "", "", "", "CNT1", "DIV1", "CNT2", "DIV2", "CNT3", "DIV3");
constexpr auto RST_NAMES = commandNames<COMMAND_COUNT>("???", "RESET_ALL", "RESET_FIFO");
constexpr std::array<std::span<const char* const>, PERIF_NAMES.size()> COMMAND_NAMES = {
    {{}, TPX_NAMES, INF_NAMES, CLK_NAMES, SPI_NAMES, ACQ_NAMES, RST_NAMES, {}}};
constexpr std::array<const char*, 13> PERF_TPX_PINS = {"PWR", "RST",   "ENIN",   "M0",      "M1",    "SHTR", "PS",
                                                       "POL", "OUTEN", "COMPRS", "ACQOVER", "DESER", "DERAN"};

constexpr ProtocolNames NAMES{PERIF_NAMES, COMMAND_NAMES, PERF_TPX_PINS};

} // namespace

CmdMgr::CmdMgr(FtdiDev* link, FileLog* fileLog) : ACmdMgr(link, fileLog, NAMES) {}

int CmdMgr::sendRaw(const char* data, unsigned long size)
{
    return sendRawBytes(reinterpret_cast<const unsigned char*>(data), size);
}

int CmdMgr::receiveRaw(unsigned char* buffer, unsigned long* size, double timeout, bool ascii)
{
    return receiveBytes(buffer, size, timeout, "data", ascii);
}

int CmdMgr::receiveRawAll(char* buffer, unsigned long* size)
{
    return receiveArrived(reinterpret_cast<unsigned char*>(buffer), size);
}

int CmdMgr::receiveAllPackets(unsigned char* buffer, unsigned long* size, double)
{
    const int result = receiveArrived(buffer, size);
    if (result == 0)
        dumpReceived(buffer, *size, PACKETS_TITLE, true);
    return result;
}

int CmdMgr::receiveAllDataUntil(unsigned char* buffer, unsigned long size, unsigned char* pattern, double timeout)
{
    return receiveUntil(reinterpret_cast<char*>(buffer), size, reinterpret_cast<const char*>(pattern), CmdFrame::SIZE,
                        timeout);
}

int CmdMgr::sendRecv(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1,
                     unsigned char d2, unsigned char d3, unsigned char* buffer, unsigned long size, unsigned char flags,
                     double timeout, bool ascii)
{
    const Exchange whole(*this);
    if (const int result = send(peripheral, command, d0, d1, d2, d3, flags); result != 0)
        return result;
    unsigned long received = size;
    return receiveRaw(buffer, &received, timeout, ascii);
}

int CmdMgr::sendReceiveSpiCpu(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received)
{
    return spiExchange(*this, spislave::CPU, tx, rx, size, received, SPI_CPU_TIMEOUT);
}

void CmdMgr::enableLogging(bool commands, bool sentData, bool receivedData)
{
    storeFlag(logSwitches.commands, commands);
    storeFlag(logSwitches.sentData, sentData);
    storeFlag(logSwitches.receivedData, receivedData);
}

const char* perifStr(unsigned char peripheral)
{
    return NAMES.perifName(peripheral);
}

const char* perifCmd(unsigned char peripheral, unsigned char command)
{
    return NAMES.commandName(peripheral, command);
}

std::string perifData(unsigned char peripheral, unsigned char command, unsigned char d0, unsigned char d1,
                      unsigned char d2, unsigned char d3)
{
    return NAMES.argsText({cmdflag::NONE, peripheral, command, {d0, d1, d2, d3}});
}

} // namespace HwLatixel
