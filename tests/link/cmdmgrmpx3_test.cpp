// The Medipix3 protocol by the bytes on the wire, by what it makes of answers, and by its lines in the log.
#include "link/cmdmgrmpx3.h"

#include "link/managertest.h"

using namespace HwLatixel;
using testing::HasSubstr;

namespace {

using CmdMgrMpx3Test = ManagerTest<CmdMgrMpx3>;

TEST_F(CmdMgrMpx3Test, TheCpuExchangeHandsTheOutputBack)
{
    unsigned long received = 99;
    ftdi.reads = {{"abcd"}};
    EXPECT_EQ(0, mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, &received));
    EXPECT_THAT(wire(), testing::EndsWith(" 55 02 01 00 00 00 00 00 AA"));
    EXPECT_EQ(4U, received);
    EXPECT_EQ('d', buffer[3]);

    ftdi.reads = {{"", -4}};
    ftdi.writeResults = {-1, -1};
    EXPECT_EQ(0, mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, nullptr)) << "the last frame alone counts";
}

TEST_F(CmdMgrMpx3Test, ReceivesTellShortCounts)
{
    unsigned long size = 10;
    ftdi.reads = {{"01234"}};
    EXPECT_EQ(0, mgr.receiveRaw(buffer.data(), &size, 0.01));
    EXPECT_EQ(5U, size);
    ftdi.reads = {{"", -666}, {"rest"}};
    EXPECT_EQ("-666: Could not receive command, error: -666 (words of libftdi)",
              told(mgr.receiveRaw(buffer.data(), &size, 0.01)));
    EXPECT_EQ(5U, size);
    EXPECT_TRUE(ftdi.reads.empty()) << "the link is emptied";

    ftdi.reads = {{"ab"}, {"cd"}, {""}};
    size = 16;
    EXPECT_EQ(0, mgr.receiveRawAll(buffer.data(), &size));
    EXPECT_EQ(4U, size);
}

TEST_F(CmdMgrMpx3Test, AFailedSendIsReportedAndNotFollowedByARead)
{
    ftdi.reads = {{"0123456789abcdef"}, {"left"}};
    EXPECT_EQ(0, mgr.sendRecv(InfoCmd::Info, {}, buffer.data(), 16, cmdflag::OUTPUT, 1.0));
    EXPECT_EQ("55 02 02 01 00 00 00 00 AA", wire());
    EXPECT_EQ('f', buffer[15]);

    ftdi.writeResults = {-1, 9, -2, -3};
    EXPECT_EQ("-1: Sending of command failed. Error: -1 (words of libftdi).",
              told(mgr.sendRecv(2, 1, 0, 0, 0, 0, buffer.data(), 4, 2, 1.0)));
    EXPECT_EQ(1U, ftdi.reads.size());
    EXPECT_EQ("-2: Sending of command data failed. Error: -2 (words of libftdi).",
              told(mgr.send(4, 0, data.data(), 4, 0)));
    EXPECT_EQ(-3, silent.sendRaw(data.data(), 4));
    EXPECT_STREQ("Sending data failed. Error: -3 (words of libftdi).", silent.getLastError());
}

TEST_F(CmdMgrMpx3Test, WaitingForAPacketEndsByPacketAbortOrDeadline)
{
    char packet[9] = {};
    ftdi.reads = {{"", -4}, {"12345"}, {"6789"}};
    EXPECT_EQ(0, mgr.waitForPacket(5.0, nullptr, packet, 9, true, true));
    EXPECT_EQ("123456789", std::string(packet, 9));
    EXPECT_DOUBLE_EQ(0x3435363738 * 1e-8, mpx3::shutterTimeOf(reinterpret_cast<unsigned char*>(packet)));

    bool abort = true;
    ftdi.reads = {{"", -4}};
    EXPECT_EQ(-2, mgr.waitForPacket(1e100, &abort, packet, 9, true, false));
    ftdi.reads = {{"", -4}};
    EXPECT_EQ("-1: Error receiving packet: -4 (words of libftdi)",
              told(mgr.waitForPacket(0, nullptr, packet, 9, false, false)));
    ftdi.reads = {{"torn"}};
    abort = false;
    EXPECT_EQ("-1: Timeout. Not received packet", told(mgr.waitForPacket(0.1, &abort, packet, 9, true, false)));
}

TEST_F(CmdMgrMpx3Test, TheLogShowsNamesArgumentsPinsAndPayloads)
{
    mgr.send(1, 1, 0, 0xA1, 0x1A, 0x0F, 0);
    mgr.send(1, 255, data.data(), 2, 5);
    mgr.logCommand("CPU Get %d Status");
    mgr.send(4, 4, 0, 0, 0, 0, 2);
    mgr.send(9, 1, 0, 0, 0, 0, 0);
    const std::string text = logText();
    EXPECT_THAT(text, HasSubstr("[DBG]: CMD [00|01|01|00_A1_1a_0F]    (___|MPX|PINS|PWR RST FCLR     )\n"));
    EXPECT_THAT(text, HasSubstr("CMD [05|01|FF|00_00_00_02]    (D_A|MPX|???|2)\n"));
    EXPECT_THAT(text, HasSubstr("CPU Get %d Status\n"));
    EXPECT_THAT(text, HasSubstr("(_O_|SPI||)\n")) << "a command without a name";
    EXPECT_THAT(text, HasSubstr("(___|???|???|)\n"));
}

} // namespace
