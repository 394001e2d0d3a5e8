// Small helpers for what the tool prints.
#include "apps/latixel/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <ostream>

namespace tool {
namespace {

template <typename... Values>
std::string print(const char* format, Values... values)
{
    std::array<char, 400> buffer{};
    std::snprintf(buffer.data(), buffer.size(), format, values...);
    return buffer.data();
}

} // namespace

std::string printable(const std::string& text)
{
    std::string clean = text;
    std::replace_if(
        clean.begin(), clean.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    return clean;
}

std::string fixed(double value, int digits)
{
    return print("%.*f", digits, value);
}

std::string duration(double seconds)
{
    if (seconds < 9.995)
        return print("%.2f s", std::max(seconds, 0.0));
    if (seconds < 99.5)
        return print("%.0f s", seconds);
    const auto whole = static_cast<long long>(std::min(std::round(seconds), 1e12));
    if (whole < 3600)
        return print("%lld:%02lld min", whole / 60, whole % 60);
    return print("%lld:%02lld:%02lld h", whole / 3600, whole / 60 % 60, whole % 60);
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
    return print("%s.%03d%s:%s", day.data(), static_cast<int>(milliseconds), offset.substr(0, 3).c_str(),
                 offset.substr(3).c_str());
}

void Table::print(std::ostream& out) const
{
    std::vector<std::size_t> widths;
    for (const auto& cells : rows) {
        widths.resize(std::max(widths.size(), cells.size()));
        for (std::size_t i = 0; i < cells.size(); ++i)
            widths[i] = std::max(widths[i], cells[i].size());
    }
    for (const auto& cells : rows) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            line += cells[i];
            if (i + 1 < cells.size())
                line.append(widths[i] + 2 - cells[i].size(), ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

} // namespace tool
