#include "devices/common/devicename.h"

#include <gtest/gtest.h>

using namespace HwLatixel;

namespace {

struct Parsed {
    bool complete;
    std::string family = "-", type = "-", variant3 = "-", variant = "-", lad = "-";
};

Parsed parse(const std::string& name)
{
    Parsed p{};
    p.complete = parseDeviceName(name, &p.family, &p.type, &p.variant3, &p.variant, &p.lad);
    return p;
}

} // namespace

TEST(DeviceName, TakesAWholeNameApart)
{
    const Parsed p = parse("Latixel  Latixel M3WB 1 sn: 12 A");
    EXPECT_TRUE(p.complete);
    EXPECT_EQ(p.family, "Latixel");
    EXPECT_EQ(p.type, "M3");
    EXPECT_EQ(p.variant3, "W");
    EXPECT_EQ(p.variant, "B");
    EXPECT_EQ(p.lad, "1");
}

TEST(DeviceName, LadNumberIsAnyNumericFourthWordWithoutSerialMark)
{
    EXPECT_EQ(parse("a b M3WA sn: 12 A").lad, "");
    EXPECT_EQ(parse("a b M3WA 12a sn: 12").lad, "");
    EXPECT_EQ(parse("a b M3WA - sn: 12").lad, "-");
    EXPECT_EQ(parse("a b M3WA 12sn 12").lad, "");
}

TEST(DeviceName, ShortNamesKeepWhatWasNotReached)
{
    const Parsed words = parse("Latixel Latixel M3WA sn:");
    EXPECT_FALSE(words.complete);
    EXPECT_EQ(words.family, "-");
    EXPECT_EQ(words.lad, "");
    const Parsed type = parse("Latixel Fam M3W sn: 12 A");
    EXPECT_FALSE(type.complete);
    EXPECT_EQ(type.family, "Fam");
    EXPECT_EQ(type.type, "-");
}

TEST(DeviceName, SerialLosesThePortMark)
{
    EXPECT_EQ(serialFromDeviceName("Latixel Latixel M3WA sn: 1042 A"), "1042");
    EXPECT_EQ(serialFromDeviceName("x sn: A1"), "A1");
    // The two last characters go wherever " A" stands, whichever they are.
    EXPECT_EQ(serialFromDeviceName("x sn: 7 Ab"), "7 ");
    EXPECT_EQ(serialFromDeviceName("x sn:12"), "");
    EXPECT_EQ(serialFromDeviceName("x sn: "), "");
}

TEST(DeviceName, SerialCannotLeaveItsFolder)
{
    EXPECT_EQ(asFileName("../../etc/passwd\n"), ".._.._etc_passwd_");
}
