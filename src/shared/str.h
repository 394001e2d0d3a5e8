// Text functions. They lock nothing and keep no state: every one is safe on any thread.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <locale>
#include <sstream>
#include <string>
#include <vector>

namespace str {

/// Formats like `printf`, at any length.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// Formats like `vprintf`. The result keeps the length of the buffer that it was made in, with NUL bytes behind the
/// characters: use its `c_str()`.
std::string formatv(const char* fmt, va_list args) __attribute__((format(printf, 1, 0)));

/// Cuts `s` at every character of `sep`. `skipEmpty` drops empty parts. With `maxParts` not 0, the last of `maxParts`
/// parts is all the rest of the text, separators included; only parts that are kept count. Any one character of a
/// longer `sep` splits, and then as many characters as `sep` has are stepped over.
std::vector<std::string> split(const std::string& s, const std::string& sep, bool skipEmpty, unsigned maxParts);

/// Removes any of `chars` at both ends.
std::string trim(const std::string& s, const char* chars);
/// Removes any of `chars` at the left.
std::string ltrim(const std::string& s, const char* chars);
/// Removes any of `chars` at the right.
std::string rtrim(const std::string& s, const char* chars);

/// `count` characters from `start`. A negative `count` counts from the end: (1, -1) drops the first and the last
/// character. What lies outside the text is left out.
std::string range(const std::string& s, int start, int count);

/// The text in lower case letters.
std::string lower(const std::string& s);
/// Whether `t` stands somewhere in `s`.
bool contains(const std::string& s, const std::string& t);
/// Whether `s` begins with `t`.
bool startsWith(const std::string& s, const std::string& t);
/// Whether `s` has only digits, "-" and ".". It does not look at their order: "" and "--." are numbers too.
bool isNumber(const std::string& s);

/// Reads a decimal `T` at the beginning of `s`, behind blanks, into `value`, up to the first character that does not
/// fit. Returns whether there was one; otherwise `value` is 0 or, out of range, the nearest limit.
/// Numbers read and print the same under every locale of the host, like in all functions below.
template <typename T>
bool readNum(const std::string& s, T& value)
{
    std::istringstream stream(s);
    stream.imbue(std::locale::classic());
    return static_cast<bool>(stream >> value);
}

/// The number at the beginning of `s` ("12abc" is 12), or `def` if there is none or it does not fit into a `T`.
template <typename T>
T toNumDef(const std::string& s, T def)
{
    T value{};
    return readNum(s, value) ? value : def;
}

/// The hexadecimal number of up to 64 bits at the beginning of `s`, with or without "0x", as a `T`: an integer keeps
/// the low bits. `def` if there is none.
template <typename T>
T fromHexDef(const std::string& s, T def)
{
    std::istringstream stream(s);
    stream.imbue(std::locale::classic());
    std::uint64_t value = 0;
    return stream >> std::hex >> value ? static_cast<T>(value) : def;
}

/// The number at the beginning of `s`. `*err`, if given, becomes 1 if there is none, else 0.
template <typename T>
T toNum(const std::string& s, int* err = nullptr)
{
    T value{};
    const bool read = readNum(s, value);
    if (err != nullptr)
        *err = read ? 0 : 1;
    return value;
}

/// `toNum<double>`.
double toDouble(const std::string& s, int* err = nullptr);

/// The number as text. A `double` has six significant digits.
template <typename T>
std::string fromNum(T value)
{
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << value;
    return stream.str();
}

} // namespace str
