// The base of a Medipix3 device, without hardware.
#include "devices/common/devicebench.h"
#include "devices/mpx3/ampx3dev.h"

using namespace support;

namespace {

/// Makes the device's own operations visible.
class BareDevice : public AMpx3Dev {
public:
    BareDevice(refhost::Host& host, const std::string& logs) : AMpx3Dev("bare sn: 5", &host, logs, "") {}

    using AMpx3Dev::setBusy;
};

using Line = std::pair<unsigned, std::string>;

void keepLine(unsigned level, const char* text, void* user)
{
    static_cast<std::vector<Line>*>(user)->emplace_back(level, text);
}

class AMpx3DevTest : public testing::Test {
protected:
    TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    BareDevice device{host, folder.path()};
    EventLog events{device};
};

} // namespace

TEST_F(AMpx3DevTest, CodesSelectWhoHearsOfAnErrorUntilItIsClosed)
{
    folder.write("device.ini", "[Settings]\nDebugLog=1\nLogRotate=TRUE\n=\n[\n\xff\xfe=9\n");
    device.initDevice();
    std::vector<Line> lines;
    device.setLogMsgFunc(keepLine, &lines);
    EXPECT_STREQ(device.lastError(), "");
    EXPECT_EQ(device.logError(0, "quiet %d", 1), 0);
    EXPECT_STREQ(device.lastError(), "quiet 1");
    EXPECT_EQ(device.logError(7, "seven"), 7);
    EXPECT_EQ(device.logError(-5, "minus"), -5);
    EXPECT_EQ(device.logError(1, "one"), 1);
    EXPECT_EQ(device.logError(2, "two"), 2);
    EXPECT_EQ(device.logError(3, "%s", "100% three"), 3);
    const std::vector<Line> heard = {{1, "minus"}, {1, "one"}, {2, "two"}, {3, "100% three"}};
    EXPECT_EQ(lines, heard);
    // Information lines carry ERR in the log as well.
    EXPECT_NE(folder.read("device_.log").find(" [ERR]: two\n"), std::string::npos) << "family in lower case";
    EXPECT_EQ(device.closeDevice(), 0);
    device.logError(1, "nobody listens");
    EXPECT_EQ(lines, heard);
    EXPECT_EQ(device.closeDevice(), 0);
    host.complainOfLeftovers();
    EXPECT_TRUE(host.complaints().empty());
}

TEST_F(AMpx3DevTest, TriggerBeforeTheWaitIsKeptAndCountsOnce)
{
    device.doSoftwareTrigger(0);
    device.doSoftwareTrigger(0);
    device.waitForSoftwareTrigger(nullptr);
    EXPECT_EQ(events.seen(), (std::vector<Seen>{{HWEVENT_WAIT_TRIGGER, 0}}));
    bool stop = true;
    device.waitForSoftwareTrigger(&stop);
    EXPECT_EQ(events.seen().size(), 2U);
    std::thread trigger([this] { device.doSoftwareTrigger(0); });
    device.waitForSoftwareTrigger(nullptr);
    trigger.join();
}

TEST_F(AMpx3DevTest, BusyIsToldAtItsChangesOnly)
{
    for (const bool busy : {false, true, true, false})
        device.setBusy(busy);
    EXPECT_EQ(events.all(), (std::vector<Seen>{{HWEVENT_BUSY_CHANGED, 1}, {HWEVENT_BUSY_CHANGED, 0}}));
}
