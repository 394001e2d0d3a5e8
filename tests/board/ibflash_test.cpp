// The flash store: what is read over SPI, what becomes of good records, and that damaged ones do no harm.
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
        for (const Bytes& part : {word(version), word(totalSize), word(recordSize), records, Bytes(30, 0x42)})
            image.insert(image.end(), part.begin(), part.end());
        return image;
    }
    Bytes build() const { return build(records.size() + 30, records.size()); }

    Bytes records;
};

const char* const LAST_COMMAND = "01 00 00 00 00 00 02";

struct IbFlashTest : testing::Test {
    IbFlashTest()
    {
        mgr.slave = [this](const Bytes& tx) {
            reads.push_back(tx.size() - 4);
            Bytes rx(tx.size(), 0xFF);
            const std::size_t address = tx[1] << 16 | tx[2] << 8 | tx[3];
            for (std::size_t i = 4; i < rx.size() && address + i - 4 < image.size(); ++i)
                rx[i] = image[address + i - 4];
            return rx;
        };
    }
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
};

TEST_F(IbFlashTest, ReadsInChunksByAddress)
{
    image.resize(0x13000);
    std::generate(image.begin(), image.end(), std::mt19937(1));
    Bytes data(2500);
    EXPECT_EQ(0, flash.flashReadData(data.data(), data.size(), 0x010203));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), image.begin() + 0x010203));
    EXPECT_THAT(takeReads(), ElementsAre(1024, 1024, 452));
}

TEST_F(IbFlashTest, OnlyTheLastChunkTellsAFailureButASilentFlashIsGivenUp)
{
    Bytes data(10000, 0xEE);
    int exchange = 0;
    mgr.slave = [&](const Bytes& tx) {
        mgr.results[LAST_COMMAND] = ++exchange < 3 ? -7 : 0;
        return exchange < 6 ? Bytes(tx.size(), 0x11) : Bytes();
    };
    EXPECT_EQ(0, flash.flashReadData(data.data(), 3000, 0));
    EXPECT_EQ(-1, flash.flashReadData(data.data(), data.size(), 0));
    EXPECT_EQ(8, exchange);
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

TEST_F(IbFlashTest, AListOf1008BytesTakesASecondRead)
{
    for (const std::size_t size : {1007, 1008}) {
        image = Image{Bytes(size)}.build();
        EXPECT_EQ(0, load(false));
    }
    EXPECT_THAT(takeReads(), ElementsAre(1020, 1020, 1024));
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
    image = list.build();
    mgr.results[LAST_COMMAND] = -7;
    EXPECT_EQ(-1, load(false));
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
