// Settings files: "[section]" headers and "key=value" lines. There are no comments: a line that looks like one is an
// item as any other, and comes back with the next save.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// One line of a settings file.
struct IniItem {
    std::string section;
    std::string key;
    std::string value;
    int order = 0; ///< position in the file
};

/// Order of the file.
bool IniSortPredicate(const IniItem& a, const IniItem& b);

/// All items of one settings file. Section and key are matched exactly, with upper and lower case apart; neither key
/// nor value is trimmed at the separator. Items without a section header are in the section "!".
/// A missing item, like one that does not parse, gives the caller's default. An object belongs to one thread.
class IniFile {
public:
    /// Remembers path and separator; nothing is read. Each character of `itemSeparator` separates.
    IniFile(const char* filePath, const char* itemSeparator);
    virtual ~IniFile() = default;

    /// Replaces all items by those of the file, null meaning the constructor's. Returns 0, or -5 with no items left
    /// when the file can't be opened. Of two lines with the same section and key the later one stands.
    int load(const char* filePath);
    /// Writes all items, sorted by section and key, null meaning the constructor's file. Returns 0, or -5 when the
    /// file can't be opened. Empty lines and the order of the lines that were read are lost.
    int save(const char* filePath);
    /// Writes all items to standard output. Returns 0.
    int print();

    /// Stores a value. A new item comes after all others; a known one keeps its place. A `double` has six digits.
    void set(const char* section, const char* key, const char* value);
    void set(const char* section, const char* key, double value);
    void set(const char* section, const char* key, int value);

    /// The number at the beginning of the value; "0x" makes it hexadecimal, cut to 32 bits.
    int getInt(const char* section, const char* key, int def) const;
    /// The number at the beginning of the value; "0x" makes it a hexadecimal whole number.
    double getDouble(const char* section, const char* key, double def) const;
    /// True for "true" and "1", `def` for an empty value, false for every other text, "True" and "TRUE" among them.
    bool getBool(const char* section, const char* key, bool def) const;
    /// The value as it stands.
    std::string get(const char* section, const char* key, const std::string& def) const;

    /// The items of a section in the order of the file.
    std::vector<IniItem> getSectionItems(const char* section) const;
    /// The keys of a section in the order of the file.
    std::vector<std::string> getSectionKeys(const char* section) const;

    /// Erases the item whose map key is `section` and `key` with nothing between them. Items are filed under
    /// "section|key", so this finds none unless one of the two texts brings the "|": to take an item out of a file,
    /// remove its section.
    void remove(const char* section, const char* key);
    /// Erases all items of the section.
    void removeSection(const char* section);

    /// After `load`: the number of header lines, a repeated one counted again, "!" left out. After a `set`: the number
    /// of sections that have items, "!" included. Removals change neither count.
    int getSectionCount();
    /// Whether there is such an item, be its value empty or not.
    bool itemExists(const char* section, const char* key) const;
    /// Does nothing: the map is always sorted.
    void sort() {}
    /// Text of the last failed `load` or `save`.
    const std::string& getLastError() const { return lastError; }

    /// See `::getline` in shared/fileops.h.
    static long getline(FILE* file, char** line, unsigned long* size);

private:
    template <typename T>
    T getNumber(const char* section, const char* key, T def) const;
    int failOpen(const char* filePath);
    void parseLine(const std::string& line, std::string& section, int& order);

    std::string path;
    std::string separator;
    std::map<std::string, IniItem> items; ///< by "section|key"
    std::string lastError;
    int sectionCount = -1; ///< -1: to be counted
};
