// DAC streams and chip identifiers of Medipix2 and Timepix chips, against an oracle that walks the register bit by bit.
#include "chipdata/bits.h"
#include "chipdata/mpx2dacs.h"
#include "chipdata/randomvalues.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Words = std::vector<unsigned short>;

struct Settings {
    int chip, senseDac, extDac;
    unsigned ctpr;
};

/// Bits of the register that hold a DAC, from bit `shift` of its value on; -1 where a type doesn't have it.
struct Row {
    int first, last, mxr, tpx, shift;
};
constexpr Row ROWS[] = {{3, 10, 0, 0, 0},     {11, 18, 1, 1, 0},     {19, 26, 2, 2, 0},     {45, 48, 3, 3, 0},
                        {55, 58, 3, 3, 4},    {59, 66, 4, 4, 0},     {85, 92, 5, 5, 0},     {99, 108, 6, 6, 0},
                        {109, 112, 7, 7, 0},  {113, 122, 8, -1, 0},  {119, 126, -1, 8, 0},  {123, 126, 9, -1, 0},
                        {127, 134, 10, 9, 0}, {135, 142, 11, 10, 0}, {180, 187, 12, 11, 0}, {226, 233, 13, 12, 0},
                        {234, 241, 14, 13, 0}};

/// The highest bit of a register goes first; a Timepix record leaves it out.
Bytes oracleStream(const Words& dacs, int chips, bool timepix, const Settings& s)
{
    Bytes stream(static_cast<std::size_t>(chips) * 33, 0);
    stream[0] = 0xFF;
    for (int chip = 0; chip < chips; ++chip) {
        bool bits[256] = {};
        const auto set = [&bits](int first, int last, unsigned value) {
            for (int p = first; p <= last; ++p, value >>= 1)
                bits[p] = value & 1;
        };
        for (const Row& row : ROWS)
            if (const int dac = timepix ? row.tpx : row.mxr; dac >= 0)
                set(row.first, row.last, dacs.at(static_cast<unsigned>(chip * (timepix ? 14 : 15) + dac)) >> row.shift);
        set(143, 174, s.ctpr);
        if (chip == s.chip) {
            set(37, 38, static_cast<unsigned>(s.senseDac));
            set(40, 41, static_cast<unsigned>(s.senseDac >> 2));
            bits[42] = s.extDac == 1;
            bits[43] = s.extDac == 2;
        }
        for (int p = 255 - timepix, wire = 8 + chip * 256; p >= 0; --p, ++wire)
            stream[static_cast<std::size_t>(wire / 8)] |= static_cast<unsigned char>(bits[p] << (7 - wire % 8));
    }
    return stream;
}

} // namespace

TEST(Mpx2Dacs, StreamHoldsEveryBitOfEveryField)
{
    for (const bool timepix : {false, true})
        for (int run = 0; run < 50; ++run) {
            const int chips = 1 + run % 4;
            // The chip may be none of the module; negative and wide values must not leave their fields.
            const auto wide = randomValues<unsigned>(2);
            const Settings s{run % 6 - 1, static_cast<int>(wide[0]), run % 5 - 1, wide[1]};
            const auto dacs = randomValues<unsigned short>(static_cast<std::size_t>(chips) * (timepix ? 14 : 15));
            const Bytes expected = oracleStream(dacs, chips, timepix, s);
            Bytes out(expected.size(), 0xEE);
            dacsToStreamMPX2(dacs.data(), out.data(), chips, timepix, s.chip, s.senseDac, s.extDac, s.ctpr);
            EXPECT_EQ(out, expected) << "timepix " << timepix << " run " << run;
        }
    for (const int chips : {0, -1})
        dacsToStreamMXR(nullptr, nullptr, chips, 0, 0, 0, 0);
}

TEST(Mpx2Dacs, ChipIdentifiers)
{
    struct Case {
        std::string id;
        Bytes fuses; // place, low and high byte of the wafer
        bool timepix;
    };
    const Case cases[] = {
        {"C05-W0123", {0x73, 0x7B, 0x00}, false},
        {"@12-W0001", {0x00, 0x01, 0xF8}, true},
        {"O-3-W2047", {0xFF, 0xFF, 0xFF}, true},
        {"000-W0000", {0x00, 0x00, 0xF8}, false},
    };
    for (const Case& first : cases)
        for (const Case& last : cases) {
            Bytes stream(2 * MPX2_DAC_STREAM_SIZE, 0);
            std::transform(first.fuses.begin(), first.fuses.end(), stream.begin() + 7, reverseBitsInByte);
            std::transform(last.fuses.begin(), last.fuses.end(), stream.begin() + 7 + 32, reverseBitsInByte);
            bool timepix = !first.timepix;
            std::vector<std::string> ids{"kept"};
            getChipIDsFromDACStreamMpx2(stream.data(), 2, &timepix, ids);
            EXPECT_EQ(timepix, last.id == "000-W0000" ? first.timepix : last.timepix);
            EXPECT_EQ(ids, (std::vector<std::string>{"kept", first.id, last.id}));
            std::vector<char> text(2 * MPX2_CHIP_ID_SIZE + 1, 'x');
            getChipIDsFromDACStreamMpx2(stream.data(), 2, text.data(), &timepix);
            EXPECT_EQ(text.data(), first.id + last.id);
        }
}
