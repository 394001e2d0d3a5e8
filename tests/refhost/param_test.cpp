// Parameters: conversions, and what is held against the plug-in. That callbacks refresh reads and see writes shows in
// the tests of the devices.
#include "refhost/error.h"
#include "refhost/host.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ParamTest : public testing::Test {
protected:
    ~ParamTest() override { manager.destroy(); }

    refhost::Host host{"config", "logs"};
    dv::IParamMgr& manager{*host.createParamMgr()};
    refhost::Param& param(const char* name) { return *static_cast<refhost::ParamMgr&>(manager).find(name); }
};

TEST_F(ParamTest, NumbersAndTextsConvertWithoutLosingOrOverflowing)
{
    manager.addByte("byte", "", 200, nullptr, 0, 0);
    manager.addString("text", "", " 12.5 V", nullptr, 0, 0);
    const std::int64_t big = 9007199254740993;
    manager.addParam("i64", "", 6, 1, &big, nullptr, 0, 0);
    const double list[] = {1, 0.1, -2};
    manager.addParam("list", "", 9, 3, list, nullptr, 0, 0);
    const char serial[8] = {'W', '1', '2'};
    manager.addParam("serial", "", 0, sizeof serial, serial, nullptr, 0, 0);

    param("byte").setDouble(1e9);
    EXPECT_EQ(param("byte").getInt32(), 255);
    EXPECT_EQ(param("text").getFloat(), 12.5);
    EXPECT_EQ(param("i64").getString(), "9007199254740993");
    EXPECT_EQ(param("i64").getInt32(), 2147483647);
    EXPECT_EQ(param("list").getString(), "1 0.1 -2");
    EXPECT_EQ(param("serial").getString(), "W12");
    param("serial").setString("longer than eight");
    EXPECT_EQ(param("serial").getString(), "longer ");

    const unsigned char raw[11] = {};
    EXPECT_EQ(param("list").setData(raw, sizeof raw), 0);
    EXPECT_EQ(param("list").size(), 1u) << "whole items only";
    param("text").setData("abcdef", 3);
    EXPECT_EQ(param("text").getString(), "abc");
}

TEST_F(ParamTest, TypedTextIsTakenWholeOrRefused)
{
    manager.addByte("byte", "", 7, nullptr, 0, 0);
    manager.addBool("bool", "", false, nullptr, 0, dv::PARAM_CONFIG);
    manager.addDouble("fixed", "", 1, nullptr, 0, dv::PARAM_READ_ONLY);
    for (const char* bad : {"", "256", "-1", "7x", "1 2", "0x10"})
        EXPECT_THROW(param("byte").writeText(bad), refhost::Error) << bad;
    EXPECT_EQ(param("byte").getByte(), 7);
    param("bool").writeText("on");
    EXPECT_TRUE(param("bool").getBool());
    EXPECT_EQ(param("bool").getString(), "true");
    EXPECT_THROW(param("bool").writeText("maybe"), refhost::Error);
    EXPECT_THROW(param("fixed").writeText("2"), refhost::Error);
}

TEST_F(ParamTest, MisuseIsRecordedAndHarmless)
{
    EXPECT_EQ(manager.addParam("odd", "", 12, 1, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(manager.addParam("huge", "", 9, ~std::size_t{0}, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(manager.addByte("a", "", 1, nullptr, 0, 0), 0);
    EXPECT_EQ(manager.addByte("a", "", 2, nullptr, 0, 0), -1);
    EXPECT_EQ(manager.get("a")->getByte(), 1);
    EXPECT_EQ(manager.get("b"), nullptr);
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("unknown type 12"), HasSubstr("huge"),
                                               HasSubstr("a was added twice"), HasSubstr("unknown parameter b")));

    host.clearComplaints();
    dv::IParam* kept = manager.get("a");
    manager.destroy();
    EXPECT_EQ(host.liveManagers(), 0u);
    EXPECT_EQ(kept->setByte(3), -1);
    manager.destroy();
    EXPECT_THAT(host.complaints(), ElementsAre(HasSubstr("setByte after"), HasSubstr("destroyed twice")));
}

} // namespace
