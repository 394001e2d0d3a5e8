// The host's books: what it has handed to the plug-in, what came back, and what was done wrongly with it.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace refhost {

/// Base of the objects that the plug-in releases. A released object stays as an empty shell in the ledger, so that
/// a second release or a late use is a complaint and not a crash.
class Tracked {
public:
    virtual ~Tracked() = default;
};

/// Counts what is out, keeps shells, collects complaints. Safe for use by any thread.
class Ledger {
public:
    /// Frames that the plug-in holds, frames that it has handed to the host, parameter managers.
    enum class Kind { PluginFrame, HostFrame, Manager };

    /// Records something that the plug-in did wrong. The first 1000 texts are kept, the rest only counted.
    void complain(std::string text);
    std::vector<std::string> complaints() const;
    /// Number of complaints, those beyond the kept ones included.
    std::size_t complaintCount() const;
    void clearComplaints();

    void born(Kind kind);
    /// The plug-in handed a frame to the host.
    void handedOver();
    /// Takes the shell of a released object. The last thousand of each kind are kept.
    void buried(Kind kind, std::unique_ptr<Tracked> shell);
    /// Number of objects that were handed out and not yet released.
    std::size_t live(Kind kind) const;

private:
    static std::size_t slot(Kind kind) { return static_cast<std::size_t>(kind); }

    mutable std::mutex mutex; // guards everything below
    std::vector<std::string> texts;
    std::size_t complaintTotal = 0;
    std::array<std::size_t, 3> alive{};
    std::array<std::deque<std::unique_ptr<Tracked>>, 3> shells;
};

} // namespace refhost
