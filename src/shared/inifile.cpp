// Reading, writing and looking up settings.
#include "shared/inifile.h"

#include "shared/fileops.h"
#include "shared/str.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

constexpr int OPEN_FAILED = -5;
constexpr const char* NO_SECTION = "!";
constexpr const char* LINE_TRIM = "\r \n"; // a tab stays

std::string mapKey(const std::string& section, const std::string& key)
{
    return section + "|" + key;
}

struct LineBuffer {
    LineBuffer() = default;
    ~LineBuffer() { std::free(text); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    char* text = nullptr;
    unsigned long size = 0;
};

} // namespace

bool IniSortPredicate(const IniItem& a, const IniItem& b)
{
    return a.order < b.order;
}

IniFile::IniFile(const char* filePath, const char* itemSeparator) : path(filePath), separator(itemSeparator) {}

int IniFile::load(const char* filePath)
{
    items.clear();
    sectionCount = 0;
    const char* source = filePath != nullptr ? filePath : path.c_str();
    File file(source, "r");
    if (file == nullptr)
        return failOpen(source);

    std::string section = NO_SECTION;
    int order = 0;
    LineBuffer line;
    while (getline(file, &line.text, &line.size) >= 0)
        parseLine(str::trim(line.text, LINE_TRIM), section, order);
    return 0;
}

// A header's last character is not checked: "[abc" opens the section "ab".
void IniFile::parseLine(const std::string& line, std::string& section, int& order)
{
    if (line.empty())
        return;
    if (line.size() >= 2 && line.front() == '[') {
        section = str::range(line, 1, -1);
        ++sectionCount;
        return;
    }
    const std::vector<std::string> parts = str::split(line, separator, false, 2);
    const std::string& key = parts[0];
    items[mapKey(section, key)] = {section, key, parts.size() > 1 ? parts[1] : "", order++};
}

// Lines end with CR LF, but the empty line between two sections is a bare LF, as in the files in the field.
int IniFile::save(const char* filePath)
{
    sort();
    const char* target = filePath != nullptr ? filePath : path.c_str();
    File file(target, "w");
    if (file == nullptr)
        return failOpen(target);

    std::string section = NO_SECTION;
    bool first = true;
    for (const auto& [name, item] : items) {
        if (item.section != section) {
            if (!first)
                fputc('\n', file);
            fprintf(file, "[%s]\r\n", item.section.c_str());
            section = item.section;
        }
        fprintf(file, "%s%s%s\r\n", item.key.c_str(), separator.c_str(), item.value.c_str());
        first = false;
    }
    return 0;
}

int IniFile::print()
{
    for (const auto& [name, item] : items)
        printf("%s: %s=%s\n", item.section.c_str(), item.key.c_str(), item.value.c_str());
    return 0;
}

void IniFile::set(const char* section, const char* key, const char* value)
{
    sectionCount = -1;
    const auto [place, isNew] = items.try_emplace(mapKey(section, key));
    const int order = isNew ? static_cast<int>(items.size()) : place->second.order;
    place->second = {section, key, value, order};
}

void IniFile::set(const char* section, const char* key, double value)
{
    set(section, key, str::fromNum(value).c_str());
}

void IniFile::set(const char* section, const char* key, int value)
{
    set(section, key, str::fromNum(value).c_str());
}

int IniFile::getInt(const char* section, const char* key, int def) const
{
    return getNumber(section, key, def);
}

double IniFile::getDouble(const char* section, const char* key, double def) const
{
    return getNumber(section, key, def);
}

bool IniFile::getBool(const char* section, const char* key, bool def) const
{
    const std::string value = get(section, key, "");
    if (value.empty())
        return def;
    return value == "true" || value == "1";
}

std::string IniFile::get(const char* section, const char* key, const std::string& def) const
{
    const auto place = items.find(mapKey(section, key));
    return place != items.end() ? place->second.value : def;
}

std::vector<IniItem> IniFile::getSectionItems(const char* section) const
{
    std::vector<IniItem> result;
    for (const auto& [name, item] : items) {
        if (item.section == section)
            result.push_back(item);
    }
    std::stable_sort(result.begin(), result.end(), IniSortPredicate);
    return result;
}

std::vector<std::string> IniFile::getSectionKeys(const char* section) const
{
    std::vector<std::string> keys;
    for (IniItem& item : getSectionItems(section))
        keys.push_back(std::move(item.key));
    return keys;
}

void IniFile::remove(const char* section, const char* key)
{
    items.erase(std::string(section) + key);
}

void IniFile::removeSection(const char* section)
{
    std::erase_if(items, [&](const auto& entry) { return entry.second.section == section; });
}

int IniFile::getSectionCount()
{
    if (sectionCount != -1)
        return sectionCount;
    sort();
    sectionCount = 0;
    std::string last;
    for (const auto& [name, item] : items) {
        if (item.section != last)
            ++sectionCount;
        last = item.section;
    }
    return sectionCount;
}

bool IniFile::itemExists(const char* section, const char* key) const
{
    return items.contains(mapKey(section, key));
}

long IniFile::getline(FILE* file, char** line, unsigned long* size)
{
    return ::getline(file, line, size);
}

template <typename T>
T IniFile::getNumber(const char* section, const char* key, T def) const
{
    const std::string value = get(section, key, "");
    return str::startsWith(value, "0x") ? str::fromHexDef(value, def) : str::toNumDef(value, def);
}

int IniFile::failOpen(const char* filePath)
{
    lastError = str::format("Cannot open file %s", filePath);
    return OPEN_FAILED;
}
