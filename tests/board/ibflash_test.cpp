// The flash store: what is read over SPI, what becomes of good records, that damaged ones do no harm, and that a link
// which loses answers changes no value.
#include "board/ibflash.h"

#include "board/boarddoubles.h"
#include "host/datatype.h"

#include <gmock/gmock.h>

#include <random>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

Bytes word(std::size_t value)
{
    const auto byte = [value](int shift) { return static_cast<unsigned char>(value >> shift); };
    return {byte(24), byte(16), byte(8), byte(0)};
}

/// Builds a flash image record by record; `tail` is the value, or the offset of a big one.
struct Image {
    Image& add(const std::string& name, unsigned char type, std::size_t size, const Bytes& tail)
    {
        Bytes field(name.begin(), name.end());
        field.resize(25);
        for (const Bytes& part : {field, Bytes{type}, word(size), tail})
            records.insert(records.end(), part.begin(), part.end());
        return *this;
    }
    Bytes build(std::size_t totalSize, std::size_t recordSize, std::size_t version = 1) const
    {
        Bytes image = {'I', 'B', 'M', 'D'};
        for (const Bytes& part : {word(version), word(totalSize), word(recordSize), records, Bytes(bigSize, 0x42)})
            image.insert(image.end(), part.begin(), part.end());
        return image;
    }
    Bytes build() const { return build(records.size() + bigSize, records.size()); }

    Bytes records;
    std::size_t bigSize = 30; ///< of the big values behind the records
};

constexpr std::size_t TABLE_SIZE = 2500; // three chunks with what is in front
const char* const LAST_COMMAND = "01 00 00 00 00 00 02";

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

struct IbFlashTest : testing::Test {
    IbFlashTest()
    {
        mgr.slave = [this](const Bytes& tx) {
            reads.push_back(tx.size() - 4);
            Bytes rx(tx.size(), 0xFF);
            const std::size_t address = tx[1] << 16 | tx[2] << 8 | tx[3];
            for (std::size_t i = 4; i < rx.size() && address + i - 4 < image.size(); ++i)
                rx[i] = image[address + i - 4];
            const bool hit = fault != nullptr && ++exchanges == fault->exchange;
            if (hit)
                fault->spoil(rx);
            mgr.results[LAST_COMMAND] = hit ? fault->result : 0;
            return rx;
        };
    }
    void arm(const Fault* next) { fault = next, exchanges = 0; }
    int load(bool all) { return flash.loadParameters(&params, all); }
    /// Bytes of data in each exchange since the last call.
    std::vector<unsigned long> takeReads() { return std::exchange(reads, {}); }
    /// A parameter's value, as the host reads it.
    Bytes valueOf(const char* name) { return params.find(name)->data(); }

    RecordingManager mgr;
    IBFlashFpxMpx3<RecordingManager> flash{&mgr};
    refhost::ParamMgr params = hostParams();
    Bytes image;
    std::vector<unsigned long> reads;
    const Fault* fault = nullptr;
    int exchanges = 0;
};

TEST_F(IbFlashTest, ReadsInChunksByAddress)
{
    image.resize(0x13000);
    std::generate(image.begin(), image.end(), std::mt19937(1));
    Bytes data(2500);
    EXPECT_EQ(0, flash.flashReadData(data.data(), data.size(), 0x010203));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), image.begin() + 0x010203));
    EXPECT_THAT(takeReads(), ElementsAre(1024, 1024, 452));
    for (const std::size_t size : {1007, 1008}) { // a list that takes a second read
        image = Image{Bytes(size)}.build();
        EXPECT_EQ(0, load(false));
    }
    EXPECT_THAT(takeReads(), ElementsAre(1020, 1020, 1024));
}

TEST_F(IbFlashTest, OnlyTheLastChunkTellsAFailureButASilentFlashIsGivenUp)
{
    Bytes data(10000, 0xEE);
    mgr.slave = [&](const Bytes& tx) {
        mgr.results[LAST_COMMAND] = ++exchanges < 3 ? -7 : 0;
        return exchanges < 6 ? Bytes(tx.size(), 0x11) : Bytes();
    };
    EXPECT_EQ(0, flash.flashReadData(data.data(), 3000, 0));
    EXPECT_EQ(-1, flash.flashReadData(data.data(), data.size(), 0));
    EXPECT_EQ(8, exchanges);
    EXPECT_EQ(0x11, data[2047]);
    EXPECT_EQ(0, data[2048]) << "what did not come is zero";
}

TEST_F(IbFlashTest, SmallValuesComeAtOnceAndBigOnesWhenFirstRead)
{
    const std::string longName(25, 'n');
    image = Image()
                .add("Ten", DTYPE_BYTE, 10, Bytes(10, 5))
                .add("Doubles", DTYPE_DOUBLE, 16, word(0))
                .add("Eleven", DTYPE_CHAR, 11, word(16))
                .add(longName, DTYPE_U16, 3, {1, 2, 3})
                .add("Known", DTYPE_BYTE, 1, {7})
                .build();
    params.addByte("Known", "", 0, nullptr, 0, dv::PARAM_LIVE);
    EXPECT_EQ(0, load(false));
    EXPECT_THAT(takeReads(), ElementsAre(1020));
    EXPECT_EQ(5U, params.count());
    EXPECT_EQ(Bytes{7}, valueOf("Known"));
    EXPECT_TRUE(params.find("Ten")->readOnly());
    EXPECT_EQ(1U, params.find(longName)->size());

    EXPECT_EQ(Bytes(10, 5), valueOf("Ten"));
    EXPECT_EQ(Bytes(16), valueOf("Doubles"));
    params.find("Eleven")->setString("written");
    EXPECT_THAT(takeReads(), IsEmpty()) << "two doubles are too few items, and a write loads nothing";
    EXPECT_EQ(Bytes(11, 0x42), valueOf("Eleven"));
    EXPECT_THAT(takeReads(), ElementsAre(1020, image.size()));
    EXPECT_EQ(Bytes(16, 0x42), valueOf("Doubles"));
    EXPECT_EQ(Bytes(11, 0x42), valueOf("Eleven"));
    EXPECT_THAT(takeReads(), IsEmpty());
}

TEST_F(IbFlashTest, ParametersOutliveTheirManagerAndLoadAgainBehindTheNext)
{
    image = Image().add("Big", DTYPE_CHAR, 11, word(0)).build();
    load(true);
    flash.attach(nullptr);
    takeReads();
    EXPECT_EQ(Bytes(11, 0x42), valueOf("Big"));
    EXPECT_THAT(takeReads(), IsEmpty());
    flash.attach(&mgr);
    image[image.size() - 30] = 0x43;
    EXPECT_EQ(0x43, valueOf("Big")[0]);
    EXPECT_THAT(takeReads(), ElementsAre(1020, image.size()));
}

TEST_F(IbFlashTest, HeadersThatCantBeAreRefused)
{
    const Image list = Image().add("One", DTYPE_BYTE, 1, {1});
    EXPECT_EQ(-2, load(false)) << "blank";
    image = list.build(31, 31, 2);
    EXPECT_EQ(-3, load(false));
    for (const std::size_t totalSize : {0xFFFFFFFFUL, 0x00FFFFF1UL}) {
        image = list.build(totalSize, 31);
        EXPECT_EQ(-1, load(true));
    }
    EXPECT_EQ(0U, params.count());
}

TEST_F(IbFlashTest, DamagedRecordsArePassedOver)
{
    Image list = Image()
                     .add("Huge", DTYPE_BYTE, 0xFFFFFFFF, word(0))
                     .add("Far", DTYPE_BYTE, 11, word(0xFFFFFFFF))
                     .add("OneTooFar", DTYPE_BYTE, 11, word(20))
                     .add("BadType", 12, 1, {1})
                     .add("Empty", DTYPE_BYTE, 0, {})
                     .add("Good", DTYPE_BYTE, 11, word(19))
                     .add("Cut", DTYPE_BYTE, 3, {1, 2, 3});
    list.records.pop_back();
    image = list.build();
    EXPECT_EQ(0, load(true));
    EXPECT_EQ(2U, params.count());
    EXPECT_EQ(Bytes(), valueOf("Empty"));
    EXPECT_EQ(Bytes(11, 0x42), valueOf("Good"));

    // A list that is longer than its store ends with the store.
    for (const std::size_t recordSize : {500UL, 5000UL, 0xFFFFFFFFUL}) {
        refhost::ParamMgr fresh = hostParams();
        image = Image().add("First", DTYPE_BYTE, 1, {1}).add("Behind", DTYPE_BYTE, 1, {2}).build(31, recordSize);
        EXPECT_EQ(0, flash.loadParameters(&fresh, false));
        EXPECT_EQ(1U, fresh.count());
    }
}

/// A value as it stands, without the read that a host's look at it sets off.
Bytes standing(refhost::Param& param)
{
    param.enableCallback(false);
    Bytes value = param.data();
    param.enableCallback(true);
    return value;
}

TEST_F(IbFlashTest, ALostAnswerChangesNothingAndIsAskedForAgain)
{
    image = Image{{}, TABLE_SIZE}.add("Table", DTYPE_BYTE, TABLE_SIZE, word(0)).build();
    for (const Fault& each : FAULTS) {
        SCOPED_TRACE(each.what);
        refhost::ParamMgr fresh = hostParams();
        arm(nullptr);
        ASSERT_EQ(0, flash.loadParameters(&fresh, false));
        refhost::Param& table = *fresh.find("Table");
        arm(&each);
        table.data();
        arm(&each);
        EXPECT_EQ(-1, flash.loadParameters(&fresh, true));
        EXPECT_EQ(Bytes(TABLE_SIZE), standing(table));
        arm(nullptr);
        EXPECT_EQ(Bytes(TABLE_SIZE, 0x42), table.data());
    }
    image = Image{Bytes(1000)}.add("New", DTYPE_BYTE, 1, {1}).build(); // a list that takes a second read
    for (const Fault& each : {FAULTS[0], FAULTS[1], FAULTS[2]})
        EXPECT_EQ(-1, (arm(&each), load(false))) << each.what;
    EXPECT_EQ(0U, params.count());
}

TEST_F(IbFlashTest, TheDeviceMayRefuseALateRead)
{
    image = Image().add("Big", DTYPE_CHAR, 11, word(0)).build();
    load(false);
    refhost::Param& big = *params.find("Big");
    bool refuse = true;
    std::vector<int> results;
    flash.setReadGate([&](const std::function<int()>& read) {
        if (!refuse)
            results.push_back(read());
        EXPECT_EQ(Bytes(11), standing(big)) << "the parameters are written behind it";
    });
    takeReads();
    big.data();
    EXPECT_THAT(takeReads(), IsEmpty());
    refuse = false;
    arm(&FAULTS[2]);
    big.data();
    arm(nullptr);
    EXPECT_EQ(Bytes(11, 0x42), big.data());
    EXPECT_THAT(results, ElementsAre(-1, 0));
}

TEST_F(IbFlashTest, AbsurdStoresAndAbsentPartnersAreSurvived)
{
    Image list{{}, TABLE_SIZE};
    list.add("", DTYPE_BYTE, 1, {1});
    for (const char* name : {"A", "B", "C"})
        list.add(name, DTYPE_BYTE, TABLE_SIZE, word(0));
    image = list.add("Small", DTYPE_BYTE, 1, {7}).build();
    EXPECT_EQ(0, load(true));
    EXPECT_EQ(2U, params.count()) << "one table and the small value fit into the store";
    EXPECT_EQ(Bytes{7}, valueOf("Small"));

    EmptyHandedMgr emptyHanded;
    EXPECT_EQ(0, flash.loadParameters(&emptyHanded, true));
    EXPECT_EQ(-1, flash.loadParameters(nullptr, true));
    flash.attach(nullptr);
    EXPECT_EQ(-1, load(true));
}

TEST_F(IbFlashTest, NoiseDoesNoHarm)
{
    std::mt19937 random(7);
    const Bytes good =
        Image().add("S", DTYPE_DOUBLE, 8, Bytes(8)).add("B", DTYPE_U16, 20, word(0)).add("X", 8, 12, word(18)).build();
    for (int i = 0; i < 1000; ++i) {
        image = good;
        for (int hits = 0; hits < 4; ++hits)
            image[10 + random() % (image.size() - 10)] = static_cast<unsigned char>(random());
        refhost::ParamMgr fresh = hostParams();
        flash.loadParameters(&fresh, i % 2 == 0);
    }
}

} // namespace
