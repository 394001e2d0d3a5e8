// A device's way to its board: the USB link and the command manager on it, with an answer where there is none.
#pragma once

#include "board/ibspi.h"
#include "devices/common/devicereport.h"
#include "devices/common/guarded.h"
#include "link/cmdframe.h"
#include "link/ftdidev.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace HwLatixel {

inline constexpr const char* NOT_CONNECTED = "Device not connected";
/// Status of a device whose bring-up has ended early, and of no other.
inline constexpr const char* BOARD_MUTE = "Board does not answer";

/// Owns link and manager of one device between bring-up and closing. Before and after, every command is refused with
/// an error text, so that a host that calls a closed device gets a code and nothing worse. Who has the link's turn may
/// use all of it; others, which send what brings no answer, use `send` and `Exchange` alone. A link is opened and
/// dropped within the turn.
template <typename Manager>
class BoardLink {
    struct Session {
        Session(const std::string& name, FileLog* log) : ftdi(name, false), mgr(&ftdi, log) {}

        FtdiDev ftdi;
        Manager mgr;
    };
    using SessionPtr = std::shared_ptr<Session>;

public:
    /// Keeps all other threads' frames out as long as it lives, see `CmdMgrBase::Exchange`, and the link from being
    /// dropped. Threads may nest them. Nothing is told to the host meanwhile but by who has the turn.
    class Exchange {
    public:
        explicit Exchange(const BoardLink& link) : session(link.session.get())
        {
            if (session == nullptr)
                return;
            whole.emplace(session->mgr);
            // It may have been dropped while this thread waited.
            if (link.session.get() == session)
                return;
            whole.reset();
            session = nullptr;
        }
        /// The manager; null without a link.
        Manager* manager() const { return session != nullptr ? &session->mgr : nullptr; }
        explicit operator bool() const { return session != nullptr; }

    private:
        SessionPtr session;
        std::optional<typename Manager::Exchange> whole;
    };

    explicit BoardLink(DeviceReport& deviceReport) : report(deviceReport) {}

    /// Makes link and manager and opens the board of that name, with `log` for the manager. Returns the link's result;
    /// where that is not 0 it is told, and link and log are given up again.
    int open(const std::string& name, std::unique_ptr<FileLog>& log)
    {
        session.set(std::make_shared<Session>(name, log.get()));
        const int result = usb()->openDevice(true, 0);
        if (result == 0)
            return 0;
        report.line(ERR, "Cannot open device %s, error=%d (%s)", name.c_str(), result, usb()->getLastError());
        drop();
        report.attachLog(nullptr);
        log.reset();
        return result;
    }
    /// Closes the link and gives both up, as soon as nobody is in an exchange.
    void drop()
    {
        const Exchange last(*this);
        if (const SessionPtr dropped = session.get(); dropped != nullptr)
            dropped->ftdi.closeDevice();
        session.set(nullptr);
    }

    bool exists() const { return session.get() != nullptr; }
    /// The link; null without one.
    FtdiDev* usb() const
    {
        const SessionPtr now = session.get();
        return now != nullptr ? &now->ftdi : nullptr;
    }
    /// The manager; null without a link.
    Manager* manager() const
    {
        const SessionPtr now = session.get();
        return now != nullptr ? &now->mgr : nullptr;
    }
    Manager& operator*() const { return *manager(); }
    Manager* operator->() const { return manager(); }

    /// One bring-up, for its life: once the board does not answer, all further calls fail at once, so that the rest is
    /// done without it. `mute` is polled, and tells afterwards whether that was so. There is a link.
    class BringUp {
    public:
        BringUp(const BoardLink& link, bool& mute) : session(link.session.get()), isMute(mute)
        {
            session->mgr.giveUpMuteBoard(true);
        }
        ~BringUp()
        {
            storeFlag(isMute, session->mgr.isBoardMute());
            session->mgr.giveUpMuteBoard(false);
        }
        BringUp(const BringUp&) = delete;
        BringUp& operator=(const BringUp&) = delete;

    private:
        const SessionPtr session;
        bool& isMute;
    };

    // ---- Closing, see FtdiDev ----

    void startClosing() const
    {
        if (const SessionPtr now = session.get(); now != nullptr)
            now->ftdi.startClosing();
    }
    void cancelClosing() const
    {
        if (const SessionPtr now = session.get(); now != nullptr)
            now->ftdi.cancelClosing();
    }
    /// Runs `calls()`, which may use a link that is closing, for as many seconds.
    template <typename Calls>
    void runClosingCalls(double seconds, Calls calls) const
    {
        if (const SessionPtr now = session.get(); now != nullptr) {
            const FtdiDev::ClosingCalls own(now->ftdi, seconds);
            calls();
        }
    }

    // ---- Transfers ----

    int send(CmdId id, CmdArgs args = {}, unsigned char flags = cmdflag::NONE) const
    {
        const std::optional<int> result = sent([&](Manager& mgr) { return mgr.send(id, args, flags); });
        return result ? *result : refuse();
    }
    int sendPayload(CmdId id, const unsigned char* data, unsigned long size, unsigned char flags) const
    {
        const std::optional<int> result = sent([&](Manager& mgr) { return mgr.send(id, data, size, flags); });
        return result ? *result : refuse();
    }
    /// Writes the bias DAC; any thread. It brings no answer, so it may go out in the middle of a frame.
    int writeBias(unsigned char code, ibspi::BiasHandBack handBack) const
    {
        int result = 1;
        std::string failure;
        {
            const Exchange whole(*this);
            if (whole)
                result = ibspi::writeBiasDac(*whole.manager(), code, handBack);
            failure = lastError();
        }
        return result != 0 ? report.error(result, "Failed sending command (%s)", failure.c_str()) : 0;
    }
    /// As the manager's `receiveRaw`.
    int receive(unsigned char* buffer, unsigned long* size, double timeout) const
    {
        const SessionPtr now = session.get();
        return now != nullptr ? now->mgr.receiveRaw(buffer, size, timeout) : refuse();
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
    /// The manager's words for its last failure, for who has the turn or an `Exchange`.
    const char* lastError() const
    {
        const SessionPtr now = session.get();
        return now != nullptr ? now->mgr.getLastError() : NOT_CONNECTED;
    }

private:
    /// The result of `call(manager)`, or nothing without a link.
    template <typename Call>
    std::optional<int> sent(Call call) const
    {
        const Exchange whole(*this);
        return whole ? std::optional<int>(call(*whole.manager())) : std::nullopt;
    }
    int refuse() const { return report.error(1, "%s", NOT_CONNECTED); }

    DeviceReport& report;
    Guarded<SessionPtr> session;
};

} // namespace HwLatixel
