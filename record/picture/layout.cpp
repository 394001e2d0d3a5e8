// Chips side by side.
#include "record/picture/layout.h"

#include <algorithm>
#include <array>
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

bool isSaturated(std::uint32_t count, std::uint32_t highest)
{
    return highest != 0 && count >= highest && count != Picture::BAD;
}

template <typename Item>
Item itemAt(const unsigned char* from, std::size_t index)
{
    Item item;
    std::memcpy(&item, from + index * sizeof item, sizeof item);
    return item;
}

/// One byte of each count, `step` bytes apart.
void storeByte(unsigned char* to, std::size_t step, const std::array<std::uint32_t, CHIP_SIDE>& counts, unsigned shift)
{
    if (step == 1) // a loop of its own, which the compiler makes vectors of
        for (std::size_t x = 0; x < CHIP_SIDE; ++x)
            to[x] = static_cast<unsigned char>(counts[x] >> shift);
    else
        for (std::size_t x = 0; x < CHIP_SIDE; ++x)
            to[x * step] = static_cast<unsigned char>(counts[x] >> shift);
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

PictureMaker::PictureMaker(unsigned chipCount, Layout chipLayout, Counting howCounted, std::uint32_t highest)
    : chips(chipCount),
      layout(chipLayout),
      counting(howCounted),
      highestCount(highest)
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

bool PictureMaker::fits(const refhost::Frame& frame) const
{
    const auto type = counting == Counting::Short ? refhost::DataType::UInt16 : refhost::DataType::UInt32;
    return refhost::sizeOf(frame.type()) == refhost::sizeOf(type) &&
           frame.bytes().size() == std::size_t{chips} * CHIP_SIDE * CHIP_SIDE * refhost::sizeOf(type);
}

template <typename Take>
void PictureMaker::eachPicture(Take take) const
{
    switch (counting) {
    case Counting::Single:
        take(std::uint32_t{}, single);
        break;
    case Counting::Short:
        take(std::uint16_t{}, shortCount);
        break;
    case Counting::Double:
        take(std::uint32_t{}, lowCount);
        take(std::uint32_t{}, highCount);
        break;
    }
}

std::vector<Picture> PictureMaker::make(const refhost::Frame& frame) const
{
    std::vector<Picture> pictures;
    if (fits(frame))
        eachPicture([&](auto item, auto count) { pictures.push_back(lay<decltype(item)>(frame.bytes(), count)); });
    return pictures;
}

std::vector<PixelBytes> PictureMaker::pack(const refhost::Frame& frame, PixelType type, PixelTally& tally) const
{
    std::vector<PixelBytes> packed;
    if (!fits(frame))
        return packed;
    eachPicture([&](auto item, auto count) {
        using Item = decltype(item);
        packed.push_back(type.bytes == 2 ? packOne<2, Item>(frame.bytes(), count, type.shuffled, tally)
                                         : packOne<4, Item>(frame.bytes(), count, type.shuffled, tally));
    });
    return packed;
}

PixelTally PictureMaker::tally(const std::vector<Picture>& pictures) const
{
    PixelTally found;
    for (const Picture& picture : pictures)
        for (const std::uint32_t count : picture.pixels) {
            found.zero += count == 0 ? 1 : 0;
            found.saturated += isSaturated(count, highestCount) ? 1 : 0;
        }
    const std::size_t padding = (std::size_t{layout.places()} - chips) * CHIP_SIDE * CHIP_SIDE;
    found.zero -= std::min<std::uint64_t>(found.zero, padding * pictures.size());
    return found;
}

std::uint64_t PictureMaker::pixels() const
{
    return std::uint64_t{chips} * CHIP_SIDE * CHIP_SIDE * picturesPerFrame();
}

bool PictureMaker::isAllZero(const PixelTally& tally) const
{
    return tally.zero == pixels();
}

double PictureMaker::saturatedShare(const PixelTally& tally) const
{
    return static_cast<double>(tally.saturated) / static_cast<double>(std::max<std::uint64_t>(pixels(), 1));
}

template <typename Item, typename Row>
void PictureMaker::eachRow(std::span<const unsigned char> bytes, Row row) const
{
    const unsigned char* from = bytes.data();
    for (unsigned chip = 0; chip < chips && chip < layout.places(); ++chip) {
        const std::size_t left = std::size_t{chip % layout.columns} * CHIP_SIDE;
        const std::size_t top = std::size_t{chip / layout.columns} * CHIP_SIDE;
        for (std::size_t y = 0; y < CHIP_SIDE; ++y, from += CHIP_SIDE * sizeof(Item))
            row(from, (top + y) * width() + left);
    }
}

template <typename Item, typename Count>
Picture PictureMaker::lay(std::span<const unsigned char> bytes, Count count) const
{
    Picture picture{width(), height(), std::vector<std::uint32_t>(std::size_t{width()} * height())};
    eachRow<Item>(bytes, [&](const unsigned char* from, std::size_t pixel) {
        for (std::size_t x = 0; x < CHIP_SIDE; ++x)
            picture.pixels[pixel + x] = count(itemAt<Item>(from, x));
    });
    return picture;
}

template <unsigned BYTES, typename Item, typename Count>
PixelBytes PictureMaker::packOne(std::span<const unsigned char> bytes, Count count, bool shuffled,
                                 PixelTally& tally) const
{
    constexpr std::uint32_t HIGHEST = BYTES == 2 ? 0xFFFF : 0xFFFFFFFF;
    const std::size_t pixels = std::size_t{width()} * height();
    PixelBytes packed(pixels * BYTES);
    // A byte of a pixel lies behind the one before it, or a whole picture of them further on.
    const std::size_t pixelStep = shuffled ? 1 : BYTES;
    const std::size_t byteStep = shuffled ? pixels : 1;
    eachRow<Item>(bytes, [&](const unsigned char* from, std::size_t pixel) {
        std::array<std::uint32_t, CHIP_SIDE> counts;
        std::uint32_t zero = 0;
        std::uint32_t saturated = 0;
        for (std::size_t x = 0; x < CHIP_SIDE; ++x) {
            const std::uint32_t value = count(itemAt<Item>(from, x));
            zero += value == 0 ? 1u : 0u;
            saturated += isSaturated(value, highestCount) ? 1u : 0u;
            counts[x] = std::min(value, HIGHEST);
        }
        for (unsigned byte = 0; byte < BYTES; ++byte)
            storeByte(packed.data() + pixel * pixelStep + byte * byteStep, pixelStep, counts, 8 * byte);
        tally.zero += zero;
        tally.saturated += saturated;
    });
    return packed;
}

} // namespace record
