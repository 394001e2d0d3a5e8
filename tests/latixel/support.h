// Folders and frames for the tests of the tool.
#pragma once

#include "apps/latixel/framesink.h"
#include "refhost/host.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace support {

/// A folder that goes away with its files.
class Folder {
public:
    Folder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "latixel_test_XXXXXX").string();
        path = mkdtemp(name.data());
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path / name; }
    /// Names of the files in it, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            all.push_back(entry.path().filename().string());
        std::sort(all.begin(), all.end());
        return all;
    }

    std::filesystem::path path;
};

/// A frame of chips whose pixels `value(chip, x, y)` tells.
template <typename Item>
refhost::FramePtr frame(refhost::Host& host, unsigned chips,
                        const std::function<Item(unsigned chip, unsigned x, unsigned y)>& value)
{
    dv::IMpxFrame* made = host.frameFactory()->createFrame(256 * chips, 256, sizeof(Item) == 4 ? 5 : 2);
    auto* pixels = static_cast<Item*>(made->dataPointer(0));
    for (unsigned chip = 0; chip < chips; ++chip)
        for (unsigned y = 0; y < 256; ++y)
            for (unsigned x = 0; x < 256; ++x)
                *pixels++ = value(chip, x, y);
    return refhost::adopt(made);
}

/// The code of the Failure that `call` throws, or Success.
inline tool::ExitCode codeOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const tool::Failure& failure) {
        return failure.code;
    }
    return tool::ExitCode::Success;
}

} // namespace support
