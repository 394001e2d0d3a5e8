// DAC streams and chip identifiers of Medipix2 and Timepix chips, see mpx2dacs.h.
#include "chipdata/mpx2dacs.h"

#include "chipdata/bits.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <span>

namespace {

constexpr unsigned char LEAD = 0xFF; // first byte of a stream
constexpr int REGISTER_BITS = MPX2_DAC_RECORD_SIZE * 8;
constexpr int TPX_SHIFT = 1; // bits by which a Timepix record lies nearer to the start

/// Values of a record that are no DACs, in the place of a DAC number.
enum : int { SENSE_DAC = -1, EXT_DAC = -2, CTPR = -3 };

/// `width` bits of a value, from bit `shift` of it on, which stand from bit `first` of the register on.
struct Field {
    int first;
    int width;
    int source; ///< a DAC number, or one of the values above
    int shift = 0;
};

/// The part of the register that is the same in both types.
constexpr std::array COMMON_FIELDS{
    Field{3, 8, 0},        Field{11, 8, 1},  Field{19, 8, 2},      Field{37, 2, SENSE_DAC}, Field{40, 2, SENSE_DAC, 2},
    Field{42, 2, EXT_DAC}, Field{45, 4, 3},  Field{55, 4, 3, 4},   Field{59, 8, 4},         Field{85, 8, 5},
    Field{99, 10, 6},      Field{109, 4, 7}, Field{143, 32, CTPR},
};

template <std::size_t more>
constexpr auto withCommon(const std::array<Field, more>& fields)
{
    std::array<Field, COMMON_FIELDS.size() + more> all{};
    std::copy(fields.begin(), fields.end(), std::copy(COMMON_FIELDS.begin(), COMMON_FIELDS.end(), all.begin()));
    return all;
}

constexpr auto MXR_FIELDS = withCommon(std::array{
    Field{113, 10, 8},
    Field{123, 4, 9},
    Field{127, 8, 10},
    Field{135, 8, 11},
    Field{180, 8, 12},
    Field{226, 8, 13},
    Field{234, 8, 14},
});
constexpr auto TPX_FIELDS = withCommon(std::array{
    Field{119, 8, 8},
    Field{127, 8, 9},
    Field{135, 8, 10},
    Field{180, 8, 11},
    Field{226, 8, 12},
    Field{234, 8, 13},
});

/// No bit of the register belongs to two fields, and none to what a Timepix record loses when it is shifted.
constexpr bool disjoint(std::span<const Field> fields)
{
    std::array<bool, REGISTER_BITS> used{};
    for (const Field& field : fields)
        for (int bit = field.first; bit < field.first + field.width; ++bit) {
            if (bit >= REGISTER_BITS - TPX_SHIFT || used[static_cast<std::size_t>(bit)])
                return false;
            used[static_cast<std::size_t>(bit)] = true;
        }
    return true;
}

/// The bits of a value that the fields carry.
constexpr std::uint64_t carried(std::span<const Field> fields, int source)
{
    std::uint64_t mask = 0;
    for (const Field& field : fields)
        if (field.source == source)
            mask |= ((std::uint64_t{1} << field.width) - 1) << field.shift;
    return mask;
}

/// Bits of each DAC, from DAC 0 on.
constexpr std::array MXR_WIDTHS{8, 8, 8, 8, 8, 8, 10, 4, 10, 4, 8, 8, 8, 8, 8};
constexpr std::array TPX_WIDTHS{8, 8, 8, 8, 8, 8, 10, 4, 8, 8, 8, 8, 8, 8};
static_assert(MXR_WIDTHS.size() == MPX2_MXR_DAC_COUNT && TPX_WIDTHS.size() == MPX2_TPX_DAC_COUNT);

/// Every value's bits are all carried, and there is no other DAC.
constexpr bool complete(std::span<const Field> fields, std::span<const int> widths)
{
    int bits = 4 + 2 + 32; // of the sense DAC, the external DAC and the CTPR
    for (std::size_t dac = 0; dac < widths.size(); ++dac) {
        if (carried(fields, static_cast<int>(dac)) != (1U << widths[dac]) - 1)
            return false;
        bits += widths[dac];
    }
    for (const Field& field : fields)
        bits -= field.width;
    return bits == 0 && carried(fields, SENSE_DAC) == 0xF && carried(fields, EXT_DAC) == 3 &&
           carried(fields, CTPR) == 0xFFFFFFFF;
}

static_assert(disjoint(MXR_FIELDS) && disjoint(TPX_FIELDS));
static_assert(complete(MXR_FIELDS, MXR_WIDTHS) && complete(TPX_FIELDS, TPX_WIDTHS));

/// One chip's values; the sense and external DAC are 0 for the chips that don't take them.
struct Values {
    const unsigned short* dacs;
    unsigned senseDac;
    unsigned extDac; ///< one bit for each of the two
    unsigned ctpr;

    unsigned of(int source) const
    {
        switch (source) {
        case SENSE_DAC:
            return senseDac;
        case EXT_DAC:
            return extDac;
        case CTPR:
            return ctpr;
        default:
            return dacs[source];
        }
    }
};

void setField(unsigned char* record, const Field& field, unsigned value)
{
    for (int bit = 0; bit < field.width; ++bit) {
        const int position = field.first + bit;
        const unsigned set = (value >> (field.shift + bit) & 1U) << position % 8;
        record[position / 8] = static_cast<unsigned char>(record[position / 8] | set);
    }
}

/// The field's bits, at their place in the value.
unsigned getField(const unsigned char* record, const Field& field)
{
    unsigned value = 0;
    for (int bit = 0; bit < field.width; ++bit) {
        const int position = field.first + bit;
        value |= (record[position / 8] >> position % 8 & 1U) << (field.shift + bit);
    }
    return value;
}

/// All fields of one value.
unsigned getValue(const unsigned char* record, std::span<const Field> fields, int source)
{
    unsigned value = 0;
    for (const Field& field : fields)
        if (field.source == source)
            value |= getField(record, field);
    return value;
}

/// What is particular to a chip type's stream.
struct StreamType {
    std::span<const Field> fields;
    int dacCount;
    int shift; ///< of a finished record, as shiftBits takes it
};

constexpr StreamType MXR{MXR_FIELDS, MPX2_MXR_DAC_COUNT, 0};
constexpr StreamType TPX{TPX_FIELDS, MPX2_TPX_DAC_COUNT, -TPX_SHIFT};

void dacsToStream(const StreamType& type, const unsigned short* dacs, unsigned char* out, int chips, int chip,
                  int senseDac, int extDac, unsigned ctpr)
{
    if (chips <= 0)
        return;
    std::fill_n(out, static_cast<std::size_t>(chips) * MPX2_DAC_STREAM_SIZE, static_cast<unsigned char>(0));
    *out++ = LEAD;
    const unsigned extBits = extDac == 1 || extDac == 2 ? static_cast<unsigned>(extDac) : 0;
    for (int i = 0; i < chips; ++i, out += MPX2_DAC_RECORD_SIZE, dacs += type.dacCount) {
        const bool senses = i == chip;
        const Values values{dacs, senses ? static_cast<unsigned>(senseDac) : 0, senses ? extBits : 0, ctpr};
        for (const Field& field : type.fields)
            setField(out, field, values.of(field.source));
        std::reverse(out, out + MPX2_DAC_RECORD_SIZE);
        shiftBits(out, MPX2_DAC_RECORD_SIZE, type.shift);
    }
}

/// The fuses of a chip, as they stand in its record.
struct Fuses {
    unsigned char place; ///< column in the low half, and the row counted down from 12 in the high one
    unsigned char waferLow;
    unsigned char waferHigh; ///< 3 bits of the wafer number, and the type of the chip

    unsigned wafer() const { return (waferHigh << 8 & 0x700U) | waferLow; }
    bool readable() const { return place != 0 || wafer() != 0; }
    bool timepix() const { return waferHigh & 0x08; }
};

Fuses fusesOf(const unsigned char* stream, std::size_t chips, std::size_t chip)
{
    constexpr std::size_t OFFSET = 5; // in a record
    const unsigned char* fuses = stream + chips + chip * MPX2_DAC_RECORD_SIZE + OFFSET;
    return {reverseBitsInByte(fuses[0]), reverseBitsInByte(fuses[1]), reverseBitsInByte(fuses[2])};
}

std::string chipId(const Fuses& fuses)
{
    if (!fuses.readable())
        return "000-W0000";
    char text[16];
    std::snprintf(text, sizeof(text), "%c%02d-W%04u", 0x40 + (fuses.place & 0x0F), 12 - (fuses.place >> 4),
                  fuses.wafer());
    return text;
}

} // namespace

void dacsToStreamMXR(const unsigned short* dacs, unsigned char* out, int chips, int chip, int senseDac, int extDac,
                     unsigned int ctpr)
{
    dacsToStream(MXR, dacs, out, chips, chip, senseDac, extDac, ctpr);
}

void dacsToStreamTPX(const unsigned short* dacs, unsigned char* out, int chips, int chip, int senseDac, int extDac,
                     unsigned int ctpr)
{
    dacsToStream(TPX, dacs, out, chips, chip, senseDac, extDac, ctpr);
}

void dacsToStreamMPX2(const unsigned short* dacs, unsigned char* out, int chips, bool timepix, int chip, int senseDac,
                      int extDac, unsigned int ctpr)
{
    dacsToStream(timepix ? TPX : MXR, dacs, out, chips, chip, senseDac, extDac, ctpr);
}

void streamTPXToDacs(unsigned char* stream, int chips, int chip, int& senseDac, int& extDac, unsigned int& ctpr,
                     unsigned short* dacs)
{
    unsigned char* record = stream + 1;
    for (int i = 0; i < chips; ++i, record += MPX2_DAC_RECORD_SIZE, dacs += MPX2_TPX_DAC_COUNT) {
        shiftBits(record, MPX2_DAC_RECORD_SIZE, TPX_SHIFT);
        std::reverse(record, record + MPX2_DAC_RECORD_SIZE);
        for (int dac = 0; dac < MPX2_TPX_DAC_COUNT; ++dac)
            dacs[dac] = static_cast<unsigned short>(getValue(record, TPX_FIELDS, dac));
        ctpr = getValue(record, TPX_FIELDS, CTPR);
        if (i != chip)
            continue;
        senseDac = static_cast<int>(getValue(record, TPX_FIELDS, SENSE_DAC));
        if (const unsigned extBits = getValue(record, TPX_FIELDS, EXT_DAC))
            extDac = extBits == 1 ? 1 : 2;
    }
}

void getChipIDsFromDACStreamMpx2(const unsigned char* stream, unsigned int chips, char* out, bool* timepix)
{
    std::vector<std::string> ids;
    getChipIDsFromDACStreamMpx2(stream, chips, timepix, ids);
    for (const std::string& id : ids)
        out = std::copy(id.begin(), id.end(), out);
    *out = 0;
}

void getChipIDsFromDACStreamMpx2(const unsigned char* stream, unsigned int chips, bool* timepix,
                                 std::vector<std::string>& ids)
{
    *timepix = false;
    for (unsigned chip = 0; chip < chips; ++chip) {
        const Fuses fuses = fusesOf(stream, chips, chip);
        ids.push_back(chipId(fuses));
        if (fuses.readable())
            *timepix = fuses.timepix();
    }
}
