// The USB session and a command manager on the virtual bus, with a chip that stalls.
#include "link/cmdmgrmpx3.h"
#include "link/ftdidev.h"
#include "sim/usb/testbench.h"

using namespace HwLatixel;

namespace simtest {
namespace {

class LinkOnBusTest : public BusTest {
protected:
    LinkOnBusTest() : BusTest(echoBench({"A"}))
    {
        EXPECT_EQ(0, dev.openDevice(true, 0));
        dev.setBitMode(FtdiBitModeFifo);
    }
    ~LinkOnBusTest() override { dev.closeDevice(); }

    FtdiDev dev{"A", false};
    CmdMgrMpx3 mgr{&dev, nullptr};
};

TEST_F(LinkOnBusTest, ABoardThatTakesNoBytesForAWhileLosesNone)
{
    const Bytes sent = ramp(200000);
    Bytes got(sent.size());
    sim::addFault(0, {{"kind", "stalled_write"}, {"bytes", 10000}, {"seconds", 1.5}});
    EXPECT_EQ(0, mgr.sendRaw(sent.data(), static_cast<unsigned>(sent.size())));
    unsigned long size = got.size();
    EXPECT_EQ(0, mgr.receiveRaw(got.data(), &size, 1.0));
    EXPECT_EQ(sent, got);
}

TEST_F(LinkOnBusTest, ACutFrameIsForgottenByTheBoardBeforeTheNextOne)
{
    sim::addFault(0, {{"kind", "stalled_write"}, {"bytes", 4}, {"times", 1}});
    unsigned char answer[9] = {};
    EXPECT_LT(timeOf([&] { EXPECT_EQ(-1, mgr.send(AcqCmd::Start)); }), 2500ms);
    EXPECT_EQ(0, mgr.sendRecv(AcqCmd::Stop, {}, answer, sizeof(answer), cmdflag::OUTPUT, 1.0));
    EXPECT_EQ(Bytes({0x55, 2, 5, 2, 0, 0, 0, 0, 0xAA}), Bytes(answer, answer + sizeof(answer)));
    const Bytes modes = kept(0, &EchoBoard::modes);
    EXPECT_EQ(Bytes({0, 1, 0, 0x40}), Bytes(modes.end() - 4, modes.end()));
    EXPECT_EQ(13U, sim::written(0).size());
}

} // namespace
} // namespace simtest
