// The base of a Medipix3 device, without hardware.
#include "devices/ampx3dev.h"
#include "refhost/host.h"
#include "support/tempfolder.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

/// Makes the hardware operations visible.
class BareDevice : public AMpx3Dev {
public:
    explicit BareDevice(refhost::Host& host, const std::string& logs) : AMpx3Dev("bare sn: 5", &host, logs, "") {}

    using AMpx3Dev::readMatrix;
    using AMpx3Dev::writeMatrix;
    int writeMatrix(const unsigned* data, std::size_t size, unsigned char counter, bool convert) override
    {
        written.assign(data, data + size);
        writtenCounter = counter;
        converted = convert;
        return 0;
    }
    void pretendChip()
    {
        connected = true;
        noChip = false;
    }
    void poke(bool value) { setBusy(value); }

    std::vector<unsigned> written;
    int writtenCounter = -1;
    bool converted = true;
};

struct Line {
    unsigned level;
    std::string text;
};

void keepLine(unsigned level, const char* text, void* user)
{
    static_cast<std::vector<Line>*>(user)->push_back({level, text});
}

struct Seen {
    unsigned event;
    long data;
};

void keepEvent(unsigned event, long data, void* user)
{
    static_cast<std::vector<Seen>*>(user)->push_back({event, data});
}

class AMpx3DevTest : public testing::Test {
protected:
    support::TempFolder folder;
    refhost::Host host{folder.path(), folder.path()};
    BareDevice device{host, folder.path()};
};

} // namespace

TEST_F(AMpx3DevTest, CodesSelectWhoHearsOfAnError)
{
    device.initDevice();
    std::vector<Line> lines;
    device.setLogMsgFunc(keepLine, &lines);
    EXPECT_STREQ(device.lastError(), "");
    EXPECT_EQ(device.logError(0, "quiet %d", 1), 0);
    EXPECT_STREQ(device.lastError(), "quiet 1");
    EXPECT_EQ(device.logError(7, "seven"), 7);
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(device.logError(-5, "minus"), -5);
    EXPECT_EQ(device.logError(1, "one"), 1);
    EXPECT_EQ(device.logError(2, "two"), 2);
    EXPECT_EQ(device.logError(3, "%s", "100% three"), 3);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].level, 1U);
    EXPECT_EQ(lines[1].level, 1U);
    EXPECT_EQ(lines[2].level, 2U);
    EXPECT_EQ(lines[3].level, 3U);
    EXPECT_EQ(lines[3].text, "100% three");
    // Information lines carry ERR in the log as well.
    EXPECT_NE(folder.read("device_.log").find(" [ERR]: two\n"), std::string::npos) << "family in lower case";
}

TEST_F(AMpx3DevTest, SettingsAreTheDefaultsOfTheirOwnKeys)
{
    folder.write("device.ini", "[Settings]\nDebugLog=1\nLogRotate=TRUE\n=\n[\n\xff\xfe=9\n");
    device.initDevice();
    std::vector<Line> lines;
    device.setLogMsgFunc(keepLine, &lines);
    EXPECT_EQ(device.closeDevice(), 0);
    device.logError(1, "nobody listens");
    EXPECT_TRUE(lines.empty());
    EXPECT_EQ(device.closeDevice(), 0);
    host.complainOfLeftovers();
    EXPECT_TRUE(host.complaints().empty());
}

TEST_F(AMpx3DevTest, PixelConfigurationBecomesCounterBits)
{
    const std::vector<unsigned char> cfg = {0xFF, 0xFF, 0x00, 0x00, 0x08, 0x00, 0x80, 0x01, 0x03, 0x10, 0x55};
    EXPECT_EQ(device.setPixelCfg(cfg.data(), cfg.size()), -1);
    EXPECT_STREQ(device.lastError(), "Device not connected or no chip");
    device.pretendChip();
    EXPECT_EQ(device.setPixelCfg(cfg.data(), cfg.size()), 0);
    EXPECT_EQ(device.writtenCounter, 1);
    EXPECT_FALSE(device.converted);
    // bit 0 and 11: inverted mask and test bits; 1 to 5: bits 3 to 7 of the first byte; 6 to 10: low bits of the second
    EXPECT_EQ(device.written, (std::vector<unsigned>{0x7FE, 0x801, 0x803, 0x861, 0x400}));
}

TEST_F(AMpx3DevTest, TriggerBeforeTheWaitIsKeptAndCountsOnce)
{
    std::vector<Seen> seen;
    device.setEventFunc(keepEvent, &seen);
    device.doSoftwareTrigger(0);
    device.doSoftwareTrigger(0);
    device.waitForSoftwareTrigger(nullptr);
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen[0].event, HWEVENT_WAIT_TRIGGER);
    bool stop = true;
    device.waitForSoftwareTrigger(&stop);
    EXPECT_EQ(seen.size(), 2U);
    std::thread trigger([this] { device.doSoftwareTrigger(0); });
    device.waitForSoftwareTrigger(nullptr);
    trigger.join();
}

TEST_F(AMpx3DevTest, BusyIsToldAtItsChangesOnly)
{
    std::vector<Seen> seen;
    device.setEventFunc(keepEvent, &seen);
    device.poke(false);
    device.poke(true);
    device.poke(true);
    EXPECT_TRUE(device.isBusy());
    device.poke(false);
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[0].event, HWEVENT_BUSY_CHANGED);
    EXPECT_EQ(seen[0].data, 1);
    EXPECT_EQ(seen[1].data, 0);
}

TEST_F(AMpx3DevTest, UnsupportedOperationsTouchNothing)
{
    unsigned layout[4] = {9, 9, 9, 9};
    EXPECT_EQ(device.chipsLayout(layout, layout + 1, layout + 2, layout + 3), -1026);
    EXPECT_EQ(layout[3], 9U);
    EXPECT_EQ(device.sendRawData(nullptr, 5, 0, 0, 0), -1026);
    double volts = 5;
    double amperes = 5;
    EXPECT_EQ(device.biasVoltageCurrentSense(&volts, &amperes), -1026);
    EXPECT_EQ(volts, 0.0);
    EXPECT_EQ(amperes, 0.0);
    EXPECT_TRUE(device.isTriggerMaster());
    EXPECT_EQ(device.privateInterface(), nullptr);
}
