// Mends files whose writer was killed.
#pragma once

#include <filesystem>

namespace record {

/// Makes a file that was not closed readable for all programs: an HDF5 file loses the mark of its writer and what lies
/// beyond its frame table, a TIFF file the link to a page that is not whole. The outcome becomes "not closed". No frame
/// that counts is lost. Throws OutputError when the file has a writer that lives, when it is none of ours, or when it
/// cannot be written.
void repairFile(const std::filesystem::path& path);

} // namespace record
