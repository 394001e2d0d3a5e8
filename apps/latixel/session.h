// What every subcommand begins with: the host, the plug-in, and the device that the user means.
#pragma once

#include "refhost/plugin.h"

#include <memory>
#include <optional>
#include <string>

namespace tool {

/// The options that stand before the subcommand.
struct GlobalOptions {
    std::optional<std::string> bench; ///< virtual boards; empty for the default bench
    std::string plugin;               ///< file of the plug-in; empty to look for it
    std::string config;
    std::string logs;
    bool verbose = false;
};

/// An open plug-in. Used from one thread. The end closes it; with `verbose` what the plug-in did wrong is told.
class Session {
public:
    /// Loads the virtual boards, if asked for, and the plug-in, and opens it. Throws Failure.
    explicit Session(const GlobalOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// All devices, at least one. Throws Failure if there are none.
    const std::vector<std::unique_ptr<refhost::Device>>& devices() const;
    /// The device of that number or name; the first one for an empty text. Throws Failure if there is none.
    refhost::Device& device(const std::string& numberOrName) const;
    /// The same, and Failure for a device without chips.
    refhost::Device& deviceWithChips(const std::string& numberOrName) const;

    /// Leaves the plug-in as it is, because a device no longer answers. The process must then end at once.
    void abandon();

private:
    void loadBoards(const std::string& bench);
    void close();

    const bool verbose;
    refhost::Host host;
    std::optional<refhost::GlobalLibrary> boards;
    std::unique_ptr<refhost::Plugin> plugin;
};

} // namespace tool
