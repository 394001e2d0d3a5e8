// Small helpers for what the tool prints.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tool {

/// The text with each control character replaced by "?": what comes from a board or a file may hold anything.
std::string printable(const std::string& text);

/// The number with `digits` digits behind the point.
std::string fixed(double value, int digits);

/// A duration for people: "0.85 s", "42 s", "3:07 min", "2:05:00 h".
std::string duration(double seconds);

/// The present time as ISO 8601 with the zone's offset and milliseconds.
std::string timeStamp();

/// Rows of texts in aligned columns. The first row may be a head.
class Table {
public:
    void row(std::vector<std::string> cells) { rows.push_back(std::move(cells)); }
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows;
};

} // namespace tool
