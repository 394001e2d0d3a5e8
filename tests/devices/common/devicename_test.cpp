// What a board's description tells: what it is, whether it is part of a composite, and its serial.
#include "devices/common/devicename.h"

#include <gtest/gtest.h>

#include <array>

using namespace HwLatixel;

TEST(DeviceName, TellsWhatTheBoardIs)
{
    struct Case {
        const char* name;
        bool complete;
        std::array<std::string, 5> parts; ///< family, type, variants, composite; "-" where the name does not reach it
    };
    const Case cases[] = {
        {"Latixel  Latixel M3WB 1 sn: 12 A", true, {"Latixel", "M3", "W", "B", "1"}},
        {"Latixel Latixel M3WA sn:", false, {"-", "-", "-", "-", ""}},
        {"Latixel Fam M3W sn: 12 A", false, {"Fam", "-", "-", "-", ""}},
        // The number of a composite is any numeric fourth word without a serial's mark.
        {"a b M3WA sn: 12 A", true, {"b", "M3", "W", "A", ""}},
        {"a b M3WA 12a sn: 12", true, {"b", "M3", "W", "A", ""}},
        {"a b M3WA - sn: 12", true, {"b", "M3", "W", "A", "-"}},
        {"a b M3WA 12sn 12", true, {"b", "M3", "W", "A", ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::array<std::string, 5> p = {"-", "-", "-", "-", "-"};
        EXPECT_EQ(parseDeviceName(c.name, &p[0], &p[1], &p[2], &p[3], &p[4]), c.complete);
        EXPECT_EQ(p, c.parts);
    }
}

TEST(DeviceName, SerialLosesThePortMarkAndCannotLeaveItsFolder)
{
    EXPECT_EQ(serialFromDeviceName("Latixel Latixel M3WA sn: 1042 A"), "1042");
    EXPECT_EQ(serialFromDeviceName("x sn: A1"), "A1");
    // The two last characters go wherever " A" stands, whichever they are.
    EXPECT_EQ(serialFromDeviceName("x sn: 7 Ab"), "7 ");
    EXPECT_EQ(serialFromDeviceName("x sn:12"), "");
    EXPECT_EQ(serialFromDeviceName("x sn: "), "");
    EXPECT_EQ(asFileName("../../etc/passwd\n"), ".._.._etc_passwd_");
}
