// Files with values for the chips.
#include "apps/latixel/valuefile.h"

#include "apps/latixel/exitcode.h"
#include "apps/latixel/text.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

namespace tool {
namespace {

constexpr std::uintmax_t LARGEST_FILE = std::uintmax_t{64} << 20;

std::ifstream openFile(const std::filesystem::path& path)
{
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error && size > LARGEST_FILE)
        throw Failure(ExitCode::Arguments, path.string() + " is too large to be a file of chip values");
    std::ifstream file(path, std::ios::binary);
    if (error || !file)
        throw Failure(ExitCode::Arguments, "cannot read " + path.string() + ": check that it is there and readable");
    return file;
}

unsigned short number(const std::string& word, const std::filesystem::path& path, unsigned line)
{
    unsigned short value = 0;
    const char* end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc{} || rest != end)
        throw Failure(ExitCode::Arguments, path.string() + ", line " + std::to_string(line) + ": \"" +
                                               printable(word.substr(0, 40)) + "\" is no number from 0 to 65535");
    return value;
}

} // namespace

std::vector<unsigned short> readNumbers(const std::filesystem::path& path)
{
    constexpr const char* GAPS = " \t\r,;";
    std::ifstream file = openFile(path);
    std::vector<unsigned short> values;
    std::string text;
    for (unsigned line = 1; std::getline(file, text); ++line) {
        text.erase(std::min(text.find('#'), text.size()));
        for (std::size_t begin = text.find_first_not_of(GAPS); begin != std::string::npos;) {
            const std::size_t end = std::min(text.find_first_of(GAPS, begin), text.size());
            values.push_back(number(text.substr(begin, end - begin), path, line));
            begin = text.find_first_not_of(GAPS, end);
        }
    }
    return values;
}

std::vector<unsigned char> readBytes(const std::filesystem::path& path)
{
    std::ifstream file = openFile(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

template <typename Value>
std::vector<Value> forAllChips(const std::vector<Value>& values, std::size_t perChip, std::size_t chips,
                               const std::string& what)
{
    if (values.size() == perChip * chips)
        return values;
    if (values.size() != perChip)
        throw Failure(ExitCode::Arguments, what + " holds " + std::to_string(values.size()) + " values, but takes " +
                                               std::to_string(perChip) + " for all chips alike or " +
                                               std::to_string(perChip * chips) + " for " + std::to_string(chips) +
                                               " chips");
    std::vector<Value> all;
    for (std::size_t chip = 0; chip < chips; ++chip)
        all.insert(all.end(), values.begin(), values.end());
    return all;
}

template std::vector<unsigned short> forAllChips(const std::vector<unsigned short>&, std::size_t, std::size_t,
                                                 const std::string&);
template std::vector<unsigned char> forAllChips(const std::vector<unsigned char>&, std::size_t, std::size_t,
                                                const std::string&);

} // namespace tool
