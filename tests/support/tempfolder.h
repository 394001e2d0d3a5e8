// A folder of its own for a test, removed at its end.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <vector>

namespace support {

class TempFolder {
public:
    TempFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "latixel_test_XXXXXX").string();
        path_ = mkdtemp(name.data());
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    /// Names of what is in it, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            all.push_back(entry.path().filename().string());
        std::sort(all.begin(), all.end());
        return all;
    }

    /// Writes a file, and tells its path.
    std::filesystem::path write(const std::string& name, const std::string& text) const
    {
        std::ofstream(path_ / name) << text;
        return path_ / name;
    }
    std::string read(const std::string& name) const
    {
        std::ostringstream text;
        text << std::ifstream(path_ / name).rdbuf();
        return text.str();
    }

private:
    std::filesystem::path path_;
};

} // namespace support
