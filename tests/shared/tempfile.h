// A folder for one test's files, removed with all that is in it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempDir {
public:
    TempDir()
    {
        std::string name = testing::TempDir() + "sharedXXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
    }
    ~TempDir() { std::filesystem::remove_all(folder); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string path(const std::string& name) const { return folder / name; }
    std::string write(const std::string& name, const std::string& bytes) const
    {
        std::ofstream(path(name), std::ios::binary) << bytes;
        return path(name);
    }
    std::string read(const std::string& name) const
    {
        std::ifstream stream(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    std::filesystem::path folder;
};
