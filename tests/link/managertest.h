// A command manager over a scripted link, with and without a log.
#pragma once

#include "link/ftdidev.h"
#include "shared/filelog.h"
#include "support/scriptedftdi.h"
#include "support/tempfolder.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

template <typename Manager>
struct ManagerTest : testing::Test {
    using Bytes = std::vector<unsigned char>;

    ManagerTest() { log.setLogLevel(DBG); }
    ~ManagerTest() override { dev.closeDevice(); }

    /// What was written since the last call.
    std::string wire() { return hex(std::exchange(ftdi.written, "")); }
    /// A result, with what the manager says of a failure.
    std::string told(int result) const
    {
        return std::to_string(result) + (result == 0 ? "" : std::string(": ") + mgr.getLastError());
    }
    std::string logText() const { return folder.read("manager.log"); }

    support::TempFolder folder;
    ScriptedFtdi& ftdi = ScriptedFtdi::restart();
    FileLog log{folder / "manager.log", true, false, false, true};
    FtdiDev dev{"Board", false};
    Manager mgr{&dev, &log};
    Manager silent{&dev, nullptr};
    Bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    Bytes buffer = Bytes(16, 0xEE);
};
