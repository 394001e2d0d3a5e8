// Items of each data type as numbers and as texts.
#include "refhost/datatypes.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace refhost {
namespace {

template <typename Item>
Item nearest(double value)
{
    if constexpr (std::is_floating_point_v<Item>) {
        return static_cast<Item>(value);
    } else {
        using Limits = std::numeric_limits<Item>;
        if (std::isnan(value))
            return 0;
        if (value <= static_cast<double>(Limits::min()))
            return Limits::min();
        if (value >= static_cast<double>(Limits::max()))
            return Limits::max();
        return static_cast<Item>(value);
    }
}

std::optional<bool> boolOf(std::string_view text)
{
    for (std::string_view word : {"true", "on", "yes", "1"})
        if (text == word)
            return true;
    for (std::string_view word : {"false", "off", "no", "0"})
        if (text == word)
            return false;
    return std::nullopt;
}

} // namespace

std::optional<DataType> dataTypeOf(int code)
{
    if (code < 0 || code >= DTYPE_UNKNOWN)
        return std::nullopt;
    return static_cast<DataType>(code);
}

std::size_t sizeOf(DataType type)
{
    return sizeofType[static_cast<std::size_t>(type)];
}

std::string_view nameOf(DataType type)
{
    return typeNames[static_cast<std::size_t>(type)];
}

double numberAt(DataType type, const void* place)
{
    return visitItem(type, [place](auto item) {
        std::memcpy(&item, place, sizeof item);
        return static_cast<double>(item);
    });
}

void putNumber(DataType type, void* place, double value)
{
    visitItem(type, [=](auto item) {
        item = type == DataType::Bool ? static_cast<decltype(item)>(value != 0) : nearest<decltype(item)>(value);
        std::memcpy(place, &item, sizeof item);
    });
}

std::string textAt(DataType type, const void* place)
{
    if (type == DataType::Bool)
        return numberAt(type, place) != 0 ? "true" : "false";
    return visitItem(type, [place](auto item) {
        std::memcpy(&item, place, sizeof item);
        std::array<char, 64> buffer{};
        const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), item).ptr;
        return std::string(buffer.data(), end);
    });
}

bool putText(DataType type, void* place, std::string_view text)
{
    if (type == DataType::Bool) {
        const auto value = boolOf(text);
        if (value)
            putNumber(type, place, *value ? 1 : 0);
        return value.has_value();
    }
    return visitItem(type, [=](auto item) {
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), item);
        if (error != std::errc{} || end != text.data() + text.size())
            return false;
        std::memcpy(place, &item, sizeof item);
        return true;
    });
}

} // namespace refhost
