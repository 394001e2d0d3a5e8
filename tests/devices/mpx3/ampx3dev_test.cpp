// The base of a Medipix3 device, without hardware.
#include "devices/common/devicebench.h"
#include "devices/mpx3/ampx3dev.h"

using namespace support;

namespace {

using Line = std::pair<unsigned, std::string>;

void keepLine(unsigned level, const char* text, void* user)
{
    static_cast<std::vector<Line>*>(user)->emplace_back(level, text);
}

} // namespace

TEST(AMpx3DevTest, CodesSelectWhoHearsOfAnErrorUntilItIsClosed)
{
    const TempFolder folder;
    refhost::Host host(folder.path(), folder.path());
    AMpx3Dev device("bare sn: 5", &host, folder.path(), "");
    folder.write("device.ini", "[Settings]\nDebugLog=1\nLogRotate=TRUE\n=\n[\n\xff\xfe=9\n");
    device.initDevice();
    std::vector<Line> lines;
    device.setLogMsgFunc(keepLine, &lines);
    EXPECT_EQ(device.logError(0, "quiet %d", 1), 0);
    EXPECT_STREQ(device.lastError(), "quiet 1");
    for (const int code : {7, -5, 1, 2, 3})
        EXPECT_EQ(device.logError(code, "%s of %d", "100%", code), code);
    const std::vector<Line> heard = {{1, "100% of -5"}, {1, "100% of 1"}, {2, "100% of 2"}, {3, "100% of 3"}};
    EXPECT_EQ(lines, heard);
    // Information lines carry ERR in the log as well.
    EXPECT_NE(folder.read("device_.log").find(" [ERR]: 100% of 2\n"), std::string::npos) << "family in lower case";
    EXPECT_EQ(device.closeDevice(), 0);
    device.logError(1, "nobody listens");
    EXPECT_EQ(lines, heard);
    EXPECT_EQ(device.closeDevice(), 0);
    host.complainOfLeftovers();
    EXPECT_TRUE(host.complaints().empty());
}
