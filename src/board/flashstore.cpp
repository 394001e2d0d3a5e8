// See flashstore.h.
#include "board/flashstore.h"

#include <algorithm>
#include <string_view>

namespace flashstore {

namespace {

using Bytes = std::span<const unsigned char>;

constexpr std::string_view MAGIC = "IBMD";
constexpr std::uint32_t VERSION = 1;

// Fields of the header.
constexpr std::size_t VERSION_OFFSET = 4;
constexpr std::size_t TOTAL_SIZE_OFFSET = 8;
constexpr std::size_t RECORD_SIZE_OFFSET = 12;

// Fields of a record.
constexpr std::size_t TYPE_OFFSET = NAME_SIZE;
constexpr std::size_t SIZE_OFFSET = TYPE_OFFSET + 1;
constexpr std::size_t VALUE_OFFSET = SIZE_OFFSET + 4;
constexpr std::size_t BIG_OFFSET_SIZE = 4;

std::uint32_t wordAt(Bytes bytes, std::size_t offset)
{
    return std::uint32_t{bytes[offset]} << 24 | std::uint32_t{bytes[offset + 1]} << 16 |
           std::uint32_t{bytes[offset + 2]} << 8 | bytes[offset + 3];
}

} // namespace

int parseHeader(Bytes bytes, Header& header)
{
    if (bytes.size() < HEADER_SIZE || !std::equal(MAGIC.begin(), MAGIC.end(), bytes.begin()))
        return BAD_MAGIC;
    if (wordAt(bytes, VERSION_OFFSET) != VERSION)
        return BAD_VERSION;
    header.storeSize = HEADER_SIZE + std::size_t{wordAt(bytes, TOTAL_SIZE_OFFSET)};
    header.recordSize = wordAt(bytes, RECORD_SIZE_OFFSET);
    header.recordsEnd = std::min(HEADER_SIZE + header.recordSize, header.storeSize);
    return header.storeSize <= MAX_STORE_SIZE ? 0 : STORE_IMPOSSIBLE;
}

Walk::Walk(Bytes storeBytes, const Header& header)
    : store(storeBytes),
      valueBytesLeft(storeBytes.size()),
      recordsEnd(std::min(header.recordsEnd, storeBytes.size())),
      bigValues(HEADER_SIZE + header.recordSize),
      position(std::min(HEADER_SIZE, recordsEnd))
{
}

bool Walk::next(Record& record)
{
    for (;;) {
        const Bytes rest = store.subspan(position, recordsEnd - position);
        if (rest.size() < VALUE_OFFSET)
            return false;
        const std::uint32_t size = wordAt(rest, SIZE_OFFSET);
        const bool big = size >= BIG_VALUE_SIZE;
        const std::size_t length = VALUE_OFFSET + (big ? BIG_OFFSET_SIZE : size);
        if (rest.size() < length)
            return false;
        const std::size_t place = big ? bigValues + wordAt(rest, VALUE_OFFSET) : position + VALUE_OFFSET;
        position += length;
        const unsigned char type = rest[TYPE_OFFSET];
        if (type >= DTYPE_UNKNOWN || place + size > store.size())
            continue;
        if (rest.front() == 0 || size > valueBytesLeft)
            continue;
        valueBytesLeft -= size;
        std::copy_n(rest.begin(), NAME_SIZE, record.name.begin());
        record.type = static_cast<_DataType>(type);
        record.value = store.subspan(place, size);
        return true;
    }
}

} // namespace flashstore
