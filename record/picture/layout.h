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

/// Turns frames, in which the chips' blocks of 256 times 256 pixels lie one after another, into pictures: two for
/// each frame, low counter first, where frames hold two counters, else one.
class PictureMaker {
public:
    PictureMaker(unsigned chips, Layout layout, Counting counting);

    unsigned width() const;
    unsigned height() const;
    unsigned picturesPerFrame() const { return counting == Counting::Double ? 2 : 1; }
    /// Empty when the frame has another size or type of pixel than this maker is for.
    std::vector<Picture> make(const refhost::Frame& frame) const;

private:
    template <typename Item, typename Count>
    Picture lay(std::span<const unsigned char> bytes, Count count) const;

    const unsigned chips;
    const Layout layout;
    const Counting counting;
};

} // namespace record
