// Texts for people and files: numbers, times, and what came from outside.
#pragma once

#include <string>

namespace record {

/// The text with each control character replaced by "?": what comes from a board or a file may hold anything.
std::string printable(const std::string& text);

/// The number with `digits` digits behind the point.
std::string fixed(double value, int digits);

/// The present time as ISO 8601 with the zone's offset and milliseconds.
std::string timeStamp();

} // namespace record
