// Text functions.
#include "shared/str.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace str {

namespace {

constexpr std::size_t FIRST_SIZE = 512;

} // namespace

std::string format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = formatv(fmt, args);
    va_end(args);
    text.resize(std::strlen(text.c_str()));
    return text;
}

std::string formatv(const char* fmt, va_list args)
{
    std::string buffer(FIRST_SIZE, '\0');
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        const int length = std::vsnprintf(buffer.data(), buffer.size(), fmt, copy);
        va_end(copy);
        // An argument that can't be converted: no buffer is large enough, and the format at least tells the subject.
        if (length < 0)
            return fmt;
        if (static_cast<std::size_t>(length) < buffer.size())
            return buffer;
        buffer.assign(static_cast<std::size_t>(length) + 1, '\0');
    }
}

std::vector<std::string> split(const std::string& s, const std::string& sep, bool skipEmpty, unsigned maxParts)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = s.find_first_of(sep, start);
        const bool last = end == std::string::npos || (maxParts != 0 && parts.size() + 1 >= maxParts);
        const std::string part = s.substr(start, last ? std::string::npos : end - start);
        if (!skipEmpty || !part.empty())
            parts.push_back(part);
        if (last)
            return parts;
        start = std::min(end + sep.size(), s.size());
    }
}

std::string trim(const std::string& s, const char* chars)
{
    return ltrim(rtrim(s, chars), chars);
}

std::string ltrim(const std::string& s, const char* chars)
{
    return s.substr(std::min(s.find_first_not_of(chars), s.size()));
}

std::string rtrim(const std::string& s, const char* chars)
{
    return s.substr(0, s.find_last_not_of(chars) + 1);
}

std::string range(const std::string& s, int start, int count)
{
    const long length = static_cast<long>(s.size());
    const long first = std::clamp(static_cast<long>(start), 0L, length);
    const long wanted = count < 0 ? count + length - first : count;
    return s.substr(static_cast<std::size_t>(first), static_cast<std::size_t>(std::max(wanted, 0L)));
}

std::string lower(const std::string& s)
{
    std::string result = s;
    for (char& c : result)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

bool contains(const std::string& s, const std::string& t)
{
    return s.find(t) != std::string::npos;
}

bool startsWith(const std::string& s, const std::string& t)
{
    return s.starts_with(t);
}

bool isNumber(const std::string& s)
{
    return s.find_first_not_of("0123456789-.") == std::string::npos;
}

double toDouble(const std::string& s, int* err)
{
    return toNum<double>(s, err);
}

} // namespace str
