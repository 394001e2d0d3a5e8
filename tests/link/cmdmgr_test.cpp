// The Medipix2 and Timepix protocol where it differs from that of the Medipix3 boards.
#include "link/cmdmgr.h"

#include "link/managertest.h"
#include "link/tpxpins.h"

using namespace HwLatixel;
using testing::HasSubstr;
using testing::Not;

namespace {

using CmdMgrTest = ManagerTest<CmdMgr>;

TEST_F(CmdMgrTest, FramesOnTheWire)
{
    EXPECT_EQ(0, mgr.send(1, 1, 0, 0, 8, 0xAD, 0));
    EXPECT_EQ("55 00 01 01 00 00 08 AD AA", wire());
    EXPECT_EQ(0, mgr.send(tpx::TpxCmd::Data, data.data(), 3, cmdflag::EXCHANGE));
    EXPECT_EQ("55 07 01 00 00 00 00 03 AA 01 02 03", wire());
    EXPECT_EQ(0, mgr.send(tpx::TpxAcqCmd::ClockDivider, CmdArgs::word(0x01020304)));
    EXPECT_EQ("55 00 05 13 01 02 03 04 AA", wire());
    EXPECT_EQ(0, mgr.send(tpx::TpxCmd::Pins, CmdArgs::word(pinWord(TpxPins{}))));
    EXPECT_EQ("55 00 01 01 00 00 09 AD AA", wire());
    ftdi.reads = {{"abcd"}};
    unsigned long received = 0;
    EXPECT_EQ(0, mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, &received));
    EXPECT_EQ(4U, received);
    EXPECT_EQ("55 00 04 01 04 00 00 32 AA 55 02 04 02 00 00 00 07 AA 55 07 04 00 00 00 00 04 AA 01 02 03 04 "
              "55 00 04 02 00 00 00 00 AA 55 02 01 00 00 00 00 00 AA",
              wire());
}

TEST_F(CmdMgrTest, NamesOfPeripheralsCommandsAndPins)
{
    EXPECT_STREQ("TPX", perifStr(1));
    EXPECT_STREQ("RST", perifStr(6));
    EXPECT_STREQ("???", perifStr(8));
    EXPECT_STREQ("READOUT", perifCmd(1, 4));
    EXPECT_STREQ("", perifCmd(1, 5));
    EXPECT_STREQ("PSWAIT", perifCmd(5, 7));
    EXPECT_STREQ("CNT1", perifCmd(5, 16));
    EXPECT_STREQ("DIV2", perifCmd(5, 19));
    EXPECT_STREQ("DIV3", perifCmd(5, 21));
    EXPECT_STREQ("???", perifCmd(5, 22));
    EXPECT_EQ("PWR ENIN M0 SHTR POL OUTEN DESER ", perifData(1, 1, 0, 0, 0x09, 0xAD));
    EXPECT_EQ("", perifData(1, 2, 0, 0, 0, 1));
}

TEST_F(CmdMgrTest, AFailingReceiveLeavesTheLinkAlone)
{
    unsigned long size = 10;
    ftdi.reads = {{"", -4}, {"left"}};
    EXPECT_EQ(-4, mgr.receiveRaw(buffer.data(), &size, 0.01, false));
    EXPECT_EQ(10U, size);
    EXPECT_STREQ("Could not receive data, error: -4 (words of libftdi)", mgr.getLastError());
    EXPECT_EQ(1U, ftdi.reads.size());
    EXPECT_EQ(0, mgr.receiveRaw(buffer.data(), &size, 0.01, true));
    EXPECT_EQ(4U, size);

    unsigned char pattern[9] = {'0', '1', '2', '3', '4', '5', '6', '7', '8'};
    ftdi.reads = {{"xy"}, {"012345678"}};
    EXPECT_EQ(11, mgr.receiveAllDataUntil(buffer.data(), buffer.size(), pattern, 0.5));
    ftdi.reads = {{"", -4}};
    EXPECT_EQ(-1, mgr.receiveAllDataUntil(buffer.data(), buffer.size(), pattern, 0.5));
    EXPECT_STREQ("Timeout. Not received data & frame", mgr.getLastError());
}

TEST_F(CmdMgrTest, SwitchesGateWhatTheLogShows)
{
    mgr.enableLogging(false, true, false);
    mgr.send(tpx::TpxCmd::Data, data.data(), 3, cmdflag::EXCHANGE);
    ftdi.reads = {{"abcd"}, {"abcd"}};
    unsigned long size = 4;
    mgr.receiveRaw(buffer.data(), &size, 0.01, false);
    EXPECT_THAT(logText(), Not(HasSubstr("CMD [")));
    EXPECT_THAT(logText(), HasSubstr("Sent data:"));
    EXPECT_THAT(logText(), Not(HasSubstr("Received data:")));
    mgr.enableLogging(true, false, true);
    mgr.send(tpx::TpxCmd::Pins, CmdArgs::word(pinWord(TpxPins{})));
    mgr.receiveRaw(buffer.data(), &size, 0.01, false);
    EXPECT_THAT(logText(), HasSubstr("CMD [00|01|01|00_00_09_AD]    (___|TPX|PINS|PWR ENIN M0 SHTR POL OUTEN DESER )"));
    EXPECT_THAT(logText(), HasSubstr("Received data:"));
    mgr.sendRaw(reinterpret_cast<const char*>(data.data()), 2);
    EXPECT_THAT(logText().substr(logText().find("Received data:")), HasSubstr("Sent data:")) << "raw bytes always show";
}

} // namespace
