// A file that has its final name only once there is something in it.
#pragma once

#include <filesystem>

namespace record {

/// Makes a temporary file beside the final one at once, so that a place that cannot be written shows before any work
/// is done. Without `complete` the end removes it.
class OutputFile {
public:
    /// Throws OutputError when the place cannot be written, OutputExists when the final file is there and may not be
    /// replaced.
    OutputFile(const std::filesystem::path& finalPath, bool mayReplace);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Where to write: the final name with the process's number and ".part" behind it.
    const std::filesystem::path& temporary() const { return partPath; }
    const std::filesystem::path& path() const { return finalPath; }
    /// Gives the file its final name. Throws OutputError when that fails, and the temporary file goes away.
    void complete();
    bool isComplete() const { return completed; }

private:
    const std::filesystem::path finalPath;
    const std::filesystem::path partPath;
    const bool mayReplace;
    bool completed = false;
};

} // namespace record
