// Reads keys of a bench with their type checked, and tells people which key is wrong.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace sim {

/// Throws std::runtime_error saying that `key` must be `what`.
[[noreturn]] inline void badKey(std::string_view key, std::string_view what)
{
    throw std::runtime_error("\"" + std::string(key) + "\" must be " + std::string(what));
}

/// Value of a bench as a `T` (bool, integer, floating point, std::string, or nlohmann::json for anything). Throws
/// std::runtime_error naming `key` if it is of another type or, for an integer, out of range.
template <typename T>
T valueAs(const nlohmann::json& value, std::string_view key)
{
    if constexpr (std::same_as<T, bool>) {
        if (!value.is_boolean())
            badKey(key, "true or false");
    } else if constexpr (std::integral<T>) {
        if (!value.is_number_integer())
            badKey(key, "a whole number");
        const bool fits = value.is_number_unsigned() ? std::in_range<T>(value.get<std::uint64_t>())
                                                     : std::in_range<T>(value.get<std::int64_t>());
        if (!fits)
            badKey(key, "a number from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
                            std::to_string(std::numeric_limits<T>::max()));
    } else if constexpr (std::floating_point<T>) {
        if (!value.is_number())
            badKey(key, "a number");
    } else if constexpr (std::same_as<T, std::string>) {
        if (!value.is_string())
            badKey(key, "a text");
    }
    return value.get<T>();
}

/// Value of `key`, which must be there. Throws as `valueAs` does.
template <typename T>
T readKey(const nlohmann::json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end())
        throw std::runtime_error("\"" + std::string(key) + "\" is missing");
    return valueAs<T>(*found, key);
}

/// Value of `key`, or `fallback` where the key is missing. Throws as `valueAs` does.
template <typename T>
T readKey(const nlohmann::json& object, const char* key, T fallback)
{
    return object.contains(key) ? readKey<T>(object, key) : std::move(fallback);
}

/// The object at `key`, empty where the key is missing.
inline nlohmann::json readObject(const nlohmann::json& object, const char* key)
{
    auto inner = readKey<nlohmann::json>(object, key, nlohmann::json::object());
    if (!inner.is_object())
        badKey(key, "an object");
    return inner;
}

/// The list at `key`, empty where the key is missing.
inline nlohmann::json readList(const nlohmann::json& object, const char* key)
{
    auto inner = readKey<nlohmann::json>(object, key, nlohmann::json::array());
    if (!inner.is_array())
        badKey(key, "a list");
    return inner;
}

/// Throws std::runtime_error naming the first key of `object` that is not among `known`, so that a slip of the pen
/// does not go unnoticed.
inline void refuseOtherKeys(const nlohmann::json& object, std::span<const std::string_view> known)
{
    for (const auto& item : object.items())
        if (std::ranges::find(known, item.key()) == known.end())
            throw std::runtime_error("unknown key \"" + item.key() + "\"");
}

inline void refuseOtherKeys(const nlohmann::json& object, std::initializer_list<std::string_view> known)
{
    refuseOtherKeys(object, std::span(known.begin(), known.size()));
}

} // namespace sim
