// The subcommands. Each adds itself to the command line with its options and examples; when it was chosen, `run`
// becomes what it does, which returns an exit code and throws Failure.
#pragma once

#include "apps/latixel/exitcode.h"
#include "apps/latixel/session.h"

#include <CLI/App.hpp>
#include <functional>

namespace tool {

using Run = std::function<ExitCode()>;

void addListCommand(CLI::App& app, const GlobalOptions& global, Run& run);
void addInfoCommand(CLI::App& app, const GlobalOptions& global, Run& run);
void addParamsCommand(CLI::App& app, const GlobalOptions& global, Run& run);
void addSenseCommand(CLI::App& app, const GlobalOptions& global, Run& run);
void addAcquireCommand(CLI::App& app, const GlobalOptions& global, Run& run);
void addCheckCommand(CLI::App& app, Run& run);

/// Parses the command line and runs what it asks for. Prints failures; returns the exit code.
int runTool(int argc, const char* const* argv);

} // namespace tool
