// Follows the links from page to page of a TIFF file.
#include "record/tiffchain.h"

#include <cstring>
#include <optional>

namespace record {
namespace {

constexpr std::uint16_t CLASSIC = 42;
constexpr std::uint16_t BIG = 43;
constexpr std::uint16_t TAG_BITS = 258;
constexpr std::uint16_t TAG_DESCRIPTION = 270;
constexpr std::uint16_t TAG_STRIPS = 273;
constexpr std::uint16_t TAG_STRIP_BYTES = 279;
constexpr std::uint64_t MOST_ENTRIES = 200; // pages here have fewer than twenty
constexpr std::uint64_t MOST_VALUES = std::uint64_t{1} << 24;

unsigned sizeOfType(std::uint16_t type)
{
    constexpr unsigned SIZES[] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4, 0, 0, 8, 8, 8};
    return type < std::size(SIZES) ? SIZES[type] : 0;
}

/// A field of a page: its type, its number of values, and where they lie.
struct Entry {
    std::uint16_t type = 0;
    std::uint64_t count = 0;
    std::uint64_t at = 0;
};

class Walk {
public:
    explicit Walk(const ReadAt& readAt) : read(readAt) {}

    TiffChain follow()
    {
        const auto magic = number(0, 4);
        chain.isBig = magic == (std::uint64_t{BIG} << 16 | 0x4949);
        chain.isTiff = chain.isBig || magic == (std::uint64_t{CLASSIC} << 16 | 0x4949);
        std::uint64_t link = chain.isBig ? 8 : 4;
        while (chain.isTiff) {
            const auto page = number(link, wordBytes());
            if (page == 0)
                break;
            // Links of files that only grow lead forward, and so never in circles.
            const auto next = page && *page > link ? takePage(*page) : std::nullopt;
            if (!next) {
                chain.brokenLinkAt = link;
                break;
            }
            link = *next;
        }
        return chain;
    }

private:
    unsigned wordBytes() const { return chain.isBig ? 8 : 4; }

    std::optional<std::uint64_t> number(std::uint64_t at, unsigned bytes) const
    {
        std::uint64_t value = 0;
        if (bytes > sizeof value || !read(at, &value, bytes))
            return std::nullopt;
        return value;
    }

    /// Where the link behind the page stands; nothing when the page is not whole.
    std::optional<std::uint64_t> takePage(std::uint64_t at)
    {
        const unsigned countBytes = chain.isBig ? 8 : 2;
        const unsigned entryBytes = chain.isBig ? 20 : 12;
        const auto entries = number(at, countBytes);
        if (!entries || *entries == 0 || *entries > MOST_ENTRIES)
            return std::nullopt;
        TiffPageInfo page;
        Entry strips;
        Entry sizes;
        for (std::uint64_t i = 0; i < *entries; ++i) {
            const std::uint64_t entryAt = at + countBytes + i * entryBytes;
            const auto tag = number(entryAt, 2);
            const auto entry = entryOf(entryAt);
            if (!tag || !entry)
                return std::nullopt;
            if (*tag == TAG_BITS)
                page.bits = static_cast<unsigned>(number(entry->at, 2).value_or(0));
            if (*tag == TAG_DESCRIPTION && !takeDescription(page, *entry))
                return std::nullopt;
            if (*tag == TAG_STRIPS)
                strips = *entry;
            if (*tag == TAG_STRIP_BYTES)
                sizes = *entry;
        }
        if (!hasAll(strips, sizes))
            return std::nullopt;
        const std::uint64_t link = at + countBytes + *entries * entryBytes;
        if (!number(link, wordBytes()))
            return std::nullopt;
        chain.pages.push_back(std::move(page));
        return link;
    }

    std::optional<Entry> entryOf(std::uint64_t at) const
    {
        const auto type = number(at + 2, 2);
        const auto count = number(at + 4, wordBytes());
        if (!type || !count || *count > MOST_VALUES)
            return std::nullopt;
        Entry entry{static_cast<std::uint16_t>(*type), *count, at + 4 + wordBytes()};
        if (entry.count * sizeOfType(entry.type) <= wordBytes())
            return entry; // the values stand in place of where they are
        const auto away = number(entry.at, wordBytes());
        if (!away)
            return std::nullopt;
        entry.at = *away;
        return entry;
    }

    bool takeDescription(TiffPageInfo& page, const Entry& entry) const
    {
        page.descriptionAt = entry.at;
        page.description.resize(entry.count);
        if (!read(entry.at, page.description.data(), entry.count))
            return false;
        page.description.resize(std::strlen(page.description.c_str()));
        return true;
    }

    bool hasAll(const Entry& strips, const Entry& sizes) const
    {
        if (strips.count == 0 || strips.count != sizes.count)
            return false;
        for (std::uint64_t i = 0; i < strips.count; ++i) {
            const auto at = number(strips.at + i * sizeOfType(strips.type), sizeOfType(strips.type));
            const auto size = number(sizes.at + i * sizeOfType(sizes.type), sizeOfType(sizes.type));
            char last = 0;
            if (!at || !size || *at == 0 || *size == 0 || !read(*at + *size - 1, &last, 1))
                return false;
        }
        return true;
    }

    const ReadAt& read;
    TiffChain chain;
};

} // namespace

TiffChain readTiffChain(const ReadAt& read)
{
    return Walk(read).follow();
}

} // namespace record
