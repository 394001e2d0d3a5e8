// Texts for people and files: numbers, times, and what came from outside.
#include "record/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace record {

std::string printable(const std::string& text)
{
    std::string clean = text;
    std::replace_if(
        clean.begin(), clean.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    return clean;
}

std::string fixed(double value, int digits)
{
    std::array<char, 400> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%.*f", digits, value);
    return buffer.data();
}

std::string timeStamp()
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 40> day{};
    std::array<char, 10> zone{};
    std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone.data(), zone.size(), "%z", &local);
    const std::string offset = zone.data();
    std::array<char, 10> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(milliseconds));
    return std::string(day.data()) + fraction.data() + offset.substr(0, 3) + ":" + offset.substr(3);
}

} // namespace record
