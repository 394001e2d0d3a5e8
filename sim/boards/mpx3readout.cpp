// What a Medipix3 board sends for a readout.
#include "sim/boards/mpx3readout.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint8_t FIRST_HEADER = 0xA1;
constexpr std::uint8_t FIRST_PAD = 0xE0;

std::size_t headerBytes(std::size_t chainLength, std::size_t position)
{
    return chainLength == 1 ? 3 : 4 + position;
}

} // namespace

std::optional<ReadoutOrder> ReadoutOrder::fromWord(std::uint32_t word)
{
    constexpr std::uint32_t BOTH = 3;
    const std::uint32_t selection = word >> 24U;
    if (selection == 2 || selection > BOTH)
        return std::nullopt;
    return ReadoutOrder{.first = selection != 1, .second = selection != 0, .bits = word & 0xFFFFFF};
}

Packet endPacket(std::uint64_t frame, std::uint64_t length)
{
    Packet packet = {0x55, 0x05, static_cast<std::uint8_t>(frame), 0, 0, 0, 0, 0, 0xAA};
    for (std::size_t i = 0; i < 5; ++i)
        packet[3 + i] = static_cast<std::uint8_t>(length >> 8 * (4 - i));
    return packet;
}

const Bytes& Mpx3Readout::read(std::span<const Source> sources, unsigned counter, std::size_t chainLength,
                               const ReadoutShape& shape, std::uint32_t bits)
{
    constexpr std::uint64_t NO_CHIP = 0;
    Block& block = blocks.at(counter);
    std::vector<std::uint64_t> made = {bits, chainLength, shape.rows, shape.columns, shape.firstColumn, shape.planes};
    std::vector<std::vector<Part>> parts(chainLength);
    for (std::size_t position = 0; position < chainLength; ++position)
        for (const Source& source : sources) {
            const ChipStream* const stream = source.chain->read(position, counter, shape);
            made.push_back(reinterpret_cast<std::uintptr_t>(source.chain)); // versions count for each chip apart
            made.push_back(source.enabled ? 1 : 0);
            if (!source.enabled)
                continue;
            parts[position].push_back({stream, source.chain->restingByte()});
            made.push_back(stream != nullptr ? stream->version << 8U | 1U : NO_CHIP);
            made.push_back(source.chain->restingByte());
        }
    if (made == block.made)
        return block.bytes;
    block.made = std::move(made);
    block.bytes.clear();
    for (std::size_t position = 0; position < chainLength; ++position)
        interleave(parts[position], headerBytes(chainLength, position), bits / 8, block.bytes);
    return block.bytes;
}

/// Appends `size` bytes of each channel.
void Mpx3Readout::interleave(std::span<const Part> parts, std::size_t header, std::size_t size, Bytes& out)
{
    const std::size_t start = out.size();
    const std::size_t stride = parts.size();
    out.resize(start + stride * size);
    for (std::size_t c = 0; c < stride; ++c) {
        const Part& part = parts[c];
        std::uint8_t* to = out.data() + start + c;
        if (part.stream == nullptr) {
            for (std::size_t k = 0; k < size; ++k, to += stride)
                *to = part.resting;
            continue;
        }
        const Bytes& pixels = part.stream->bytes;
        std::size_t k = 0;
        for (; k < std::min(header, size); ++k, to += stride)
            *to = static_cast<std::uint8_t>(FIRST_HEADER + k);
        for (; k < std::min(header + pixels.size(), size); ++k, to += stride)
            *to = pixels[k - header];
        for (std::size_t pad = 0; k < size; ++k, ++pad, to += stride)
            *to = static_cast<std::uint8_t>(FIRST_PAD + pad % 16);
    }
}

} // namespace sim
