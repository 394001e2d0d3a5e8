// Small helpers for what the tool prints.
#include "apps/latixel/text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
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
