// The SPI flash of an interface board.
#include "sim/boards/flash.h"

#include "sim/jsonkeys.h"

#include <array>
#include <cstring>

namespace sim {

using nlohmann::json;

namespace {

constexpr std::uint8_t BLANK = 0xFF;
constexpr std::size_t NAME_BYTES = 25;
constexpr std::size_t SMALLEST_BIG = 11; ///< bytes from which on a value stands behind the records

/// Bytes of the numbers in memory order, which is how values stand in the store.
template <typename T>
Bytes valueBytes(const json& value)
{
    Bytes bytes;
    for (const json& item : value.is_array() ? value : json::array({value})) {
        const T number = valueAs<T>(item, "value");
        const auto* const raw = reinterpret_cast<const std::uint8_t*>(&number);
        bytes.insert(bytes.end(), raw, raw + sizeof(T));
    }
    return bytes;
}

Bytes textBytes(const json& value)
{
    const auto text = valueAs<std::string>(value, "value");
    return {text.begin(), text.end()};
}

Bytes boolBytes(const json& value)
{
    return valueBytes<std::int32_t>(valueAs<bool>(value, "value") ? 1 : 0);
}

struct ValueType {
    const char* name;
    std::uint8_t code;
    Bytes (*bytes)(const json&);
};

constexpr std::array<ValueType, 11> VALUE_TYPES = {{{"char", 0, textBytes},
                                                    {"byte", 1, valueBytes<std::uint8_t>},
                                                    {"i16", 2, valueBytes<std::int16_t>},
                                                    {"u16", 3, valueBytes<std::uint16_t>},
                                                    {"i32", 4, valueBytes<std::int32_t>},
                                                    {"u32", 5, valueBytes<std::uint32_t>},
                                                    {"i64", 6, valueBytes<std::int64_t>},
                                                    {"u64", 7, valueBytes<std::uint64_t>},
                                                    {"float", 8, valueBytes<float>},
                                                    {"double", 9, valueBytes<double>},
                                                    {"bool", 10, boolBytes}}};

const ValueType& typeNamed(const std::string& name)
{
    for (const ValueType& type : VALUE_TYPES)
        if (name == type.name)
            return type;
    badKey("type", "a type of the parameter store, as \"double\"");
}

void append32(Bytes& bytes, std::size_t value)
{
    for (unsigned shift = 32; shift > 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
}

/// Adds a parameter to the records, and its value there or to the big values.
void appendRecord(const json& parameter, Bytes& records, Bytes& bigValues)
{
    refuseOtherKeys(parameter, {"name", "type", "value"});
    auto name = readKey<std::string>(parameter, "name");
    if (name.size() > NAME_BYTES)
        badKey("name", "25 characters at most");
    name.resize(NAME_BYTES);
    const ValueType& type = typeNamed(readKey<std::string>(parameter, "type"));
    const Bytes value = type.bytes(readKey<json>(parameter, "value"));

    records.insert(records.end(), name.begin(), name.end());
    records.push_back(type.code);
    append32(records, value.size());
    if (value.size() >= SMALLEST_BIG)
        append32(records, bigValues.size());
    Bytes& place = value.size() >= SMALLEST_BIG ? bigValues : records;
    place.insert(place.end(), value.begin(), value.end());
}

} // namespace

Bytes flashImage(const json& flash)
{
    refuseOtherKeys(flash, {"about", "parameters", "magic", "version", "total_size", "record_size", "image"});
    if (flash.contains("image"))
        return valueBytes<std::uint8_t>(flash["image"]);
    if (!flash.contains("parameters"))
        return {};
    Bytes records;
    Bytes bigValues;
    for (const json& parameter : readList(flash, "parameters"))
        appendRecord(parameter, records, bigValues);

    const auto magic = readKey<std::string>(flash, "magic", "IBMD");
    Bytes image(magic.begin(), magic.end());
    image.resize(4);
    append32(image, readKey<std::uint32_t>(flash, "version", 1));
    append32(image, readKey<std::size_t>(flash, "total_size", records.size() + bigValues.size()));
    append32(image, readKey<std::size_t>(flash, "record_size", records.size()));
    image.insert(image.end(), records.begin(), records.end());
    image.insert(image.end(), bigValues.begin(), bigValues.end());
    return image;
}

Bytes Flash::exchange(std::span<const std::uint8_t> sent, const Complain& complain)
{
    constexpr std::uint8_t READ_DATA = 0x03;
    constexpr std::size_t COMMAND_BYTES = 4;
    Bytes answer(sent.size(), BLANK);
    if (sent.size() <= COMMAND_BYTES || sent[0] != READ_DATA) {
        complain("flash command that reads nothing", sent);
        return answer;
    }
    const std::size_t address = std::size_t{sent[1]} << 16U | std::size_t{sent[2]} << 8U | sent[3];
    const std::size_t wanted = sent.size() - COMMAND_BYTES;
    if (address < contents.size())
        std::memcpy(&answer[COMMAND_BYTES], &contents[address], std::min(wanted, contents.size() - address));
    readCount += wanted;
    return answer;
}

} // namespace sim
