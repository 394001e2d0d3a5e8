// Layout of the parameter store in a board's flash: a header, a list of named records, and the big values behind it.
// Everything read here comes from outside: sizes, offsets and type codes are checked before they are used.
#pragma once

#include "host/datatype.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// All integers in the store are big-endian, 32 bits.
namespace flashstore {

/// Bytes in front of the records: magic, version, size of all behind the header, size of the record list.
inline constexpr std::size_t HEADER_SIZE = 16;
/// An SPI flash is addressed with 24 bits: no store is bigger.
inline constexpr std::size_t MAX_STORE_SIZE = std::size_t{1} << 24;
/// Values from this number of bytes on lie behind the records, and their record holds the offset.
inline constexpr std::uint32_t BIG_VALUE_SIZE = 11;
/// Bytes of a name in a record, padded with zeros; a name of full length has none.
inline constexpr std::size_t NAME_SIZE = 25;

/// Results of `parseHeader`.
inline constexpr int STORE_IMPOSSIBLE = -1; ///< The store claims more than a flash can hold.
inline constexpr int BAD_MAGIC = -2;        ///< Blank or absent flash.
inline constexpr int BAD_VERSION = -3;

struct Header {
    std::size_t storeSize = 0;  ///< Bytes of the whole store, header included.
    std::size_t recordsEnd = 0; ///< Where the record list ends, inside the store.
    std::size_t recordSize = 0; ///< Bytes of the record list as the header has it.
};

/// Reads the header at the beginning of `bytes`. A record list that is longer than its store is cut to the store.
/// Returns 0 or one of the three results above.
int parseHeader(std::span<const unsigned char> bytes, Header& header);

/// One record with its value.
struct Record {
    std::array<char, NAME_SIZE + 1> name{}; ///< Terminated.
    _DataType type = DTYPE_UNKNOWN;
    std::span<const unsigned char> value; ///< Inside the store.

    /// Number of items that the value holds.
    std::size_t itemCount() const { return value.size() / sizeofType[type]; }
};

/// Walks the records of a store in memory. A record is passed over that has no name or an unknown type, whose value
/// lies outside the store, or whose value together with those before is more than the store holds: values that share
/// their bytes could ask the host for any amount of memory. A record that is cut by the list's end ends the walk.
class Walk {
public:
    /// `store` outlives the walk and has `header.storeSize` bytes.
    Walk(std::span<const unsigned char> store, const Header& header);

    /// Fills in the next good record; false at the end.
    bool next(Record& record);

private:
    std::span<const unsigned char> store;
    std::size_t valueBytesLeft; ///< Room in the store for the values to come.
    std::size_t recordsEnd;
    std::size_t bigValues; ///< Where the big values begin.
    std::size_t position;
};

} // namespace flashstore
