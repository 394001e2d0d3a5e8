// The pages of a TIFF file as they hang together, for files whose writing was cut off.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace record {

/// Reads `size` bytes at an offset; false where there are not that many.
using ReadAt = std::function<bool(std::uint64_t offset, void* data, std::size_t size)>;

/// A page that is in the file with all of its pixels.
struct TiffPageInfo {
    std::string description;
    std::uint64_t descriptionAt = 0; ///< where it lies in the file
    unsigned bits = 0;               ///< of a count
};

/// The whole pages from the first on. Little endian, classic or BigTIFF, as written here.
struct TiffChain {
    bool isTiff = false;
    bool isBig = false;
    std::vector<TiffPageInfo> pages;
    /// Where the link to the next page stands that is none, when the last page was cut off; else 0.
    std::uint64_t brokenLinkAt = 0;
};

/// Follows the links. A file in which they go in circles is broken where they begin to.
TiffChain readTiffChain(const ReadAt& read);

} // namespace record
