// The flash store over a link that loses answers: no value changes, and a later read finds them all.
#include "board/ibflash.h"

#include "board/boarddoubles.h"

#include <gtest/gtest.h>

namespace {

const char* const LAST_COMMAND = "01 00 00 00 00 00 02";
constexpr std::size_t TABLE_SIZE = 2500; // three chunks with what is in front

std::string word(std::size_t value)
{
    return {'\0', '\0', static_cast<char>(value >> 8), static_cast<char>(value)};
}

/// A record of bytes; `tail` is the value, or the offset of a big one.
std::string record(std::string name, std::size_t size, const std::string& tail)
{
    name.resize(25);
    return name + static_cast<char>(DTYPE_BYTE) + word(size) + tail;
}

/// What becomes of an answer on its way.
struct Fault {
    const char* what;
    std::function<void(Bytes&)> spoil;
    int exchange;   ///< From 1 on: the first read, then the chunks of the second.
    int result = 0; ///< Of the exchange's last command.
};

const Fault FAULTS[] = {
    {"head too short", [](Bytes& rx) { rx.pop_back(); }, 1},
    {"chunk silent", [](Bytes& rx) { rx.clear(); }, 2},
    {"another header", [](Bytes& rx) { rx[4 + 11] ^= 1U; }, 2},
    {"chunk too short", [](Bytes& rx) { rx.resize(500); }, 3},
    {"exchange failed", [](Bytes&) {}, 3, -7},
    {"last chunk silent", [](Bytes& rx) { rx.clear(); }, 4},
};

struct IbFlashFaultsTest : testing::Test {
    IbFlashFaultsTest()
    {
        mgr.slave = [this](const Bytes& tx) {
            Bytes rx(tx.size());
            for (std::size_t i = 4, at = tx[2] << 8 | tx[3]; i < rx.size() && at < image.size(); ++i, ++at)
                rx[i] = static_cast<unsigned char>(image[at]);
            const bool hit = fault != nullptr && ++exchange == fault->exchange;
            if (hit)
                fault->spoil(rx);
            mgr.results[LAST_COMMAND] = hit ? fault->result : 0;
            return rx;
        };
        store(record("Table", TABLE_SIZE, word(0)));
    }
    void store(const std::string& list)
    {
        image = "IBMD" + word(1) + word(list.size() + TABLE_SIZE) + word(list.size()) + list;
        image.resize(image.size() + TABLE_SIZE, 'x');
    }
    static std::unique_ptr<refhost::ParamMgr> freshParams()
    {
        return std::make_unique<refhost::ParamMgr>(std::make_shared<refhost::Ledger>());
    }
    void arm(const Fault* next) { fault = next, exchange = 0; }
    int loadWith(const Fault* next, bool all) { return arm(next), flash.loadParameters(params.get(), all); }
    void readTableWith(const Fault* next)
    {
        arm(next);
        params->find("Table")->data();
    }
    /// A value as it stands, without the read that a host's look at it sets off.
    Bytes valueOf(const char* name)
    {
        refhost::Param& param = *params->find(name);
        param.enableCallback(false);
        Bytes value = param.data();
        param.enableCallback(true);
        return value;
    }

    const Bytes unread = Bytes(TABLE_SIZE);
    const Bytes table = Bytes(TABLE_SIZE, 'x');
    RecordingManager mgr;
    IBFlashFpx<RecordingManager> flash{&mgr};
    std::unique_ptr<refhost::ParamMgr> params = freshParams();
    std::string image;
    const Fault* fault = nullptr;
    int exchange = 0;
};

TEST_F(IbFlashFaultsTest, ALostAnswerChangesNothingAndIsAskedForAgain)
{
    for (const Fault& each : FAULTS) {
        SCOPED_TRACE(each.what);
        params = freshParams();
        ASSERT_EQ(0, loadWith(nullptr, false));
        readTableWith(&each);
        EXPECT_EQ(-1, loadWith(&each, true));
        EXPECT_EQ(unread, valueOf("Table"));
        readTableWith(nullptr);
        EXPECT_EQ(table, valueOf("Table"));
    }
    store(record("New", 1, "1") + std::string(1000, 'r')); // a list that takes a second read
    for (const Fault& each : {FAULTS[0], FAULTS[1], FAULTS[2]})
        EXPECT_EQ(-1, loadWith(&each, false)) << each.what;
    EXPECT_EQ(1U, params->count());

    mgr.slave = [this](const Bytes& tx) { return ++exchange, Bytes(tx.size() - 1); };
    exchange = 0;
    Bytes data(10000);
    EXPECT_EQ(-1, flash.flashReadData(data.data(), data.size(), 0));
    EXPECT_EQ(3, exchange) << "a flash that stays short is given up";
}

TEST_F(IbFlashFaultsTest, TheDeviceMayRefuseALateRead)
{
    flash.loadParameters(params.get(), false);
    bool refuse = true;
    std::vector<int> results;
    flash.setReadGate([&](const std::function<int()>& read) {
        if (!refuse)
            results.push_back(read());
        EXPECT_EQ(unread, valueOf("Table")) << "the parameters are written behind it";
    });
    mgr.lines.clear();
    readTableWith(nullptr);
    EXPECT_TRUE(mgr.lines.empty());
    refuse = false;
    for (const Fault* each : {&FAULTS[2], static_cast<const Fault*>(nullptr), &FAULTS[2]})
        readTableWith(each);
    EXPECT_EQ((std::vector{-1, 0}), results);
    EXPECT_EQ(table, valueOf("Table"));
}

TEST_F(IbFlashFaultsTest, AbsurdStoresAndAbsentPartnersAreSurvived)
{
    std::string list = record("", 1, "1");
    for (const char* name : {"A", "B", "C"})
        list += record(name, TABLE_SIZE, word(0));
    store(list + record("Small", 1, "s"));
    EXPECT_EQ(0, flash.loadParameters(params.get(), true));
    EXPECT_EQ(2U, params->count()) << "one table and the small value fit into the store";
    EXPECT_EQ(Bytes{'s'}, valueOf("Small"));

    EmptyHandedMgr emptyHanded;
    EXPECT_EQ(0, flash.loadParameters(&emptyHanded, true));
    EXPECT_EQ(-1, flash.loadParameters(nullptr, true));
    flash.attach(nullptr);
    EXPECT_EQ(-1, flash.loadParameters(params.get(), true));
}

} // namespace
