// Ctrl-C: the first asks for a clean end, the second ends the process at once.
#pragma once

#include <csignal>

namespace tool {

/// While it lives, SIGINT, SIGTERM and SIGHUP are requests to stop. A second signal ends the process with code 130;
/// the output file is then as after a kill. One at a time.
class Interrupt {
public:
    Interrupt();
    /// Puts the former handlers back.
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const;

private:
    struct sigaction former[3]{};
};

} // namespace tool
