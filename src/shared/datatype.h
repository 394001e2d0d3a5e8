// Codes of the data types that parameters and files are made of, with their names and sizes.
#pragma once

#include <cstddef>
#include <iterator>

/// Indexes `typeNames` and, but for the last, `sizeofType`. The numbers stand in flash memories and at the host.
enum _DataType : int {
    DT_CHAR = 0,
    DT_BYTE = 1,
    DT_I16 = 2,
    DT_U16 = 3,
    DT_I32 = 4,
    DT_U32 = 5,
    DT_I64 = 6,
    DT_U64 = 7,
    DT_FLOAT = 8,
    DT_DOUBLE = 9,
    DT_BOOL = 10,
    DT_STRING = 11,
    DT_UNKNOWN = 12,
};

/// Name of each type; hosts compare the last one as it is spelled here.
inline constexpr const char* typeNames[] = {"char", "byte",  "i16",    "u16",  "i32",    "u32",   "i64",
                                            "u64",  "float", "double", "bool", "string", "uknown"};

/// Bytes of one item of each type; a string counts as its pointer. `DT_UNKNOWN` has no size.
inline constexpr std::size_t sizeofType[] = {1, 1, 2, 2, 4, 4, 8, 8, 4, 8, 4, 8};

static_assert(std::size(typeNames) == DT_UNKNOWN + 1 && std::size(sizeofType) == DT_UNKNOWN);
