// The USB session against a scripted libftdi: the calls it makes, and what it makes of the answers.
#include "link/ftdidev.h"

#include "shared/osdepend.h"
#include "support/ftdiexports.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using namespace std::string_literals;

namespace {

constexpr double SHORT = 0.02; // seconds until a silent board counts as silent

struct FtdiDevTest : testing::Test {
    std::vector<FtdiDevInfo> list(std::vector<const char*> names, bool skipChannelB = false)
    {
        std::vector<FtdiDevInfo> found;
        EXPECT_EQ(0, FtdiDev::listDevicesByNameFast(names.data(), names.size(), found, skipChannelB, true));
        return found;
    }
    int receive(unsigned long bufferSize, unsigned long count, bool binary = false)
    {
        std::fill(std::begin(buffer), std::end(buffer), '#');
        return dev.receive(buffer, bufferSize, count, SHORT, binary);
    }
    std::string held(std::size_t count) const { return {buffer, count}; }
    auto callCount(const char* call) const { return std::count(ftdi.calls.begin(), ftdi.calls.end(), call); }

    ScriptedFtdi& ftdi = ScriptedFtdi::restart();
    FtdiDev dev{"Board One", false};
    char buffer[64] = {};
};

TEST_F(FtdiDevTest, ListingFindsChipsByTheBeginningOfTheirDescription)
{
    ftdi.devices = {{0x04036014, "Latixel WA sn:1", "S1"},
                    {0x04036010, "Latixel XA sn:2", "S2"},
                    {0x04036010, "Latixel gone", "", 0},
                    {0x12345678, "Other", "S3"}};
    FtdiDev::addVidPid(0x12345678);
    EXPECT_EQ(3U, list({}).size());
    ftdi.calls.clear();
    const auto found = list({"Nothing", "Latixel"});
    ASSERT_EQ(2U, found.size());
    EXPECT_EQ("Latixel WA sn:1S1", found[1].name + found[1].serial);
    EXPECT_EQ(0x04036014U, found[1].vidPid);
    EXPECT_EQ(5, callCount("list_free")) << "four standard pairs and ours, each once";

    std::vector<FtdiDevInfo> none;
    for (const auto& [call, result] : {std::pair{"find_all", -2}, std::pair{"init", -1}}) {
        ftdi.results[call] = -3;
        EXPECT_EQ(result, FtdiDev::listDevicesByNameFast(nullptr, 0, none, true, true));
        EXPECT_EQ(0, ftdi.liveContexts);
    }
}

TEST_F(FtdiDevTest, ChannelBIsReadAgainUntilItGoesAway)
{
    ftdi.devices = {{0x04036010, "Latixel B", "", 4}, {0x04036010, "B", "", 9}, {0x04036010, "Latixel A", ""}};
    EXPECT_EQ(2U, list({}, true).size());
    EXPECT_EQ(5, callCount("get_strings Latixel B"));
}

TEST_F(FtdiDevTest, LinkIsSetUpInTheOrderThatTheBoardsNeed)
{
    list({});
    ftdi.calls.clear();
    EXPECT_FALSE(dev.isConnected());
    ASSERT_EQ(0, dev.openDevice(true, 0));
    EXPECT_THAT(ftdi.calls, ElementsAre("init", "open Board One 1027 24592", "reset", "purge", "bitmode 255 0",
                                        "flow 256", "read_chunk 65536", "write_chunk 65536", "latency 2"));
    EXPECT_TRUE(dev.isConnected());
    ftdi.results = {{"get_latency", -1}, {"bitmode", -9}, {"latency", -9}, {"purge", -5}, {"close", -6}};
    EXPECT_FALSE(dev.isConnected());

    ftdi.calls.clear();
    EXPECT_EQ(0, dev.setBitMode(FtdiBitModeFifo));
    EXPECT_THAT(ftdi.calls, ElementsAre("reset", "purge", "bitmode 255 0", "bitmode 255 64", "flow 256",
                                        "read_chunk 65536", "write_chunk 65536", "latency 2"));
    EXPECT_EQ(-5, dev.clearBuffers());
    EXPECT_EQ(-6, dev.closeDevice());
    EXPECT_EQ(0, ftdi.liveContexts);
}

TEST_F(FtdiDevTest, OpenChoosesTheIdsAndReconnectsWithoutLeaks)
{
    dev.openDevice(false, 0x11112222);
    EXPECT_THAT(ftdi.calls, Contains("open Board One " + std::to_string(0x1111) + " " + std::to_string(0x2222)));
    EXPECT_THAT(ftdi.calls, Contains("flow 0"));
    ftdi.devices = {{0x04036014, "Board One", ""}};
    list({"Board"});
    dev.openDevice(false, 0x11112222);
    EXPECT_THAT(ftdi.calls, Contains("open Board One 1027 24596")) << "the listing outranks the argument";
    dev.closeDevice();

    ftdi.results["open"] = -3;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(-1, dev.openDevice(true, 0));
    EXPECT_STREQ("words of libftdi", dev.getLastError());
    EXPECT_THAT(ftdi.calls, Not(Contains("init of a context in use")));
    EXPECT_EQ(1, ftdi.liveContexts);
    ftdi.results["init"] = -1;
    EXPECT_EQ(-1, dev.openDevice(true, 0));
    EXPECT_STREQ("Cannot initialize ftdi.", dev.getLastError());
    EXPECT_EQ(0, ftdi.liveContexts);
}

TEST_F(FtdiDevTest, SendGoesOnWhileTheChipTakesBytes)
{
    ftdi.writeResults = {3, 0, 2, 5, 99};
    EXPECT_EQ(10, dev.send("0123456789", 10, 1.0));
    EXPECT_EQ("0123456789", ftdi.written);
    EXPECT_EQ(-1, dev.send("", 0, 1.0)) << "no bytes are written too";
    EXPECT_STREQ("Device disconnected", dev.getLastError());

    ftdi.writeResults = {4};
    ftdi.stuck = true;
    const double start = getPreciseTime();
    EXPECT_EQ(-1, dev.send("0123456789", 10, SHORT));
    EXPECT_GE(getPreciseTime() - start, SHORT);
    EXPECT_STREQ("Timeout", dev.getLastError());
}

TEST_F(FtdiDevTest, ReceiveGathersChunksAndTellsAShortCount)
{
    ftdi.reads = {{"abc"}, {""}, {"defgh"}, {"rest"}};
    EXPECT_EQ(8, receive(20, 8));
    EXPECT_EQ("abcdefgh\0#"s, held(10));
    EXPECT_EQ(4, receive(20, 10));
    EXPECT_EQ("rest\0#"s, held(6));
    EXPECT_STREQ("Timeout", dev.getLastError());
    ftdi.reads = {{"0123456789"}};
    EXPECT_EQ(4, receive(20, 4, true));
    EXPECT_EQ("0123#", held(5));
    EXPECT_EQ(4, receive(4, 10));
    EXPECT_EQ("4567#", held(5));
    ftdi.reads = {{"ab"}, {"", -666}};
    EXPECT_EQ(-666, receive(10, 10));
}

TEST_F(FtdiDevTest, ReceiveAllStopsAtAPauseAFullBufferOrItsLimit)
{
    ftdi.reads = {{""}, {"ab"}, {"cd"}, {""}, {"next one"}, {"", -4}};
    EXPECT_EQ(4, dev.receiveAll(buffer, sizeof(buffer), 10, -1.0));
    EXPECT_EQ("abcd", held(4));
    EXPECT_EQ(5, dev.receiveAll(buffer, 5, 10, -1.0));
    EXPECT_EQ(-4, dev.receiveAll(buffer, sizeof(buffer), 10, -1.0));
    ftdi.readCount = 0;
    EXPECT_EQ(0, dev.receiveAll(buffer, sizeof(buffer), 10, -1.0));
    EXPECT_EQ(10, ftdi.readCount);
}

TEST_F(FtdiDevTest, PatternsEndAReceiveAtTheTailAndASkipAnywhere)
{
    ftdi.reads = {{"xxABx"}, {""}, {"xA"}, {"B"}, {"tail"}};
    EXPECT_EQ(8, dev.receiveAllUntilPattern(buffer, sizeof(buffer), "AB", 2, 1.0));
    EXPECT_EQ("xxABxxAB", held(8));
    EXPECT_EQ(4, dev.receiveAllUntilPattern(buffer, sizeof(buffer), "AB", 2, SHORT)) << "by the deadline";

    ftdi.reads = {{"AABrest"}, {"xxA"}, {"B"}, {"AAAB"}, {std::string(96, 'x')}};
    EXPECT_EQ(7, dev.skipAllUntilPattern("AB", 2, 1.0));
    EXPECT_EQ(4, dev.skipAllUntilPattern("AB", 2, 1.0));
    EXPECT_EQ(-100, dev.skipAllUntilPattern("AAB", 3, SHORT)) << "AAAB has AAB in it, but behind a broken copy";
    EXPECT_STREQ("Timeout", dev.getLastError());
}

} // namespace
