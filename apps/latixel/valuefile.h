// Files with values for the chips: DACs and pixel configurations.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool {

/// Reads whole numbers from 0 to 65535, between blanks, commas or line ends; from "#" to the line's end is comment.
/// Throws Failure that names the line of the first mistake.
std::vector<unsigned short> readNumbers(const std::filesystem::path& path);

/// Reads a file of bytes. Throws Failure when it cannot be read or is larger than any device can take.
std::vector<unsigned char> readBytes(const std::filesystem::path& path);

/// The values of all chips: `values` itself when it has them all, or repeated for each chip when it has those of one.
/// Throws Failure, which tells `what` is wrong, for any other number.
template <typename Value>
std::vector<Value> forAllChips(const std::vector<Value>& values, std::size_t perChip, std::size_t chips,
                               const std::string& what);

} // namespace tool
