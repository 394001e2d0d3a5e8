// What a file of frames holds, and whether all of it is there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace record {

/// A file as it was found.
struct FileCheck {
    bool isOurs = false;    ///< written by this system, and so old that it has frames to count, or newer
    bool isHdf5 = false;    ///< else TIFF
    bool isClosed = false;  ///< its writer came to the end of the series
    bool hasWriter = false; ///< is being written now

    std::uint64_t requested = 0;
    std::uint64_t delivered = 0;  ///< frames that count
    std::uint64_t incomplete = 0; ///< of those delivered: bytes are missing in them
    std::uint64_t saturatedPixels = 0;
    std::vector<std::int64_t> numbers; ///< of the frames delivered

    /// What else is told of the series, such as device and outcome, and then the settings; each with its name.
    std::vector<std::pair<std::string, std::string>> facts;

    std::uint64_t missing() const { return requested > delivered ? requested - delivered : 0; }
    bool isWhole() const { return isClosed && missing() == 0 && incomplete == 0; }
};

/// Looks into an HDF5 or TIFF file; a file that is written meanwhile is no matter. Throws OutputError when there is
/// no such file or it cannot be read.
FileCheck checkFile(const std::filesystem::path& path);

/// Numbers from 0 on that are not among `numbers`, of the first `count`, as "3, 7-9"; empty if there are none.
std::string gapsIn(const std::vector<std::int64_t>& numbers, std::uint64_t count);

} // namespace record
