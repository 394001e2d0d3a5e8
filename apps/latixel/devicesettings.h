// What a file tells of the device that took its frames.
#pragma once

#include "apps/latixel/framesink.h"
#include "refhost/device.h"

namespace tool {

/// Version of the plug-in and firmware of the board, as the device's parameters tell them; empty where they do not.
std::string pluginVersion(const refhost::Device& device);
std::string firmware(const refhost::Device& device);

/// Whether the plug-in knows the parameter of the flash without reading all of it: larger ones are zero until then.
bool isAtHand(refhost::Param& flashParam);
/// Makes the plug-in read all of the device's flash, which takes a while, if there is anything that needs it.
void loadFlash(const refhost::Device& device);

/// The device and its settings: its parameters, its configuration where it has Medipix3 chips, and the small values
/// of its flash. Reads the device, so it is for before a series.
SeriesInfo describe(const refhost::Device& device);

} // namespace tool
