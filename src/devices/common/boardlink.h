// A device's way to its board: the USB link and the command manager on it, with an answer where there is none.
#pragma once

#include "devices/common/devicereport.h"
#include "link/cmdframe.h"
#include "link/ftdidev.h"

#include <memory>
#include <string>
#include <vector>

namespace HwLatixel {

inline constexpr const char* NOT_CONNECTED = "Device not connected";

/// Owns link and manager of one device between bring-up and closing. Before and after, every command is refused with
/// an error text, so that a host that calls a closed device gets a code and nothing worse. Made, opened and closed by
/// the host's thread while no other call runs; in between safe from any thread as far as the manager is.
template <typename Manager>
class BoardLink {
public:
    explicit BoardLink(DeviceReport& deviceReport) : report(deviceReport) {}

    /// Makes link and manager and opens the board of that name, with `log` for the manager. Returns the link's result;
    /// where that is not 0 it is told, and link and log are given up again.
    int open(const std::string& name, std::unique_ptr<FileLog>& log)
    {
        mgr.reset();
        ftdi = std::make_unique<FtdiDev>(name, false);
        mgr = std::make_unique<Manager>(ftdi.get(), log.get());
        const int result = ftdi->openDevice(true, 0);
        if (result == 0)
            return 0;
        report.line(ERR, "Cannot open device %s, error=%d (%s)", name.c_str(), result, ftdi->getLastError());
        drop();
        report.attachLog(nullptr);
        log.reset();
        return result;
    }
    /// Gives both up, the manager first. A link that is still open is closed.
    void drop()
    {
        mgr.reset();
        if (ftdi != nullptr)
            ftdi->closeDevice();
        ftdi.reset();
    }

    bool exists() const { return mgr != nullptr; }
    FtdiDev* usb() const { return ftdi.get(); }
    /// The manager; null without a link.
    Manager* manager() const { return mgr.get(); }
    Manager& operator*() const { return *mgr; }
    Manager* operator->() const { return mgr.get(); }

    int send(CmdId id, CmdArgs args = {}, unsigned char flags = cmdflag::NONE) const
    {
        return mgr != nullptr ? mgr->send(id, args, flags) : refuse();
    }
    int sendPayload(CmdId id, const unsigned char* data, unsigned long size, unsigned char flags) const
    {
        return mgr != nullptr ? mgr->send(id, data, size, flags) : refuse();
    }
    /// As the manager's `receiveRaw`.
    int receive(unsigned char* buffer, unsigned long* size, double timeout) const
    {
        return mgr != nullptr ? mgr->receiveRaw(buffer, size, timeout) : refuse();
    }
    /// Reads and drops what the board still sends, until it has been silent for `timeout` seconds: it may have run
    /// ahead of a stop. A board that never falls silent is left alone after `limit` seconds.
    void drain(double timeout, double limit = 10.0) const
    {
        constexpr unsigned long CHUNK = 100000;
        std::vector<unsigned char> scratch(CHUNK + 1);
        const double start = getPreciseTime();
        unsigned long received = CHUNK;
        while (received > 0 && getPreciseTime() - start < limit) {
            received = CHUNK;
            if (receive(scratch.data(), &received, timeout) != 0)
                return;
        }
    }
    /// The manager's words for its last failure.
    const char* lastError() const { return mgr != nullptr ? mgr->getLastError() : NOT_CONNECTED; }

private:
    int refuse() const { return report.error(1, "%s", NOT_CONNECTED); }

    DeviceReport& report;
    std::unique_ptr<FtdiDev> ftdi;
    std::unique_ptr<Manager> mgr;
};

} // namespace HwLatixel
