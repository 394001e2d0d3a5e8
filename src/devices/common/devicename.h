// The syntax of a device's name, which is its USB description: "Latixel Latixel M3WA 1 sn: 12 A" names the family, the
// type with its variant letter, the LAD number if any, the serial, and the port of the FTDI chip.
#pragma once

#include <string>

namespace HwLatixel {

/// Takes a name apart. `familyWord` gets the second word; `typeCode` the first two, `variantChar3` the third and
/// `variant` the fourth character of the third word; these four may be null. `ladNumber` gets the fourth word where it
/// is a number, and otherwise becomes empty. False for less than five words or a third word of less than four
/// characters: what has not been reached then keeps its value.
bool parseDeviceName(const std::string& name, std::string* familyWord, std::string* typeCode, std::string* variantChar3,
                     std::string* variant, std::string* ladNumber);

/// The serial: the text behind the first ": ", without its last two characters if it is longer than two and " A", the
/// mark of the FTDI chip's first port, occurs in it. Empty without ": ".
std::string serialFromDeviceName(const std::string& name);

/// `text` with "_" in place of each "/" and control character: a serial comes from outside and becomes a file name.
std::string asFileName(std::string text);

} // namespace HwLatixel
