// A frame for the host from a device's last matrix.
#pragma once

#include "host/idorvet.h"

#include <cstddef>

namespace HwLatixel {

/// Makes a frame of `chips` chips side by side with pixels of `dataType`, and lets `read(pixels, count)` fill it. Null,
/// with the frame given back, where that returns anything but 0.
template <typename Pixel, typename Read>
dv::IMpxFrame* frameOf(IDorvet& dorvet, int chips, int dataType, Read read)
{
    constexpr unsigned SIDE = 256;
    dv::IMpxFrame* frame = dorvet.frameFactory()->createFrame(static_cast<unsigned>(chips) * SIDE, SIDE, dataType);
    if (frame == nullptr)
        return nullptr;
    dv::RefDataBuff<Pixel> pixels;
    frame->acquireData(&pixels, 0.0);
    if (read(pixels.data(), static_cast<std::size_t>(pixels.size())) == 0)
        return frame;
    frame->destroy();
    return nullptr;
}

} // namespace HwLatixel
