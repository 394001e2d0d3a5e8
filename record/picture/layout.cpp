// Chips side by side.
#include "record/picture/layout.h"

#include <charconv>
#include <cstring>

namespace record {
namespace {

constexpr unsigned CHIP_SIDE = 256;
constexpr unsigned MOST_PLACES = 64;
constexpr std::uint32_t HIGHEST_SHORT_COUNT = 11810; // the counter's period; failed pixels hold one more
constexpr std::uint32_t HIGHEST_HALF_COUNT = 0xFFF;

std::uint32_t single(std::uint32_t word)
{
    return word;
}

std::uint32_t shortCount(std::uint32_t word)
{
    return word > HIGHEST_SHORT_COUNT ? Picture::BAD : word;
}

// A failed pixel has all bits set at first; the other counter's conversion may have changed its own bits since.
std::uint32_t lowCount(std::uint32_t word)
{
    return word == 0xFFFFFFFF ? Picture::BAD : word & HIGHEST_HALF_COUNT;
}

std::uint32_t highCount(std::uint32_t word)
{
    return word >> 16 > HIGHEST_HALF_COUNT ? Picture::BAD : word >> 16;
}

std::optional<unsigned> positive(const char* begin, const char* end)
{
    unsigned value = 0;
    const auto [rest, error] = std::from_chars(begin, end, value);
    if (error != std::errc{} || rest != end || value == 0 || value > MOST_PLACES)
        return std::nullopt;
    return value;
}

} // namespace

std::optional<Layout> Layout::parse(const std::string& text)
{
    const std::size_t cross = text.find('x');
    if (cross == std::string::npos)
        return std::nullopt;
    const auto columns = positive(text.data(), text.data() + cross);
    const auto rows = positive(text.data() + cross + 1, text.data() + text.size());
    if (!columns || !rows || *columns * *rows > MOST_PLACES)
        return std::nullopt;
    return Layout{*columns, *rows};
}

PictureMaker::PictureMaker(unsigned chipCount, Layout chipLayout, Counting howCounted)
    : chips(chipCount),
      layout(chipLayout),
      counting(howCounted)
{
}

unsigned PictureMaker::width() const
{
    return layout.columns * CHIP_SIDE;
}

unsigned PictureMaker::height() const
{
    return layout.rows * CHIP_SIDE;
}

std::vector<Picture> PictureMaker::make(const refhost::Frame& frame) const
{
    const auto bytes = frame.bytes();
    const auto type = counting == Counting::Short ? refhost::DataType::UInt16 : refhost::DataType::UInt32;
    const bool sameWidth = refhost::sizeOf(frame.type()) == refhost::sizeOf(type);
    std::vector<Picture> pictures;
    if (!sameWidth || bytes.size() != std::size_t{chips} * CHIP_SIDE * CHIP_SIDE * refhost::sizeOf(type))
        return pictures;
    switch (counting) {
    case Counting::Single:
        pictures.push_back(lay<std::uint32_t>(bytes, single));
        break;
    case Counting::Short:
        pictures.push_back(lay<std::uint16_t>(bytes, shortCount));
        break;
    case Counting::Double:
        pictures.push_back(lay<std::uint32_t>(bytes, lowCount));
        pictures.push_back(lay<std::uint32_t>(bytes, highCount));
        break;
    }
    return pictures;
}

template <typename Item, typename Count>
Picture PictureMaker::lay(std::span<const unsigned char> bytes, Count count) const
{
    Picture picture{width(), height(), std::vector<std::uint32_t>(std::size_t{width()} * height())};
    const unsigned char* from = bytes.data();
    for (unsigned chip = 0; chip < chips && chip < layout.places(); ++chip) {
        const std::size_t left = std::size_t{chip % layout.columns} * CHIP_SIDE;
        const std::size_t top = std::size_t{chip / layout.columns} * CHIP_SIDE;
        for (std::size_t y = 0; y < CHIP_SIDE; ++y) {
            std::uint32_t* to = picture.pixels.data() + (top + y) * picture.width + left;
            for (std::size_t x = 0; x < CHIP_SIDE; ++x, from += sizeof(Item)) {
                Item item;
                std::memcpy(&item, from, sizeof item);
                to[x] = count(item);
            }
        }
    }
    return picture;
}

} // namespace record
