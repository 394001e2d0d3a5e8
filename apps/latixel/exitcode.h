// How the tool ends: its exit codes, and the failure that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

/// Exit codes of `latixel`; they stand in its help text.
enum class ExitCode : int {
    Success = 0,
    Internal = 1,   ///< something that nobody thought of
    Arguments = 2,  ///< a bad option, name or value, or a bad file given with one
    Plugin = 3,     ///< the plug-in or the virtual boards cannot be loaded
    NoDevice = 4,   ///< no device, no such device, or a device without chips
    Device = 5,     ///< the device refused, failed or fell silent
    Output = 6,     ///< the output cannot be written
    Incomplete = 7, ///< the series ended early or frames were lost; the frames taken are kept
    Overheated = 8, ///< the device was too hot and ended the series
    Lost = 9,       ///< the device has gone from the bus
    NotClosed = 10, ///< `check`: the writer of the file did not come to its end
    Killed = 130,   ///< a second Ctrl-C
};

/// Ends the tool with a code. `what()` is one line for people that says what to do.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), code(exitCode) {}

    const ExitCode code;
};

} // namespace tool
