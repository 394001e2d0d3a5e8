// The Medipix2 and Timepix protocol where it differs from that of the Medipix3 boards.
#include "link/cmdmgr.h"

#include "link/managertest.h"
#include "link/tpxpins.h"

using namespace HwLatixel;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

using CmdMgrTest = ManagerTest<CmdMgr>;

TEST_F(CmdMgrTest, AFailingReceiveLeavesTheLinkAlone)
{
    unsigned long size = 10;
    ftdi.reads = {{"", -4}, {"left"}};
    EXPECT_EQ("-4: Could not receive data, error: -4 (words of libftdi)",
              told(mgr.receiveRaw(buffer.data(), &size, 0.01, false)));
    EXPECT_EQ(10U, size);
    EXPECT_EQ(0, mgr.receiveRaw(buffer.data(), &size, 0.01, true));
    EXPECT_EQ(4U, size);
}

TEST_F(CmdMgrTest, SwitchesGateWhatTheLogShows)
{
    mgr.enableLogging(false, true, false);
    mgr.send(tpx::TpxCmd::Data, data.data(), 3, cmdflag::EXCHANGE);
    ftdi.reads = {{"abcd"}};
    unsigned long size = 4;
    mgr.receiveRaw(buffer.data(), &size, 0.01, false);
    EXPECT_THAT(logText(), AllOf(Not(HasSubstr("CMD [")), HasSubstr("Sent data:"), Not(HasSubstr("Received data:"))));
    mgr.enableLogging(true, false, true);
    mgr.send(tpx::TpxCmd::Pins, CmdArgs::word(pinWord(TpxPins{})));
    EXPECT_THAT(logText(), HasSubstr("CMD [00|01|01|00_00_09_AD]    (___|TPX|PINS|PWR ENIN M0 SHTR POL OUTEN DESER )"));
}

} // namespace
