// A frame for the host from a device's last matrix.
#pragma once

#include "host/datatype.h"
#include "host/idorvet.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace HwLatixel {

inline constexpr unsigned CHIP_SIDE = 256; ///< pixels of a chip in a row and in a column

/// Makes a frame of `chips` chips side by side with pixels of `dataType`, and lets `read(frame)` fill it. Null, with
/// the frame given back, where that returns anything but 0; given back as well where it throws.
template <typename Read>
dv::IMpxFrame* filledFrame(IDorvet& dorvet, int chips, int dataType, Read read)
{
    const unsigned width = static_cast<unsigned>(chips) * CHIP_SIDE;
    constexpr auto giveBack = [](dv::IMpxFrame* unread) { unread->destroy(); };
    std::unique_ptr<dv::IMpxFrame, decltype(giveBack)> frame(
        dorvet.frameFactory()->createFrame(width, CHIP_SIDE, dataType));
    return frame != nullptr && read(*frame) == 0 ? frame.release() : nullptr;
}

/// The same with `read(pixels, count)` on the frame's acquired data.
template <typename Pixel, typename Read>
dv::IMpxFrame* frameOf(IDorvet& dorvet, int chips, int dataType, Read read)
{
    return filledFrame(dorvet, chips, dataType, [&](dv::IMpxFrame& frame) {
        dv::RefDataBuff<Pixel> pixels;
        frame.acquireData(&pixels, 0.0);
        return read(pixels.data(), static_cast<std::size_t>(pixels.size()));
    });
}

/// Tells on a frame how many of its bytes have not come from the boards; on a whole frame nothing.
inline void addMissingBytes(dv::IMpxFrame& frame, std::size_t bytes)
{
    constexpr const char* NAME = "MissingBytes";
    const auto count = static_cast<std::uint32_t>(bytes);
    if (count != 0)
        frame.addMetaData(NAME, NAME, DTYPE_U32, &count, sizeof(count));
}

} // namespace HwLatixel
