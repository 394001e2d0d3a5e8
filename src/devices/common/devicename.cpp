// The syntax of a device's name: serial, type, variant letter, number of a composite.
#include "devices/common/devicename.h"

#include "shared/str.h"

#include <algorithm>
#include <vector>

namespace HwLatixel {

namespace {

constexpr std::size_t MIN_WORDS = 5;
constexpr std::size_t TYPE_WORD_LENGTH = 4;

void assign(std::string* target, std::string value)
{
    if (target != nullptr)
        *target = std::move(value);
}

} // namespace

bool parseDeviceName(const std::string& name, std::string* familyWord, std::string* typeCode, std::string* variantChar3,
                     std::string* variant, std::string* ladNumber)
{
    ladNumber->clear();
    const std::vector<std::string> words = str::split(name, " ", true, 0);
    if (words.size() < MIN_WORDS)
        return false;
    assign(familyWord, words[1]);
    const std::string& type = words[2];
    if (type.size() < TYPE_WORD_LENGTH)
        return false;
    assign(typeCode, type.substr(0, 2));
    assign(variantChar3, type.substr(2, 1));
    assign(variant, type.substr(3, 1));
    if (!str::contains(words[3], "sn") && str::isNumber(words[3]))
        *ladNumber = words[3];
    return true;
}

std::string serialFromDeviceName(const std::string& name)
{
    const std::string mark = ": ";
    const std::size_t found = name.find(mark);
    if (found == std::string::npos)
        return "";
    std::string serial = name.substr(found + mark.size());
    if (serial.size() > 2 && str::contains(serial, " A"))
        serial.resize(serial.size() - 2);
    return serial;
}

std::string asFileName(std::string text)
{
    std::ranges::replace_if(
        text, [](unsigned char c) { return c == '/' || c < 0x20 || c == 0x7F; }, '_');
    return text;
}

} // namespace HwLatixel
