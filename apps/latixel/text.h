// Small helpers for what the tool prints.
#pragma once

#include "record/text.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace tool {

using record::fixed;
using record::printable;
using record::timeStamp;

/// A duration for people: "0.85 s", "42 s", "3:07 min", "2:05:00 h".
std::string duration(double seconds);

/// Rows of texts in aligned columns. The first row may be a head.
class Table {
public:
    void row(std::vector<std::string> cells) { rows.push_back(std::move(cells)); }
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows;
};

} // namespace tool
