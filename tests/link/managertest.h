// A command manager over a scripted link, with and without a log.
#pragma once

#include "link/ftdidev.h"
#include "shared/filelog.h"
#include "shared/str.h"
#include "support/scriptedftdi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

template <typename Manager>
struct ManagerTest : testing::Test {
    using Bytes = std::vector<unsigned char>;

    ManagerTest() { log.setLogLevel(DBG); }
    ~ManagerTest() override { std::filesystem::remove(path); }

    /// What was written since the last call.
    std::string wire() { return hex(std::exchange(ftdi.written, "")); }
    std::string logText() const
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    ScriptedFtdi& ftdi = ScriptedFtdi::restart();
    std::string path = std::filesystem::temp_directory_path() / str::format("manager_%d.log", getpid());
    FileLog log{path, true, false, false, true};
    FtdiDev dev{"Board", false};
    Manager mgr{&dev, &log};
    Manager silent{&dev, nullptr};
    Bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    Bytes buffer = Bytes(16, 0xEE);
};
