// The board's CPU: what is made of the blocks that come back. The tests of the devices compare those that go out.
#include "board/ibcpumgr.h"

#include "board/boarddoubles.h"
#include "support/ftdiexports.h" // the protocol behind the CPU wants it, though no test here uses it

#include <gmock/gmock.h>

using testing::ElementsAre;
using namespace std::string_literals;

namespace {

/// A CPU that answers each command code with the text (from byte 2 on) in `texts`.
struct ScriptedCpu {
    std::map<int, std::string> texts;
    std::vector<Bytes> requests;
};

class TestCpuMgr : public IBCpuMgr<ScriptedCpu> {
public:
    using IBCpuMgr::IBCpuMgr;
    int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long*) override
    {
        mgr->requests.emplace_back(tx, tx + size);
        const std::string& text = mgr->texts[tx[0]];
        std::copy_n(text.begin(), std::min<std::size_t>(text.size(), size - 2), rx + 2);
        return -1;
    }
    void logCommand(const char*) override {}
};

struct IbCpuMgrTest : testing::Test {
    ScriptedCpu cpu;
    TestCpuMgr mgr{&cpu};
};

TEST_F(IbCpuMgrTest, AVersionMakesItSupported)
{
    EXPECT_FALSE(mgr.isSupported());
    cpu.texts[5] = "\xFF\xFF\xFF";
    EXPECT_FALSE(mgr.isSupported());
    cpu.texts[5] = "1.2\0rest"s;
    EXPECT_TRUE(mgr.isSupported());
    EXPECT_EQ("1.2", mgr.getVersion());
    cpu.texts[6] = std::string(200, 'v');
    EXPECT_EQ(std::string(98, 'v'), mgr.getStatusText());
}

TEST_F(IbCpuMgrTest, AnErrorStatusStaysInTheErrorType)
{
    const auto statusOf = [this](char code) { return cpu.texts[2] = std::string(1, code), mgr.getStatus(); };
    EXPECT_THAT((std::vector{statusOf(0), statusOf(1), statusOf(2), statusOf(3), statusOf(-1)}),
                ElementsAre(0, 1, 2, 0, 0));
    EXPECT_EQ(0, mgr.getErrorType());
    EXPECT_EQ(2, statusOf(4));
    EXPECT_EQ(0, statusOf(0));
    EXPECT_EQ(1, mgr.getErrorType());
    EXPECT_EQ((Bytes{2, 0, 0, 0}), cpu.requests.back());
}

TEST_F(IbCpuMgrTest, ValuesArePairedAndTheirNamesReadOnce)
{
    cpu.texts[3] = "Temp;*Bias;;Fan;Last";
    cpu.texts[4] = "21;5;9";
    EXPECT_EQ("9", mgr.getValues().at(2).second);
    cpu.texts[4] = "22;6";
    EXPECT_EQ("Temp = 22\n*Bias = 6\n", mgr.dumpValuesToString());
    EXPECT_EQ(3U, cpu.requests.size());

    refhost::ParamMgr params = hostParams();
    static std::vector<std::string> asked;
    const dv::ParamFunc hook = [](dv::IParam* param, bool isRead, long user) {
        if (isRead)
            asked.push_back(param->name() + std::to_string(user));
        return 0;
    };
    mgr.dumpValuesAndCreateParams(&params, hook, 7);
    EXPECT_EQ(1, mgr.parameterIndex("*Bias"));
    cpu.texts[4] = "23;6;9;full";
    mgr.dumpValuesToParams(&params);
    EXPECT_EQ("23", params.find("Temp")->getString());
    EXPECT_EQ("6", params.find("*Bias")->getString());
    EXPECT_EQ("full", params.find("Fan")->getString());
    EXPECT_THAT(asked, ElementsAre("Temp7", "*Bias7"));
    EXPECT_TRUE(params.find("Temp")->readOnly() && params.find("Fan")->readOnly());
    EXPECT_EQ(dv::PARAM_LIVE, params.find("*Bias")->flags());
    EXPECT_EQ(-1, mgr.parameterIndex("Fan"));
    EXPECT_EQ(3U, params.count()) << "what has no name is no parameter";
}

} // namespace
