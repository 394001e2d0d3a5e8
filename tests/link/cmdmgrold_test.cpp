// The old boards' protocol: checked frames, answers, and the exchange with data between two answers.
#include "link/cmdmgrold.h"

#include "link/managertest.h"

#include <memory>
#include <thread>

using namespace HwLatixel;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

struct OldManager : CmdMgrOld {
    OldManager(FtdiDev* link, FileLog* fileLog) : CmdMgrOld(link, fileLog, MPX2CMDTABLE) {}
};

/// A frame as the board sends it, with a good check byte.
std::string frame(int command, int p0 = 0, int p1 = 0, int p2 = 0)
{
    std::string bytes;
    for (const int byte : {0x55, command, p0, p1, p2, command ^ p0 ^ p1 ^ p2})
        bytes += static_cast<char>(byte);
    return bytes;
}

struct CmdMgrOldTest : ManagerTest<OldManager> {
    std::string exchange(unsigned long outSize, unsigned long inSize)
    {
        return told(
            mgr.sendCmd(oldcmd::WRITE_FSR, CmdMgrOld::ZEROPARS, "out", outSize, ack, in.get(), inSize, dataAck, 0));
    }

    char ack[3] = {};
    char dataAck[3] = {};
    // Of their sizes, for the sanitizer.
    std::unique_ptr<char[]> in = std::make_unique<char[]>(4);
    std::unique_ptr<char[]> taken = std::make_unique<char[]>(CmdMgrOld::FRAME_SIZE);
};

TEST_F(CmdMgrOldTest, AWrongCheckByteMakesABadFrame)
{
    std::string bad = frame(0x40, 1, 2, 3);
    bad[5] ^= 1;
    for (const int result : {6, 6, -1, 6, -1}) {
        ftdi.reads = {{bad}};
        EXPECT_EQ(result, mgr.receiveFrame(taken.get(), 0.01));
        EXPECT_THAT(mgr.getLastError(), HasSubstr(result == 6 ? "Invalid frame received (" : "Invalid frame (55 |"));
    }
    EXPECT_THAT(logText(), HasSubstr("Invalid frame (55 | 40 |01 02 03 |41)\n"));
    EXPECT_THAT(logText(), AllOf(HasSubstr("(1x)"), HasSubstr("(2x)"), HasSubstr("(4x)"), Not(HasSubstr("(3x)"))));

    ftdi.reads = {{frame(0x40, 1, 2, 3)}, {'T' + frame(0).substr(1)}};
    EXPECT_EQ(0, mgr.receiveFrame(taken.get(), 0.01));
    EXPECT_THAT(logText(), HasSubstr("[DBG]: CMD <<< [40| 01 02 03] Read AD\n"));
    EXPECT_EQ("6: Invalid frame received (1x)", told(mgr.receiveFrame(taken.get(), 0.01)))
        << "the good frame began a new row";
}

TEST_F(CmdMgrOldTest, WhatIsNoWholeFrameIsNoAnswer)
{
    EXPECT_EQ("-1: Could not receive frame, error: -1 (Timeout)", told(mgr.receiveFrame(taken.get(), 0.01)));
    ftdi.reads = {{frame(0).substr(0, 4)}};
    EXPECT_EQ("4: Could not receive frame, error: 4 (Timeout)", told(mgr.receiveFrame(taken.get(), 0.01)));
    ftdi.reads = {{"", -666}};
    EXPECT_EQ(-666, silent.receiveFrame(taken.get(), 0.01));
}

TEST_F(CmdMgrOldTest, WaitingEndsByTheFrameTheFlagOrTheDeadline)
{
    char params[3] = {9, 9, 9};
    std::string bad = frame(6, 1, 1, 1);
    bad[0] = 0;
    ftdi.reads = {{bad}, {frame(7, 2, 2, 2)}, {frame(6, 0x22, 0x22, 0x22)}, {"left"}};
    EXPECT_EQ(0, mgr.waitForFrame(oldcmd::MEAS_STATUS, params, 5.0, nullptr, true, true));
    EXPECT_TRUE(CmdMgrOld::frameEquals(params, 0x22, 0x22, measstatus::STARTED));
    EXPECT_EQ(1U, ftdi.reads.size());

    // A frame of another command is no failed read: the flag waits for one. A silent board is one.
    bool abort = true;
    ftdi.reads = {{frame(7, 2, 2, 2)}};
    EXPECT_EQ(0, mgr.waitForFrame(oldcmd::MEAS_STATUS, params, 1e100, &abort, true, true));
    EXPECT_TRUE(ftdi.reads.empty());
    EXPECT_TRUE(CmdMgrOld::frameEquals(params, 0x22, 0x22, 0x22)) << "left alone";

    abort = false;
    ftdi.reads = {{"", -4}, {"", -4}};
    EXPECT_EQ("-1: Timeout. Not received frame for command [06]",
              told(mgr.waitForFrame(oldcmd::MEAS_STATUS, nullptr, 0.05, &abort, true, false)));
    EXPECT_EQ(1U, ftdi.reads.size()) << "a failing link is not asked without a pause";
    EXPECT_THAT(told(mgr.waitForFrame(oldcmd::MEAS_STATUS, nullptr, 0, nullptr, false, false)),
                HasSubstr("-1: Could not receive frame"));
}

TEST_F(CmdMgrOldTest, AWaitGivesWayToWhoeverSends)
{
    dev.openDevice(true, 0);
    ftdi.hook = [](const std::string&, int) { sleepThread(0.002); };
    bool abort = false;
    std::thread reader(
        [&] { EXPECT_EQ(0, mgr.waitForFrame(oldcmd::MEAS_STATUS, nullptr, 1e100, &abort, false, false)); });
    sleepThread(0.05);
    for (int i = 0; i < 3; ++i) {
        const double start = getPreciseTime();
        mgr.sendFrame(oldcmd::MEAS_BREAK, 0, 0, 0);
        EXPECT_LE(getPreciseTime() - start, 0.5);
    }
    storeFlag(abort, true);
    reader.join();
}

TEST_F(CmdMgrOldTest, ACommandIsAFrameAndItsAnswer)
{
    ftdi.reads = {{frame(0x41)}, {frame(0x00, 0xFF, 0xFF, 0xFF)}, {frame(7, 0, 0xFF, 0xFF)}};
    EXPECT_EQ(0, mgr.sendCmd(0x41, 0, 0, 1, 1.0));
    EXPECT_EQ("55 41 00 00 01 40", wire());
    EXPECT_EQ("-2: Command \"Test\" failed (FF FF FF).",
              told(mgr.sendCmd(oldcmd::TEST, CmdMgrOld::ZEROPARS, ack, 1.0)));
    EXPECT_TRUE(CmdMgrOld::frameEquals(ack, 0xFF, 0xFF, 0xFF)) << "the caller sees the refusal";
    EXPECT_EQ(0, silent.sendCmd(oldcmd::BIAS, 0x18, 0xFA, 0xFA, 1.0));
    EXPECT_THAT(logText(), HasSubstr("[DBG]: CMD >>> [41| 00 00 01] Mpx Power\n"));

    ftdi.writeResults = {-3};
    EXPECT_EQ("-3: Sending command \"Erase Matrix\" failed. Error: -3 (words of libftdi).",
              told(mgr.sendCmd(oldcmd::ERASE_MATRIX, 0, 0, 0, 1.0)));
    ftdi.reads = {{"", -4}};
    EXPECT_EQ("-1: Timeout. Not received frame for command [27]", told(mgr.sendCmd(oldcmd::ERASE_MATRIX, 0, 0, 0, 0)));
}

TEST_F(CmdMgrOldTest, DataGoBetweenTwoAnswers)
{
    ftdi.reads = {{frame(0x24, 1, 2, 3) + "ABCD" + frame(0x24, 4, 5, 6)}};
    EXPECT_EQ("0", exchange(3, 4));
    EXPECT_EQ("55 24 00 00 00 24 6F 75 74", wire());
    EXPECT_EQ("ABCD", std::string(in.get(), 4));
    EXPECT_TRUE(CmdMgrOld::frameEquals(ack, 1, 2, 3) && CmdMgrOld::frameEquals(dataAck, 4, 5, 6));
    EXPECT_THAT(logText(), AllOf(HasSubstr("Sent data:\n   6f 75 74 "), HasSubstr("|out"), HasSubstr("|ABCD")));

    const std::string shown = logText();
    mgr.setLogBuffers(false);
    ftdi.reads = {{frame(0x24) + "ABCD" + frame(0x24, 0xFF, 0xFF, 0xFF)}};
    EXPECT_EQ("-4: Command (Write FSR) data not OK  (FF FF FF).", exchange(3, 4));
    EXPECT_THAT(logText().substr(shown.size()), Not(HasSubstr(" data:")));
    wire();

    ftdi.reads = {{frame(0x24, 0xFF, 0xFF, 0xFF)}};
    EXPECT_EQ("-2: Command \"Write FSR\" failed (FF FF FF).", exchange(3, 4));
    EXPECT_EQ("55 24 00 00 00 24", wire()) << "no data for a refused command";
    ftdi.reads = {{frame(0x24)}};
    ftdi.writeResults = {6, -1};
    EXPECT_EQ("-3: Sending data failed, error=-1 (words of libftdi)", exchange(3, 0));
    ftdi.reads = {{frame(0x24)}, {"", -4}};
    EXPECT_EQ("-1: Command data not received, error=-4 (words of libftdi)", exchange(0, 4));
}

TEST_F(CmdMgrOldTest, DataAreSkippedUpToAFrame)
{
    const std::string end = frame(oldcmd::MEAS_BREAK);
    ftdi.reads = {{"matrix" + end.substr(0, 2)}, {end.substr(2)}};
    EXPECT_EQ(0, mgr.skipAllDataUntilFrame(oldcmd::MEAS_BREAK, CmdMgrOld::ZEROPARS, 5.0));
    ftdi.reads = {{"", -4}};
    EXPECT_EQ("-1: Timeout. Not received frame for command [23] ",
              told(mgr.skipAllDataUntilFrame(oldcmd::MEAS_BREAK, CmdMgrOld::ZEROPARS, 5.0)));
}

TEST_F(CmdMgrOldTest, TheLogNamesCommandsWithinTheTableOnly)
{
    mgr.sendFrame(0x68, static_cast<char>(0x80), 1, 2);
    mgr.sendFrame(0x69, 0, 0, 0);
    EXPECT_THAT(logText(), AllOf(HasSubstr("[68| 80 01 02] SwitchModule\n"), HasSubstr("[69| 00 00 00] Unknown\n")));
}

} // namespace
