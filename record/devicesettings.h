// What a file tells of the device that took its frames.
#pragma once

#include "record/framesink.h"
#include "refhost/device.h"

namespace record {

/// The text of the device's parameter of that name; empty if it has none.
std::string paramText(const refhost::Device& device, const std::string& name);

/// Version of the plug-in and firmware of the board, as the device's parameters tell them; empty where they do not.
std::string pluginVersion(const refhost::Device& device);
std::string firmware(const refhost::Device& device);

/// Which chips the device has: "Medipix3", "Timepix" or "Medipix2"; "Medipix2/Timepix" where none was found.
std::string chipKind(const refhost::Device& device);
/// The serials of the boards that a composite is made of; empty for a single board.
std::vector<std::string> memberSerials(const refhost::Device& device);
/// A clock for people, such as "7.142857 MHz".
std::string clockText(double mhz);

/// Whether the plug-in knows the parameter of the flash without reading all of it: larger ones are zero until then.
bool isAtHand(refhost::Param& flashParam);
/// Makes the plug-in read all of the device's flash, which takes a while, if there is anything that needs it.
void loadFlash(const refhost::Device& device);

/// The device and its settings: its parameters, its configuration, and the small values
/// of its flash. Reads the device, so it is for before a series.
SeriesInfo describe(const refhost::Device& device);

} // namespace record
