// What a board's description tells: what it is, whether it is part of a composite, and its serial.
#include "devices/common/devicename.h"

#include <gtest/gtest.h>

using namespace HwLatixel;

TEST(DeviceName, TellsWhatTheBoardIs)
{
    struct Case {
        const char* name;
        bool complete;
        const char *family, *type, *variant3, *variant; ///< "-" where the name does not reach it
        const char* lad;
    };
    const Case cases[] = {
        {"Latixel  Latixel M3WB 1 sn: 12 A", true, "Latixel", "M3", "W", "B", "1"},
        {"Latixel Latixel M3WA sn:", false, "-", "-", "-", "-", ""},
        {"Latixel Fam M3W sn: 12 A", false, "Fam", "-", "-", "-", ""},
        // The number of a composite is any numeric fourth word without a serial's mark.
        {"a b M3WA sn: 12 A", true, "b", "M3", "W", "A", ""},
        {"a b M3WA 12a sn: 12", true, "b", "M3", "W", "A", ""},
        {"a b M3WA - sn: 12", true, "b", "M3", "W", "A", "-"},
        {"a b M3WA 12sn 12", true, "b", "M3", "W", "A", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string family = "-", type = "-", variant3 = "-", variant = "-", lad = "-";
        EXPECT_EQ(parseDeviceName(c.name, &family, &type, &variant3, &variant, &lad), c.complete);
        EXPECT_EQ(family, c.family);
        EXPECT_EQ(type, c.type);
        EXPECT_EQ(variant3, c.variant3);
        EXPECT_EQ(variant, c.variant);
        EXPECT_EQ(lad, c.lad);
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
