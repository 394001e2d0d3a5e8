// How the tool ends: its exit codes, and the failure that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

/// Exit codes of `latixel`. Where several fit, the order is 8, 9, 6, 5, 7.
enum class ExitCode : int {
    Success = 0,
    Internal = 1,
    Arguments = 2,
    Plugin = 3,
    NoDevice = 4,
    Device = 5,
    Output = 6,
    Incomplete = 7,
    Overheated = 8,
    Lost = 9,
    NotClosed = 10,
    Killed = 130,
};

/// What a code means, for people.
struct ExitCodeText {
    ExitCode code;
    const char* text;
};

/// All codes; the help text is made of this.
inline constexpr ExitCodeText EXIT_CODES[] = {
    {ExitCode::Success, "success; check: all frames are there"},
    {ExitCode::Internal, "something that nobody thought of"},
    {ExitCode::Arguments, "a bad option, name, value or file; check: a file that is none of ours"},
    {ExitCode::Plugin, "the plug-in or the virtual boards cannot be loaded"},
    {ExitCode::NoDevice, "no device, no such device, or one without chips"},
    {ExitCode::Device, "the device refused, failed or fell silent"},
    {ExitCode::Output, "the output cannot be written"},
    {ExitCode::Incomplete, "fewer frames than asked for, or bytes lack in some; those taken are kept"},
    {ExitCode::Overheated, "the device was too hot and ended the series"},
    {ExitCode::Lost, "the device has gone from the bus"},
    {ExitCode::NotClosed, "check: the file was not closed"},
    {ExitCode::Killed, "ended by a second Ctrl-C"},
};

/// Ends the tool with a code. `what()` is one line for people that says what to do.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), code(exitCode) {}

    const ExitCode code;
};

} // namespace tool
