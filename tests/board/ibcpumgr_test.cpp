// The board's CPU: what is made of the blocks that come back, or get lost on the way, and parameters that must not send
// its values back. The tests of the devices compare the blocks that go out.
#include "board/ibcpumgr.h"

#include "board/boarddoubles.h"
#include "support/ftdiexports.h" // the protocol behind the CPU wants it, though no test here uses it

#include <gmock/gmock.h>

using testing::ElementsAre;
using namespace std::string_literals;

namespace {

constexpr int NAMES = 3;
constexpr int VALUES = 4;

/// What becomes of an answer on its way.
enum class Loss { Silent, Short, Ones };

/// A CPU that answers each command code with the text (from byte 2 on) in `texts`.
class ScriptedCpu : public IBCpu {
public:
    int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override
    {
        codes.push_back(tx[0]);
        const bool lost = tx[0] == lossy && losses-- > 0;
        const std::string text = lost && loss == Loss::Ones ? std::string(size, '\xFF') : texts[tx[0]];
        if (!lost || loss != Loss::Silent)
            std::copy_n(text.begin(), std::min<std::size_t>(text.size(), size - 2), rx + 2);
        *received = lost && loss == Loss::Short ? size - 1 : size;
        return -1;
    }
    void logCommand(const char*) override {}

    std::map<int, std::string> texts{{NAMES, "Temp;*Fan"}, {VALUES, "21;5"}};
    int lossy = 0;
    Loss loss = Loss::Silent;
    int losses = 0; ///< Answers to `lossy` that are still to be lost.
    std::vector<int> codes;
};

struct IbCpuMgrTest : testing::Test {
    /// A value as it stands in its parameter.
    std::string valueOf(const char* name) { return params.find(name)->getString(); }

    ScriptedCpu cpu;
    refhost::ParamMgr params = hostParams();
};

int writes;
std::vector<std::string> asked;
int countCalls(dv::IParam* param, bool isRead, long user)
{
    isRead ? asked.push_back(param->name() + std::to_string(user)) : void(++writes);
    return 0;
}

TEST_F(IbCpuMgrTest, AVersionMakesItSupported)
{
    EXPECT_FALSE(cpu.isSupported());
    cpu.texts[5] = "\xFF\xFF\xFF";
    EXPECT_FALSE(cpu.isSupported());
    cpu.texts[5] = "1.2\0rest"s;
    EXPECT_EQ("1.2", cpu.getVersion());
    cpu.texts[6] = std::string(200, 'v');
    EXPECT_EQ(std::string(98, 'v'), cpu.getStatusText());
}

TEST_F(IbCpuMgrTest, AnErrorStatusStaysInTheErrorType)
{
    const auto statusOf = [this](char code) { return cpu.texts[2] = std::string(1, code), cpu.getStatus(); };
    EXPECT_THAT((std::vector{statusOf(0), statusOf(1), statusOf(2), statusOf(3), statusOf(-1)}),
                ElementsAre(0, 1, 2, 0, 0));
    EXPECT_EQ(0, cpu.getErrorType());
    EXPECT_EQ(2, statusOf(4));
    EXPECT_EQ(0, statusOf(0));
    EXPECT_EQ(1, cpu.getErrorType());
}

TEST_F(IbCpuMgrTest, ValuesArePairedAndTheirNamesReadOnce)
{
    cpu.texts = {{NAMES, "Temp;*Bias;;Fan;Last"}, {VALUES, "21;5;9"}};
    EXPECT_EQ("9", cpu.getValues().at(2).second);
    cpu.texts[VALUES] = "22;6";
    EXPECT_EQ("Temp = 22\n*Bias = 6\n", cpu.dumpValuesToString());
    EXPECT_EQ(3U, cpu.codes.size());

    cpu.dumpValuesAndCreateParams(&params, countCalls, 7);
    EXPECT_EQ(1, cpu.parameterIndex("*Bias"));
    cpu.texts[VALUES] = "23;6;9;full";
    cpu.dumpValuesToParams(&params);
    asked.clear();
    EXPECT_EQ("23 6 full", valueOf("Temp") + " " + valueOf("*Bias") + " " + valueOf("Fan"));
    EXPECT_THAT(asked, testing::UnorderedElementsAre("Temp7", "*Bias7"));
    EXPECT_TRUE(params.find("Temp")->readOnly() && params.find("Fan")->readOnly());
    EXPECT_EQ(dv::PARAM_LIVE, params.find("*Bias")->flags());
    EXPECT_EQ(-1, cpu.parameterIndex("Fan"));
    EXPECT_EQ(3U, params.count()) << "what has no name is no parameter";
}

TEST(IbCpuLossTest, ALostAnswerIsAskedForAgain)
{
    for (int i = 0; i < 12; ++i) {
        SCOPED_TRACE(i);
        ScriptedCpu cpu;
        cpu.lossy = i % 2 == 0 ? NAMES : VALUES;
        cpu.loss = static_cast<Loss>(i / 4);
        const int losses = cpu.losses = 1 + i / 2 % 2;
        refhost::ParamMgr params = hostParams();
        cpu.dumpValuesAndCreateParams(&params, countCalls, 7);
        EXPECT_EQ(losses == 1 ? 2U : 0U, params.count());
        cpu.dumpValuesToParams(&params);
        EXPECT_EQ("5", params.find("*Fan")->getString());
        EXPECT_EQ(dv::PARAM_LIVE, params.find("*Fan")->flags()) << "the host may write it, however late it came";
        EXPECT_EQ(1, cpu.parameterIndex("*Fan"));

        cpu.lossy = VALUES;
        cpu.losses = 1;
        cpu.texts[VALUES] = "22;6";
        cpu.dumpValuesToParams(&params);
        EXPECT_EQ("21", params.find("Temp")->getString()) << "it keeps what it had";
        EXPECT_EQ("Temp = 22\n*Fan = 6\n", cpu.dumpValuesToString());
    }
}

TEST_F(IbCpuMgrTest, OnlyTheHostsWishesGoOut)
{
    writes = 0;
    cpu.dumpValuesAndCreateParams(&params, countCalls, 0);
    cpu.dumpValuesToParams(&params);
    ScriptedCpu().dumpValuesAndCreateParams(&params, countCalls, 0); // a second bring-up
    EXPECT_EQ(0, writes);
    params.find("*Fan")->setString("9");
    EXPECT_EQ(1, writes);

    cpu.codes.clear();
    for (const int index : {-1, 256})
        EXPECT_EQ(0, cpu.setValue(index, 1));
    EXPECT_TRUE(cpu.codes.empty()) << "no position of a value";
    EmptyHandedMgr emptyHanded;
    cpu.dumpValuesToParams(&emptyHanded);
    cpu.dumpValuesToParams(nullptr);
}

} // namespace
