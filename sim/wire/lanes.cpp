// Data lanes that a readout board takes together.
#include "sim/wire/lanes.h"

#include <algorithm>

namespace sim {

namespace {

/// Writes to every `stride`-th byte from `at` on, up to the end; moves `at` on.
void spread(std::span<const std::uint8_t> bytes, std::size_t stride, std::size_t& at, Bytes& out)
{
    const std::size_t room = at < out.size() ? (out.size() - at + stride - 1) / stride : 0;
    bytes = bytes.first(std::min(bytes.size(), room));
    if (stride == 1)
        std::ranges::copy(bytes, out.begin() + static_cast<std::ptrdiff_t>(at));
    else
        for (std::size_t i = 0; i < bytes.size(); ++i)
            out[at + i * stride] = bytes[i];
    at += bytes.size() * stride;
}

} // namespace

void interleave(std::span<const Lane> lanes, std::size_t size, Bytes& out)
{
    out.resize(size);
    for (std::size_t first = 0; first < lanes.size(); ++first) {
        const Lane& lane = lanes[first];
        std::size_t at = first;
        spread(lane.head, lanes.size(), at, out);
        for (const auto part : lane.body)
            spread(part, lanes.size(), at, out);
        for (; at < size; at += lanes.size())
            out[at] = lane.rest;
    }
}

} // namespace sim
