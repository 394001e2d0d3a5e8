// The board's CPU over a link that loses answers, and parameters that must not send its values back.
#include "board/ibcpumgr.h"

#include "board/boarddoubles.h"

#include <gtest/gtest.h>

namespace {

constexpr int NAMES = 3;
constexpr int VALUES = 4;

/// What becomes of an answer on its way.
enum class Loss { Silent, Short, Ones };

class LossyCpu : public IBCpu {
public:
    int sendReceiveSpi(unsigned char* tx, unsigned char* rx, unsigned long size, unsigned long* received) override
    {
        codes.push_back(tx[0]);
        const bool lost = tx[0] == lossy && losses-- > 0;
        const std::string text = lost && loss == Loss::Ones ? std::string(size - 2, '\xFF') : texts[tx[0]];
        if (!lost || loss != Loss::Silent)
            std::copy(text.begin(), text.end(), rx + 2);
        *received = lost && loss == Loss::Short ? size - 1 : size;
        return 0;
    }
    void logCommand(const char*) override {}

    std::map<int, std::string> texts{{NAMES, "Temp;*Fan"}, {VALUES, "21;5"}};
    int lossy = 0;
    Loss loss = Loss::Silent;
    int losses = 0; ///< Answers to `lossy` that are still to be lost.
    std::vector<int> codes;
};

int writes;
int countWrites(dv::IParam*, bool isRead, long)
{
    return writes += isRead ? 0 : 1, 0;
}

TEST(IbCpuFaultsTest, ALostAnswerIsAskedForAgain)
{
    for (int i = 0; i < 12; ++i) {
        SCOPED_TRACE(i);
        LossyCpu cpu;
        cpu.lossy = i % 2 == 0 ? NAMES : VALUES;
        cpu.loss = static_cast<Loss>(i / 4);
        const int losses = cpu.losses = 1 + i / 2 % 2;
        refhost::ParamMgr params = hostParams();
        cpu.dumpValuesAndCreateParams(&params, countWrites, 7);
        EXPECT_EQ(losses == 1 ? 2U : 0U, params.count());
        cpu.dumpValuesToParams(&params);
        EXPECT_EQ("5", params.find("*Fan")->getString());
        writes = 0;
        params.find("*Fan")->writeText("5");
        EXPECT_EQ(1, writes) << "the host may write it, however late it came";
        EXPECT_EQ(1, cpu.parameterIndex("*Fan"));

        cpu.lossy = VALUES;
        cpu.losses = 1;
        cpu.texts[VALUES] = "22;6";
        cpu.dumpValuesToParams(&params);
        EXPECT_EQ("21", params.find("Temp")->getString()) << "it keeps what it had";
        EXPECT_EQ("Temp = 22\n*Fan = 6\n", cpu.dumpValuesToString());
        EXPECT_EQ(2U, params.count());
    }
}

TEST(IbCpuFaultsTest, OnlyTheHostsWishesGoOut)
{
    LossyCpu cpu;
    refhost::ParamMgr params = hostParams();
    writes = 0;
    cpu.dumpValuesAndCreateParams(&params, countWrites, 0);
    cpu.dumpValuesToParams(&params);
    LossyCpu().dumpValuesAndCreateParams(&params, countWrites, 0); // a second bring-up
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
