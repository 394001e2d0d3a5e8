// Which counts a picture shows as dark and as bright.
#pragma once

#include "record/picture/layout.h"

#include <optional>
#include <string>

namespace record {

/// Counts up to `low` have the first colour, counts from `high` the last one. `low` is below `high`.
struct ContrastRange {
    double low = 0;
    double high = 1;
};

/// The range that leaves one percent of the pixels at the dark end and three in a thousand at the bright end. Bad
/// pixels have no part in it.
ContrastRange automaticRange(const Picture& picture);

/// Reads "MIN:MAX". Nothing if the text is something else or MIN is not below MAX.
std::optional<ContrastRange> parseRange(const std::string& text);

/// The index of each pixel in a colour map.
std::vector<std::uint8_t> colourIndexes(const Picture& picture, ContrastRange range);

} // namespace record
