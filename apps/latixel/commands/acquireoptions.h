// The options of `latixel acquire`, and what they mean for the device and the output.
#pragma once

#include "host/records.h"
#include "record/framesink.h"

#include <CLI/App.hpp>
#include <optional>
#include <string>

namespace tool {

/// The options as typed; CLI11 has checked single values.
struct AcquireOptions {
    std::string device;
    unsigned frames = 1;
    double seconds = 1;
    std::string mode = "normal";
    int depth = 12;
    std::string counter = "0";
    std::string trigger = "none";
    int rowBlock = 0;
    int columnBlock = 0;
    int gain = 1;
    std::string polarity = "positive";
    bool chargeSumming = false;
    std::optional<double> bias;
    std::optional<double> clock; ///< MHz
    std::string dacs;
    std::string pixelConfig;
    std::string output;
    std::string format;
    std::optional<int> compression;
    std::string colormap = "viridis";
    std::string range;
    std::string layout;
    bool overwrite = false;
};

/// What is to be done, with everything checked that needs no device.
struct AcquirePlan {
    dv::_Mpx3Config config{};
    unsigned acqMode = 0;
    bool twoCounters = false; ///< frames of Medipix3 chips hold two counts
    record::OutputOptions output;
    std::optional<record::Layout> layout;
};

/// Adds the options to a subcommand; `options` must outlive it.
void addAcquireOptions(CLI::App& command, AcquireOptions& options);

/// The options that were typed and mean something to Medipix3 chips alone, such as "--depth, --mode crw"; empty if
/// there were none.
std::string mpx3Options(const CLI::App& command, const AcquireOptions& options);

/// Throws Failure for options that do not go together.
AcquirePlan makePlan(const AcquireOptions& options);

} // namespace tool
