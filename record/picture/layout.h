// How the chips of a frame are laid side by side in a picture.
#pragma once

#include "refhost/frame.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace record {

/// A picture of counts, row by row from the top. Every device's counts fit, and so does the mark of a bad pixel.
struct Picture {
    /// A pixel whose counter held no valid count.
    static constexpr std::uint32_t BAD = 0xFFFFFFFF;

    unsigned width = 0;
    unsigned height = 0;
    std::vector<std::uint32_t> pixels;
};

/// A grid of chips, filled row by row from the top left. Places without a chip hold 0.
struct Layout {
    unsigned columns = 1;
    unsigned rows = 1;

    /// One row of chips: what a picture shows unless another layout is asked for.
    static Layout sideBySide(unsigned chips) { return {chips, 1}; }
    /// Reads "COLUMNSxROWS", such as "2x2". Nothing if the text is something else, or beyond 64 places.
    static std::optional<Layout> parse(const std::string& text);

    unsigned places() const { return columns * rows; }
};

/// What the words of a frame mean.
enum class Counting {
    Single, ///< one count in 32 bits
    Double, ///< two counts of up to 12 bits: the low one in bits 0 to 11, the high one in bits 16 to 27
    Short,  ///< one count in 16 bits, at most 11810
};

/// How the counts of a picture lie in a file: little endian, each in as many bytes as its type has.
struct PixelType {
    unsigned bytes = 4;    ///< 2 or 4
    bool shuffled = false; ///< first all low bytes of the picture, then all next ones, and so on
};

/// A picture as it lies in a file. A bad pixel has all bits set; a count that is too high for the type has so too.
using PixelBytes = std::vector<unsigned char>;

/// Pixels of a frame that tell something of it as a whole. Bad ones count as neither.
struct PixelTally {
    std::uint64_t zero = 0;
    std::uint64_t saturated = 0; ///< at the highest count that their counter has
};

/// Turns frames, in which the chips' blocks of 256 times 256 pixels lie one after another, into pictures: two for
/// each frame, low counter first, where frames hold two counters, else one.
class PictureMaker {
public:
    /// `highestCount` is that of the counters; 0 where nothing is to be taken as saturated.
    PictureMaker(unsigned chips, Layout layout, Counting counting, std::uint32_t highestCount = 0);

    unsigned width() const;
    unsigned height() const;
    unsigned picturesPerFrame() const { return counting == Counting::Double ? 2 : 1; }
    /// Empty when the frame has another size or type of pixel than this maker is for.
    std::vector<Picture> make(const refhost::Frame& frame) const;
    /// The same as bytes for a file, laid out and narrowed in one pass that counts pixels on its way.
    std::vector<PixelBytes> pack(const refhost::Frame& frame, PixelType type, PixelTally& tally) const;
    /// Of all of a frame's pictures; what `pack` counts while it is at it.
    PixelTally tally(const std::vector<Picture>& pictures) const;
    /// Whether a frame with that tally holds nothing but zeros.
    bool isAllZero(const PixelTally& tally) const;
    /// The share of its pixels that are saturated.
    double saturatedShare(const PixelTally& tally) const;

private:
    std::uint64_t pixels() const;
    bool fits(const refhost::Frame& frame) const;
    /// Calls `take` with a function that tells the count in an item of the frame, for each picture.
    template <typename Take>
    void eachPicture(Take take) const;
    /// Calls `row` with the first item of each row of each chip and the number of the pixel that it belongs to.
    template <typename Item, typename Row>
    void eachRow(std::span<const unsigned char> bytes, Row row) const;
    template <typename Item, typename Count>
    Picture lay(std::span<const unsigned char> bytes, Count count) const;
    template <unsigned BYTES, typename Item, typename Count>
    PixelBytes packOne(std::span<const unsigned char> bytes, Count count, bool shuffled, PixelTally& tally) const;

    const unsigned chips;
    const Layout layout;
    const Counting counting;
    const std::uint32_t highestCount;
};

} // namespace record
