// What the link and the managers on it do about a chip that does not answer, a send that failed, other threads, and
// closing.
#include "link/cmdmgrmpx3.h"
#include "link/managertest.h"
#include "link/spiexchange.h"

#include <atomic>
#include <thread>

using namespace HwLatixel;
using testing::AllOf;
using testing::Contains;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;

namespace {

template <typename Act>
double secondsOf(Act act)
{
    const double start = getPreciseTime();
    act();
    return getPreciseTime() - start;
}

struct LinkTroubleTest : ManagerTest<CmdMgrMpx3> {
    LinkTroubleTest()
    {
        dev.openDevice(true, 0);
        ftdi.calls.clear();
    }

    /// From now on each of these calls blocks until its limit is over.
    void block(const std::string& functions)
    {
        ftdi.hook = [functions](const std::string& function, int limit) {
            if (functions.find(function) != std::string::npos)
                sleepThread(limit / 1000.0);
        };
    }

    char room[16] = {};
};

TEST_F(LinkTroubleTest, ACallOfLibftdiBlocksNoLongerThanItsCallerMayWait)
{
    std::map<std::string, int> limits;
    ftdi.hook = [&](const std::string& function, int milliseconds) { limits[function] = milliseconds; };
    const struct {
        std::function<void()> act;
        const char* function;
        int least;
        int most;
    } cases[] = {
        {[&] { dev.receive(room, 16, 4, 1.0, false); }, "read", 900, 1000},
        {[&] { dev.receive(room, 16, 4, 30.0, false); }, "read", 2000, 2000},
        {[&] { dev.receiveAllUntilPattern(room, 16, "x", 1, 0.5); }, "read", 400, 500},
        {[&] { dev.receiveAll(room, 16, 1, -1.0); }, "read", 1900, 2000},
        {[&] { dev.receive(room, 16, 4, 0.01, false); }, "read", 80, 80}, // a transfer that is alive takes so long
        {[&] { dev.send("1", 1, 0.5); }, "write", 400, 500},
        {[&] { dev.send("1", 1, 10.0); }, "write", 2000, 2000},
        {[&] { dev.isConnected(); }, "get_latency", 1900, 2000},
        {[&] { dev.setBitMode(FtdiBitModeFifo); }, "reset", 1900, 2000},
        {[&] { dev.openDevice(true, 0); }, "open", 2000, 2000},
    };
    ftdi.reads = {{"1234"}, {"1234"}, {"x"}, {"x"}};
    for (const auto& c : cases) {
        c.act();
        EXPECT_THAT(limits[c.function], AllOf(Ge(c.least), Le(c.most))) << &c - cases;
    }
}

TEST_F(LinkTroubleTest, AChipThatDoesNotAnswerIsOneFromWhichNothingComes)
{
    block("read reset");
    ftdi.reads = std::deque<ScriptedFtdi::Read>(99, {"", -7});
    EXPECT_LE(secondsOf([&] { EXPECT_EQ(0, dev.receive(room, 16, 4, 0.2, false)); }), 0.5);
    EXPECT_STREQ("Timeout", dev.getLastError());
    EXPECT_LE(secondsOf([&] { EXPECT_EQ(0, dev.receiveAll(room, 16, 100, -1.0)); }), 2.5);
    ftdi.results["reset"] = -1;
    EXPECT_LE(secondsOf([&] { dev.setBitMode(FtdiBitModeFifo); }), 2.5);
    EXPECT_THAT(ftdi.calls, testing::ElementsAre("reset")) << "no time is left for more";
    ftdi.hook = nullptr;
    ftdi.reads = {{"12"}, {"", -7}, {"34"}};
    EXPECT_EQ(4, dev.receive(room, 16, 4, 0.2, false)) << "what had come is kept";
}

TEST_F(LinkTroubleTest, AWaitForAPacketKeepsItsDeadlineAndAFailedReadBringsNothing)
{
    EXPECT_LE(secondsOf([&] { EXPECT_EQ(-1, mgr.waitForPacket(0.2, nullptr, room, 9, false, true)); }), 0.6);

    unsigned long received = 4;
    ftdi.reads = {{"", -4}};
    EXPECT_EQ(0, mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, &received));
    EXPECT_EQ(0U, received);
}

TEST_F(LinkTroubleTest, BehindAFailedSendTheBoardIsResetBeforeTheNextExchange)
{
    unsigned long received = 99;
    ftdi.reads = {{"left"}};
    ftdi.writeResults = {9, -1};
    EXPECT_EQ(-1, mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, &received));
    EXPECT_EQ("55 00 04 01 04 00 00 32 AA", wire()) << "nothing follows a frame that may be cut";
    EXPECT_EQ(0U, received);
    EXPECT_EQ(1U, ftdi.reads.size()) << "and nothing is read";
    EXPECT_THAT(ftdi.calls, Not(Contains("purge")));

    // While the chip does not answer, sends go on failing as the first one did.
    ftdi.results["get_latency"] = -1;
    EXPECT_EQ("-1: Sending of command failed. Error: -1 (words of libftdi).", told(mgr.send(AcqCmd::Stop)));
    EXPECT_EQ(0U, mgr.boardResets());

    ftdi.results.clear();
    EXPECT_EQ(0, mgr.send(AcqCmd::Stop));
    EXPECT_EQ("55 00 05 02 00 00 00 00 AA", wire());
    EXPECT_THAT(ftdi.calls, AllOf(Contains("bitmode 255 1"), Contains("bitmode 255 64"), Contains("purge")));
    EXPECT_TRUE(ftdi.reads.empty()) << "the link is emptied";
    EXPECT_EQ(1U, mgr.boardResets());
    EXPECT_THAT(logText(), HasSubstr("[ERR]: Link out of step, board reset\n"));
    ftdi.calls.clear();
    EXPECT_EQ(0, mgr.send(AcqCmd::Stop));
    EXPECT_TRUE(ftdi.calls.empty());
}

TEST_F(LinkTroubleTest, ExchangesWithoutAByteMakeTheBoardMute)
{
    const auto info = [&] { mgr.sendRecv(InfoCmd::Info, {}, buffer.data(), 4, cmdflag::OUTPUT, 0.01); };
    const auto flash = [&] { spiExchange(mgr, spislave::FLASH, data.data(), buffer.data(), 4, nullptr, 0.01); };
    const struct {
        std::function<void()> act;
        const char* answer;
        unsigned unanswered;
    } cases[] = {
        {info, "", 1},
        {flash, "", 2},
        {[&] { mgr.sendRecv(ChipCmd::Data, {}, buffer.data(), 4, cmdflag::OUTPUT, 0.01); }, "", 2}, // an empty channel
        {[&] { mgr.send(SpiCmd::Set); }, "", 2},
        {[&] { ftdi.writeResults = {-1}, flash(); }, "", 3},
        {flash, "x", 0},
        {info, "text", 0},
    };
    for (const auto& c : cases) {
        ftdi.reads = {{c.answer}};
        c.act();
        EXPECT_EQ(c.unanswered, mgr.unansweredExchanges()) << &c - cases;
        EXPECT_EQ(c.unanswered == 3, mgr.isBoardMute());
        dev.setBitMode(FtdiBitModeBitBang); // or the next one would begin with it
    }
    EXPECT_FALSE(dev.outOfStep());
}

TEST_F(LinkTroubleTest, NoFrameFallsBetweenAQuestionAndItsAnswerButIntoAWait)
{
    std::atomic<bool> reading = false;
    std::atomic<bool> stopSent = false;
    std::atomic<bool> readBehindStop = false;
    ftdi.hook = [&](const std::string& function, int) {
        if (function != "read")
            return;
        reading = true;
        readBehindStop = readBehindStop || stopSent;
        sleepThread(0.002);
    };
    const auto during = [&](auto wait, bool goesIn) {
        reading = stopSent = readBehindStop = false;
        std::thread reader(wait);
        while (!reading)
            sleepThread(0.001);
        mgr.send(AcqCmd::Stop);
        stopSent = true;
        reader.join();
        EXPECT_EQ(goesIn, readBehindStop);
    };
    during([&] { mgr.sendRecv(InfoCmd::Info, {}, buffer.data(), 4, cmdflag::OUTPUT, 0.2); }, false);
    during([&] { mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, nullptr); }, false);
    during([&] { mgr.waitForPacket(0.2, nullptr, room, 9, false, false); }, true);
}

TEST_F(LinkTroubleTest, AClosingLinkEndsAllButTheClosingThread)
{
    ftdi.hook = [](const std::string&, int) { sleepThread(0.002); };
    std::atomic<bool> closing = false;
    std::thread waiting([&] {
        EXPECT_EQ(-1, mgr.waitForPacket(1e100, nullptr, room, 9, true, false));
        EXPECT_TRUE(closing) << "not before";
        EXPECT_EQ(-1, mgr.send(AcqCmd::Start));
        EXPECT_THAT(mgr.getLastError(), HasSubstr("Sending of command failed. Error: -1 (Device is closing)."));
        unsigned long size = 4;
        EXPECT_EQ(-1, mgr.receiveRaw(buffer.data(), &size, 1.0));
        EXPECT_FALSE(dev.isConnected());
        EXPECT_EQ(-1, dev.openDevice(true, 0)) << "a recovery does not bring it back";
    });
    sleepThread(0.05);
    closing = true;
    dev.startClosing();
    EXPECT_LE(secondsOf([&] { waiting.join(); }), 0.4);

    EXPECT_EQ(-1, mgr.send(AcqCmd::Stop)) << "nor does this thread do anything without being the closing one";
    {
        const FtdiDev::ClosingCalls own(dev, 0.3);
        EXPECT_EQ(0, mgr.send(AcqCmd::Stop));
        EXPECT_EQ("55 00 05 02 00 00 00 00 AA", wire());
        EXPECT_FALSE(dev.outOfStep());
        block("read");
        EXPECT_LE(secondsOf([&] { mgr.sendReceiveSpiCpu(data.data(), buffer.data(), 4, nullptr); }), 0.7);
        EXPECT_EQ(-1, mgr.send(AcqCmd::Stop)) << "its time is over";
    }
    dev.cancelClosing();
    EXPECT_EQ(0, mgr.send(AcqCmd::Stop)) << "nobody closes after all";
    EXPECT_EQ(0, dev.closeDevice());
}

} // namespace
