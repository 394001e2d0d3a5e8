// Settings files: what is read, looked up and written.
#include "shared/inifile.h"

#include "support/tempfolder.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

class IniFileTest : public testing::Test {
protected:
    void load(const std::string& text) { EXPECT_EQ(ini.load(dir.write("x.ini", text).c_str()), 0); }

    support::TempFolder dir;
    IniFile ini{(dir / "x.ini").c_str(), "="};
};

TEST_F(IniFileTest, ReadsSectionsAndItemsAsTheyStand)
{
    load("top=1\r\n"
         "  [S]  \n"
         "a=b=c\n\n"
         "; note = x\nblank = v\n[\n=empty key\n"
         "\t[tab]\n"
         "[cut-\n"
         "k=1\nother=2\nk=3\n"
         "[S]\r\nalone\n"
         "[]\n"
         "last=no line end");
    EXPECT_EQ(ini.get("!", "top", ""), "1");
    EXPECT_THAT(ini.getSectionKeys("S"), ElementsAre("a", "; note ", "blank ", "[", "", "\t[tab]", "alone"));
    EXPECT_EQ(ini.get("S", "a", ""), "b=c");
    EXPECT_EQ(ini.get("S", "blank ", "") + ini.get("S", "blank", "none"), " vnone");
    EXPECT_EQ(ini.get("cut", "k", ""), "3") << "the last of two counts";
    EXPECT_EQ(ini.get("", "last", ""), "no line end");
}

TEST_F(IniFileTest, TakesLinesOfAnyLengthAndContent)
{
    for (const std::size_t length : {118UL, 16381UL, 16382UL, 100000UL}) {
        const std::string value(length, 'v');
        load("k=" + value + "\nnext=1\n");
        EXPECT_EQ(ini.get("!", "k", ""), value);
        EXPECT_EQ(ini.getInt("!", "next", 0), 1);
    }
    load(std::string("a=1") + '\0' + "hidden\nb=2\n" + '\0' + "\n");
    EXPECT_THAT(ini.getSectionKeys("!"), ElementsAre("a", "b"));
}

TEST_F(IniFileTest, NumbersAndSwitchesFallBackOnTheDefault)
{
    load("hex=0x10\nwide=0x1FFFFFFFF\nbadhex=0x\nminus=-1\nreal=1.5\ntext=abc\nempty=\nyes=true\none=1\nshout=TRUE\n");
    const auto number = [this](const char* key) { return ini.getInt("!", key, 7); };
    EXPECT_THAT((std::vector{number("hex"), number("wide"), number("badhex"), number("minus"), number("real")}),
                ElementsAre(16, -1, 7, -1, 1));
    EXPECT_THAT((std::vector{number("text"), number("empty"), number("absent")}), ElementsAre(7, 7, 7));
    EXPECT_EQ(ini.getDouble("!", "real", 0), 1.5);
    EXPECT_EQ(ini.getDouble("!", "text", 2.5), 2.5);
    EXPECT_TRUE(ini.getBool("!", "empty", true) && ini.getBool("!", "absent", true));
    EXPECT_TRUE(ini.getBool("!", "yes", false) && ini.getBool("!", "one", false));
    EXPECT_FALSE(ini.getBool("!", "shout", true) || ini.getBool("!", "text", true));
}

TEST_F(IniFileTest, SavesSortedWithItsOwnLineEnds)
{
    load("[b]\ny=2\n[a]\nk=v\n");
    ini.set("!", "third", 1.0 / 3);
    ini.set("b", "y", -5);
    EXPECT_EQ(ini.save(nullptr), 0);
    EXPECT_EQ(dir.read("x.ini"), "third=0.333333\r\n\n[a]\r\nk=v\r\n\n[b]\r\ny=-5\r\n");
}

TEST_F(IniFileTest, AFailedLoadLeavesNothing)
{
    ini.set("s", "k", "v");
    const std::string nowhere = dir / "no/such.ini";
    EXPECT_EQ(ini.save(nowhere.c_str()), -5);
    EXPECT_TRUE(ini.itemExists("s", "k"));
    EXPECT_EQ(ini.getLastError(), "Cannot open file " + nowhere);
    EXPECT_EQ(ini.load(nullptr), -5);
    EXPECT_FALSE(ini.itemExists("s", "k"));
}

} // namespace
